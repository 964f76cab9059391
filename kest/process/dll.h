#ifndef KEST_PROCESS_DLL_H
#define KEST_PROCESS_DLL_H

/// @file
/// TDLL: a library that is loaded while the program runs.

#include <kest/export.h>
#include <kest/interface/dll.h>

#include <string>

namespace Kest::System {

namespace _Template {

template <class THandle>
class TDLL;

/// The layer between the interface and the platform's class: it holds the loader's handle.
template <>
class KEST_EXPORT TDLL<void*> : public Interface::TDLL {
public:
    TDLL(const TDLL&) = delete;
    TDLL& operator=(const TDLL&) = delete;

protected:
    /// Holds @p handle, which the derived class got from the loader and gives back to it.
    explicit TDLL(void* handle) noexcept : Handle(handle) {}
    ~TDLL() override = default;

    void* Handle; ///< never null in a constructed object of the derived class
};

} // namespace _Template

/// A dynamic library, loaded by the constructor and unloaded by the destructor. The system counts: two objects for one library keep it
/// loaded until both are gone. Functions of the library are bound when they are first called, and its symbols are not offered to
/// libraries that are loaded later. Objects are neither copied nor moved.
///
/// Threads: any thread may construct objects, and threads may share one for GetSymbolAddress().
class KEST_EXPORT TDLL : public _Template::TDLL<void*> {
public:
    /// Loads the library @p name (UTF-8): a path, or a name that the system looks for in its own places; the empty name stands for the
    /// program itself. If that fails, ".so" is appended and it is tried once more, whatever the name ends in. A zero byte ends the name.
    /// @throw EException  the loader's text on the second attempt, alone.
    /// Waits: while the library's own start code runs, with cancellation off.
    explicit TDLL(const std::string& name);

    /// Unloads the library, and reports nothing.
    /// Requires: nobody uses an address that GetSymbolAddress() gave.
    /// Waits: while the library's own end code runs, with cancellation off.
    ~TDLL() override;

    /// The address of the symbol @p name, valid as long as this object lives. The system looks in the library first, and then in the
    /// libraries that it depends on: a name that the library itself does not have may still be found there. The name is passed as it is,
    /// and a zero byte ends it. Never throws.
    /// @return null when there is no symbol of that name, and for a symbol whose value is null: the two cannot be told apart.
    void* GetSymbolAddress(const std::string& name) override;
};

} // namespace Kest::System

#endif

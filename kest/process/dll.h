#ifndef KEST_PROCESS_DLL_H
#define KEST_PROCESS_DLL_H

/// @file
/// TDLL: a dynamic library that is loaded while the program runs.

#include <kest/export.h>
#include <kest/interface/dll.h>

#include <string>

namespace Kest::System {

namespace _Template {

template <class THandle>
class TDLL;

/// Stands between the interface and the platform's class, and holds the loader's handle.
template <>
class KEST_EXPORT TDLL<void*> : public Interface::TDLL {
public:
    TDLL(const TDLL&) = delete;
    TDLL& operator=(const TDLL&) = delete;

protected:
    /// Holds @p handle. The derived class got it from the loader, and gives it back.
    explicit TDLL(void* handle) noexcept : Handle(handle) {}
    ~TDLL() override = default;

    void* Handle; ///< never null in a constructed object of the derived class
};

} // namespace _Template

/// A dynamic library, loaded by the constructor and unloaded by the destructor. The system counts: two objects for one library keep it
/// loaded until both are gone. Functions of the library are bound when they are first called. Libraries that are loaded later do not see
/// its symbols. Objects are neither copied nor moved.
///
/// Waits: every operation waits while another thread loads or unloads a library. The start or end code of that library runs meanwhile: such
/// code must not wait for a thread that calls an operation of this class. A signal does not end the wait. No operation is a cancellation
/// point.
/// Threads: any thread may make objects, and several threads may share one object for GetSymbolAddress().
class KEST_EXPORT TDLL : public _Template::TDLL<void*> {
public:
    /// Loads the library @p name (UTF-8). A name with a slash is a path. The system looks for a name without one in its own places. The
    /// empty name stands for the program itself. If loading fails, ".so" is appended to the name, whatever the name ends in, and loading is
    /// tried once more. A zero byte ends the name.
    /// @throw EException  the loader's text on the second attempt, alone. No library stays loaded.
    /// Waits: also while the library's own start code runs, with cancellation off.
    explicit TDLL(const std::string& name);

    /// Unloads the library, if this is the last object for it. An error of unloading is not reported.
    /// Requires: nobody uses an address that GetSymbolAddress() gave, and no other thread uses the object.
    /// Waits: also while the library's own end code runs, with cancellation off.
    ~TDLL() override;

    /// The address of the symbol @p name, valid as long as this object lives. The system looks in the library first, and then in the
    /// libraries that it depends on: a name that the library itself does not have may be found there. The name is not converted, and a zero
    /// byte ends it. Never throws.
    /// @return null when there is no symbol of that name, and for a symbol whose value is null. The caller cannot tell the two apart.
    void* GetSymbolAddress(const std::string& name) override;
};

} // namespace Kest::System

#endif

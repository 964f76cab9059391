#ifndef KEST_INTERFACE_DLL_H
#define KEST_INTERFACE_DLL_H

/// @file
/// Interface::TDLL, the abstract class of System::TDLL.

#include <kest/export.h>

#include <string>

namespace Kest::System::Interface {

/// A loaded dynamic library; it stays loaded as long as the object lives. Threads may share the object until its destruction begins.
class KEST_EXPORT TDLL {
public:
    virtual ~TDLL() = default;

    /// The address of the symbol @p name, or null when it is not found or its value is null. Libraries that the library depends on may be
    /// looked in as well. The address is valid as long as the object lives. Never throws.
    virtual void* GetSymbolAddress(const std::string& name) = 0;

protected:
    TDLL() = default;
    TDLL(const TDLL&) = default;
    TDLL& operator=(const TDLL&) = default;
};

} // namespace Kest::System::Interface

#endif

#ifndef KEST_INTERFACE_DLL_H
#define KEST_INTERFACE_DLL_H

#include <kest/export.h>

#include <string>

namespace Kest::System::Interface {

/// A loaded dynamic library; it stays loaded as long as the object lives.
class KEST_EXPORT TDLL {
public:
    virtual ~TDLL() = default;

    /// The address of the symbol @p name, or null when the library has none of that name.
    virtual void* GetSymbolAddress(const std::string& name) = 0;

protected:
    TDLL() = default;
    TDLL(const TDLL&) = default;
    TDLL& operator=(const TDLL&) = default;
};

} // namespace Kest::System::Interface

#endif

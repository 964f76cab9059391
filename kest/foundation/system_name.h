// Internal header: used where a name that the system lends goes into an object of the library's own.
#ifndef KEST_FOUNDATION_SYSTEM_NAME_H
#define KEST_FOUNDATION_SYSTEM_NAME_H

#include <string>

namespace Kest::System {

/// Does what SystemToUTF8 does for a text that is no std::string, and saves the copy into one.
/// Requires: @p name is not null.
std::string _SystemNameToUTF8(const char* name);

} // namespace Kest::System

#endif

// Internal header: used where a name that the system lends goes into an object of the library's own.
#ifndef KEST_FOUNDATION_SYSTEM_NAME_H
#define KEST_FOUNDATION_SYSTEM_NAME_H

#include <string>

namespace Kest::System {

/// SystemToUTF8 of a text that is no string yet, without the copy that would make it one.
std::string _SystemNameToUTF8(const char* name);

} // namespace Kest::System

#endif

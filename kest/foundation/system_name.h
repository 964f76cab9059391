// Internal header: used where a name crosses the border to the system without a copy of its own.
#ifndef KEST_FOUNDATION_SYSTEM_NAME_H
#define KEST_FOUNDATION_SYSTEM_NAME_H

#include <string>

namespace Kest::System {

/// Does what SystemToUTF8 does for a text that is no std::string, and saves the copy into one.
/// Requires: @p name is not null.
std::string _SystemNameToUTF8(const char* name);

/// UTF8ToSystem for calls that do not outlive @p text: here the text itself. Where the encodings differ this gives a string, which a
/// reference keeps as well.
inline const std::string& _LendToSystem(const std::string& text) {
    return text;
}

} // namespace Kest::System

#endif

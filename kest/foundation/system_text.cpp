#include <kest/foundation/system_text.h>

#include <kest/foundation/system_name.h>

namespace Kest::System {

std::string UTF8ToSystem(const std::string& text) {
    return text;
}

std::string SystemToUTF8(const std::string& text) {
    return text;
}

std::string _SystemNameToUTF8(const char* name) {
    return name;
}

bool IsUTF8SystemRepresentable(const std::string& text) {
    return SystemToUTF8(UTF8ToSystem(text)) == text;
}

} // namespace Kest::System

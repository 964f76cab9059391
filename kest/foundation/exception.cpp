#include <kest/foundation/exception.h>

#include <kest/foundation/system_text.h>

#include <cerrno>
#include <cstring>

namespace Kest {

EException::EException(const std::string& text) noexcept : Message("Kest: " + text) {}

EException::~EException() = default;

namespace System {

std::string _GetLastErrorDescription() noexcept {
    const int code = errno;
    std::string description = SystemToUTF8(std::strerror(code));
    errno = code; // strerror sets it for a number that it does not know, and an allocation may
    return description;
}

} // namespace System
} // namespace Kest

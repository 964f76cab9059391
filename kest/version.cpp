#include <kest/version.h>

namespace Kest {

const char* GetVersion() noexcept {
    return KEST_VERSION_TEXT;
}

} // namespace Kest

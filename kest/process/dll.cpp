#include <kest/process/dll.h>

#include <kest/foundation/cancellation.h>
#include <kest/foundation/failure.h>
#include <kest/foundation/system_text.h>

#include <dlfcn.h>

namespace Kest::System {

namespace {

/// The text of the loader's last failure in this thread. Asking for it clears it.
std::string LoaderText() noexcept {
    const char* text = ::dlerror();
    return SystemToUTF8(text == nullptr ? "" : text);
}

void* Load(const std::string& name) {
    const TCancellationOff off; // cut off in a library's start code, the loader would keep its lock
    std::string systemName = UTF8ToSystem(name);
    void* handle = ::dlopen(systemName.c_str(), RTLD_LAZY);
    if (handle == nullptr) {
        systemName += ".so";
        handle = ::dlopen(systemName.c_str(), RTLD_LAZY);
    }
    if (handle == nullptr)
        _Throw(LoaderText());
    return handle;
}

} // namespace

TDLL::TDLL(const std::string& name) : _Template::TDLL<void*>(Load(name)) {}

TDLL::~TDLL() {
    const TCancellationOff off;
    (void)::dlclose(Handle); // releasing never reports
}

void* TDLL::GetSymbolAddress(const std::string& name) {
    return ::dlsym(Handle, name.c_str());
}

} // namespace Kest::System

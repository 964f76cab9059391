#include <kest/process/dll.h>

#include <kest/foundation/cancellation.h>
#include <kest/foundation/failure.h>
#include <kest/foundation/system_text.h>

#include <dlfcn.h>

namespace Kest::System {

namespace {

/// The text of the loader's last failure in this thread. dlerror forgets the text that it returns.
std::string LoaderText() noexcept {
    const char* text = ::dlerror();
    return SystemToUTF8(text == nullptr ? "" : text);
}

/// Loads the library @p name, at the second attempt with ".so" appended. Throws with the loader's text when both attempts fail.
void* Load(const std::string& name) {
    const TCancellationOff off; // a cancellation in a library's start code would leave the loader with its lock held
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
    (void)::dlclose(Handle); // no destructor reports an error of releasing
}

void* TDLL::GetSymbolAddress(const std::string& name) {
    return ::dlsym(Handle, name.c_str());
}

} // namespace Kest::System

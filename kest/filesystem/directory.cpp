#include <kest/filesystem/directory.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/system_name.h>
#include <kest/foundation/system_text.h>
#include <kest/foundation/unwinding.h>
#include <kest/threads/guard.h>

#include <cerrno>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace Kest::System {

TDirectory::TEntry::TEntry(std::string name) noexcept : Name(std::move(name)) {}

TDirectory::TEntry::~TEntry() = default;

const std::string& TDirectory::TEntry::GetName() const {
    return Name;
}

TDirectory::TDirectory(const std::string& path) : Stream(nullptr), ReadLock(false) {
    const std::string systemPath = UTF8ToSystem(path);
    Stream = ::opendir(systemPath.c_str());
    if (Stream == nullptr)
        _ThrowLastError("directory opening failed: ");
}

TDirectory::~TDirectory() {
    const TCancellationOff off;
    (void)::closedir(Stream); // no destructor reports an error of releasing
}

void TDirectory::Rewind() {
    const _TScopedEntry entry(ReadLock);
    Undelivered = nullptr;
    ::rewinddir(Stream);
}

TDirectory::TEntry TDirectory::Read() {
    const _TScopedEntry lock(ReadLock);
    if (Undelivered == nullptr) {
        errno = 0; // readdir returns null for both a failure and the end: only errno tells them apart
        Undelivered = ::readdir(Stream);
        if (Undelivered == nullptr) {
            if (errno != 0)
                _ThrowLastError("directory reading failed: ");
            _Throw<EEnd>("end of directory");
        }
    }
    TEntry entry(_SystemNameToUTF8(Undelivered->d_name));
    Undelivered = nullptr;
    return entry;
}

void TDirectory::Create(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    if (::mkdir(systemPath.c_str(), 0755) != 0)
        _ThrowLastError("unable to create directory: ");
}

void TDirectory::Remove(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    if (::rmdir(systemPath.c_str()) != 0)
        _ThrowLastError("unable to remove directory: ");
}

std::string TDirectory::GetCurrent() {
    char result[511];
    if (::getcwd(result, sizeof result) == nullptr)
        _ThrowLastError("unable to get current directory: ");
    return SystemToUTF8(result);
}

void TDirectory::Change(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    if (::chdir(systemPath.c_str()) != 0)
        _ThrowLastError("unable to set current directory to ", path, ": ");
}

} // namespace Kest::System

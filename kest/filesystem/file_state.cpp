#include <kest/filesystem/file_state.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>
#include <kest/foundation/system_text.h>

#include <cerrno>

#include <utime.h>

namespace Kest::System {

namespace {

/// Returns @p time in the whole seconds of the record. Throws the failure @p failure for a time that they cannot count.
time_t ToFileTime(double time, const char* failure) {
    if (!_Interval::IsCountable(time))
        _ThrowError(EOVERFLOW, failure);
    return static_cast<time_t>(time);
}

} // namespace

TFile::TState::TState(const std::string& path) : Path(UTF8ToSystem(path)), Status() {
    if (::stat(Path.c_str(), &Status) != 0)
        _ThrowLastError("getting file state failed: ");
}

TFile::TState::~TState() = default;

Interface::TFile::TType TFile::TState::GetType() const {
    switch (Status.st_mode & S_IFMT) {
    case S_IFREG:
        return Regular;
    case S_IFDIR:
        return Directory;
    case S_IFIFO:
        return Fifo;
    case S_IFCHR:
    case S_IFBLK:
        return Device;
    default:
        return Other;
    }
}

std::int64_t TFile::TState::GetSize() const {
    return Status.st_size;
}

double TFile::TState::GetLastChangeTime() const {
    return static_cast<double>(Status.st_ctime);
}

double TFile::TState::GetLastAccessTime() const {
    return static_cast<double>(Status.st_atime);
}

double TFile::TState::GetLastModificationTime() const {
    return static_cast<double>(Status.st_mtime);
}

void TFile::TState::SetLastModificationTime(double time) {
    const char* failure = "SetLastModificationTime failed: ";
    Status.st_mtime = ToFileTime(time, failure);
    StoreTimes(failure);
}

void TFile::TState::SetLastAccessTime(double time) {
    const char* failure = "SetLastAccessTime failed: ";
    Status.st_atime = ToFileTime(time, failure);
    StoreTimes(failure);
}

/// Sets both times of the file to those of the record.
void TFile::TState::StoreTimes(const char* failure) const {
    utimbuf times{};
    times.actime = Status.st_atime;
    times.modtime = Status.st_mtime;
    if (::utime(Path.c_str(), &times) != 0)
        _ThrowLastError(failure);
}

} // namespace Kest::System

#include <kest/filesystem/file.h>

#include <kest/filesystem/file_copy.h>
#include <kest/filesystem/file_move.h>
#include <kest/filesystem/file_state.h>
#include <kest/foundation/failure.h>
#include <kest/foundation/system_name.h>
#include <kest/foundation/system_text.h>
#include <kest/foundation/unwinding.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kest::System {

namespace {

/// Whether as many bytes were copied as the source had. Fewer bytes are the whole where the source still states the size that it stated
/// before: some files of the system hold less than they state.
bool IsWhole(const _TOpenFile& source, std::int64_t bytes) {
    struct stat now {};
    return bytes >= source.State.st_size ||
           (bytes >= 0 && ::fstat(source.Descriptor.Get(), &now) == 0 && now.st_size == source.State.st_size);
}

/// Copies the content of the source over that of the destination. The destination is emptied only when both files are open and are two
/// files. Returns false when the source could not be read or the destination could not be written whole.
KEST_LEFT_BY_CANCELLATION bool Overwrite(const _TOpenFile& source, const _TOpenFile& destination, _TCopyBuffer& buffer) {
    if (!source.IsOpen() || !destination.IsOpen() || _IsSameFile(source.State, destination.State))
        return false;
    const bool isToBeEmptied = S_ISREG(destination.State.st_mode) && destination.State.st_size > 0;
    if (isToBeEmptied && ::ftruncate(destination.Descriptor.Get(), 0) != 0)
        return false;
    return IsWhole(source, _CopyContent(source, destination.Descriptor, buffer));
}

/// The state of the source if a rename that succeeded left it, and nothing otherwise. The system does nothing, and reports success, when
/// source and destination are hard links of one file.
std::optional<struct stat> FindLeftHardLink(const std::string& source, const std::string& destination) {
    struct stat from {};
    if (::lstat(source.c_str(), &from) != 0)
        return std::nullopt;
    struct stat to {};
    if (::lstat(destination.c_str(), &to) != 0 || !_IsSameFile(from, to) || S_ISDIR(from.st_mode) || from.st_nlink < 2)
        return std::nullopt;
    return from;
}

} // namespace

std::string Interface::TFile::GetPathName(const std::string& path) {
    const std::string fullName = GetFullPathName(path);
    const std::size_t separator = fullName.find_last_of("/\\");
    if (separator == std::string::npos)
        return ".";
    return fullName.substr(0, separator);
}

void Interface::TFile::Remove(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    if (std::remove(systemPath.c_str()) != 0)
        _ThrowLastError("unable to remove file '", path, "': ");
}

void TFile::Copy(const std::string& source, const std::string& destination) {
    const TState state(source);
    const std::string systemDestination = UTF8ToSystem(destination);
    _TCopyBuffer buffer(state.Status); // made before the destination is touched: an allocation that fails leaves it as it was
    const _TOpenFile in = _OpenSource(AT_FDCWD, state.Path.c_str(), state.Status);
    const _TOpenFile out = in.IsOpen() ? _OpenDestination(systemDestination.c_str()) : _TOpenFile();
    if (!Overwrite(in, out, buffer))
        _Throw("file copy error: from ", source, " to ", destination);
    if (!_CopyTime(in.State, out.Descriptor))
        _ThrowLastError("SetLastModificationTime failed: ");
}

KEST_LEFT_BY_CANCELLATION void _RenameHelper(const std::string& source, const std::string& destination) {
    const std::string& systemSource = _LendToSystem(source);
    const std::string& systemDestination = _LendToSystem(destination);
    int error = ::rename(systemSource.c_str(), systemDestination.c_str()) == 0 ? 0 : errno;
    if (error == 0)
        if (const auto file = FindLeftHardLink(systemSource, systemDestination))
            error = _RemoveLeftHardLink(systemSource, systemDestination, *file);
    if (error == 0)
        return;
    if (error != EXDEV)
        _ThrowError(error, "rename failed: from '", source, "' to '", destination, "': ");
    const _TMoveEnd end = _MoveOverFileSystems(systemSource, systemDestination);
    if (end != _TMoveEnd::Done)
        _Throw("cross device link: tryed to copy and remove: ", end == _TMoveEnd::CopyFailed ? "copy" : "remove", " failed");
}

void TFile::Rename(const std::string& source, const std::string& destination) {
    constexpr int retries = 10;
    for (int attempt = 0;; ++attempt) {
        try {
            _RenameHelper(source, destination);
            return;
        } catch (const EException&) {
            if (attempt == retries)
                throw;
        }
    }
}

bool GetFileNameMatch(const std::string& name, const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
}

std::string GetFullPathName(const std::string& path) {
    const std::string systemPath = UTF8ToSystem(path);
    char result[4096] = {}; // PATH_MAX, the most that realpath writes
    if (::realpath(systemPath.c_str(), result) == nullptr)
        _Throw("realpath() failed");
    return SystemToUTF8(result);
}

} // namespace Kest::System

#include <kest/filesystem/file.h>

#include <kest/filesystem/file_state.h>
#include <kest/foundation/failure.h>
#include <kest/foundation/unwinding.h>
#include <kest/text/system_text.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kest::System {

namespace {

bool IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

/// A descriptor that is closed in the end. Closing is a cancellation point, which a destructor must not act on.
class TDescriptor {
public:
    /// Opens a file. A cancellation that arrives while the system opens one loses its descriptor, and emptying a large file takes its time,
    /// so cancellation is off for that; it stays on where opening may have to wait for somebody else.
    KEST_LEFT_BY_CANCELLATION TDescriptor(const std::string& path, int flags, bool mayWait) : Descriptor(Open(path, flags, mayWait)) {}
    TDescriptor(const TDescriptor&) = delete;
    TDescriptor& operator=(const TDescriptor&) = delete;
    ~TDescriptor() { (void)Close(); }

    /// False when the system reports an error, which may be one of writing that it kept until now.
    bool Close() {
        const _TCancellationOff off;
        const int descriptor = std::exchange(Descriptor, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }

    bool IsOpen() const { return Descriptor >= 0; }
    int Get() const { return Descriptor; }

private:
    KEST_LEFT_BY_CANCELLATION static int Open(const std::string& path, int flags, bool mayWait) {
        if (mayWait)
            return ::open(path.c_str(), flags, 0666);
        const _TCancellationOff off;
        return ::open(path.c_str(), flags, 0666);
    }

    int Descriptor;
};

/// Lets the kernel move the next @p size bytes from file to file, or somewhat more, until it refuses or there are none. Whatever stopped
/// it: both files stand behind what it moved, and reading goes on from there to the true end.
KEST_LEFT_BY_CANCELLATION void MoveInKernel(const TDescriptor& in, const TDescriptor& out, std::int64_t size) {
    constexpr std::size_t most = 1 << 26; // a cancellation is acted on between two calls
    while (size > 0) {
        const ssize_t moved = ::copy_file_range(in.Get(), nullptr, out.Get(), nullptr, most, 0);
        if (moved == 0 || (moved < 0 && errno != EINTR))
            return;
        size -= std::max<ssize_t>(moved, 0);
    }
}

/// Reads and writes everything that is left of @p in; true when all of it went out.
KEST_LEFT_BY_CANCELLATION bool MoveRest(const TDescriptor& in, const TDescriptor& out, char* buffer, std::size_t size) {
    for (;;) {
        const ssize_t count = ::read(in.Get(), buffer, size);
        if (count == 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
        for (ssize_t done = 0; done < count;) {
            const ssize_t written = ::write(out.Get(), buffer + done, static_cast<std::size_t>(count - done));
            if (written == 0 || (written < 0 && errno != EINTR))
                return false;
            done += std::max<ssize_t>(written, 0);
        }
    }
}

/// The destination of a move over file systems, removed again unless the move came to its end.
class TUnfinishedDestination {
public:
    TUnfinishedDestination(const std::string& from, const std::string& to) : From(UTF8ToSystem(from)), To(UTF8ToSystem(to)) {}
    TUnfinishedDestination(const TUnfinishedDestination&) = delete;
    TUnfinishedDestination& operator=(const TUnfinishedDestination&) = delete;
    ~TUnfinishedDestination() {
        if (IsOpenedForWriting && !IsFinished && !HasSourceVanished())
            (void)std::remove(To.c_str());
    }

    bool IsOpenedForWriting = false;
    bool IsCopied = false;
    bool IsFinished = false;

private:
    /// True when the copy is all that is left.
    bool HasSourceVanished() const {
        struct stat source {};
        return IsCopied && ::lstat(From.c_str(), &source) != 0 && errno == ENOENT;
    }

    const std::string From;
    const std::string To;
};

/// Whether a copy to @p to would write to something that has other names or none on a disk, instead of replacing what stands there as
/// renaming does: the target of a symbolic link, a file with further hard links, a pipe, a device. The source itself by another road does
/// not count, the copy refuses that.
bool LeadsElsewhere(const std::string& from, const std::string& to) {
    struct stat source {};
    struct stat target {};
    struct stat destination {};
    if (::lstat(from.c_str(), &source) != 0 || ::stat(from.c_str(), &target) != 0 || ::lstat(to.c_str(), &destination) != 0)
        return false;
    if (S_ISDIR(destination.st_mode) || IsSameFile(destination, source) || IsSameFile(destination, target))
        return false;
    return !S_ISREG(destination.st_mode) || destination.st_nlink >= 2;
}

/// Whether a copy can be expected to read @p from: not a directory, and permitted. Asked before a destination is given up for it.
bool IsReadable(const std::string& from) {
    struct stat source {};
    return ::stat(from.c_str(), &source) == 0 && !S_ISDIR(source.st_mode) && ::faccessat(AT_FDCWD, from.c_str(), R_OK, AT_EACCESS) == 0;
}

/// Folder and last component of a path in the system's encoding; separators at its end do not count.
std::pair<std::string, std::string_view> SplitEntry(std::string_view path) {
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    const std::size_t separator = path.rfind('/');
    if (separator == std::string_view::npos)
        return {".", path};
    return {std::string(path.substr(0, separator + 1)), path.substr(separator + 1)};
}

/// Whether two paths, which end at their first zero byte, are names of one directory entry: one folder by device and inode, and one name
/// in it.
bool IsSameEntry(const char* left, const char* right) {
    const auto [leftFolder, leftName] = SplitEntry(left);
    const auto [rightFolder, rightName] = SplitEntry(right);
    struct stat leftState {};
    struct stat rightState {};
    if (::stat(leftFolder.c_str(), &leftState) != 0 || ::stat(rightFolder.c_str(), &rightState) != 0)
        return true; // not to be told: nothing is removed
    return leftName == rightName && IsSameFile(leftState, rightState);
}

/// After a rename that succeeded: true when the source is still there because it and the destination are two hard links of one file, for
/// which the system does nothing.
bool IsLeftHardLink(const std::string& from, const std::string& to) {
    struct stat source {};
    struct stat destination {};
    return ::lstat(from.c_str(), &source) == 0 && ::lstat(to.c_str(), &destination) == 0 && IsSameFile(source, destination) &&
           !S_ISDIR(source.st_mode) && source.st_nlink >= 2 && !IsSameEntry(from.c_str(), to.c_str());
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

void TFile::Copy(const std::string& from, const std::string& to) {
    bool isOpenedForWriting = false;
    (void)Copy(from, to, isOpenedForWriting);
}

/// Tells, also when it throws, whether the destination was opened, and so created or truncated. False when closing it failed.
bool TFile::Copy(const std::string& from, const std::string& to, bool& isOpenedForWriting) {
    constexpr std::int64_t smallestLargeFile = 1 << 14;
    const TState source(from);
    const std::string systemTo = UTF8ToSystem(to);
    const bool isRegular = S_ISREG(source.Status.st_mode);
    // Made before the destination is touched: an allocation that fails leaves it as it was.
    const bool isSmall = isRegular && source.Status.st_size < smallestLargeFile;
    char few[4096];
    constexpr std::size_t many = 1U << 17U;
    const std::unique_ptr<char[]> large(isSmall ? nullptr : new char[many]);
    char* const buffer = isSmall ? few : large.get();
    const std::size_t size = isSmall ? sizeof few : many;
    bool isComplete = false;
    bool isClosed = false;
    {
        const TDescriptor in(source.Path, O_RDONLY, !isRegular);
        struct stat old {};
        const bool isThere = ::stat(systemTo.c_str(), &old) == 0;
        if (!isThere || !IsSameFile(source.Status, old)) {
            TDescriptor out(systemTo, O_WRONLY | O_CREAT | O_TRUNC, isThere && !S_ISREG(old.st_mode));
            isOpenedForWriting = out.IsOpen();
            if (in.IsOpen() && out.IsOpen()) {
                if (isRegular)
                    MoveInKernel(in, out, source.Status.st_size);
                isComplete = MoveRest(in, out, buffer, size);
            }
            isClosed = out.Close();
        }
    }
    if (!isComplete)
        _Throw("file copy error: from ", from, " to ", to);
    TState(to).SetLastModificationTime(source.GetLastModificationTime());
    return isClosed;
}

void _RenameHelper(const std::string& from, const std::string& to) {
    const std::string systemFrom = UTF8ToSystem(from);
    const std::string systemTo = UTF8ToSystem(to);
    bool isRenamed = ::rename(systemFrom.c_str(), systemTo.c_str()) == 0;
    if (isRenamed && IsLeftHardLink(systemFrom, systemTo))
        isRenamed = ::unlink(systemFrom.c_str()) == 0;
    if (isRenamed)
        return;
    if (errno != EXDEV)
        _ThrowLastError("rename failed: from '", from, "' to '", to, "': ");

    TUnfinishedDestination destination(from, to);
    try {
        if (!IsReadable(systemFrom))
            _Throw("not to be copied");
        if (LeadsElsewhere(systemFrom, systemTo))
            TFile::Remove(to);
        if (!TFile::Copy(from, to, destination.IsOpenedForWriting))
            _Throw("not written out");
        destination.IsCopied = true;
        TFile::Remove(from);
        destination.IsFinished = true;
    } catch (const EException&) {
        _Throw("cross device link: tryed to copy and remove: ", destination.IsCopied ? "remove" : "copy", " failed");
    }
}

void TFile::Rename(const std::string& from, const std::string& to) {
    constexpr int retries = 10;
    for (int attempt = 0;; ++attempt) {
        try {
            _RenameHelper(from, to);
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

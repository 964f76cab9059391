#include <kest/filesystem/file_copy.h>

#include <kest/foundation/unwinding.h>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <time.h>

namespace Kest::System {

namespace {

constexpr int AlwaysFlags = O_CLOEXEC | O_NOCTTY; ///< a terminal that is copied from or to does not become that of the process

/// Opens in one call with cancellation off. The call must not wait, hence O_NONBLOCK.
int OpenAtOnce(int folder, const char* path, int flags) {
    const TCancellationOff off;
    return ::openat(folder, path, flags | O_NONBLOCK | AlwaysFlags, 0666);
}

/// Opens without waiting, except for the end of another process's lease. A signal ends that wait: nanosleep fails, and so does the opening.
KEST_LEFT_BY_CANCELLATION int OpenWithoutWaiting(int folder, const char* path, int flags) {
    const timespec pause{0, 5000000};
    for (;;) {
        const int descriptor = OpenAtOnce(folder, path, flags);
        if (descriptor >= 0 || errno != EWOULDBLOCK || ::nanosleep(&pause, nullptr) != 0)
            return descriptor;
    }
}

/// Opens a pipe or a device, which may make its user wait until somebody opens the other end.
KEST_LEFT_BY_CANCELLATION int OpenAndWait(int folder, const char* path, int flags) {
    const _TCancellationOffInCall off;
    return ::openat(folder, path, flags | AlwaysFlags, 0666);
}

/// Reads the state of the open file into @p file. Returns false when the system refuses.
bool ReadState(_TOpenFile& file) {
    return ::fstat(file.Descriptor.Get(), &file.State) == 0;
}

/// Lets the kernel copy about @p size bytes from @p in to @p out. It stops earlier when the kernel refuses or finds no more bytes. Both
/// files stand behind the last byte that the kernel copied, so that the caller can read and write from there to the true end.
/// @return the number of bytes, which may be somewhat more than @p size.
KEST_LEFT_BY_CANCELLATION std::int64_t MoveInKernel(int in, int out, std::int64_t size) {
    constexpr std::size_t most = 1 << 26; // of one call, since a cancellation may be acted on only between two calls
    std::int64_t sum = 0;
    while (sum < size) {
        const _TCancellationOffInCall off;
        const ssize_t moved = ::copy_file_range(in, nullptr, out, nullptr, most, 0);
        if (moved == 0 || (moved < 0 && errno != EINTR))
            break;
        sum += std::max<ssize_t>(moved, 0);
    }
    return sum;
}

/// Makes reading and writing wait from now on. Regular files are opened with O_NONBLOCK, and some that the system or a daemon provides then
/// answer EAGAIN. Returns false when reading and writing waited already, or when the system refuses.
bool BeginToWait(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && (flags & O_NONBLOCK) != 0 && ::fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

/// Writes @p size bytes. Returns whether all of them were written.
KEST_LEFT_BY_CANCELLATION bool WriteAll(int out, const char* bytes, ssize_t size) {
    for (ssize_t done = 0; done < size;) {
        const ssize_t written = ::write(out, bytes + done, static_cast<std::size_t>(size - done));
        if (written == 0 || (written < 0 && errno != EINTR && !(errno == EAGAIN && BeginToWait(out))))
            return false;
        done += std::max<ssize_t>(written, 0);
    }
    return true;
}

/// Copies the bytes of @p in, from where it stands to its end, by reading and writing.
/// @return the number of bytes, or -1 when reading or writing failed.
KEST_LEFT_BY_CANCELLATION std::int64_t MoveRest(int in, int out, char* buffer, std::size_t size) {
    for (std::int64_t sum = 0;;) {
        const ssize_t count = ::read(in, buffer, size);
        if (count == 0)
            return sum;
        if (count < 0 && errno != EINTR && !(errno == EAGAIN && BeginToWait(in)))
            return -1;
        if (!WriteAll(out, buffer, count))
            return -1;
        sum += std::max<ssize_t>(count, 0);
    }
}

} // namespace

KEST_LEFT_BY_CANCELLATION _TOpenFile _OpenSource(int folder, const char* path, const struct stat& looked) {
    const bool isRegular = S_ISREG(looked.st_mode);
    _TOpenFile in{_TDescriptor(isRegular ? OpenWithoutWaiting(folder, path, O_RDONLY) : OpenAndWait(folder, path, O_RDONLY)), {}};
    if (in.IsOpen() && (!ReadState(in) || S_ISDIR(in.State.st_mode) || S_ISREG(in.State.st_mode) != isRegular))
        (void)in.Descriptor.Close();
    return in;
}

KEST_LEFT_BY_CANCELLATION _TOpenFile _OpenDestination(const char* path) {
    const int flags = O_WRONLY | O_CREAT;
    int descriptor = OpenWithoutWaiting(AT_FDCWD, path, flags);
    if (descriptor < 0 && errno == ENXIO) // a pipe that nobody reads yet
        descriptor = OpenAndWait(AT_FDCWD, path, flags);
    _TOpenFile out{_TDescriptor(descriptor), {}};
    const auto isReady = [&out] {
        return ReadState(out) && (S_ISREG(out.State.st_mode) || ::fcntl(out.Descriptor.Get(), F_SETFL, 0) == 0);
    };
    if (out.IsOpen() && !isReady()) // without O_NONBLOCK, so that writing to a pipe or a device waits
        (void)out.Descriptor.Close();
    return out;
}

_TCopyBuffer::_TCopyBuffer(const struct stat& source) {
    constexpr std::int64_t smallestLargeFile = 1 << 14;
    if (!S_ISREG(source.st_mode) || source.st_size >= smallestLargeFile)
        Large.reset(new char[LargeSize]);
}

KEST_LEFT_BY_CANCELLATION std::int64_t _CopyContent(const _TOpenFile& in, const _TDescriptor& out, _TCopyBuffer& buffer) {
    const int source = in.Descriptor.Get();
    const std::int64_t inKernel = S_ISREG(in.State.st_mode) ? MoveInKernel(source, out.Get(), in.State.st_size) : 0;
    const std::int64_t rest = MoveRest(source, out.Get(), buffer.Get(), buffer.GetSize());
    return rest < 0 ? rest : inKernel + rest;
}

bool _CopyTime(const struct stat& source, const _TDescriptor& out) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = source.st_mtime;
    return ::futimens(out.Get(), times) == 0;
}

} // namespace Kest::System

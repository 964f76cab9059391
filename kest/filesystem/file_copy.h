// Internal header: used by TFile::Copy and by the move over file systems.
#ifndef KEST_FILESYSTEM_FILE_COPY_H
#define KEST_FILESYSTEM_FILE_COPY_H

#include <kest/filesystem/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include <sys/stat.h>

namespace Kest::System {

/// Whether both states are of one file.
inline bool _IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

/// A file that was opened, and its state right after that; or none, where opening failed.
struct _TOpenFile {
    bool IsOpen() const { return Descriptor.IsOpen(); }

    _TDescriptor Descriptor;
    struct stat State {};
};

/// Opens a file to read it. @p looked is the state of the file that stood at the name just before.
///
/// A regular file is opened without waiting and with cancellation off, since a cancellation inside the call would lose the descriptor.
/// While another process holds a lease on the file, opening is tried again and again, and a cancellation is acted on between two tries.
/// Opening anything else may have to wait for somebody, and happens with cancellation on.
/// @return no descriptor when the file cannot be opened, is a directory, or is a regular file where @p looked is none, or the reverse.
_TOpenFile _OpenSource(int folder, const char* path, const struct stat& looked);

/// Opens a file to write it. Makes the file where there is none, and empties nothing. Waits as _OpenSource() does.
_TOpenFile _OpenDestination(const char* path);

/// The memory that bytes pass through where the kernel does not move them. It is made before a destination is touched, so that an
/// allocation that fails leaves the destination as it was.
class _TCopyBuffer {
public:
    explicit _TCopyBuffer(const struct stat& source);
    char* Get() { return Large ? Large.get() : Small; }
    std::size_t GetSize() const { return Large ? LargeSize : sizeof Small; }

private:
    static constexpr std::size_t LargeSize = 1U << 17U;

    std::unique_ptr<char[]> Large; ///< null for a small regular file, whose bytes pass through Small
    char Small[4096];
};

/// Copies the bytes of @p in, from where it stands to its end, to @p out.
/// @return the number of bytes, or -1 when reading or writing failed.
std::int64_t _CopyContent(const _TOpenFile& in, const _TDescriptor& out, _TCopyBuffer& buffer);

/// Sets the modification time of @p out to that of @p source, in whole seconds, and leaves the access time of @p out. Returns false when
/// the system refuses.
bool _CopyTime(const struct stat& source, const _TDescriptor& out);

} // namespace Kest::System

#endif

// Internal header: used by TFile::Copy and by the move over file systems.
#ifndef KEST_FILESYSTEM_FILE_COPY_H
#define KEST_FILESYSTEM_FILE_COPY_H

#include <kest/filesystem/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include <sys/stat.h>

namespace Kest::System {

inline bool _IsSameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

/// A file that was opened, or not, and its state right after that.
struct _TOpenFile {
    bool IsOpen() const { return Descriptor.IsOpen(); }

    _TDescriptor Descriptor;
    struct stat State {};
};

/// Opens a file to read it. @p looked is what was found at the name just before: a regular file is opened without waiting and with
/// cancellation off, since a cancellation that is acted on inside the call loses the descriptor; anything else may have to wait for
/// somebody, with cancellation on. While another process holds a lease on a regular file, opening it is tried again and again, and a
/// cancellation is acted on in between.
/// @return no descriptor when the file cannot be opened, is a directory, or is of another kind than what was looked at.
_TOpenFile _OpenSource(int folder, const char* path, const struct stat& looked);

/// Opens a file to write it, made where there is none and not emptied. Waits as _OpenSource() does.
_TOpenFile _OpenDestination(const char* path);

/// What bytes pass through where the kernel does not move them. Made before a destination is touched.
class _TCopyBuffer {
public:
    explicit _TCopyBuffer(const struct stat& source);
    char* Get() { return Large ? Large.get() : Small; }
    std::size_t GetSize() const { return Large ? LargeSize : sizeof Small; }

private:
    static constexpr std::size_t LargeSize = 1U << 17U;

    std::unique_ptr<char[]> Large; ///< null for a small file
    char Small[4096];
};

/// Moves everything from file to file.
/// @return the number of bytes, or -1 when something could not be read or written.
std::int64_t _CopyContent(const _TOpenFile& in, const _TDescriptor& out, _TCopyBuffer& buffer);

/// Gives @p out the modification time of @p source, in whole seconds, and leaves its access time. False when the system refuses.
bool _CopyTime(const struct stat& source, const _TDescriptor& out);

} // namespace Kest::System

#endif

#ifndef KEST_FILESYSTEM_FILE_STATE_H
#define KEST_FILESYSTEM_FILE_STATE_H

/// @file
/// TFile::TState: the status of a file (kind, size and times), read once, with operations that set the times.

#include <kest/export.h>
#include <kest/filesystem/file.h>

#include <cstdint>
#include <string>

#include <sys/stat.h>

namespace Kest::System {

/// The status of one file. The constructor reads it once, and follows symbolic links. Nothing is refreshed: the object tells what the file
/// was then, and what its own set operations changed. The object holds a copy of the path and of the system's record, and no resource of
/// the system. Destroying it touches no file. Copies are independent.
///
/// Sizes and times have 64 bits on every platform. Times are whole seconds since 1970-01-01 00:00:00 UTC, negative before.
///
/// Waits: the constructor and the set operations, for the file system. A signal ends none of them, unless a file system in user space
/// answers it with EINTR: the operation fails then. No operation is a cancellation point.
/// Threads: several threads may read one object at once. While one thread sets a time, no other thread uses the object.
class KEST_EXPORT TFile::TState : public Interface::TFile::TState {
public:
    /// Reads the status of the file @p path.
    /// @throw EException  "getting file state failed: " + the system's description. The file is missing, or the path is a symbolic link
    ///                    that leads nowhere, for instance.
    explicit TState(const std::string& path);
    ~TState() override;
    TState(const TState&) = default;
    TState& operator=(const TState&) = default;

    /// The kind of the file. Of a symbolic link it is the kind of the target.
    Interface::TFile::TType GetType() const override;

    /// The size in bytes. For a kind of file that has no size, such as a pipe, it is what the system says.
    std::int64_t GetSize() const override;

    double GetLastChangeTime() const override;       ///< when the status of the file changed last
    double GetLastAccessTime() const override;       ///< when the file was read last, as far as its file system notes that
    double GetLastModificationTime() const override; ///< when the content of the file changed last

    /// Sets the file's modification time to @p time, truncated toward zero to whole seconds, and its access time to the one that this
    /// object holds. A file system stores a time that it cannot hold as the nearest that it can, without an error.
    /// @throw EException  "SetLastModificationTime failed: " + the system's description. The object holds the new time, and the file is
    ///                    unchanged. For NaN and for a time beyond 64 bits the description is that of EOVERFLOW, and the object is
    ///                    unchanged too.
    void SetLastModificationTime(double time) override;

    /// Sets the file's access time to @p time, truncated toward zero to whole seconds, and its modification time to the one that this
    /// object holds. A file system stores a time that it cannot hold as the nearest that it can, without an error.
    /// @throw EException  "SetLastAccessTime failed: " + the system's description. The object holds the new time, and the file is
    ///                    unchanged. For NaN and for a time beyond 64 bits the description is that of EOVERFLOW, and the object is
    ///                    unchanged too.
    void SetLastAccessTime(double time) override;

private:
    friend class TFile;

    KEST_HIDDEN void StoreTimes(const char* failure) const;

    // The size of the record depends on these flags. The library is built with them, so its users must be too.
    static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64, as kest.pc says");

    std::string Path; ///< in the system's encoding
    struct stat Status;
};

} // namespace Kest::System

#endif

#ifndef KEST_FILESYSTEM_FILE_STATE_H
#define KEST_FILESYSTEM_FILE_STATE_H

/// @file
/// TFile::TState: what the system knows of a file, read once; its times can be set.

#include <kest/export.h>
#include <kest/filesystem/file.h>

#include <cstdint>
#include <string>

#include <sys/stat.h>

namespace Kest::System {

/// The status of one file, read once, when the object is made, and through symbolic links. Nothing is refreshed: the object tells what
/// the file was, and what its own operations set. It holds a copy of the path and of the system's record, no resource of the system, and
/// touches no file when it is destroyed. Copies are independent.
///
/// Sizes and times have 64 bits on every platform. Times are whole seconds since 1970-01-01 00:00:00 UTC, negative before.
///
/// Several threads may read an object at once; a set operation must be alone.
class KEST_EXPORT TFile::TState : public Interface::TFile::TState {
public:
    /// Reads the status of @p path.
    /// @throw EException  "getting file state failed: " + the system's description.
    explicit TState(const std::string& path);
    ~TState() override;
    TState(const TState&) = default;
    TState& operator=(const TState&) = default;

    /// What the file is. Never a symbolic link: the status is that of its target.
    Interface::TFile::TType GetType() const override;

    /// Size in bytes.
    std::int64_t GetSize() const override;

    double GetLastChangeTime() const override;       ///< when the status changed last
    double GetLastAccessTime() const override;       ///< when it was read last, as far as the file system keeps that
    double GetLastModificationTime() const override; ///< when its content changed last

    /// Sets the file's modification time to @p time, truncated toward zero to whole seconds, and its access time to what this object
    /// holds. A time that the file system cannot hold is stored as the nearest it can, without an error.
    /// @throw EException  "SetLastModificationTime failed: " + the system's description. The object holds the new time, the file may not.
    ///                    A time beyond 64 bits, or NaN, is refused with the description of EOVERFLOW; object and file are as before.
    void SetLastModificationTime(double time) override;

    /// Sets the file's access time, and its modification time to what this object holds.
    /// @p time is truncated toward zero to whole seconds, and a time that the file system cannot hold becomes the nearest it can.
    /// @throw EException  "SetLastAccessTime failed: " + the system's description. The object holds the new time, the file may not.
    ///                    A time beyond 64 bits, or NaN, is refused with the description of EOVERFLOW; object and file are as before.
    void SetLastAccessTime(double time) override;

private:
    friend class TFile;

    KEST_HIDDEN void StoreTimes(const char* failure) const;

    // The size of the record depends on these flags, and the library is built with them.
    static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8, "compile with -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64, as kest.pc says");

    std::string Path; ///< in the system's encoding
    struct stat Status;
};

} // namespace Kest::System

#endif

#ifndef KEST_INTERFACE_FILE_H
#define KEST_INTERFACE_FILE_H

/// @file
/// Interface::TFile, the base of System::TFile: what a file is, and what happens to it by its name.

#include <kest/export.h>

#include <cstdint>
#include <string>

namespace Kest::System::Interface {

// GetPathName and Remove are defined in filesystem/file.cpp, beside the operations of System::TFile.

/// Holds the operations on files that every platform has, and TState. There are no objects of this class. Paths are UTF-8 and end at their
/// first zero byte.
class KEST_EXPORT TFile {
public:
    /// What a file is, seen through symbolic links.
    enum TType : int {
        Other,     ///< what no other value names, a socket for instance
        Regular,   ///< a regular file
        Directory, ///< a directory
        Fifo,      ///< a named pipe
        Device     ///< a character or block device
    };

    /// The status of one file as it was when the object was made. Times are seconds since 1970-01-01 00:00:00 UTC.
    class KEST_EXPORT TState {
    public:
        virtual ~TState() = default;
        virtual TType GetType() const = 0;                  ///< what the file is
        virtual std::int64_t GetSize() const = 0;           ///< in bytes
        virtual double GetLastChangeTime() const = 0;       ///< when the status changed last
        virtual double GetLastAccessTime() const = 0;       ///< when the file was read last
        virtual double GetLastModificationTime() const = 0; ///< when the content changed last

        /// Sets the modification time of the file and its access time to what this object holds.
        virtual void SetLastModificationTime(double time) = 0;

        /// Sets the access time of the file and its modification time to what this object holds.
        virtual void SetLastAccessTime(double time) = 0;

    protected:
        TState() = default;
        TState(const TState&) = default;
        TState& operator=(const TState&) = default;
    };

    /// The directory that holds @p path, which must exist: absolute, without symbolic links, "." or "..", and without a separator at its
    /// end. The root directory and a path right under it give the empty string. A backslash counts as a separator like a slash: the
    /// existing file "/tmp/a\b" gives "/tmp/a".
    /// @throw EException  "realpath() failed": the path does not exist or cannot be resolved, or the full path has 4096 bytes or more.
    /// Waits: for the file system. Not a cancellation point.
    /// Threads: any may call it.
    static std::string GetPathName(const std::string& path);

    /// Removes the file @p path, or the directory if it is empty. Of a symbolic link the link goes, and its target stays.
    /// @throw EException  "unable to remove file '" + @p path + "': " + the system's description. Nothing was removed.
    /// Waits: for the file system. Not a cancellation point.
    /// Threads: any may call it.
    static void Remove(const std::string& path);
};

} // namespace Kest::System::Interface

#endif

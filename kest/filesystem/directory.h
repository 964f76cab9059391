#ifndef KEST_FILESYSTEM_DIRECTORY_H
#define KEST_FILESYSTEM_DIRECTORY_H

/// @file
/// TDirectory: the entries of a directory; making, removing and changing directories.

#include <kest/export.h>
#include <kest/filesystem/file.h>
#include <kest/interface/directory.h>
#include <kest/threads/mutex.h>

#include <string>

#include <dirent.h>

namespace Kest::System {

/// Reads the entries of one directory, one at a time, in the order in which the system delivers them: not sorted, "." and ".." among
/// them. Entries that are made or removed meanwhile may be seen or not. The object owns the open directory and is not copied. Paths are
/// UTF-8 and end at their first zero byte.
///
/// Several threads may read and rewind one object: each entry is delivered to one of them. The static operations may be called from any
/// thread; the current directory is the whole process's.
class KEST_EXPORT TDirectory : public Interface::TDirectory<TFile> {
public:
    /// An entry: a value that does not refer back to its directory.
    class KEST_EXPORT TEntry : public Interface::TDirectory<System::TFile>::TEntry {
    public:
        /// An entry of that name.
        explicit TEntry(std::string name) noexcept;
        ~TEntry() override;
        TEntry(const TEntry&) = default;
        TEntry(TEntry&&) noexcept = default;
        TEntry& operator=(const TEntry&) = default;
        TEntry& operator=(TEntry&&) noexcept = default;

        /// The bare name in UTF-8, without the directory's path. Valid as long as the entry lives.
        const std::string& GetName() const override;

    private:
        std::string Name;
    };

    /// Opens the directory @p path.
    /// @throw EException  "directory opening failed: " + the system's description.
    explicit TDirectory(const std::string& path);
    TDirectory(const TDirectory&) = delete;
    TDirectory& operator=(const TDirectory&) = delete;

    /// The next Read() delivers the first entry again. Never throws.
    void Rewind() override;

    ~TDirectory() override;

    /// The next entry.
    /// @throw EEnd            "end of directory": there are no more, now and at each further call until Rewind().
    /// @throw EException      "directory reading failed: " + the system's description; the object stays usable.
    /// @throw std::bad_alloc  there is no memory for the entry; the next call delivers it.
    virtual TEntry Read();

    /// Makes the directory @p path with the permissions 0755 less the process's mask. Its parent must exist.
    /// @throw EException  "unable to create directory: " + the system's description.
    static void Create(const std::string& path);

    /// Removes the directory @p path, which must be empty.
    /// @throw EException  "unable to remove directory: " + the system's description.
    static void Remove(const std::string& path);

    /// The process's current directory, absolute.
    /// @throw EException  "unable to get current directory: " + the system's description; a path of more than 510 bytes is one reason.
    static std::string GetCurrent();

    /// Makes @p path the process's current directory.
    /// @throw EException  "unable to set current directory to " + @p path + ": " + the system's description; it is as before.
    static void Change(const std::string& path);

private:
    DIR* Stream;
    TMutex ReadLock;
    const dirent* Undelivered = nullptr; ///< read from the stream, but its name found no memory
};

} // namespace Kest::System

#endif

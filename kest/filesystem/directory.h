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
/// them. The reader may see or miss an entry that somebody makes or removes meanwhile. The object owns the open directory and is not
/// copied. Paths are UTF-8 and end at their first zero byte.
///
/// Waits: for the file system, and for another thread's Read() or Rewind() on the object. A signal ends no operation, unless a file system
/// in user space answers it with EINTR: the operation fails then. No operation is a cancellation point.
/// Threads: several threads may read and rewind one object, and each entry is delivered to one of them. Any thread may call the static
/// operations. The whole process has one current directory.
class KEST_EXPORT TDirectory : public Interface::TDirectory<TFile> {
public:
    /// An entry: a value that does not refer back to its directory.
    class KEST_EXPORT TEntry : public Interface::TDirectory<System::TFile>::TEntry {
    public:
        /// Makes an entry with the name @p name.
        explicit TEntry(std::string name) noexcept;
        ~TEntry() override;
        TEntry(const TEntry&) = default;
        TEntry(TEntry&&) noexcept = default;
        TEntry& operator=(const TEntry&) = default;
        TEntry& operator=(TEntry&&) noexcept = default;

        /// The bare name in UTF-8, without the directory's path. The reference is valid until the entry is destroyed or assigned to.
        const std::string& GetName() const override;

    private:
        std::string Name;
    };

    /// Opens the directory @p path. Programs that the process executes do not inherit it.
    /// @throw EException  "directory opening failed: " + the system's description.
    explicit TDirectory(const std::string& path);
    TDirectory(const TDirectory&) = delete;
    TDirectory& operator=(const TDirectory&) = delete;

    /// Makes the next Read() deliver the first entry again. Never throws.
    void Rewind() override;

    /// Closes the directory. An error of closing is not reported.
    /// Requires: no other thread uses the object.
    ~TDirectory() override;

    /// Delivers the next entry.
    /// @throw EEnd            "end of directory": no entry is left. Each further call throws this too, until Rewind().
    /// @throw EException      "directory reading failed: " + the system's description. The object stays usable.
    /// @throw std::bad_alloc  there is no memory for the entry. The next call delivers this entry.
    virtual TEntry Read();

    /// Makes the directory @p path with the permissions 0755 less the process's mask.
    /// @throw EException  "unable to create directory: " + the system's description. The parent is missing, or something of that name
    ///                    exists, for instance.
    static void Create(const std::string& path);

    /// Removes the empty directory @p path.
    /// @throw EException  "unable to remove directory: " + the system's description. The directory is not empty, for instance.
    static void Remove(const std::string& path);

    /// The absolute path of the process's current directory.
    /// @throw EException  "unable to get current directory: " + the system's description. The path has more than 510 bytes, for instance.
    static std::string GetCurrent();

    /// Makes @p path the process's current directory.
    /// @throw EException  "unable to set current directory to " + @p path + ": " + the system's description. The current
    ///                    directory is unchanged.
    static void Change(const std::string& path);

private:
    DIR* Stream;
    TMutex ReadLock;
    const dirent* Undelivered = nullptr; ///< was read from the stream, and there was no memory for its name
};

} // namespace Kest::System

#endif

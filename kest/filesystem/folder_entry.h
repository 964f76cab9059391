// Internal header: used by the renaming of files, where an entry must stay a certain file from one call to the next.
#ifndef KEST_FILESYSTEM_FOLDER_ENTRY_H
#define KEST_FILESYSTEM_FOLDER_ENTRY_H

#include <kest/filesystem/descriptor.h>

#include <cerrno>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

namespace Kest::System {

/// The state of the entry @p name in a folder: of a symbolic link it is that of the link. The empty name gives the state of the folder.
/// Nothing when there is no such entry.
std::optional<struct stat> _LookAt(int folder, const char* name);

/// A name of the library's own. It begins with a dot, so that listings hide it, and is short enough for every file system.
class _TFreshName {
public:
    /// Calls @p make, which makes something of the name that it gets, with up to a hundred names until it does not fail with EEXIST.
    /// @return the result of the last call. It is negative for a failure, and errno tells which.
    template <class TMake>
    int Find(const TMake& make) {
        constexpr int most = 100; // a name is taken only where a process was killed, so that a few tries suffice
        int result = -1;
        for (int tries = 0; tries < most; ++tries) {
            Advance();
            result = make(Text);
            if (result >= 0 || errno != EEXIST)
                break;
        }
        return result;
    }

    const char* Get() const { return Text; }

private:
    void Advance();

    char Text[32] = "";
};

/// A name in a folder. The folder is held open, so that the entry is found even if somebody renames the folder.
class _TEntry {
public:
    /// Opens the folder of @p path with @p flags. A folder that must not be read is opened with O_PATH, only to find names in it.
    explicit _TEntry(const std::string& path, int flags = O_PATH);

    bool IsOpen() const { return Folder.IsOpen(); }
    int GetFolder() const { return Folder.Get(); }
    const char* GetName() const { return Name.c_str(); }
    std::optional<struct stat> Look() const { return _LookAt(GetFolder(), GetName()); }

    /// Whether both are one entry: the names are equal, and the folders are one. Two names that differ only in case count as two entries.
    bool IsSameEntry(const _TEntry& other) const;

    /// Whether the folder is append-only, so that no entry can be removed or renamed there. False also where the system does not tell.
    bool IsForGood() const;

    /// Gives the entry a fresh name. Under this name it can be looked at and removed without touching what somebody puts at the old name.
    /// Where the system can rename without replacing anything, this needs neither space nor an inode. Elsewhere the entry is renamed over
    /// an empty file that is made for it under the fresh name.
    /// @return 0, or the error. After an error nothing has changed.
    int PutAside(_TFreshName& aside) const;

    /// Renames the entry @p aside in the folder of @p other to this name, unless something of this name exists by now. If that is the same
    /// file, the entry @p aside is removed.
    /// @return whether the file has this name now. Otherwise it keeps the fresh name.
    bool Take(const _TEntry& other, const _TFreshName& aside) const;

    /// Renames what was put aside as @p aside back to this name, unless something of this name exists by now.
    bool PutBack(const _TFreshName& aside) const { return Take(*this, aside); }

    bool Remove(const _TFreshName& aside) const { return ::unlinkat(GetFolder(), aside.Get(), 0) == 0; }

private:
    int PutOverPlaceholder(_TFreshName& aside) const;

    _TDescriptor Folder;
    std::string Name;
};

} // namespace Kest::System

#endif

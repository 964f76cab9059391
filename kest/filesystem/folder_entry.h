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

/// The state of a name in a folder, of a symbolic link itself, or that of the folder by an empty name; nothing where there is none.
std::optional<struct stat> _LookAt(int folder, const char* name);

/// A name of the library's own, which hides in listings and is short enough for every file system.
class _TFreshName {
public:
    /// Calls @p make, which makes something of that name and fails when it exists, until the name is a new one.
    /// @return the last result of @p make, negative for a failure, which errno tells.
    template <class TMake>
    int Find(const TMake& make) {
        constexpr int most = 100; // those in the way were left by processes that were killed
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

/// A name in a folder that is held open, whatever becomes of the folder's own name meanwhile.
class _TEntry {
public:
    /// Opens the folder of @p path by @p flags, and where it must not be read, only to find names in it.
    explicit _TEntry(const std::string& path, int flags = O_PATH);

    bool IsOpen() const { return Folder.IsOpen(); }
    int GetFolder() const { return Folder.Get(); }
    const char* GetName() const { return Name.c_str(); }
    std::optional<struct stat> Look() const { return _LookAt(GetFolder(), GetName()); }

    /// Whether both are one entry by the names of its folder and its own.
    bool IsSameEntry(const _TEntry& other) const;

    /// Whether the folder is append-only: an entry is made there and never removed or renamed. False also where the system does not tell.
    bool IsForGood() const;

    /// Gives the entry a fresh name, so that it can be looked at and removed without touching what comes to stand at the old name. This
    /// needs neither space nor an inode where the system can rename without replacing anything. Elsewhere it goes by way of an empty file
    /// of the fresh name.
    /// @return 0 or the error, for which nothing is changed.
    int PutAside(_TFreshName& aside) const;

    /// Gives what is called @p aside in the folder of @p other this name, unless there is something of this name by now. That may be the
    /// same file: then @p aside goes.
    /// @return whether the file has this name. It keeps the fresh one otherwise.
    bool Take(const _TEntry& other, const _TFreshName& aside) const;
    bool PutBack(const _TFreshName& aside) const { return Take(*this, aside); }

    bool Remove(const _TFreshName& aside) const { return ::unlinkat(GetFolder(), aside.Get(), 0) == 0; }

private:
    int PutOverPlaceholder(_TFreshName& aside) const;

    _TDescriptor Folder;
    std::string Name;
};

} // namespace Kest::System

#endif

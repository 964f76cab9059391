#include <kest/filesystem/folder_entry.h>

#include <kest/filesystem/file_copy.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <string_view>

namespace Kest::System {

namespace {

std::atomic<unsigned> FreshNames{0};

/// The beginning of @p path up to its last separator, that one included. For a path without a separator it is the current folder.
std::string FolderOf(std::string_view path) {
    const std::size_t separator = path.rfind('/');
    return separator == std::string_view::npos ? "." : std::string(path.substr(0, separator + 1));
}

/// Opens a folder with @p flags, or with O_PATH where it must not be read.
_TDescriptor OpenFolder(const std::string& path, int flags) {
    const TCancellationOff off;
    int descriptor = ::openat(AT_FDCWD, path.c_str(), flags | O_DIRECTORY | O_CLOEXEC, 0);
    if (descriptor < 0 && errno == EACCES)
        descriptor = ::openat(AT_FDCWD, path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC, 0);
    return _TDescriptor(descriptor);
}

/// Makes an empty file. mknodat needs no descriptor for that, but some file systems lack it, and some containers refuse it.
/// @return 0, or -1 for a failure, which errno tells.
int MakePlaceholder(int folder, const char* name) {
    if (::mknodat(folder, name, S_IFREG | 0600, 0) == 0)
        return 0;
    if (errno != ENOSYS && errno != EPERM)
        return -1;
    const TCancellationOff off;
    const _TDescriptor file(::openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return file.IsOpen() ? 0 : -1;
}

#ifdef RENAME_NOREPLACE
/// Whether @p error says that the system or the file system cannot rename without replacing. EPERM may come from the file, or from a
/// container that refuses the call whatever its arguments are. An empty name tells them apart: the system answers it with ENOENT.
bool IsWithoutNoReplace(int error) {
    if (error == EPERM)
        return ::renameat2(AT_FDCWD, "", AT_FDCWD, "", RENAME_NOREPLACE) != 0 && errno == EPERM;
    return error == EINVAL || error == ENOSYS;
}
#endif

} // namespace

std::optional<struct stat> _LookAt(int folder, const char* name) {
    struct stat state {};
    if (::fstatat(folder, name, &state, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) != 0)
        return std::nullopt;
    return state;
}

/// Makes the next name, of the number of the process and a number that counts within it. Two processes in different containers may have one
/// number: then one finds the other's file, and Find() goes on.
void _TFreshName::Advance() {
    constexpr std::string_view prefix = ".kest-";
    char* place = Text + prefix.copy(Text, prefix.size());
    place = std::to_chars(place, std::end(Text), ::getpid()).ptr;
    *place++ = '-';
    place = std::to_chars(place, std::end(Text), FreshNames.fetch_add(1, std::memory_order_relaxed)).ptr; // each number once, in any order
    *place = '\0';
}

_TEntry::_TEntry(const std::string& path, int flags) {
    const std::string_view whole(path.c_str()); // a path ends at its first zero byte
    Name = whole.substr(whole.rfind('/') + 1);
    Folder = OpenFolder(FolderOf(whole), flags);
}

bool _TEntry::IsSameEntry(const _TEntry& other) const {
    struct stat mine {};
    struct stat theirs {};
    return Name == other.Name && ::fstat(GetFolder(), &mine) == 0 && ::fstat(other.GetFolder(), &theirs) == 0 && _IsSameFile(mine, theirs);
}

bool _TEntry::IsForGood() const {
#ifdef STATX_ATTR_APPEND
    struct statx state {};
    return ::statx(GetFolder(), "", AT_EMPTY_PATH, 0, &state) == 0 && (state.stx_attributes_mask & STATX_ATTR_APPEND) != 0 &&
           (state.stx_attributes & STATX_ATTR_APPEND) != 0;
#else
    return false;
#endif
}

int _TEntry::PutAside(_TFreshName& aside) const {
#ifdef RENAME_NOREPLACE
    const int folder = GetFolder();
    if (aside.Find([&](const char* name) { return ::renameat2(folder, GetName(), folder, name, RENAME_NOREPLACE); }) == 0)
        return 0;
    const int error = errno;
    if (!IsWithoutNoReplace(error))
        return error;
#endif
    return IsForGood() ? EPERM : PutOverPlaceholder(aside);
}

int _TEntry::PutOverPlaceholder(_TFreshName& aside) const {
    const int folder = GetFolder();
    if (aside.Find([&](const char* name) { return MakePlaceholder(folder, name); }) < 0)
        return errno;
    if (::renameat(folder, GetName(), folder, aside.Get()) == 0)
        return 0;
    const int error = errno;
    (void)Remove(aside);
    return error;
}

bool _TEntry::Take(const _TEntry& other, const _TFreshName& aside) const {
#ifdef RENAME_NOREPLACE
    if (::renameat2(other.GetFolder(), aside.Get(), GetFolder(), GetName(), RENAME_NOREPLACE) == 0)
        return true;
#endif
    if (::linkat(other.GetFolder(), aside.Get(), GetFolder(), GetName(), 0) != 0) {
        const auto stands = Look();
        const auto mine = _LookAt(other.GetFolder(), aside.Get());
        if (!stands || !mine || !_IsSameFile(*stands, *mine))
            return false;
    }
    (void)other.Remove(aside);
    return true;
}

} // namespace Kest::System

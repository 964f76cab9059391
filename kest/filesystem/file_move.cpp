#include <kest/filesystem/file_move.h>

#include <kest/filesystem/file_copy.h>
#include <kest/filesystem/folder_entry.h>
#include <kest/foundation/unwinding.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kest::System {

namespace {

bool IsSameTime(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

/// Whether a file is what it was, as far as its record tells. The change time is not compared, since renaming sets it.
bool IsUnchanged(const struct stat& now, const struct stat& then) {
    return _IsSameFile(now, then) && (!S_ISREG(then.st_mode) || (now.st_size == then.st_size && IsSameTime(now.st_mtim, then.st_mtim)));
}

/// The file that is moved: its entry, and the file that is read. They differ where the entry is a symbolic link.
class TSource {
public:
    enum class TLook { Untouched, Gone, Touched }; ///< touched: the entry or the file is not what was opened, or was written to

    explicit TSource(const std::string& path) : Entry(path) {}

    bool Open();
    bool IsWholeWith(std::int64_t bytes) const { return !S_ISREG(File.State.st_mode) || bytes >= File.State.st_size; }

    /// Compares what stands at the source's own name with what was opened, change time included.
    TLook Look() const;

    /// Whether the name @p name in the source's folder denotes the entry that was opened, and leads to the file that was read, unchanged.
    bool IsUntouched(const char* name) const { return IsUntouched(name, _LookAt(Entry.GetFolder(), name)); }

    /// Whether the source's own name denotes the entry that was opened, and leads to the file that was read. Its content may have changed.
    bool IsThere() const;

    const _TEntry Entry;
    struct stat Link {};
    _TOpenFile File;

private:
    bool IsUntouched(const char* name, const std::optional<struct stat>& entry) const;

    /// The state of the file that the name @p name leads to: that of @p entry itself unless this is a symbolic link.
    std::optional<struct stat> Follow(const char* name, const struct stat& entry) const;
};

KEST_LEFT_BY_CANCELLATION bool TSource::Open() {
    if (!Entry.IsOpen())
        return false;
    const auto entry = Entry.Look();
    const auto target = entry ? Follow(Entry.GetName(), *entry) : std::nullopt;
    if (!target)
        return false;
    Link = *entry;
    File = _OpenSource(Entry.GetFolder(), Entry.GetName(), *target);
    return File.IsOpen() && _IsSameFile(File.State, *target);
}

std::optional<struct stat> TSource::Follow(const char* name, const struct stat& entry) const {
    if (!S_ISLNK(entry.st_mode))
        return entry;
    struct stat target {};
    if (::fstatat(Entry.GetFolder(), name, &target, 0) != 0)
        return std::nullopt;
    return target;
}

TSource::TLook TSource::Look() const {
    const auto entry = Entry.Look();
    if (!entry)
        return errno == ENOENT ? TLook::Gone : TLook::Touched;
    const timespec& then = S_ISLNK(Link.st_mode) ? Link.st_ctim : File.State.st_ctim;
    const bool isUntouched = IsUntouched(Entry.GetName(), entry) && (!S_ISREG(File.State.st_mode) || IsSameTime(entry->st_ctim, then));
    return isUntouched ? TLook::Untouched : TLook::Touched;
}

bool TSource::IsUntouched(const char* name, const std::optional<struct stat>& entry) const {
    if (!entry || !_IsSameFile(*entry, Link))
        return false;
    const auto target = Follow(name, *entry);
    return target && IsUnchanged(*target, File.State);
}

bool TSource::IsThere() const {
    const auto entry = Entry.Look();
    if (!entry || !_IsSameFile(*entry, Link))
        return false;
    const auto target = Follow(Entry.GetName(), *entry);
    return target && _IsSameFile(*target, File.State);
}

/// Writes a file or a folder to the disk. Returns false when the system refuses.
KEST_LEFT_BY_CANCELLATION bool WriteThrough(int descriptor) {
    int result = 0;
    do
        result = ::fsync(descriptor);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

/// The copy: a fresh file beside the destination. The destructor removes the file, unless it has replaced the destination.
class TCopy {
public:
    explicit TCopy(const std::string& destination) : Entry(destination, O_RDONLY) {}
    TCopy(const TCopy&) = delete;
    TCopy& operator=(const TCopy&) = delete;
    ~TCopy() {
        if (IsFresh)
            (void)Entry.Remove(Name);
    }

    bool IsPossible() const { return Entry.IsOpen() && !Entry.IsForGood(); }
    bool MayReplace(const TSource& source) const;
    bool Make();
    bool ShowsUpAs(const TSource& source) const;
    bool Fill(const TSource& source, _TCopyBuffer& buffer);
    bool Secure();
    bool Replace();
    bool Place();
    bool SecureEntry() const;
    bool IsAtDestination() const { return Is(Entry.Look()); }
    void TakeAway(const TSource& source) const;

    /// Whether @p state is that of this copy. The copy stays open, so that no other file gets its number.
    bool Is(const std::optional<struct stat>& state) const { return state && _IsSameFile(*state, File.State); }

private:
    const _TEntry Entry;
    _TFreshName Name;
    bool IsFresh = false; ///< whether the file has the fresh name
    _TOpenFile File;
    _TDescriptor Output; ///< the file again, closed before the destination is replaced: the system reports some errors only at closing
};

/// Whether the destination is no directory and not the file that would be read, which another mount or a hard link may show there.
bool TCopy::MayReplace(const TSource& source) const {
    const auto old = Entry.Look();
    return !old || (!S_ISDIR(old->st_mode) && !_IsSameFile(*old, source.Link) && !_IsSameFile(*old, source.File.State));
}

/// Makes the fresh file and opens it twice.
bool TCopy::Make() {
    const TCancellationOff off;
    const int folder = Entry.GetFolder();
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    File.Descriptor = _TDescriptor(Name.Find([&](const char* name) { return ::openat(folder, name, flags, 0666); }));
    IsFresh = File.IsOpen();
    if (!IsFresh || ::fstat(File.Descriptor.Get(), &File.State) != 0)
        return false;
    Output = _TDescriptor(::fcntl(File.Descriptor.Get(), F_DUPFD_CLOEXEC, 0));
    return Output.IsOpen();
}

/// Whether source and destination are one entry, though two mounts give it different device numbers: then the fresh file is seen in the
/// source's folder too.
bool TCopy::ShowsUpAs(const TSource& source) const {
    return std::string_view(source.Entry.GetName()) == Entry.GetName() && _LookAt(source.Entry.GetFolder(), Name.Get());
}

/// Copies the content and the modification time of the source. Returns false when any of it failed.
KEST_LEFT_BY_CANCELLATION bool TCopy::Fill(const TSource& source, _TCopyBuffer& buffer) {
    const std::int64_t bytes = _CopyContent(source.File, Output, buffer);
    return bytes >= 0 && source.IsWholeWith(bytes) && _CopyTime(source.File.State, Output);
}

/// Writes the content to the disk. Returns false when the system reports an error.
KEST_LEFT_BY_CANCELLATION bool TCopy::Secure() {
    return WriteThrough(Output.Get()) && Output.Close();
}

/// Renames the copy over the destination.
bool TCopy::Replace() {
    IsFresh = ::renameat(Entry.GetFolder(), Name.Get(), Entry.GetFolder(), Entry.GetName()) != 0;
    return !IsFresh;
}

/// Gives the copy the destination's name if nothing stands there.
bool TCopy::Place() {
    IsFresh = !Entry.PutBack(Name);
    return !IsFresh;
}

/// Writes the new entry to the disk. Returns false when the system reports an error. EINVAL is none: this file system has nothing to write
/// for a folder. EBADF says that the folder could not be opened for reading, so the whole file system is written instead.
bool TCopy::SecureEntry() const {
    if (WriteThrough(Entry.GetFolder()) || errno == EINVAL)
        return true;
    return errno == EBADF && ::syncfs(File.Descriptor.Get()) == 0;
}

/// Removes the copy from the destination, provided that the source is there. If the source goes meanwhile, or the copy cannot be removed,
/// the copy gets its name back. Where somebody put another file there, the copy goes after all.
void TCopy::TakeAway(const TSource& source) const {
    _TFreshName aside;
    if (!source.IsThere() || !IsAtDestination() || Entry.PutAside(aside) != 0)
        return;
    const bool isCopy = Is(_LookAt(Entry.GetFolder(), aside.Get()));
    if (isCopy && source.IsThere() && Entry.Remove(aside))
        return;
    if (!Entry.PutBack(aside) && isCopy)
        (void)Entry.Remove(aside);
}

enum class TRemoval { Done, Failed, Gone }; ///< gone: somebody else moves or has moved the source, so the copy must stay

/// Removes the source, provided that it is still what was read and that the copy stands at the destination. Otherwise somebody else has
/// moved one of the two, and the other may be all that is left. The destination is looked at first, so that the source is not put aside
/// for nothing: somebody could take its name meanwhile.
TRemoval RemoveSource(const TSource& source, const TCopy& copy) {
    if (!copy.IsAtDestination())
        return TRemoval::Failed;
    _TFreshName aside;
    if (const int error = source.Entry.PutAside(aside); error != 0)
        return error == ENOENT ? TRemoval::Gone : TRemoval::Failed;
    const bool isUntouched = source.IsUntouched(aside.Get());
    if (isUntouched && copy.IsAtDestination() && source.Entry.Remove(aside))
        return TRemoval::Done;
    if (!source.Entry.PutBack(aside) && isUntouched && copy.Is(source.Entry.Look())) // it was moved back
        (void)source.Entry.Remove(aside);
    return TRemoval::Failed;
}

/// Replaces the destination by the copy, which is complete and on the disk, and removes the source.
_TMoveEnd Complete(const TSource& source, TCopy& copy) {
    const TSource::TLook look = source.Look();
    if (look == TSource::TLook::Gone) // the copy may be all that is left of the content
        return copy.Place() ? _TMoveEnd::RemoveFailed : _TMoveEnd::CopyFailed;
    if (look == TSource::TLook::Touched || !copy.Replace())
        return _TMoveEnd::CopyFailed;
    if (!copy.SecureEntry()) {
        copy.TakeAway(source);
        return _TMoveEnd::CopyFailed;
    }
    const TRemoval removal = RemoveSource(source, copy);
    if (removal == TRemoval::Failed)
        copy.TakeAway(source);
    return removal == TRemoval::Done ? _TMoveEnd::Done : _TMoveEnd::RemoveFailed;
}

/// Removes the entry that was put aside if it and the destination are the file @p file. An entry of another file gets its name back, and
/// that is no error: somebody replaced the source.
/// @return 0, or the error. After an error the source has its name again, unless somebody took it.
int RemoveAside(const _TEntry& source, const _TFreshName& aside, const _TEntry& destination, const struct stat& file) {
    const auto mine = _LookAt(source.GetFolder(), aside.Get());
    const auto theirs = destination.Look();
    int error = 0;
    if (mine && _IsSameFile(*mine, file)) {
        // Either both names were one entry, in a folder that ignores case, or somebody removed the destination.
        if (!theirs && destination.Take(source, aside))
            return 0;
        if (!theirs || !_IsSameFile(*theirs, file))
            error = EBUSY;
        else if (source.Remove(aside))
            return 0;
        else
            error = errno;
    }
    (void)source.PutBack(aside);
    return error;
}

} // namespace

_TMoveEnd _MoveOverFileSystems(const std::string& source, const std::string& destination) {
    TSource original(source);
    TCopy copy(destination);
    if (!original.Open() || !copy.IsPossible() || !copy.MayReplace(original))
        return _TMoveEnd::CopyFailed;
    _TCopyBuffer buffer(original.File.State);
    if (!copy.Make() || copy.ShowsUpAs(original) || !copy.Fill(original, buffer) || !copy.Secure())
        return _TMoveEnd::CopyFailed;
    const TCancellationOff off;
    return Complete(original, copy);
}

int _RemoveLeftHardLink(const std::string& source, const std::string& destination, const struct stat& file) {
    const _TEntry from(source);
    const _TEntry to(destination);
    if (!from.IsOpen() || !to.IsOpen())
        return errno;
    if (from.IsSameEntry(to))
        return 0;
    _TFreshName aside;
    const int error = from.PutAside(aside);
    if (error != 0)
        return error == ENOENT ? 0 : error; // ENOENT: somebody else removed the source, as was wanted here
    return RemoveAside(from, aside, to, file);
}

} // namespace Kest::System

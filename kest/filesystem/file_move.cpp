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

/// Whether a file is what it was, as far as its record tells without the change time, which renaming sets.
bool IsUnchanged(const struct stat& now, const struct stat& then) {
    return _IsSameFile(now, then) && (!S_ISREG(then.st_mode) || (now.st_size == then.st_size && IsSameTime(now.st_mtim, then.st_mtim)));
}

/// The file that is moved: its entry, which may be a symbolic link to it, and the file that is read.
class TSource {
public:
    enum class TLook { Untouched, Gone, Touched };

    explicit TSource(const std::string& path) : Entry(path) {}

    bool Open();
    bool IsWholeWith(std::int64_t bytes) const { return !S_ISREG(File.State.st_mode) || bytes >= File.State.st_size; }

    /// Looks at the entry under its own name, its change time included.
    TLook Look() const;

    /// Whether what is called @p name, in the source's folder, is the entry that was opened, and the file behind it what was read.
    bool IsUntouched(const char* name) const { return IsUntouched(name, _LookAt(Entry.GetFolder(), name)); }

    /// Whether the entry stands there and is, or leads to, the file that was read, whatever was done to its content meanwhile.
    bool IsThere() const;

    const _TEntry Entry;
    struct stat Link {};
    _TOpenFile File;

private:
    bool IsUntouched(const char* name, const std::optional<struct stat>& entry) const;

    /// The file that what is called @p name is or leads to.
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

/// Writes a file or a folder through to the disk.
KEST_LEFT_BY_CANCELLATION bool WriteThrough(int descriptor) {
    int result = 0;
    do
        result = ::fsync(descriptor);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

/// The copy: a fresh file beside the destination, which goes with the object until it has replaced the destination.
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

    /// Whether that is this copy, which stays open so that no other file gets its number.
    bool Is(const std::optional<struct stat>& state) const { return state && _IsSameFile(*state, File.State); }

private:
    const _TEntry Entry;
    _TFreshName Name;
    bool IsFresh = false; ///< the file has the fresh name
    _TOpenFile File;
    _TDescriptor Output; ///< the file once more, to be closed before the destination is given up for it: some errors come only then
};

/// Whether the destination is neither a directory nor what would be read, by another mount or by a hard link.
bool TCopy::MayReplace(const TSource& source) const {
    const auto old = Entry.Look();
    return !old || (!S_ISDIR(old->st_mode) && !_IsSameFile(*old, source.Link) && !_IsSameFile(*old, source.File.State));
}

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

/// Whether source and destination are one entry, though the system numbers their files differently by each road.
bool TCopy::ShowsUpAs(const TSource& source) const {
    return std::string_view(source.Entry.GetName()) == Entry.GetName() && _LookAt(source.Entry.GetFolder(), Name.Get());
}

KEST_LEFT_BY_CANCELLATION bool TCopy::Fill(const TSource& source, _TCopyBuffer& buffer) {
    const std::int64_t bytes = _CopyContent(source.File, Output, buffer);
    return bytes >= 0 && source.IsWholeWith(bytes) && _CopyTime(source.File.State, Output);
}

/// The content is on the disk, as far as the system tells.
KEST_LEFT_BY_CANCELLATION bool TCopy::Secure() {
    return WriteThrough(Output.Get()) && Output.Close();
}

bool TCopy::Replace() {
    IsFresh = ::renameat(Entry.GetFolder(), Name.Get(), Entry.GetFolder(), Entry.GetName()) != 0;
    return !IsFresh;
}

/// Gives the copy its name where nothing stands.
bool TCopy::Place() {
    IsFresh = !Entry.PutBack(Name);
    return !IsFresh;
}

/// The new entry is on the disk. Some systems have nothing to do for that and say so; a folder that must not be read cannot be asked for
/// it.
bool TCopy::SecureEntry() const {
    if (WriteThrough(Entry.GetFolder()) || errno == EINVAL)
        return true;
    return errno == EBADF && ::syncfs(File.Descriptor.Get()) == 0;
}

/// Removes the copy from the destination, provided that the source is there. When the source goes meanwhile, or the copy cannot be removed,
/// the copy stands again where it stood, unless somebody put another file there.
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

enum class TRemoval { Done, Failed, Gone }; ///< gone: somebody else moves or has moved the source, for whom the copy is left alone

/// Removes the source, provided that it is still what was read and that the copy stands at the destination: otherwise somebody else has
/// moved one of them, and whoever did that counts on the other. The first look spares the source to go aside for nothing: its name may be
/// taken then.
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

/// Puts the copy that is complete and on the disk in the destination's place, and removes the source.
_TMoveEnd Complete(const TSource& source, TCopy& copy) {
    const TSource::TLook look = source.Look();
    if (look == TSource::TLook::Gone) // the copy may be all that is left
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

/// Removes what was put aside if the destination is the same file. For a source that is another file by now there is nothing to do.
/// @return 0 or the error, for which the source has its name again, unless that is taken.
int RemoveAside(const _TEntry& source, const _TFreshName& aside, const _TEntry& destination, const struct stat& file) {
    const auto mine = _LookAt(source.GetFolder(), aside.Get());
    const auto theirs = destination.Look();
    int error = 0;
    if (mine && _IsSameFile(*mine, file)) {
        if (!theirs && destination.Take(source, aside)) // both names were one entry, where case is folded, or somebody removed the other
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
        return error == ENOENT ? 0 : error; // removed by somebody else, which is what was wanted
    return RemoveAside(from, aside, to, file);
}

} // namespace Kest::System

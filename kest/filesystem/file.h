#ifndef KEST_FILESYSTEM_FILE_H
#define KEST_FILESYSTEM_FILE_H

#include <kest/export.h>
#include <kest/interface/file.h>

#include <string>

/// @file
/// Paths are UTF-8 and end at their first zero byte. Nothing here keeps state or takes a lock: any thread may call anything, and other
/// threads and processes may change the files between the steps of an operation.

namespace Kest::System {

/// Operations on files; there are no objects of this class. Remove and GetPathName are those of Interface::TFile.
class KEST_EXPORT TFile : public Interface::TFile {
public:
    class TState; // file_state.h

    /// Copies the content of @p source to @p destination, and its modification time in whole seconds. An existing destination is
    /// overwritten and keeps its permissions. A new one gets those of a new file, 0666 less the mask of the process. Links are followed at
    /// both ends. Permissions, owner and access time are not copied, and holes come out as zeros on the disk. An empty source is copied
    /// like any other. The destination is emptied only when both files are open and are two files. Until then a failure leaves it as it
    /// was, or empty where it was new. A directory as source, one that cannot be opened, and one file under whatever names are such
    /// failures. From then on a failure leaves what was written, without the old content. So does a cancellation. Where two mounts show one
    /// file under two device numbers, the library takes it for two files, and a copy of it onto itself empties it; this is the copy error
    /// then, as whenever the source became shorter meanwhile. Writing to a pipe that nobody reads raises SIGPIPE, and writing beyond the
    /// process's limit for files SIGXFSZ, as the system's own calls do.
    /// @throw EException  "getting file state failed: " + the system's description: there is no source. The destination was not touched.
    /// @throw EException  "file copy error: from " + @p source + " to " + @p destination: one of them could not be opened, read or written
    ///                    whole (a full disk among the reasons), or both are one file. An error that the system reports only when the copy
    ///                    is written out or closed is not seen.
    /// @throw EException  "SetLastModificationTime failed: " + the system's description: the copy is complete, its time is not set.
    /// Requires: nobody else writes to either file meanwhile, if the copy is to be of any one state of the source.
    /// Waits: for a pipe or a device as long as it makes its user wait, already when it is opened; for another process's lease on a file. A
    /// signal that is handled ends the wait for the lease, and that for opening unless its handler was installed with SA_RESTART (the copy
    /// error). It does not end the wait for bytes. Cancellation point; not in opening on RISC-V and 32-bit ARM. With a C library before
    /// 2.41 a thread that is cancelled just as a pipe's other end arrives may lose its descriptor.
    /// Threads: any may call it.
    static void Copy(const std::string& source, const std::string& destination);

    /// Renames @p source to @p destination: calls _RenameHelper(), and calls it again at once, up to ten times, when it fails with an
    /// EException. A failed allocation and a cancellation leave at once.
    /// @throw EException  that of the last attempt.
    /// Waits: as _RenameHelper() does, in each attempt. A signal ends one attempt's wait for a pipe, and the next attempt waits anew: a
    /// signal does not end Rename(), a cancellation does. Cancellation point until the destination is replaced.
    /// Threads: any may call it.
    static void Rename(const std::string& source, const std::string& destination);
};

/// One attempt to rename @p source to @p destination.
///
/// Within a file system an existing destination is replaced in one step: at every moment it is the old file or the new one. A name is not
/// followed if it is a symbolic link; the link is renamed. Where both are names of one directory entry ("a", "./a") nothing happens and
/// the attempt succeeds. Where they are two hard links of one file, the source entry is removed, unless it is another file by then.
///
/// Over file systems the file is copied to a fresh one beside the destination, written through to the disk, and renamed over the
/// destination. What stands there is replaced in that one step, be it a symbolic link, a pipe, a device or one of several hard links, and
/// never written through. The source is removed last, and only as the entry and the file that were read, as large as then and not modified
/// since. A symbolic link as source is followed for its content, and the link goes. The result is a new file with the modification time in
/// whole seconds. Its permissions are 0666 less the mask of the process, and the caller owns it. Access control lists, extended attributes,
/// the set-user-ID and set-group-ID bits, holes and further hard links are not carried over.
///
/// The file system of the destination needs room for the copy beside the old destination. The folder of the destination must allow new
/// entries and their removal; an append-only folder is refused before anything is made. The folder of the source needs no room, unless its
/// file system cannot rename without replacing: there it needs room for one empty file.
///
/// An overlay without an index gives a file of its lower layer that has several hard links another inode number when it is first renamed.
/// There one attempt says "remove failed", and the next attempt succeeds.
///
/// Before the destination is replaced, a failure and a cancellation change no file. Bytes that were read from a pipe are gone. When only
/// the removal of the source fails, as in a folder that is read-only, the destination goes again, provided that it still is this copy, that
/// the copy can be removed and that the source is still there: an old destination is lost then. When the source vanishes during the copy,
/// the copy stays where nothing stood at the destination. When the source has gone by the time of its removal, even for a moment by another
/// attempt to move it, the copy stays.
///
/// Others may rename, replace and remove source and destination at any moment, by this operation too: no content is lost that nobody
/// replaced or removed. When several attempts move one file at once, it may be that none of them succeeds; the content stays. When somebody
/// updates the source and another attempt moves the update to the destination at the moment at which this attempt replaces the
/// destination, this attempt replaces the update by the older content, and fails. Two conditions are not covered: two mounts that show one
/// file under two device numbers, and somebody who writes to the source while it is being removed. A writer may do so through a mapping or
/// a descriptor opened before. A write that keeps the size and falls into the same tick of the file system's clock shows in no record.
///
/// For a moment a file may stand under a fresh name of the library's own, ".kest-" and two numbers. It keeps that name where somebody took
/// its own just then, where the process is killed, and where the file cannot be put back, since the file system has neither hard links nor
/// a rename that replaces nothing. A tool that lists hidden names sees these names and should leave them out. Until the attempt over file
/// systems returns, the new file at the destination may be open for writing: executing the file fails then (ETXTBSY).
///
/// Writing beyond the process's limit for files raises SIGXFSZ, as the system's own calls do. Without a handler this signal ends the
/// process, and the fresh file stays.
///
/// @throw EException  "rename failed: from '" + @p source + "' to '" + @p destination + "': " + the system's description: nothing has
///                    changed. Of two hard links the source may have kept a fresh name, where its own name was taken meanwhile.
/// @throw EException  "cross device link: tryed to copy and remove: copy failed": no file has changed, unless the disk failed when the
///                    folder of the destination was written through, for which the destination goes as when only the removal fails.
///                    A directory, a socket or an unreadable file as source, one file by two mounts, a directory or a mount point at the
///                    destination and a full disk are reasons. So is a source that is missing, if both paths lie on different mounts.
/// @throw EException  "cross device link: tryed to copy and remove: remove failed": the source could not be removed, is another file by
///                    now, or has gone; or somebody replaced, moved or removed the copy.
/// Waits: over file systems as TFile::Copy() does for the source, and for the disk. A signal that would end
/// TFile::Copy()'s wait ends this attempt. Cancellation point until the destination is replaced.
/// Threads: any may call it.
KEST_EXPORT void _RenameHelper(const std::string& source, const std::string& destination);

/// Whether @p name matches the wildcard pattern @p pattern, by the rules of fnmatch in the program's locale: "*" and "?" also match a
/// slash and a leading dot, a backslash is an ordinary character, case counts. A malformed pattern matches nothing it does not spell.
/// Neither text is converted. Never throws.
KEST_EXPORT bool GetFileNameMatch(const std::string& name, const std::string& pattern);

/// The absolute path of @p path, which must exist, without symbolic links, "." or "..".
/// @throw EException  "realpath() failed": the path does not exist or cannot be resolved, or the result has 4096 bytes or more.
KEST_EXPORT std::string GetFullPathName(const std::string& path);

} // namespace Kest::System

#endif

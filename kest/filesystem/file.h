#ifndef KEST_FILESYSTEM_FILE_H
#define KEST_FILESYSTEM_FILE_H

#include <kest/export.h>
#include <kest/interface/file.h>

#include <string>

/// @file
/// TFile: copying and renaming files; and the free functions on path names. Paths are UTF-8 and end at their first zero byte. Nothing here
/// keeps state or takes a lock: any thread may call anything, and other threads and processes may change the files between the steps of an
/// operation.

namespace Kest::System {

// Copy and Rename are defined in file.cpp, TState in file_state.cpp. file_copy, file_move and folder_entry hold the steps.

/// Operations on files. There are no objects of this class. Remove and GetPathName are those of Interface::TFile.
class KEST_EXPORT TFile : public Interface::TFile {
public:
    class TState; // file_state.h

    /// Copies the content of @p source to @p destination, and its modification time in whole seconds. Symbolic links are followed at both
    /// ends. An existing destination is overwritten and keeps its permissions (the system may clear its set-user-ID and set-group-ID bits).
    /// A new destination gets the permissions 0666 less the mask of the process. Permissions, owner and access time are not copied. Holes
    /// may become zeros on the disk. An empty source is copied like any other, and leaves the destination empty.
    ///
    /// The destination is emptied once both files are open and are known to be two files. A failure before that leaves an existing
    /// destination as it was, and a new one missing or empty. A failure or a cancellation after that leaves what was written by then, and
    /// the old content is lost. If two mounts show one file under two device numbers, the library takes it for two files: a copy of it onto
    /// itself empties the file and ends with the copy error. A source that becomes shorter meanwhile ends with the copy error too.
    ///
    /// Writing to a pipe that nobody reads raises SIGPIPE. Writing beyond the process's limit for the size of files raises SIGXFSZ. Both
    /// are what the system's own calls do.
    /// @throw EException  "getting file state failed: " + the system's description: there is no source. The destination was not touched.
    /// @throw EException  "file copy error: from " + @p source + " to " + @p destination: one of them could not be opened, read or written
    ///                    whole (a full disk, for instance), the source is a directory, or both are one file. An error that the system
    ///                    reports only at closing, or when it writes the copy to the disk, is not seen.
    /// @throw EException  "SetLastModificationTime failed: " + the system's description: the copy is complete, its time is not set.
    /// Requires: nobody else writes to either file meanwhile, if the copy is to show one state of the source.
    /// Waits: for a pipe or a device, at opening and for each byte; for another process's lease on a file; without a limit. A handled
    /// signal ends the wait for a lease, and the wait for opening unless its handler was installed with SA_RESTART: that is the copy error.
    /// A signal does not end the wait for bytes. Cancellation point; on RISC-V and 32-bit ARM a cancellation does not end the wait for
    /// opening. With a C library before 2.41 a descriptor may stay open when the cancellation comes at the moment at which the other end of
    /// a pipe is opened.
    /// Threads: any may call it.
    static void Copy(const std::string& source, const std::string& destination);

    /// Renames @p source to @p destination: calls _RenameHelper(), and calls it again at once, up to ten times, when it fails with an
    /// EException. std::bad_alloc and a cancellation leave at once. After a failure there is what the last attempt left.
    /// @throw EException  that of the last attempt.
    /// Waits: as _RenameHelper() does, in each attempt. A signal ends the wait of one attempt, and the next attempt waits anew: a signal
    /// does not end Rename(), a cancellation does. Cancellation point until the destination is replaced.
    /// Threads: any may call it.
    static void Rename(const std::string& source, const std::string& destination);
};

/// One attempt to rename @p source to @p destination.
///
/// Within a file system an existing destination is replaced in one step: at every moment it is the old file or the new one. If the source
/// or the destination is a symbolic link, the link is renamed or replaced, and its target stays. If both are names of one directory entry
/// ("a", "./a"), nothing happens and the attempt succeeds. If they are two hard links of one file, the source entry is removed, unless it
/// is another file by then.
///
/// Over file systems the file is copied to a fresh one beside the destination. The copy is written to the disk, and then renamed over the
/// destination. A symbolic link, a pipe, a device or one of several hard links is replaced there like any file, and never written to. The
/// source is removed last, and only if its name still denotes the entry and the file that were read, with the size and the modification
/// time of that moment. If the source is a symbolic link, the content of its target is copied, the link is removed, and the target stays.
/// The result is a new file with the modification time in whole seconds. Its permissions are 0666 less the mask of the process, and the
/// caller owns it. Access control lists, extended attributes, the set-user-ID and set-group-ID bits and further hard links are not carried
/// over, and holes may become zeros on the disk.
///
/// The file system of the destination needs room for the copy beside the old destination. The folder of the destination must allow new
/// entries and their removal; an append-only folder is refused before anything is made. The folder of the source needs no room, unless its
/// file system cannot rename without replacing: there it needs room for one empty file.
///
/// What there is after a failure or a cancellation of the move over file systems:
///
/// | What happened                                    | Source                       | Destination                                     |
/// |--------------------------------------------------|------------------------------|-------------------------------------------------|
/// | a failure or a cancellation before the           | unchanged; bytes that were   | unchanged                                       |
/// | destination is replaced                          | read from a pipe are gone    |                                                 |
/// | the source vanished during the copy              | gone                         | the copy if nothing stood there, else unchanged |
/// | the source cannot be removed (a read-only        | unchanged by this attempt    | missing: the copy is removed again, and an old  |
/// | folder), somebody wrote to it, or the disk       |                              | destination is lost                             |
/// | failed when the new entry was written to it      |                              |                                                 |
/// | the source cannot be removed, nor can the copy   | unchanged                    | the copy                                        |
/// | another file took the name of the source         | the other file               | the copy                                        |
/// | the source was not there when it was to be       | gone, or put back by         | the copy                                        |
/// | removed, even for a moment                       | somebody else                |                                                 |
/// | somebody replaced, moved or removed the copy     | unchanged                    | what somebody else left there                   |
///
/// An overlay without an index gives a file of its lower layer that has several hard links another inode number when it is first renamed.
/// The first attempt fails there with "remove failed", and the next attempt succeeds.
///
/// Others may rename, replace and remove source and destination at any moment, by this operation too: no content is lost that nobody
/// replaced or removed. When several attempts move one file at once, all of them may fail; the content stays. One update can be undone:
/// somebody changes the source, another attempt moves the changed file to the destination, and this attempt replaces it there at that
/// moment by the older content. This attempt fails then. Two conditions are not covered: two mounts that show one file under two device
/// numbers, and somebody who writes to the source while it is being removed. A writer may do so through a mapping or a descriptor opened
/// before. A write that keeps the size and falls into the same tick of the file system's clock shows in no record.
///
/// For a moment a file may stand under a fresh name of the library's own, ".kest-" and two numbers. The file keeps this name in three
/// cases: somebody took its old name meanwhile; the process was killed; or it cannot be put back, because the file system has neither hard
/// links nor a rename that replaces nothing. A tool that lists hidden names should leave out these names. Until the attempt over file
/// systems returns, the new file at the destination may be open for writing: executing the file fails then (ETXTBSY).
///
/// Writing beyond the process's limit for the size of files raises SIGXFSZ, as the system's own calls do. Without a handler this signal
/// ends the process, and the fresh file stays.
///
/// @throw EException  "rename failed: from '" + @p source + "' to '" + @p destination + "': " + the system's description: nothing has
///                    changed. Of two hard links the source may have kept a fresh name, if somebody took its own name meanwhile.
/// @throw EException  "cross device link: tryed to copy and remove: copy failed": the destination was not replaced, or the disk failed
///                    when the folder of the destination was written to it: then the copy is removed again, and an old destination is
///                    lost. The source is missing, unreadable, a directory or a socket; the destination is a directory, a mount point or
///                    the same file by another mount; or the disk is full, for instance.
/// @throw EException  "cross device link: tryed to copy and remove: remove failed": the source could not be removed, is another file by
///                    now, or has gone; or somebody replaced, moved or removed the copy.
/// Waits: within a file system, for that file system alone; this is no cancellation point. Over file systems, for the source as
/// TFile::Copy() does, and for the disk. A handled signal that ends the wait of TFile::Copy() ends this attempt with "copy failed".
/// Cancellation point until the destination is replaced.
/// Threads: any may call it.
KEST_EXPORT void _RenameHelper(const std::string& source, const std::string& destination);

/// Whether @p name matches the wildcard pattern @p pattern, by the rules of fnmatch in the program's locale. "*" and "?" also match a slash
/// and a leading dot. A backslash is an ordinary character. Case counts. A "[" without its "]" stands for itself, and a class of characters
/// that does not exist ("[[:none:]]") matches nothing. Neither text is converted, and each ends at its first zero byte. Never throws. Not a
/// cancellation point.
KEST_EXPORT bool GetFileNameMatch(const std::string& name, const std::string& pattern);

/// The absolute path of @p path, which must exist, without symbolic links, "." or "..".
/// @throw EException  "realpath() failed": the path does not exist or cannot be resolved, or the full path has 4096 bytes or more.
/// Waits: for the file system. Not a cancellation point.
KEST_EXPORT std::string GetFullPathName(const std::string& path);

} // namespace Kest::System

#endif

#ifndef KEST_FILESYSTEM_FILE_H
#define KEST_FILESYSTEM_FILE_H

#include <kest/export.h>
#include <kest/interface/file.h>

#include <string>

/// Paths are UTF-8 and end at their first zero byte. Nothing here keeps state or takes a lock: any thread may call anything, and other
/// threads and processes may change the files between the steps of an operation.
namespace Kest::System {

/// Operations on files; there are no objects of this class. Remove and GetPathName are those of Interface::TFile.
class KEST_EXPORT TFile : public Interface::TFile {
public:
    class TState; // file_state.h

    /// Copies the content of @p from to @p to and gives @p to the modification time of @p from, in whole seconds. An existing destination
    /// is overwritten and keeps its permissions; a new one gets those of a new file. Links are followed at both ends. Permissions, owner
    /// and access time are not copied. An empty source is copied like any other.
    /// @throw EException  "getting file state failed: " + the system's description: there is no @p from, and @p to was not touched.
    /// @throw EException  "file copy error: from " + @p from + " to " + @p to: one of them could not be opened, read or written whole (a
    ///                    full disk among the reasons). The destination is then what was written, without its old content, which is also
    ///                    so when only the source could not be opened or is a directory. Or both are one file, whatever their names, and
    ///                    nothing was touched. An error that the system reports only when the copy is closed, as network file systems may,
    ///                    is not seen.
    /// @throw EException  "getting file state failed: " or "SetLastModificationTime failed: " + the system's description: the copy is
    ///                    complete, its time is not set.
    /// May block as long as the files do, a pipe already when it is opened, and is a cancellation point.
    static void Copy(const std::string& from, const std::string& to);

    /// Renames @p from to @p to; the same as _RenameHelper(), tried again at once up to ten times when it fails with an EException, so
    /// eleven times in all. A failed allocation and a cancellation leave at once.
    /// @throw EException  that of the last attempt.
    static void Rename(const std::string& from, const std::string& to);

private:
    friend KEST_EXPORT void _RenameHelper(const std::string& from, const std::string& to);

    KEST_HIDDEN static bool Copy(const std::string& from, const std::string& to, bool& isOpenedForWriting);
};

/// One attempt to rename @p from to @p to.
///
/// Within a file system an existing destination is replaced in one step: at every moment it is the old file or the new one. A name is not
/// followed if it is a symbolic link; the link is renamed. Where both are names of one directory entry ("a", "./a") nothing happens and
/// the attempt succeeds; where they are two hard links of one file, the source entry is removed.
///
/// Over file systems a source that is a directory or cannot be read is an error before anything is touched. Otherwise the content is copied
/// as TFile::Copy() does, following links at the source, and the source removed. An old destination is overwritten; a symbolic link, a
/// pipe, a device or one of several hard links is removed before, so that nothing is written through it. If the copy, its closing or the
/// removal fails, the source is still there and the destination is removed, provided the copy had opened it for writing: an old destination
/// is lost then. If the source has vanished meanwhile, the complete copy stays.
///
/// @throw EException  "rename failed: from '" + @p from + "' to '" + @p to + "': " + the system's description.
/// @throw EException  "cross device link: tryed to copy and remove: copy failed" or the same with "remove failed" at its end.
/// A copy may block, and is a cancellation point; cancelled, it leaves the source, and no destination that it had begun to write.
KEST_EXPORT void _RenameHelper(const std::string& from, const std::string& to);

/// Whether @p name matches the wildcard pattern @p pattern, by the rules of fnmatch in the program's locale: "*" and "?" also match a
/// slash and a leading dot, a backslash is an ordinary character, case counts. A malformed pattern matches nothing it does not spell.
/// Neither text is converted. Never throws.
KEST_EXPORT bool GetFileNameMatch(const std::string& name, const std::string& pattern);

/// The absolute path of @p path, which must exist, without symbolic links, "." or "..".
/// @throw EException  "realpath() failed": the path does not exist or cannot be resolved, or the result has 4096 bytes or more.
KEST_EXPORT std::string GetFullPathName(const std::string& path);

} // namespace Kest::System

#endif

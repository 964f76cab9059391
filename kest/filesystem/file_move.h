// Internal header: used by _RenameHelper, for what the system's rename leaves to do.
#ifndef KEST_FILESYSTEM_FILE_MOVE_H
#define KEST_FILESYSTEM_FILE_MOVE_H

#include <string>

#include <sys/stat.h>

namespace Kest::System {

/// How a move over file systems ended. What there is then at the source and at the destination stands at _RenameHelper().
enum class _TMoveEnd {
    Done,
    CopyFailed,  ///< the destination was not replaced, or the disk failed when the new entry was written to it
    RemoveFailed ///< the copy took the destination's name, and the source was not removed
};

/// Moves a file by copying it: opens the source, copies it, writes the copy to the disk, replaces the destination, removes the source. The
/// paths are in the system's encoding.
_TMoveEnd _MoveOverFileSystems(const std::string& source, const std::string& destination);

/// Removes the entry @p source of the two hard links @p source and @p destination of @p file, after a rename for which the system did
/// nothing. Leaves the entry alone if both paths lead to one entry, or if the source is another file by now.
/// @return 0, or the system's error.
int _RemoveLeftHardLink(const std::string& source, const std::string& destination, const struct stat& file);

} // namespace Kest::System

#endif

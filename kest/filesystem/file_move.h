// Internal header: used by _RenameHelper, for what the system's rename leaves to do.
#ifndef KEST_FILESYSTEM_FILE_MOVE_H
#define KEST_FILESYSTEM_FILE_MOVE_H

#include <string>

#include <sys/stat.h>

namespace Kest::System {

enum class _TMoveEnd {
    Done,
    CopyFailed,  ///< the source is where it was, and so is the old destination unless the disk failed at the very end
    RemoveFailed ///< the source is where it was or is somebody else's affair
};

/// Moves a file by copying: open, copy, secure, replace, remove. The paths are in the system's encoding.
_TMoveEnd _MoveOverFileSystems(const std::string& source, const std::string& destination);

/// Removes the entry @p source where the system did nothing, since @p source and @p destination are two hard links of @p file. One entry by
/// two names is left alone, and so is a source that is another file by now.
/// @return 0 or the error.
int _RemoveLeftHardLink(const std::string& source, const std::string& destination, const struct stat& file);

} // namespace Kest::System

#endif

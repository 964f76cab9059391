#ifndef KEST_PROCESS_PROCESS_H
#define KEST_PROCESS_PROCESS_H

#include <kest/export.h>

#include <string>

/// @file
/// Services about the running process. No state of their own; any thread may call them. Nothing blocks.

namespace Kest::System {

/// One of the standard streams of the process.
enum class TStandardStream : int { Input, Output, Error };

/// How a standard stream treats the ends of lines, on platforms that make a difference.
enum class TStandardStreamMode : int { Text, Binary };

/// The absolute path of the program's executable, in UTF-8, without symbolic links.
/// Started by a shell that SHELL names as "/bin/bash", the program finds its path in the environment variable "_"; otherwise, or if
/// that is not there, it is @p argv[0], taken relative to the current directory.
/// @param argc  not used.
/// @param argv  what the program's entry point received. Requires: @p argv[0] is a string.
/// @throw EException  "realpath() failed": the name is not the path of a file, for instance a bare name found through PATH.
KEST_EXPORT std::string GetApplicationFileName(int argc, char** argv);

/// Does nothing on this platform, which makes no difference between the modes.
KEST_EXPORT void SetStandardStreamMode(TStandardStream stream, TStandardStreamMode mode);

/// Sets the priority, -100 (lowest) to 100 (highest), 0 being normal. The system's nice value has forty steps for it: 20 - (@p priority
/// + 100) / 5, truncated, and its largest is 19, so what is read back may differ a little.
/// On this system a nice value belongs to a thread: that of the process's main thread is set, and threads have that of their maker.
/// @throw EException  "bad priority value": out of range; nothing was changed.
/// @throw EException  the system's description alone, for instance when a higher priority needs a privilege.
KEST_EXPORT void SetProcessPriority(int priority);

/// The priority on the same scale: that of the process's main thread.
/// @throw EException  the system's description alone.
KEST_EXPORT int GetProcessPriority();

} // namespace Kest::System

#endif

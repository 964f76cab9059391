#ifndef KEST_PROCESS_PROCESS_H
#define KEST_PROCESS_PROCESS_H

#include <kest/export.h>

#include <string>

/// @file
/// Services about the running process: its executable, the modes of the standard streams, its priority. They keep no state.
///
/// Waits: GetApplicationFileName(), for the file system. The other operations do not wait. None is a cancellation point.
/// Threads: any thread may call any operation.

namespace Kest::System {

/// One of the standard streams of the process.
enum class TStandardStream : int { Input, Output, Error };

/// How a standard stream treats the ends of lines, on platforms that make a difference.
enum class TStandardStreamMode : int { Text, Binary };

/// The absolute path of the program's executable, in UTF-8, without symbolic links.
/// If the environment variable SHELL is "/bin/bash", the path comes from the environment variable "_". If SHELL is anything else, or "_" is
/// missing or empty, the path comes from @p argv[0]. A relative path counts from the current directory.
/// @param argc  not used.
/// @param argv  what the program's entry point received.
/// @throw EException  "realpath() failed": the path leads to no file. A bare name that the shell found through PATH is one reason.
/// Requires: @p argv[0] is a string. No other thread changes the environment meanwhile.
KEST_EXPORT std::string GetApplicationFileName(int argc, char** argv);

/// Does nothing: this platform makes no difference between the modes.
KEST_EXPORT void SetStandardStreamMode(TStandardStream stream, TStandardStreamMode mode);

/// Sets the priority, from -100 (lowest) over 0 (normal) to 100 (highest). The system's nice value becomes 20 - (@p priority + 100) / 5,
/// the quotient truncated and the largest value being 19. It has forty steps, so GetProcessPriority() may return a slightly different
/// priority. On this system a nice value belongs to a thread. This operation sets that of the process's main thread. A new thread gets that
/// of the thread that makes it.
/// @throw EException  "bad priority value": @p priority is out of range. Nothing was changed.
/// @throw EException  the system's description alone. A higher priority needs a privilege, for instance. Nothing was changed.
KEST_EXPORT void SetProcessPriority(int priority);

/// The priority of the process's main thread, from -100 (lowest) to 100 (highest).
/// @throw EException  the system's description alone.
KEST_EXPORT int GetProcessPriority();

} // namespace Kest::System

#endif

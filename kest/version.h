#ifndef KEST_VERSION_H
#define KEST_VERSION_H

#include <kest/export.h>

/// @file
/// The version of the library. It is stated here and nowhere else: the build, the packages and the library's file name follow.
///
/// Versions are semantic. A program built against 1.x.y runs with every later 1.x'.y'; what breaks that raises the major version, and
/// with it the name that programs are linked to (libkest.so.1). New operations raise the minor version, repairs the last number.

#define KEST_VERSION_MAJOR 1 ///< raised by what breaks callers
#define KEST_VERSION_MINOR 1 ///< raised by what callers may use in addition
#define KEST_VERSION_PATCH 0 ///< raised by repairs

/// The version as one number that grows with it, for `#if KEST_VERSION >= 10200`.
#define KEST_VERSION (KEST_VERSION_MAJOR * 10000 + KEST_VERSION_MINOR * 100 + KEST_VERSION_PATCH)

/// @cond
#define KEST_VERSION_QUOTE_(number) #number
#define KEST_VERSION_JOIN_(major, minor, patch) KEST_VERSION_QUOTE_(major) "." KEST_VERSION_QUOTE_(minor) "." KEST_VERSION_QUOTE_(patch)
/// @endcond

/// The version as text, "1.1.0". That of the headers; the library that runs tells its own by Kest::GetVersion().
#define KEST_VERSION_TEXT KEST_VERSION_JOIN_(KEST_VERSION_MAJOR, KEST_VERSION_MINOR, KEST_VERSION_PATCH)

namespace Kest {

/// The version of the library that the program runs with, "1.1.0" for instance. It may be later than KEST_VERSION_TEXT, which is that of
/// the headers the program was compiled with. The text lives as long as the library is loaded. Any thread may call it.
KEST_EXPORT const char* GetVersion() noexcept;

} // namespace Kest

#endif

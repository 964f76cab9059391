#ifndef KEST_FOUNDATION_SYSTEM_TEXT_H
#define KEST_FOUNDATION_SYSTEM_TEXT_H

#include <kest/export.h>

#include <string>

/// @file
/// Text on its way to the system and back. Inside, narrow text is UTF-8; every path or text that crosses the border goes through
/// these conversions, so that a platform with another encoding changes this file only. Here the system's encoding counts as UTF-8:
/// both are plain copies, no byte is examined, and invalid UTF-8 passes unchanged, zero bytes included.
///
/// No state; any thread may call them. They throw the standard allocation failure only.

namespace Kest::System {

/// @p text in the system's encoding.
KEST_EXPORT std::string UTF8ToSystem(const std::string& text);

/// @p text, given in the system's encoding, in UTF-8.
KEST_EXPORT std::string SystemToUTF8(const std::string& text);

/// True when @p text comes back byte for byte from a trip to the system's encoding: on this platform always.
KEST_EXPORT bool IsUTF8SystemRepresentable(const std::string& text);

} // namespace Kest::System

#endif

#ifndef KEST_TEXT_SYSTEM_TEXT_H
#define KEST_TEXT_SYSTEM_TEXT_H

/// @file
/// Text on its way to the system and back: UTF8ToSystem(), SystemToUTF8(), IsUTF8SystemRepresentable(). They are declared and defined in
/// foundation/, since the messages of exceptions go through them. GetSystemEncoding() is in text/locale.h and locale.cpp.

#include <kest/foundation/system_text.h>

#endif

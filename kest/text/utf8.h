#ifndef KEST_TEXT_UTF8_H
#define KEST_TEXT_UTF8_H

#include <kest/export.h>

#include <string>

/// @file
/// Conversion between UTF-8 and UCS-2. Wide text holds one UCS-2 code unit, 0 to 0xFFFF, in each element, although wchar_t is wider on this
/// platform. Characters above 0xFFFF have no representation. A surrogate is a code unit like any other.
///
/// The conversions never validate, and throw nothing of their own: a fixed rule converts each byte and each code unit. A sequence of UTF-8
/// has one to three bytes; sequences of four bytes are neither written nor understood. Counts are in elements: bytes of narrow buffers,
/// wchar_t of wide buffers. The operations keep no state and do not wait, and none is a cancellation point.
/// Threads: any thread may call any operation.

namespace Kest::System {

/// How many bytes the first @p length code units of @p text take in UTF-8. A code unit 0 ends the text earlier, and nothing is read
/// beyond it. A code unit up to 0x7F takes one byte, up to 0x7FF two, and any larger one three.
KEST_EXPORT unsigned int _UTF8LengthOfUCS2(const wchar_t* text, unsigned int length);

/// How many characters the first @p length bytes of @p text hold: the number of bytes below 0x80 or above 0xC0. A zero byte counts too.
KEST_EXPORT unsigned int _UTF8Length(const char* text, unsigned int length);

/// Encodes the first @p length code units of @p text into @p out, and writes a zero byte at @p out[@p outLength]. A code unit 0 ends the
/// text earlier, and nothing is read beyond it. A value above 0xFFFF gives three bytes too. Its upper bits spill into the first of
/// them.
/// Requires: @p out has room for _UTF8LengthOfUCS2(@p text, @p length) bytes and the zero byte, and @p outLength is that length.
KEST_EXPORT void _UTF8FromUCS2(const wchar_t* text, unsigned int length, char* out, unsigned int outLength);

/// Decodes the first @p length bytes of @p text into at most @p outCapacity code units at @p out. Nothing is read beyond these bytes.
///
/// | lead byte    | value                                                            |
/// |--------------|------------------------------------------------------------------|
/// | 0x00 to 0x7F | lead                                                             |
/// | 0x80 to 0xDF | ((lead & 0x1F) << 6) + (b & 0x7F)                                |
/// | 0xE0 to 0xFF | ((lead & 0x0F) << 12) + ((b & 0x7F) << 6) + (c & 0x7F)           |
///
/// b and c are the bytes behind the lead, whatever they are. A sequence that the end of the input cuts off gives one 0xFFFD. Malformed text
/// can give values above 0xFFFF, up to 0x1103F.
/// @return the number of code units written.
KEST_EXPORT unsigned int _UCS2FromUTF8(const char* text, unsigned int length, wchar_t* out, unsigned int outCapacity);

/// Decodes @p text into as many code units as _UTF8Length() counts characters. If malformed text decodes to fewer, the result ends with
/// code units 0. If it decodes to more, those at the end are dropped.
/// @throw std::bad_alloc, std::length_error  the result finds no memory.
KEST_EXPORT std::basic_string<wchar_t> UTF8ToUCS(const std::string& text);

/// Encodes @p text up to its first code unit 0.
/// @throw std::bad_alloc, std::length_error  the result finds no memory.
KEST_EXPORT std::string UCSToUTF8(const std::basic_string<wchar_t>& text);

} // namespace Kest::System

#endif

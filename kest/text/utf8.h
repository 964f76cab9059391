#ifndef KEST_TEXT_UTF8_H
#define KEST_TEXT_UTF8_H

#include <kest/export.h>

#include <string>

/// @file
/// Conversion between UTF-8 and UCS-2. Wide text holds one UCS-2 code unit, 0 to 0xFFFF, in each element, although wchar_t is wider
/// here. Characters beyond have no representation; surrogates are code units like any other.
///
/// The conversions are lenient: they never throw anything of their own and never validate, every byte and every code unit has its fixed
/// rule. A sequence of UTF-8 has one to three bytes, neither writing nor reading knows a fourth. Counts are in elements: bytes of narrow
/// buffers, wchar_t of wide ones. No state; any thread may call anything. Nothing blocks.

namespace Kest::System {

/// How many bytes the first @p length code units of @p text are in UTF-8, up to a code unit 0: one up to 0x7F, two up to 0x7FF, three
/// for everything above. Nothing is read beyond that 0, however large @p length is.
KEST_EXPORT unsigned int _UTF8LengthOfUCS2(const wchar_t* text, unsigned int length);

/// How many characters the first @p length bytes of @p text are: the bytes below 0x80 or above 0xC0. A zero byte counts like any other.
KEST_EXPORT unsigned int _UTF8Length(const char* text, unsigned int length);

/// Encodes the first @p length code units of @p text, up to a code unit 0, into @p out and writes a zero byte at @p out[@p outLength].
/// Nothing is read beyond that code unit 0. Of a value above 0xFFFF the upper bits spill into the first of its three bytes.
/// Requires: @p out has room for _UTF8LengthOfUCS2(@p text, @p length) bytes and the zero byte, and @p outLength is that length.
KEST_EXPORT void _UTF8FromUCS2(const wchar_t* text, unsigned int length, char* out, unsigned int outLength);

/// Decodes the first @p length bytes of @p text into at most @p outCapacity code units at @p out and returns their number.
///
/// A lead byte up to 0x7F is its value. One of 0x80 to 0xDF takes one byte more, one above two, whatever they are: their low seven bits
/// are added to those of the lead, shifted by six a byte. A sequence cut off by the end of the input gives one 0xFFFD. Nothing is read
/// beyond the input.
KEST_EXPORT unsigned int _UCS2FromUTF8(const char* text, unsigned int length, wchar_t* out, unsigned int outCapacity);

/// @p text decoded, into as many code units as _UTF8Length counts characters: of malformed text the rest is 0, or dropped.
/// @throw std::bad_alloc, std::length_error  the result finds no memory.
KEST_EXPORT std::basic_string<wchar_t> UTF8ToUCS(const std::string& text);

/// @p text encoded, up to its first code unit 0.
/// @throw std::bad_alloc, std::length_error  the result finds no memory.
KEST_EXPORT std::string UCSToUTF8(const std::basic_string<wchar_t>& text);

} // namespace Kest::System

#endif

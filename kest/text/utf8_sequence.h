// Internal header: used by the codecs of the text conversions and by utf8.cpp.
#ifndef KEST_TEXT_UTF8_SEQUENCE_H
#define KEST_TEXT_UTF8_SEQUENCE_H

#include <cstddef>
#include <cstdint>

/// @file
/// The rules of a single sequence: the one to three bytes of a character.
namespace Kest::System {

/// Whether _UTF8Length() counts @p byte: it is below 0x80 or above 0xC0.
inline bool _IsUTF8Counted(char byte) noexcept {
    return static_cast<signed char>(byte) > -64;
}

/// Returns how many bytes the sequence of @p unit has.
inline unsigned _UTF8BytesOf(std::uint32_t unit) noexcept {
    return 1U + (unit > 0x7F ? 1U : 0U) + (unit > 0x7FF ? 1U : 0U);
}

/// Returns how many bytes the code units from @p index on take, and sets @p length to the index of the first 0 among them.
inline std::size_t _CountUTF8Bytes(const wchar_t* text, std::size_t index, std::size_t& length) noexcept {
    std::size_t bytes = 0;
    for (; index < length && text[index] != 0; ++index)
        bytes += _UTF8BytesOf(static_cast<std::uint32_t>(text[index])); // NOLINT(bugprone-signed-char-misuse,cert-str34-c): no char
    length = index;
    return bytes;
}

/// Decodes the sequence at @p text and moves @p text behind it.
/// Requires: @p text is before @p end.
inline wchar_t _DecodeUTF8Sequence(const char*& text, const char* end) noexcept {
    // Each length has a branch of its own. Of one sum for all, compilers make a chain of instructions of which each waits for the last.
    const auto byte = [&text](int index) { return std::uint32_t{static_cast<unsigned char>(text[index])}; };
    const std::uint32_t lead = byte(0);
    if (lead <= 0x7F) {
        ++text;
        return static_cast<wchar_t>(lead);
    }
    const std::ptrdiff_t size = lead <= 0xDF ? 2 : 3;
    if (size > end - text) {
        text = end;
        return 0xFFFD;
    }
    std::uint32_t value = 0;
    if (size == 2) {
        value = ((lead & 0x1FU) << 6) + (byte(1) & 0x7FU);
        text += 2;
    } else {
        value = ((lead & 0x0FU) << 12) + ((byte(1) & 0x7FU) << 6) + (byte(2) & 0x7FU);
        text += 3;
    }
    return static_cast<wchar_t>(value);
}

/// Encodes @p unit at @p out and moves @p out behind it.
inline void _EncodeUTF8Sequence(std::uint32_t unit, char*& out) noexcept {
    if (unit <= 0x7F) {
        *out++ = static_cast<char>(unit);
    } else if (unit <= 0x7FF) {
        *out++ = static_cast<char>(0xC0 | unit >> 6);
        *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    } else {
        *out++ = static_cast<char>(0xE0 | unit >> 12); // only the low eight bits are kept
        *out++ = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    }
}

} // namespace Kest::System

#endif

// Internal header: used by the conversions of utf8.cpp, by their forms, and by what tests and measures each form.
#ifndef KEST_TEXT_UTF8_FORMS_H
#define KEST_TEXT_UTF8_FORMS_H

#include <cstddef>
#include <cstdint>

namespace Kest::System {

/// The loops of the conversions, written for one kind of processor. All forms give the same results. Decode and Encode get on in steps of
/// up to LongestStep elements, each of which may write up to Slack elements more than are told of.
struct _TUTF8Form {
    static constexpr std::size_t LongestStep = 64;
    static constexpr std::size_t Slack = 16;

    const char* Name;
    bool (*IsUsable)() noexcept;

    /// As _UTF8Length() counts.
    std::size_t (*CountCharacters)(const char* text, std::size_t length) noexcept;

    /// As _UTF8LengthOfUCS2() counts. Cuts @p length at the first code unit 0.
    std::size_t (*CountBytes)(const wchar_t* text, std::size_t& length) noexcept;

    /// Decodes @p text in steps that begin before @p limit, until @p room code units or a few more are written. Moves @p text behind what
    /// it decoded and returns the number of code units.
    std::size_t (*Decode)(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept;

    /// Encodes @p length code units, zeros too, and returns the end of the bytes.
    char* (*Encode)(const wchar_t* text, std::size_t length, char* out) noexcept;
};

/// The fastest form that this processor can use for a text of @p length elements. Cheap enough to ask for at every call.
const _TUTF8Form& _ChooseUTF8Form(std::size_t length) noexcept;

/// Every form that this library was built with, usable or not.
const _TUTF8Form* const* _GetUTF8Forms(std::size_t& count) noexcept;

extern const _TUTF8Form _PortableUTF8Form;

/// Counts the bytes of the code units from @p index on, and cuts @p length at the first 0 of them.
inline std::size_t _CountUTF8Bytes(const wchar_t* text, std::size_t index, std::size_t& length) noexcept {
    std::size_t bytes = 0;
    for (; index < length && text[index] != 0; ++index) {
        // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto unit = static_cast<std::uint32_t>(text[index]);
        bytes += 1U + (unit > 0x7F ? 1U : 0U) + (unit > 0x7FF ? 1U : 0U);
    }
    length = index;
    return bytes;
}

/// Decodes the form at @p text, which is before @p end, and moves @p text behind it.
inline wchar_t _DecodeUTF8Form(const char*& text, const char* end) noexcept {
    // A branch each: compilers would make one chain of dependent instructions of a common sum.
    const auto byte = [&text](int index) { return std::uint32_t{static_cast<unsigned char>(text[index])}; };
    const std::uint32_t lead = byte(0);
    if (lead <= 0x7F) {
        ++text;
        return static_cast<wchar_t>(lead);
    }
    const std::ptrdiff_t form = lead <= 0xDF ? 2 : 3;
    if (form > end - text) {
        text = end;
        return 0xFFFD;
    }
    std::uint32_t value = 0;
    if (form == 2) {
        value = ((lead & 0x1FU) << 6) + (byte(1) & 0x7FU);
        text += 2;
    } else {
        value = ((lead & 0x0FU) << 12) + ((byte(1) & 0x7FU) << 6) + (byte(2) & 0x7FU);
        text += 3;
    }
    return static_cast<wchar_t>(value);
}

/// Encodes @p unit at @p out and moves @p out behind it.
inline void _EncodeUTF8Form(std::uint32_t unit, char*& out) noexcept {
    if (unit <= 0x7F) {
        *out++ = static_cast<char>(unit);
    } else if (unit <= 0x7FF) {
        *out++ = static_cast<char>(0xC0 | unit >> 6);
        *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    } else {
        *out++ = static_cast<char>(0xE0 | unit >> 12); // the low eight bits of it
        *out++ = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (unit & 0x3F));
    }
}

} // namespace Kest::System

#endif

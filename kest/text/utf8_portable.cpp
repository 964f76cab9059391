#include <kest/text/utf8_forms.h>

#include <cstring>

namespace Kest::System {

namespace {

bool IsUsable() noexcept {
    return true;
}

// Inner loops have a fixed length and no branch, which lets compilers use whatever vectors the processor has at least.

/// A run of ASCII that is worth a look. In mixed text a shorter one would be a matter of luck.
constexpr std::size_t RunLength = 64;

constexpr std::uint64_t HighBits = 0x8080808080808080U;

std::uint64_t LoadEight(const char* text) noexcept {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text, sizeof bytes);
    return bytes;
}

std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
    constexpr std::size_t step = 128; // less than a byte can count
    constexpr std::size_t shortStep = 8;
    std::size_t characters = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        std::uint8_t count = 0;
        for (std::size_t each = 0; each < step; ++each)
            count = static_cast<std::uint8_t>(count + (static_cast<signed char>(text[index + each]) > -64 ? 1 : 0));
        characters += count;
    }
    for (; index + shortStep <= length; index += shortStep) {
        const std::uint64_t bytes = LoadEight(text + index);
        const std::uint64_t aboveC0 = (bytes & ~HighBits) + 0x3F3F3F3F3F3F3F3FU; // the highest bits, of bytes that have them
        const std::uint64_t counted = (~bytes | aboveC0) >> 7U & 0x0101010101010101U;
        characters += static_cast<std::size_t>(counted * 0x0101010101010101U >> 56U);
    }
    for (; index < length; ++index)
        characters += static_cast<signed char>(text[index]) > -64 ? 1 : 0; // below 0x80 or above 0xC0
    return characters;
}

/// Four code units. Compilers turn operations on them into whatever the processor has; a comparison gives -1 where it holds.
using TUnits = std::uint32_t __attribute__((vector_size(16)));

std::size_t CountBytes(const wchar_t* text, std::size_t& length) noexcept {
    constexpr std::size_t step = 16;
    std::size_t bytes = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        TUnits minusShorter{}; // for less than three bytes, and for less than two
        TUnits zeros{};
        for (std::size_t each = 0; each < step; each += 4) {
            TUnits units;
            std::memcpy(&units, text + index + each, sizeof units);
            minusShorter += ((units & ~0x7FU) == 0) + ((units & ~0x7FFU) == 0);
            zeros |= units == 0;
        }
        if ((zeros[0] | zeros[1] | zeros[2] | zeros[3]) != 0)
            break;
        bytes += 3 * step - (0U - (minusShorter[0] + minusShorter[1] + minusShorter[2] + minusShorter[3]));
    }
    return bytes + _CountUTF8Bytes(text, index, length);
}

bool IsASCII(const char* text) noexcept {
    std::uint64_t any = 0;
    for (std::size_t each = 0; each < RunLength; each += sizeof any)
        any |= LoadEight(text + each);
    return (any & HighBits) == 0;
}

/// A long run of ASCII as it is, anything else form by form, up to the last two bytes without a look at the end.
std::size_t Decode(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept {
    constexpr std::ptrdiff_t run = RunLength;
    const wchar_t* const begin = out;
    const wchar_t* const outEnd = out + room;
    while (text < limit && out < outEnd && end - text >= run && outEnd - out >= run) {
        if (IsASCII(text)) {
            for (std::ptrdiff_t index = 0; index < run; ++index)
                out[index] = static_cast<wchar_t>(text[index]);
            text += run;
            out += run;
        } else {
            for (const char* const stop = text + (run - 2); text < stop;)
                *out++ = _DecodeUTF8Form(text, text + 3);
        }
    }
    while (text < limit && out < outEnd)
        *out++ = _DecodeUTF8Form(text, end);
    return static_cast<std::size_t>(out - begin);
}

char* Encode(const wchar_t* text, std::size_t length, char* out) noexcept {
    constexpr std::size_t step = 16;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        std::uint32_t any = 0;
        char block[step];
        for (std::size_t each = 0; each < step; ++each) {
            // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
            const auto unit = static_cast<std::uint32_t>(text[index + each]);
            any |= unit;
            block[each] = static_cast<char>(unit);
        }
        if (any <= 0x7F) {
            std::memcpy(out, block, step);
            out += step;
        } else {
            for (std::size_t each = 0; each < step; ++each)
                _EncodeUTF8Form(static_cast<std::uint32_t>(text[index + each]), out);
        }
    }
    for (; index < length; ++index)
        _EncodeUTF8Form(static_cast<std::uint32_t>(text[index]), out);
    return out;
}

} // namespace

const _TUTF8Form _PortableUTF8Form = {"portable", IsUsable, CountCharacters, CountBytes, Decode, Encode};

} // namespace Kest::System

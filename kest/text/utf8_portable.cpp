#include <kest/text/utf8_forms.h>

#include <algorithm>
#include <cstring>

namespace Kest::System {

namespace {

bool IsUsable() noexcept {
    return true;
}

// Inner loops have a fixed length and work on copies, which lets compilers use whatever vectors the processor has at least.

std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
    constexpr std::size_t step = 128; // less than a byte can count
    std::size_t characters = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        std::uint8_t count = 0;
        for (std::size_t each = 0; each < step; ++each)
            count = static_cast<std::uint8_t>(count + (static_cast<signed char>(text[index + each]) > -64 ? 1 : 0));
        characters += count;
    }
    for (; index < length; ++index)
        characters += static_cast<signed char>(text[index]) > -64 ? 1 : 0; // below 0x80 or above 0xC0
    return characters;
}

std::size_t CountBytes(const wchar_t* text, std::size_t& length) noexcept {
    constexpr std::size_t step = 16;
    std::size_t bytes = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        std::uint32_t longer = 0;
        std::uint32_t zeros = 0;
        for (std::size_t each = 0; each < step; ++each) {
            // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
            const auto unit = static_cast<std::uint32_t>(text[index + each]);
            longer += (unit > 0x7F ? 1U : 0U) + (unit > 0x7FF ? 1U : 0U);
            zeros += unit == 0 ? 1 : 0;
        }
        if (zeros != 0)
            break;
        bytes += step + longer;
    }
    return bytes + _CountUTF8Bytes(text, index, length);
}

/// Eight bytes at a time: plain ASCII as it is, else the forms that begin early enough to end within them, which needs no look at the end.
std::size_t Decode(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept {
    constexpr std::ptrdiff_t step = 8;
    const wchar_t* const begin = out;
    const wchar_t* const outEnd = out + room;
    while (text < limit && out < outEnd) {
        if (end - text < step) {
            *out++ = _DecodeUTF8Form(text, end);
            continue;
        }
        char block[step];
        std::uint64_t bytes = 0;
        std::memcpy(block, text, step);
        std::memcpy(&bytes, block, step);
        if ((bytes & 0x8080808080808080U) == 0) {
            for (std::ptrdiff_t index = 0; index < step; ++index)
                out[index] = static_cast<wchar_t>(block[index]);
            text += step;
            out += step;
            continue;
        }
        for (const char* const stop = text + (step - 2); text < stop;)
            *out++ = _DecodeUTF8Form(text, text + 3);
    }
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

#include <kest/text/utf8.h>

#include <cstddef>
#include <cstdint>

namespace Kest::System {

namespace {

constexpr std::uint32_t Replacement = 0xFFFD;

// The counted routines take 32-bit counts, a string may be longer: these take any.

std::size_t CountBytes(const wchar_t* text, std::size_t length) noexcept {
    std::size_t bytes = 0;
    for (std::size_t index = 0; index < length && text[index] != 0; ++index) {
        // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto unit = static_cast<std::uint32_t>(text[index]);
        bytes += unit <= 0x7F ? 1 : unit <= 0x7FF ? 2 : 3;
    }
    return bytes;
}

std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
    std::size_t characters = 0;
    for (std::size_t index = 0; index < length; ++index) {
        const auto byte = static_cast<unsigned char>(text[index]);
        characters += byte < 0x80 || byte > 0xC0 ? 1 : 0;
    }
    return characters;
}

void Encode(const wchar_t* text, std::size_t length, char* out) noexcept {
    for (std::size_t index = 0; index < length && text[index] != 0; ++index) {
        // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto unit = static_cast<std::uint32_t>(text[index]);
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
}

/// Bytes of the form that @p lead begins.
constexpr std::size_t FormLength(unsigned char lead) noexcept {
    return lead <= 0x7F ? 1 : lead <= 0xDF ? 2 : 3;
}

std::size_t Decode(const char* text, std::size_t length, wchar_t* out, std::size_t capacity) noexcept {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t index = 0;
    std::size_t count = 0;
    while (index < length && count < capacity) {
        const unsigned char lead = bytes[index];
        const std::size_t form = FormLength(lead);
        std::uint32_t value = lead;
        if (form > length - index)
            value = Replacement;
        else if (form == 2)
            value = ((lead & 0x1FU) << 6) + (bytes[index + 1] & 0x7FU);
        else if (form == 3)
            value = ((lead & 0x0FU) << 12) + ((bytes[index + 1] & 0x7FU) << 6) + (bytes[index + 2] & 0x7FU);
        out[count++] = static_cast<wchar_t>(value);
        index += form < length - index ? form : length - index;
    }
    return count;
}

} // namespace

unsigned int _UTF8LengthOfUCS2(const wchar_t* text, unsigned int length) {
    return static_cast<unsigned int>(CountBytes(text, length));
}

unsigned int _UTF8Length(const char* text, unsigned int length) {
    return static_cast<unsigned int>(CountCharacters(text, length));
}

void _UTF8FromUCS2(const wchar_t* text, unsigned int length, char* out, unsigned int outLength) {
    Encode(text, length, out);
    out[outLength] = 0;
}

unsigned int _UCS2FromUTF8(const char* text, unsigned int length, wchar_t* out, unsigned int outCapacity) {
    return static_cast<unsigned int>(Decode(text, length, out, outCapacity));
}

std::basic_string<wchar_t> UTF8ToUCS(const std::string& text) {
    std::basic_string<wchar_t> result(CountCharacters(text.data(), text.size()), 0);
    (void)Decode(text.data(), text.size(), result.data(), result.size());
    return result;
}

std::string UCSToUTF8(const std::basic_string<wchar_t>& text) {
    std::string result(CountBytes(text.data(), text.size()), 0);
    Encode(text.data(), text.size(), result.data());
    return result;
}

} // namespace Kest::System

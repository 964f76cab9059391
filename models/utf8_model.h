#ifndef KEST_MODELS_UTF8_MODEL_H
#define KEST_MODELS_UTF8_MODEL_H

/// @file
/// The rules of the text conversions once more, written with divisions and as plainly as possible, to compare the library with.

#include <kest/text/utf8_codec.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Kest::Test {

using TWide = std::basic_string<wchar_t>;

inline std::string ModelOfEncoding(const TWide& text) {
    std::string bytes;
    for (const wchar_t each : text.substr(0, text.find(L'\0'))) {
        // A wchar_t has 32 bits here and is no char: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto unit = static_cast<std::uint32_t>(each);
        if (unit >= 2048)
            bytes += static_cast<char>((224 | unit / 4096) % 256);
        if (unit >= 128)
            bytes += static_cast<char>(unit >= 2048 ? 128 + unit / 64 % 64 : 192 + unit / 64);
        bytes += static_cast<char>(unit >= 128 ? 128 + unit % 64 : unit);
    }
    return bytes;
}

inline std::size_t ModelOfLength(const std::string& text) {
    const auto counts = [](unsigned char byte) { return byte < 0x80 || byte > 0xC0; };
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), counts));
}

/// All code units that the bytes decode to, without a limit.
inline TWide ModelOfDecoding(const std::string& text) {
    const auto byte = [&](std::size_t index) { return std::uint32_t{static_cast<unsigned char>(text[index])}; };
    TWide units;
    for (std::size_t at = 0; at < text.size();) {
        const std::uint32_t lead = byte(at);
        const std::size_t size = lead < 128 ? 1 : lead < 224 ? 2 : 3;
        std::uint32_t value = size == 1 ? lead : lead % (size == 2 ? 32 : 16);
        for (std::size_t i = 1; i < size && at + size <= text.size(); ++i)
            value = value * 64 + byte(at + i) % 128;
        units += static_cast<wchar_t>(at + size <= text.size() ? value : 0xFFFD);
        at += size;
    }
    return units;
}

/// The codecs that this processor can use.
inline std::vector<const System::_TUTF8Codec*> UsableCodecs() {
    const System::_TUTF8Codec* codecs[4];
    return {codecs, codecs + System::_GetUTF8Codecs(codecs)};
}

} // namespace Kest::Test

#endif

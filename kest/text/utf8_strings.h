// Internal header: used by utf8.cpp and by what tests and measures each codec of the conversions.
#ifndef KEST_TEXT_UTF8_STRINGS_H
#define KEST_TEXT_UTF8_STRINGS_H

#include <kest/text/utf8_codec.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

namespace Kest::System {

// A codec writes a few elements more than the result has. The string has room for them until its length is set.

/// Makes a string of @p length elements, which @p write writes. @p write may write Slack elements more. A string that is short enough is
/// written to the stack first, so that it needs no memory of its own. A longer one is written in place. A newer standard library does not
/// fill it with zeros before that.
template <class TString, class TWrite>
TString _WriteString(std::size_t length, const TWrite& write) {
    TString string;
    constexpr std::size_t most = 22; // no standard library keeps more elements in the string itself
    if (length <= std::min(most, string.capacity())) {
        std::array<typename TString::value_type, most + _TUTF8Codec::Slack> room;
        write(room.data());
        string.assign(room.data(), length);
        return string;
    }
#ifdef __cpp_lib_string_resize_and_overwrite
    string.resize_and_overwrite(length + _TUTF8Codec::Slack, [&](auto* place, std::size_t) {
        write(place);
        return length;
    });
#else
    string.resize(length + _TUTF8Codec::Slack);
    write(string.data());
    string.resize(length);
#endif
    return string;
}

/// Does what UTF8ToUCS() does, by @p codec.
inline std::basic_string<wchar_t> _DecodeUTF8String(const _TUTF8Codec& codec, const std::string& text) {
    const std::size_t characters = codec.CountCharacters(text.data(), text.size());
    return _WriteString<std::basic_string<wchar_t>>(characters, [&](wchar_t* units) {
        const char* source = text.data();
        const char* const end = source + text.size();
        const std::size_t count = codec.Decode(source, end, end, units, characters);
        if (count < characters)
            std::fill(units + count, units + characters, 0);
    });
}

/// Does what UCSToUTF8() does, by @p codec.
inline std::string _EncodeUTF8String(const _TUTF8Codec& codec, const std::basic_string<wchar_t>& text) {
    std::size_t units = text.size();
    const std::size_t bytes = codec.CountBytes(text.data(), units);
    return _WriteString<std::string>(bytes, [&](char* place) { (void)codec.Encode(text.data(), units, place); });
}

} // namespace Kest::System

#endif

// Internal header: used by utf8.cpp and by what measures each form of the conversions.
#ifndef KEST_TEXT_UTF8_STRINGS_H
#define KEST_TEXT_UTF8_STRINGS_H

#include <kest/text/utf8_forms.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace Kest::System {

// In a string there is room for what a form writes too much, which is given up in the end. A longer result grows by stretches, which the
// cache holds from when they are filled with zeros until they are written.

constexpr std::size_t _UTF8StretchLength = 4096;

inline std::basic_string<wchar_t> _DecodeUTF8ByStretches(const _TUTF8Form& form, const std::string& text, std::size_t characters) {
    const char* source = text.data();
    const char* const end = source + text.size();
    std::basic_string<wchar_t> result;
    result.reserve(characters + _TUTF8Form::Slack);
    while (result.size() < characters && source < end) {
        const std::size_t count = result.size();
        const std::size_t room = std::min(characters - count, _UTF8StretchLength);
        result.resize(count + room + _TUTF8Form::Slack);
        result.resize(count + form.Decode(source, end, end, result.data() + count, room));
    }
    result.resize(characters);
    return result;
}

/// UTF8ToUCS() by @p form.
inline std::basic_string<wchar_t> _DecodeUTF8String(const _TUTF8Form& form, const std::string& text) {
    const std::size_t characters = form.CountCharacters(text.data(), text.size());
    if (characters > _UTF8StretchLength)
        return _DecodeUTF8ByStretches(form, text, characters);
    std::basic_string<wchar_t> result(characters + _TUTF8Form::Slack, 0);
    const char* source = text.data();
    const char* const end = source + text.size();
    const std::size_t count = form.Decode(source, end, end, result.data(), characters);
    if (count < characters)
        std::fill(result.begin() + static_cast<std::ptrdiff_t>(count), result.end(), 0);
    result.resize(characters);
    return result;
}

inline std::string _EncodeUTF8ByStretches(const _TUTF8Form& form, const wchar_t* text, std::size_t units, std::size_t bytes) {
    std::string result;
    result.reserve(bytes + _TUTF8Form::Slack);
    std::size_t count = 0;
    for (std::size_t index = 0; index < units; index += _UTF8StretchLength) {
        const std::size_t length = std::min(units - index, _UTF8StretchLength);
        const std::size_t most = std::min(count + 3 * length, bytes);
        result.resize(std::max(result.size(), most + _TUTF8Form::Slack));
        count = static_cast<std::size_t>(form.Encode(text + index, length, result.data() + count) - result.data());
    }
    result.resize(bytes);
    return result;
}

/// UCSToUTF8() by @p form.
inline std::string _EncodeUTF8String(const _TUTF8Form& form, const std::basic_string<wchar_t>& text) {
    std::size_t units = text.size();
    const std::size_t bytes = form.CountBytes(text.data(), units);
    if (units > _UTF8StretchLength)
        return _EncodeUTF8ByStretches(form, text.data(), units, bytes);
    std::string result(bytes + _TUTF8Form::Slack, 0);
    (void)form.Encode(text.data(), units, result.data());
    result.resize(bytes);
    return result;
}

} // namespace Kest::System

#endif

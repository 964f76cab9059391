// Internal header: used by utf8.cpp and by what tests and measures each form of the conversions.
#ifndef KEST_TEXT_UTF8_STRINGS_H
#define KEST_TEXT_UTF8_STRINGS_H

#include <kest/text/utf8_forms.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace Kest::System {

// A form writes a few elements more than the result has, for which there is room in the string until its length is set.

/// Gives @p string room for @p room elements, lets @p write fill them and takes its result as the length. A newer standard library does not
/// fill them with zeros before.
template <class TString, class TWrite>
void _OverwriteString(TString& string, std::size_t room, const TWrite& write) {
#ifdef __cpp_lib_string_resize_and_overwrite
    string.resize_and_overwrite(room, [&write](auto* place, std::size_t) { return write(place); });
#else
    string.resize(room);
    string.resize(write(string.data()));
#endif
}

/// UTF8ToUCS() by @p form.
inline std::basic_string<wchar_t> _DecodeUTF8String(const _TUTF8Form& form, const std::string& text) {
    const std::size_t characters = form.CountCharacters(text.data(), text.size());
    std::basic_string<wchar_t> result;
    _OverwriteString(result, characters + _TUTF8Form::Slack, [&](wchar_t* units) {
        const char* source = text.data();
        const char* const end = source + text.size();
        const std::size_t count = form.Decode(source, end, end, units, characters);
        if (count < characters)
            std::fill(units + count, units + characters, 0);
        return characters;
    });
    return result;
}

/// UCSToUTF8() by @p form.
inline std::string _EncodeUTF8String(const _TUTF8Form& form, const std::basic_string<wchar_t>& text) {
    std::size_t units = text.size();
    const std::size_t bytes = form.CountBytes(text.data(), units);
    std::string result;
    _OverwriteString(result, bytes + _TUTF8Form::Slack, [&](char* place) {
        (void)form.Encode(text.data(), units, place);
        return bytes;
    });
    return result;
}

} // namespace Kest::System

#endif

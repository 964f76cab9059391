#include <kest/text/utf8.h>

#include <kest/text/utf8_forms.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cwchar>

namespace Kest::System {

namespace {

// The counted routines take 32-bit counts, a string may be longer. A form writes a few elements beyond its text: in a string there is room
// for them, which is given up in the end; the last characters of a counted buffer are left to the plain rule of one form.

constexpr std::size_t Slack = _TUTF8Form::Slack;

/// Bytes of which the last step of a form leaves so many that they hold at least as many characters as it writes too many.
constexpr std::size_t SlackOfBytes = _TUTF8Form::LongestStep + 3 * Slack;

/// A longer result grows by stretches of this length, which the cache holds from when they are made until they are written.
constexpr std::size_t StretchLength = 4096;

std::basic_string<wchar_t> DecodeByStretches(const _TUTF8Form& form, const std::string& text, std::size_t characters) {
    const char* source = text.data();
    const char* const end = source + text.size();
    std::basic_string<wchar_t> result;
    result.reserve(characters + Slack);
    while (result.size() < characters && source < end) {
        const std::size_t count = result.size();
        const std::size_t room = std::min(characters - count, StretchLength);
        result.resize(count + room + Slack);
        result.resize(count + form.Decode(source, end, end, result.data() + count, room));
    }
    result.resize(characters);
    return result;
}

} // namespace

unsigned int _UTF8LengthOfUCS2(const wchar_t* text, unsigned int length) {
    std::size_t units = length;
    return static_cast<unsigned int>(_ChooseUTF8Form(units).CountBytes(text, units));
}

unsigned int _UTF8Length(const char* text, unsigned int length) {
    return static_cast<unsigned int>(_ChooseUTF8Form(length).CountCharacters(text, length));
}

void _UTF8FromUCS2(const wchar_t* text, unsigned int length, char* out, unsigned int outLength) {
    const wchar_t* const zero = std::wmemchr(text, 0, length);
    const std::size_t units = zero != nullptr ? static_cast<std::size_t>(zero - text) : length;
    char* place = out;
    std::size_t index = 0;
    if (units > Slack) {
        index = units - Slack;
        place = _ChooseUTF8Form(index).Encode(text, index, place);
    }
    for (; index < units; ++index)
        _EncodeUTF8Form(static_cast<std::uint32_t>(text[index]), place);
    out[outLength] = 0;
}

unsigned int _UCS2FromUTF8(const char* text, unsigned int length, wchar_t* out, unsigned int outCapacity) {
    const char* const end = text + length;
    std::size_t count = 0;
    if (length > SlackOfBytes && outCapacity > Slack)
        count = _ChooseUTF8Form(length).Decode(text, end - SlackOfBytes, end, out, outCapacity - Slack);
    while (text < end && count < outCapacity)
        out[count++] = _DecodeUTF8Form(text, end);
    return static_cast<unsigned int>(count);
}

std::basic_string<wchar_t> UTF8ToUCS(const std::string& text) {
    const _TUTF8Form& form = _ChooseUTF8Form(text.size());
    const std::size_t characters = form.CountCharacters(text.data(), text.size());
    if (characters > StretchLength)
        return DecodeByStretches(form, text, characters);
    std::basic_string<wchar_t> result(characters + Slack, 0);
    const char* source = text.data();
    const char* const end = source + text.size();
    const std::size_t count = form.Decode(source, end, end, result.data(), characters);
    if (count < characters)
        std::fill(result.begin() + static_cast<std::ptrdiff_t>(count), result.end(), 0);
    result.resize(characters);
    return result;
}

std::string UCSToUTF8(const std::basic_string<wchar_t>& text) {
    std::size_t units = text.size();
    const _TUTF8Form& form = _ChooseUTF8Form(units);
    const std::size_t bytes = form.CountBytes(text.data(), units);
    std::string result(bytes + Slack, 0);
    (void)form.Encode(text.data(), units, result.data());
    result.resize(bytes);
    return result;
}

} // namespace Kest::System

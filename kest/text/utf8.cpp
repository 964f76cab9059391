#include <kest/text/utf8.h>

#include <kest/text/utf8_codec.h>
#include <kest/text/utf8_sequence.h>
#include <kest/text/utf8_strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cwchar>

namespace Kest::System {

namespace {

// A codec writes a few elements beyond its result, and a counted buffer has no room for them. So the codec does not convert the last
// characters of a text. A loop converts them one by one.

constexpr std::size_t Slack = _TUTF8Codec::Slack;

/// A codec decodes up to this many bytes before the end. The bytes that its last step leaves hold at least Slack characters, and that is
/// how many elements the codec may write beyond its result.
constexpr std::size_t SlackOfBytes = _TUTF8Codec::LongestStep + 3 * Slack;

/// The number of code units before the first 0, at most @p length. A codec reads in blocks, so it must know where the text ends: the buffer
/// may end with the 0, however large @p length is.
std::size_t CutAtZero(const wchar_t* text, std::size_t length) {
    const wchar_t* const zero = std::wmemchr(text, 0, length);
    return zero != nullptr ? static_cast<std::size_t>(zero - text) : length;
}

} // namespace

unsigned int _UTF8LengthOfUCS2(const wchar_t* text, unsigned int length) {
    std::size_t units = CutAtZero(text, length);
    return static_cast<unsigned int>(_ChooseUTF8Codec(units).CountBytes(text, units));
}

unsigned int _UTF8Length(const char* text, unsigned int length) {
    return static_cast<unsigned int>(_ChooseUTF8Codec(length).CountCharacters(text, length));
}

void _UTF8FromUCS2(const wchar_t* text, unsigned int length, char* out, unsigned int outLength) {
    const std::size_t units = CutAtZero(text, length);
    char* place = out;
    std::size_t index = 0;
    if (units > Slack) {
        index = units - Slack;
        place = _ChooseUTF8Codec(index).Encode(text, index, place);
    }
    for (; index < units; ++index)
        _EncodeUTF8Sequence(static_cast<std::uint32_t>(text[index]), place);
    out[outLength] = 0;
}

unsigned int _UCS2FromUTF8(const char* text, unsigned int length, wchar_t* out, unsigned int outCapacity) {
    const char* const end = text + length;
    std::size_t count = 0;
    if (length > SlackOfBytes && outCapacity > Slack)
        count = _ChooseUTF8Codec(length).Decode(text, end - SlackOfBytes, end, out, std::min(outCapacity, length) - Slack);
    while (text < end && count < outCapacity)
        out[count++] = _DecodeUTF8Sequence(text, end);
    return static_cast<unsigned int>(count);
}

std::basic_string<wchar_t> UTF8ToUCS(const std::string& text) {
    return _DecodeUTF8String(_ChooseUTF8Codec(text.size()), text);
}

std::string UCSToUTF8(const std::basic_string<wchar_t>& text) {
    return _EncodeUTF8String(_ChooseUTF8Codec(text.size()), text);
}

} // namespace Kest::System

// Compares the conversions of UTF-8 and UCS-2 with a model, by every codec that the processor can use. Each buffer has exactly the size
// that a conversion may use, so that the sanitizer sees every access beyond it.
#include "fuzz.h"

#include <kest/text/utf8.h>
#include <models/utf8_model.h>

#include <algorithm>
#include <vector>

using namespace Kest::Fuzz;
using namespace Kest::System;
using namespace Kest::Test;

namespace {

/// Checks that a codec that decodes in pieces, each of @p room code units or a few more, gives the code units of the model.
void CheckDecodingInPieces(const _TUTF8Codec& codec, const std::vector<char>& text, std::size_t room, const TWide& units) {
    const char* place = text.data();
    const char* const end = place + text.size();
    std::size_t done = 0;
    while (place < end) {
        std::vector<wchar_t> out(room + _TUTF8Codec::Slack);
        const std::size_t count = codec.Decode(place, end, end, out.data(), room);
        Require(count > 0 && count <= out.size() && count <= units.size() - done, "a piece has units, and no more than there are");
        Require(std::equal(out.data(), out.data() + count, units.data() + done), "the code units of a piece are those of the model");
        done += count;
    }
    Require(done == units.size(), "the pieces are the whole");
}

void CheckDecoding(const std::vector<char>& text, unsigned int capacity) {
    constexpr wchar_t untouched = 0x7FFFFFFF;
    const auto length = static_cast<unsigned int>(text.size());
    const std::string bytes(text.begin(), text.end());
    const TWide units = ModelOfDecoding(bytes);

    std::vector<wchar_t> out(capacity, untouched);
    const unsigned int count = _UCS2FromUTF8(text.data(), length, out.data(), capacity);
    Require(count == std::min<std::size_t>(capacity, units.size()), "as many code units as there are and fit");
    Require(std::equal(out.begin(), out.begin() + count, units.begin()), "the code units are those of the model");
    Require(std::all_of(out.begin() + count, out.end(), [](wchar_t unit) { return unit == untouched; }), "the rest is untouched");

    const std::size_t characters = ModelOfLength(bytes);
    Require(_UTF8Length(text.data(), length) == characters, "the number of characters");
    for (const _TUTF8Codec* codec : UsableCodecs()) {
        Require(codec->CountCharacters(text.data(), text.size()) == characters, "the number of characters by every codec");
        CheckDecodingInPieces(*codec, text, capacity + 1U, units);
    }
    TWide expected = units;
    expected.resize(characters, 0);
    Require(UTF8ToUCS(bytes) == expected, "the string is what was decoded, cut or filled up");
}

void CheckEncoding(const std::vector<wchar_t>& text) {
    const auto length = static_cast<unsigned int>(text.size());
    const TWide wide(text.begin(), text.end());
    const std::string expected = ModelOfEncoding(wide);
    const unsigned int count = _UTF8LengthOfUCS2(text.data(), length);
    Require(count == expected.size(), "the number of bytes");

    std::vector<char> out(count + 1, 'x');
    _UTF8FromUCS2(text.data(), length, out.data(), count);
    Require(std::equal(expected.begin(), expected.end(), out.begin()) && out.back() == 0, "the bytes are those of the model and a zero");
    for (const _TUTF8Codec* codec : UsableCodecs()) {
        std::size_t units = text.size();
        Require(codec->CountBytes(text.data(), units) == count, "the number of bytes by every codec");
        std::vector<char> bytes(count + _TUTF8Codec::Slack);
        Require(codec->Encode(text.data(), units, bytes.data()) == bytes.data() + count, "as many bytes as were counted");
        Require(std::equal(expected.begin(), expected.end(), bytes.begin()), "the bytes by every codec");
    }
    RequireEqual(UCSToUTF8(wide), expected, "so is the string");

    if (std::all_of(wide.begin(), wide.end(), [](wchar_t unit) { return unit > 0 && unit <= 0xFFFF; }))
        Require(UTF8ToUCS(expected) == wide, "UCS-2 text comes back");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto capacity = input.ConsumeIntegral<std::uint8_t>();
    const bool isBeyondUCS2 = input.ConsumeBool();
    const auto text = input.ConsumeRemainingBytes<char>();
    CheckDecoding(text, capacity);
    CheckDecoding(text, static_cast<unsigned int>(text.size()));

    std::vector<wchar_t> wide;
    for (FuzzedDataProvider units(data, size); units.remaining_bytes() != 0;)
        wide.push_back(
            static_cast<wchar_t>(isBeyondUCS2 ? units.ConsumeIntegral<std::uint32_t>() : units.ConsumeIntegral<std::uint16_t>()));
    CheckEncoding(std::vector<wchar_t>(wide)); // a copy has no room to spare
    return 0;
}

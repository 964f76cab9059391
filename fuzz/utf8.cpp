// UTF-8 to UCS-2 and back, in every form that the processor can use, beside a model that is told with divisions. Everything works on
// buffers of exactly the size that it may use, so that the sanitizer sees a step beyond.
#include "fuzz.h"

#include <kest/text/utf8.h>
#include <kest/text/utf8_forms.h>

#include <algorithm>
#include <vector>

using namespace Kest::Fuzz;
using namespace Kest::System;

namespace {

std::vector<std::uint32_t> DecodeByModel(const std::vector<char>& text) {
    const auto byte = [&](std::size_t index) { return std::uint32_t{static_cast<unsigned char>(text[index])}; };
    std::vector<std::uint32_t> units;
    for (std::size_t at = 0; at < text.size();) {
        const std::uint32_t lead = byte(at);
        const std::size_t form = lead < 128 ? 1 : lead < 224 ? 2 : 3;
        if (at + form > text.size()) {
            units.push_back(0xFFFD);
            break;
        }
        std::uint32_t value = form == 1 ? lead : lead % (form == 2 ? 32 : 16);
        for (std::size_t i = 1; i < form; ++i)
            value = value * 64 + byte(at + i) % 128;
        units.push_back(value);
        at += form;
    }
    return units;
}

std::string EncodeByModel(const std::vector<wchar_t>& text) {
    std::string bytes;
    for (const wchar_t each : text) {
        // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto unit = static_cast<std::uint32_t>(each);
        if (unit == 0)
            break;
        if (unit >= 2048)
            bytes += static_cast<char>((224 | unit / 4096) % 256);
        if (unit >= 128)
            bytes += static_cast<char>(unit >= 2048 ? 128 + unit / 64 % 64 : 192 + unit / 64);
        bytes += static_cast<char>(unit >= 128 ? 128 + unit % 64 : unit);
    }
    return bytes;
}

template <class TCheck>
void ForEachForm(const TCheck& check) {
    std::size_t count = 0;
    const _TUTF8Form* const* const forms = _GetUTF8Forms(count);
    for (std::size_t each = 0; each < count; ++each)
        if (forms[each]->IsUsable())
            check(*forms[each]);
}

/// A form decodes in pieces of at least @p room code units, which together are those of the model.
void CheckDecodingInPieces(const _TUTF8Form& form, const std::vector<char>& text, std::size_t room,
                           const std::vector<std::uint32_t>& units) {
    const char* place = text.data();
    const char* const end = place + text.size();
    std::size_t done = 0;
    while (place < end) {
        std::vector<wchar_t> out(room + _TUTF8Form::Slack);
        const std::size_t count = form.Decode(place, end, end, out.data(), room);
        Require(count > 0 && count <= out.size() && count <= units.size() - done, "a piece has units, and no more than there are");
        Require(std::equal(out.data(), out.data() + count, units.data() + done, [](wchar_t a, std::uint32_t b) { return a == wchar_t(b); }),
                "the code units of a piece are those of the model");
        done += count;
    }
    Require(done == units.size(), "the pieces are the whole");
}

void CheckDecoding(const std::vector<char>& text, unsigned int capacity) {
    constexpr wchar_t untouched = 0x7FFFFFFF;
    const auto length = static_cast<unsigned int>(text.size());
    const std::vector<std::uint32_t> units = DecodeByModel(text);

    std::vector<wchar_t> out(capacity, untouched);
    const unsigned int count = _UCS2FromUTF8(text.data(), length, out.data(), capacity);
    Require(count == std::min<std::size_t>(capacity, units.size()), "as many code units as there are and fit");
    Require(std::equal(out.begin(), out.begin() + count, units.begin(), [](wchar_t a, std::uint32_t b) { return a == wchar_t(b); }),
            "the code units are those of the model");
    Require(std::all_of(out.begin() + count, out.end(), [](wchar_t unit) { return unit == untouched; }), "the rest is untouched");

    const auto isCounted = [](char c) { return static_cast<unsigned char>(c) < 0x80 || static_cast<unsigned char>(c) > 0xC0; };
    const auto characters = static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isCounted));
    Require(_UTF8Length(text.data(), length) == characters, "the number of characters");
    ForEachForm([&](const _TUTF8Form& form) {
        Require(form.CountCharacters(text.data(), text.size()) == characters, "the number of characters in every form");
        CheckDecodingInPieces(form, text, capacity + 1U, units);
    });
    std::wstring expected(characters, 0);
    for (std::size_t i = 0; i < std::min(characters, units.size()); ++i)
        expected[i] = static_cast<wchar_t>(units[i]);
    Require(UTF8ToUCS(std::string(text.begin(), text.end())) == expected, "the string is what was decoded, cut or filled up");
}

void CheckEncoding(const std::vector<wchar_t>& text) {
    const auto length = static_cast<unsigned int>(text.size());
    const std::string expected = EncodeByModel(text);
    const unsigned int count = _UTF8LengthOfUCS2(text.data(), length);
    Require(count == expected.size(), "the number of bytes");

    std::vector<char> out(count + 1, 'x');
    _UTF8FromUCS2(text.data(), length, out.data(), count);
    Require(std::equal(expected.begin(), expected.end(), out.begin()) && out.back() == 0, "the bytes are those of the model and a zero");
    ForEachForm([&](const _TUTF8Form& form) {
        std::size_t units = text.size();
        Require(form.CountBytes(text.data(), units) == count, "the number of bytes in every form");
        std::vector<char> bytes(count + _TUTF8Form::Slack);
        Require(form.Encode(text.data(), units, bytes.data()) == bytes.data() + count, "as many bytes as were counted");
        Require(std::equal(expected.begin(), expected.end(), bytes.begin()), "the bytes in every form");
    });
    const std::wstring wide(text.begin(), text.end());
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

#include <kest/text/utf8.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

using namespace Kest::System;

namespace {

using TWide = std::basic_string<wchar_t>;

// The rules once more, as plainly as they can be said.

std::string ModelOfEncoding(const TWide& text) {
    std::string bytes;
    for (const wchar_t unit : text.substr(0, text.find(L'\0'))) {
        // A wchar_t is no char, it has 32 bits here: NOLINTNEXTLINE(bugprone-signed-char-misuse,cert-str34-c)
        const auto c = static_cast<std::uint32_t>(unit);
        if (c >= 0x800) {
            bytes += static_cast<char>((0xE0 | (c >> 12)) & 0xFF);
            bytes += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        } else if (c >= 0x80) {
            bytes += static_cast<char>(0xC0 | (c >> 6));
        }
        bytes += static_cast<char>(c < 0x80 ? c : 0x80 | (c & 0x3F));
    }
    return bytes;
}

std::size_t ModelOfLength(const std::string& text) {
    const auto counts = [](unsigned char byte) { return byte < 0x80 || byte > 0xC0; };
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), counts));
}

/// All that the bytes decode to, whatever the room.
TWide ModelOfDecoding(std::string bytes) {
    TWide units;
    while (!bytes.empty()) {
        const auto at = [&bytes](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
        if (at(0) < 0x80) {
            units += static_cast<wchar_t>(at(0));
            bytes.erase(0, 1);
        } else if (at(0) < 0xE0) {
            units += static_cast<wchar_t>(bytes.size() < 2 ? 0xFFFD : at(0) % 32 * 64 + at(1) % 128);
            bytes.erase(0, 2);
        } else {
            units += static_cast<wchar_t>(bytes.size() < 3 ? 0xFFFD : at(0) % 16 * 4096 + at(1) % 128 * 64 + at(2) % 128);
            bytes.erase(0, 3);
        }
    }
    return units;
}

/// The end of memory that can be touched, at the edge of a page.
template <class T>
T* Edge() {
    static char* const edge = [] {
        const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        void* const pages = ::mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        char* const second = static_cast<char*>(pages) + size;
        if (pages == MAP_FAILED || ::mprotect(second, size, PROT_NONE) != 0)
            throw std::runtime_error("no page at whose edge to work");
        return second;
    }();
    return reinterpret_cast<T*>(edge);
}

/// Checks every operation that reads UTF-8 against the model: the input ends at the edge of a page, and so does the room for the output.
void CheckDecoding(const std::string& bytes) {
    const auto length = static_cast<unsigned>(bytes.size());
    const char* const text = static_cast<const char*>(std::memcpy(Edge<char>() - length, bytes.data(), length));
    ASSERT_EQ(_UTF8Length(text, length), ModelOfLength(bytes)) << testing::PrintToString(bytes);
    TWide expected = ModelOfDecoding(bytes);
    for (const std::size_t capacity : {expected.size() + 1, expected.size(), expected.size() / 2, std::size_t{0}}) {
        wchar_t* const out = Edge<wchar_t>() - capacity;
        std::fill_n(out, capacity, L'?');
        const std::size_t count = _UCS2FromUTF8(text, length, out, static_cast<unsigned>(capacity));
        ASSERT_EQ(TWide(out, count), expected.substr(0, capacity)) << testing::PrintToString(bytes);
        ASSERT_TRUE(count == capacity || out[count] == L'?') << "written beyond the units that it tells of";
    }
    expected.resize(ModelOfLength(bytes), 0);
    ASSERT_EQ(UTF8ToUCS(bytes), expected) << testing::PrintToString(bytes);
}

/// The same for every operation that reads code units.
void CheckEncoding(const TWide& units) {
    const auto length = static_cast<unsigned>(units.size());
    const wchar_t* const text = static_cast<const wchar_t*>(std::memcpy(Edge<wchar_t>() - length, units.data(), length * sizeof(wchar_t)));
    const std::string expected = ModelOfEncoding(units);
    ASSERT_EQ(_UTF8LengthOfUCS2(text, length), expected.size());
    char* const out = Edge<char>() - (expected.size() + 1);
    std::fill_n(out, expected.size() + 1, '?');
    _UTF8FromUCS2(text, length, out, static_cast<unsigned>(expected.size()));
    ASSERT_EQ(std::string(out, expected.size() + 1), expected + '\0');
    ASSERT_EQ(UCSToUTF8(units), expected);
}

TEST(UTF8, TextHasItsFixedRules) {
    const struct {
        std::string Bytes;
        TWide Units;
    } cases[] = {
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\xA0\xBD\xEF\xBF\xBF", {0x7F, 0x80, 0x7FF, 0x800, 0xD83D, 0xFFFF}},
        {std::string("a\0b", 3), {'a', 0, 'b'}},
        {"\xF0\x9F\x98\x80", {0x7D8}}, // the fourth byte is a lead of its own, for which there is no room
        {"\xC0\x80", {}},
        {"\xFF\xFF\xFF", {0x1103F, 0, 0}}, // a sum, not bits put together, and the rest stays zero
        {"\xE2\xC3", {0xFFFD, 0}},         // cut off by the end: one U+FFFD, where there is room
        {"\xC3\xE2\x82", {0x122, 0xFFFD}},
    };
    for (const auto& each : cases)
        EXPECT_EQ(UTF8ToUCS(each.Bytes), each.Units) << testing::PrintToString(each.Bytes);
    EXPECT_EQ(UCSToUTF8(cases[0].Units), cases[0].Bytes);
    EXPECT_EQ(UCSToUTF8({'a', 0, 'b'}), "a");
    EXPECT_EQ(UCSToUTF8({0x1F600}), "\xFF\x98\x80"); // what is too large spills into the first byte
    EXPECT_EQ(UCSToUTF8({static_cast<wchar_t>(-1)}), "\xFF\xBF\xBF");
}

TEST(UTF8, AnyTextAtTheEdgeOfAPageConvertsLikeTheModel) {
    std::mt19937 random(42);
    for (int lead = 0; lead < 256; ++lead)
        for (std::size_t rest = 0; rest <= 4; ++rest)
            CheckDecoding(std::string("A") + static_cast<char>(lead) + std::string(rest, static_cast<char>(random())));
    const std::uint32_t byteMasks[] = {0xFF, 0xE3, 0xBF}; // the last two make some bytes frequent
    const std::uint32_t unitMasks[] = {0x7F, 0x7FF, 0xFFF, 0xFFFF, 0x1FFFFF, 0xFFFFFFFF};
    for (std::size_t length = 0; length <= 64; ++length)
        for (int round = 0; round < 300 && !HasFatalFailure(); ++round) {
            std::string bytes(length, 0);
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() & byteMasks[round % 3]); });
            CheckDecoding(bytes);
            TWide units(length, 0);
            std::generate(units.begin(), units.end(), [&] { return static_cast<wchar_t>(random() & unitMasks[random() % 6]); });
            CheckEncoding(units);
        }
}

} // namespace

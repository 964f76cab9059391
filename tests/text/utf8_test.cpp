#include <kest/text/utf8.h>
#include <kest/text/utf8_strings.h>
#include <models/utf8_model.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

using namespace Kest::System;
using namespace Kest::Test;

namespace {

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

/// @p text decoded in pieces of at least @p room code units, as far as the sequences that begin before @p limit.
TWide DecodeInPieces(const _TUTF8Codec& codec, const char* text, const char* limit, const char* end, std::size_t room) {
    TWide units;
    while (text < limit && !testing::Test::HasFailure()) {
        wchar_t* const out = Edge<wchar_t>() - (room + _TUTF8Codec::Slack);
        const char* const before = text;
        const std::size_t count = codec.Decode(text, limit, end, out, room);
        EXPECT_TRUE(text > before && text <= end && count <= room + _TUTF8Codec::Slack && (text >= limit || count >= room)) << codec.Name;
        units.append(out, count);
    }
    return units;
}

/// Checks every operation that reads UTF-8 against the model: the input ends at the edge of a page, and so does the room for the output.
void CheckDecoding(const std::string& bytes) {
    const auto length = static_cast<unsigned>(bytes.size());
    const char* const text = static_cast<const char*>(std::memcpy(Edge<char>() - length, bytes.data(), length));
    const char* const end = text + length;
    TWide expected = ModelOfDecoding(bytes);
    for (const _TUTF8Codec* codec : UsableCodecs()) {
        SCOPED_TRACE(codec->Name);
        ASSERT_EQ(codec->CountCharacters(text, length), ModelOfLength(bytes)) << testing::PrintToString(bytes);
        for (const std::size_t room : {std::size_t{3}, std::size_t{50}, bytes.size() + 1})
            ASSERT_EQ(DecodeInPieces(*codec, text, end, end, room), expected) << room << testing::PrintToString(bytes);
        const TWide half = DecodeInPieces(*codec, text, text + length / 2, end, bytes.size() + 1);
        ASSERT_EQ(half, expected.substr(0, half.size())) << testing::PrintToString(bytes);
        TWide whole = expected;
        whole.resize(ModelOfLength(bytes), 0);
        ASSERT_EQ(_DecodeUTF8String(*codec, bytes), whole) << testing::PrintToString(bytes);
    }
    ASSERT_EQ(_UTF8Length(text, length), ModelOfLength(bytes));
    for (const std::size_t capacity : {expected.size() + 50, expected.size() + 1, expected.size(), expected.size() / 2, std::size_t{0}}) {
        wchar_t* const out = Edge<wchar_t>() - capacity;
        std::fill_n(out, capacity, L'?');
        const std::size_t count = _UCS2FromUTF8(text, length, out, static_cast<unsigned>(capacity));
        ASSERT_EQ(TWide(out, count), expected.substr(0, capacity)) << testing::PrintToString(bytes);
        ASSERT_TRUE(count == capacity || out[count] == L'?') << "written beyond the units that it tells of";
    }
    expected.resize(ModelOfLength(bytes), 0);
    ASSERT_EQ(UTF8ToUCS(bytes), expected) << testing::PrintToString(bytes);
}

/// Checks every operation that reads code units against the model, at the edge of a page too.
void CheckEncoding(const TWide& units) {
    const auto length = static_cast<unsigned>(units.size());
    const wchar_t* const text = static_cast<const wchar_t*>(std::memcpy(Edge<wchar_t>() - length, units.data(), length * sizeof(wchar_t)));
    const std::string expected = ModelOfEncoding(units);
    for (const _TUTF8Codec* codec : UsableCodecs()) {
        SCOPED_TRACE(codec->Name);
        std::size_t count = length;
        ASSERT_EQ(codec->CountBytes(text, count), expected.size());
        ASSERT_EQ(count, std::min(units.find(L'\0'), units.size()));
        char* const out = Edge<char>() - (expected.size() + _TUTF8Codec::Slack);
        ASSERT_EQ(std::string(out, codec->Encode(text, count, out)), expected);
        ASSERT_EQ(_EncodeUTF8String(*codec, units), expected);
    }
    char* const out = Edge<char>() - (expected.size() + 1);
    for (const unsigned zeros : {0U, 1U}) { // one ends the text, whatever the length
        const wchar_t* const from = std::copy_n(units.c_str(), length + zeros, Edge<wchar_t>() - (length + zeros)) - (length + zeros);
        const unsigned most = zeros == 0 ? length : ~0U;
        ASSERT_EQ(_UTF8LengthOfUCS2(from, most), expected.size());
        std::fill_n(out, expected.size() + 1, '?');
        _UTF8FromUCS2(from, most, out, static_cast<unsigned>(expected.size()));
        ASSERT_EQ(std::string(out, expected.size() + 1), expected + '\0');
    }
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
        {"\xFF\xFF\xFF", {0x1103F, 0, 0}}, // the bits are added, and the other units stay zero
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

TEST(UTF8, AnyTextAtTheEdgeOfAPageConvertsLikeTheModelInEveryCodec) {
    std::mt19937 random(42);
    for (unsigned lead = 0; lead < 256; ++lead)
        for (unsigned place = 0; place < 64 && !HasFatalFailure(); ++place) {
            std::string bytes(40, 'A');
            bytes[place % 32] = static_cast<char>(lead);
            std::fill_n(bytes.begin() + place % 32 + 1, random() % 5, static_cast<char>(random()));
            CheckDecoding(bytes.substr(0, place < 32 ? bytes.size() : place % 32 + 1 + random() % 5));
        }
    for (const std::uint32_t odd : {0U, 0x80U, 0x8000U, 0xFFFFFFFFU})
        for (std::size_t place = 0; place < 150 && !HasFatalFailure(); ++place) {
            TWide units(150, L'a');
            units[place] = static_cast<wchar_t>(odd);
            CheckEncoding(units);
        }
    const std::uint32_t masks[] = {0x7F, 0xFF, 0x7FF, 0xFFF, 0xFFFF, 0xFFFFFFFF};
    for (std::size_t length = 0; length <= 300; length += length < 70 ? 1 : 23)
        for (unsigned round = 0; round < 120 && !HasFatalFailure(); ++round) {
            TWide units(length, 0);
            // Of one script or of several; a zero is in few of them.
            const auto draw = [&] { return static_cast<std::uint32_t>(random()) & masks[round % 2 == 0 ? round / 2 % 6 : random() % 6]; };
            std::generate(units.begin(), units.end(), [&] { return static_cast<wchar_t>(std::max(draw(), round % 3)); });
            CheckEncoding(units);
            std::string bytes = ModelOfEncoding(units);
            CheckDecoding(bytes); // well formed, unless there are units beyond UCS-2
            for (std::size_t changes = round % 4; changes > 0 && !bytes.empty(); --changes)
                bytes[random() % bytes.size()] = static_cast<char>(random());
            CheckDecoding(bytes.substr(0, bytes.size() - std::min<std::size_t>(bytes.size(), random() % 4)));
        }
}

TEST(UTF8, LongTextsConvertInEveryCodec) {
    TWide units(100000, 0);
    for (std::size_t index = 0; index < units.size(); ++index) // all ASCII, then one script after the other
        units[index] = static_cast<wchar_t>(index < 50000 ? 'a' : index % 0x7FF0 / (index / 300 % 4 * 20 + 1) + 1);
    const std::string bytes = ModelOfEncoding(units);
    for (const _TUTF8Codec* codec : UsableCodecs()) {
        std::printf("codec: %s\n", codec->Name); // shows in the output which codecs the processor has
        std::size_t length = units.size();
        EXPECT_EQ(codec->CountBytes(units.data(), length), bytes.size()) << codec->Name;
        EXPECT_EQ(codec->CountCharacters(bytes.data(), bytes.size()), units.size()) << codec->Name;
        TWide out(units.size() + 16 + _TUTF8Codec::Slack, 0);
        for (std::size_t place = 0; place < 16; ++place) { // on a line of the processor's cache
            const char* source = bytes.data();
            EXPECT_EQ(codec->Decode(source, source + bytes.size(), source + bytes.size(), &out[place], units.size()), units.size());
            EXPECT_EQ(out.compare(place, units.size(), units), 0) << codec->Name << ' ' << place;
        }
    }
    EXPECT_TRUE(UTF8ToUCS(bytes) == units);
    EXPECT_TRUE(UCSToUTF8(units) == bytes);
}

#ifdef __i386__
TEST(UTF8, StackMayBeAlignedToFourBytesOnly) {
    void (*const convert)() = [] {
        const TWide units(300, 0x416);
        CheckEncoding(units);
        CheckDecoding(ModelOfEncoding(units));
    };
    asm volatile("movl %%esp, %%edi\n\tandl $-16, %%esp\n\tsubl $4, %%esp\n\tcall *%%esi\n\tmovl %%edi, %%esp"
                 :
                 : "S"(convert)
                 : "eax", "ecx", "edx", "edi", "memory", "cc");
}
#endif

#if defined(__LP64__) && defined(NDEBUG) // without the optimiser it takes minutes
TEST(UTF8, CharactersAreCountedBeyond32Bits) {
    const std::size_t size = (std::size_t{1} << 32U) + 1; // 4 GiB that take no memory: all pages of the text are one of zeros
    void* const text = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(text, MAP_FAILED);
    for (const _TUTF8Codec* codec : UsableCodecs())
        EXPECT_EQ(codec->CountCharacters(static_cast<const char*>(text), size), size) << codec->Name;
    EXPECT_EQ(::munmap(text, size), 0);
}
#endif

} // namespace

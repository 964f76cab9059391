#include <kest/text/utf8_forms.h>

#include <array>
#include <iterator>

#if defined(__x86_64__) || defined(__i386__)

#include <algorithm>

// GCC 12 warns of the registers that its own header leaves undefined on purpose, where it has put their users into functions of this file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

#include <immintrin.h>

// What a form may use of the processor stands at each function, since only the form is chosen when the program runs.
#define KEST_SSE4 __attribute__((target("sse4.2,popcnt")))

// What callers enter. Programs for 32 bits may hold the stack aligned to four bytes only, and vectors have to lie on it at their own.
#ifdef __i386__
#define KEST_ENTRY __attribute__((force_align_arg_pointer))
#else
#define KEST_ENTRY
#endif

namespace Kest::System {

namespace {

// Loading and storing at any address.

KEST_SSE4 inline __m128i Load(const void* place) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(place));
}

KEST_SSE4 inline void Store(void* place, __m128i value) noexcept {
    _mm_storeu_si128(static_cast<__m128i*>(place), value);
}

// Tables for moving elements together: 16 places to take a byte from, by a mask of the elements.

using TShuffles = std::array<std::array<std::uint8_t, 16>, 256>;

constexpr std::uint8_t Nothing = 0x80; // a zero byte

constexpr void Append(std::array<std::uint8_t, 16>& shuffle, unsigned& count, unsigned place) {
    shuffle[count++] = static_cast<std::uint8_t>(place);
}

/// The words whose bits are set.
constexpr TShuffles MakeWordShuffles() {
    TShuffles shuffles{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        unsigned count = 0;
        for (unsigned word = 0; word < 8; ++word) {
            if ((mask >> word & 1) != 0) {
                Append(shuffles[mask], count, 2 * word);
                Append(shuffles[mask], count, 2 * word + 1);
            }
        }
        while (count < 16)
            Append(shuffles[mask], count, Nothing);
    }
    return shuffles;
}

/// Of words whose bits are set the first byte, of the others both.
constexpr TShuffles MakeTwoByteShuffles() {
    TShuffles shuffles{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        unsigned count = 0;
        for (unsigned word = 0; word < 8; ++word) {
            Append(shuffles[mask], count, 2 * word);
            if ((mask >> word & 1) == 0)
                Append(shuffles[mask], count, 2 * word + 1);
        }
        while (count < 16)
            Append(shuffles[mask], count, Nothing);
    }
    return shuffles;
}

/// Of four elements of four bytes, the last byte where the bit of the low half is set, else the second and the third where that of the high
/// half is, else the first three.
constexpr TShuffles MakeThreeByteShuffles() {
    TShuffles shuffles{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        unsigned count = 0;
        for (unsigned element = 0; element < 4; ++element) {
            const bool isOne = (mask >> element & 1) != 0;
            const bool isTwo = (mask >> element & 0x10) != 0;
            for (unsigned byte = isOne ? 3 : isTwo ? 1 : 0; byte < (isOne ? 4U : 3U); ++byte)
                Append(shuffles[mask], count, 4 * element + byte);
        }
        while (count < 16)
            Append(shuffles[mask], count, Nothing);
    }
    return shuffles;
}

alignas(16) constexpr TShuffles WordShuffles = MakeWordShuffles();
alignas(16) constexpr TShuffles TwoByteShuffles = MakeTwoByteShuffles();
alignas(16) constexpr TShuffles ThreeByteShuffles = MakeThreeByteShuffles();

/// The 16 bytes from an offset on move a register's bytes down by that offset, and zeros in behind them.
alignas(16) constexpr std::uint8_t MoveDown[32] = {0,       1,       2,       3,       4,       5,       6,       7,
                                                   8,       9,       10,      11,      12,      13,      14,      15,
                                                   Nothing, Nothing, Nothing, Nothing, Nothing, Nothing, Nothing, Nothing,
                                                   Nothing, Nothing, Nothing, Nothing, Nothing, Nothing, Nothing, Nothing};

/// Whether a text of @p size bytes has so many that its last ones, fewer than a block, can be loaded as one.
inline bool CanLoadLast(std::ptrdiff_t size) noexcept {
    return size >= 8;
}

/// The last @p count bytes of a text of @p size bytes, fewer than a block, and zeros behind them.
KEST_SSE4 inline __m128i LoadLast(const char* end, std::ptrdiff_t count, std::ptrdiff_t size) noexcept {
    const __m128i shift = Load(MoveDown + (16 - count));
    if (size >= 16)
        return _mm_shuffle_epi8(Load(end - 16), shift);
    const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(end - size)); // then they are the whole text
    const __m128i last = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(end - 8));
    return _mm_unpacklo_epi64(first, _mm_shuffle_epi8(last, shift));
}

KEST_SSE4 inline __m128i Shuffle(__m128i value, const std::array<std::uint8_t, 16>& shuffle) noexcept {
    return _mm_shuffle_epi8(value, _mm_load_si128(reinterpret_cast<const __m128i*>(shuffle.data())));
}

// Counting

KEST_ENTRY KEST_SSE4 std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
    constexpr std::size_t step = 16;
    const __m128i last = _mm_set1_epi8(-64); // 0xC0, and bytes are compared as signed
    std::size_t characters = 0;
    std::size_t index = 0;
    while (index + step <= length) {
        __m128i counts = _mm_setzero_si128(); // at most 255 a byte, so that their sums need no more than 16 bits
        const std::size_t stop = index + std::min<std::size_t>((length - index) / step, 255) * step;
        for (; index < stop; index += step)
            counts = _mm_sub_epi8(counts, _mm_cmpgt_epi8(Load(text + index), last));
        const __m128i sums = _mm_sad_epu8(counts, _mm_setzero_si128());
        characters += static_cast<std::size_t>(_mm_extract_epi16(sums, 0) + _mm_extract_epi16(sums, 4));
    }
    const auto size = static_cast<std::ptrdiff_t>(length);
    if (index < length && CanLoadLast(size)) {
        const std::ptrdiff_t rest = size - static_cast<std::ptrdiff_t>(index);
        const int isCounted = _mm_movemask_epi8(_mm_cmpgt_epi8(LoadLast(text + length, rest, size), last)) & 0xFFFF >> (16 - rest);
        return characters + static_cast<std::size_t>(_mm_popcnt_u32(static_cast<unsigned>(isCounted)));
    }
    for (; index < length; ++index)
        characters += static_cast<signed char>(text[index]) > -64 ? 1 : 0;
    return characters;
}

/// Elements up to 0x7F and up to 0x7FF; all bits set in those that are.
struct TShortUnits {
    __m128i One;
    __m128i Two;
};

KEST_SSE4 inline TShortUnits FindShortUnits(__m128i units) noexcept {
    return {_mm_cmpeq_epi32(_mm_and_si128(units, _mm_set1_epi32(~0x7F)), _mm_setzero_si128()),
            _mm_cmpeq_epi32(_mm_and_si128(units, _mm_set1_epi32(~0x7FF)), _mm_setzero_si128())};
}

KEST_SSE4 inline bool HasNone(__m128i units, std::uint32_t bits) noexcept {
    return _mm_testz_si128(units, _mm_set1_epi32(static_cast<int>(bits))) != 0;
}

/// What bits 16 code units have together.
KEST_SSE4 inline __m128i AnyOf(const wchar_t* text) noexcept {
    return _mm_or_si128(_mm_or_si128(Load(text), Load(text + 4)), _mm_or_si128(Load(text + 8), Load(text + 12)));
}

/// The least of 16 code units, at each of four places.
KEST_SSE4 inline __m128i LeastOf(const wchar_t* text) noexcept {
    return _mm_min_epu32(_mm_min_epu32(Load(text), Load(text + 4)), _mm_min_epu32(Load(text + 8), Load(text + 12)));
}

/// Whether 64 code units are ASCII. A shorter run would be a matter of luck in mixed text.
KEST_SSE4 inline bool IsASCII(const wchar_t* text) noexcept {
    return HasNone(_mm_or_si128(_mm_or_si128(AnyOf(text), AnyOf(text + 16)), _mm_or_si128(AnyOf(text + 32), AnyOf(text + 48))), ~0x7FU);
}

KEST_SSE4 inline bool HasZero(const wchar_t* text) noexcept {
    const __m128i least =
        _mm_min_epu32(_mm_min_epu32(LeastOf(text), LeastOf(text + 16)), _mm_min_epu32(LeastOf(text + 32), LeastOf(text + 48)));
    return _mm_movemask_epi8(_mm_cmpeq_epi32(least, _mm_setzero_si128())) != 0;
}

/// Eight elements, those above 0x800 as that, in half the space.
KEST_SSE4 inline __m128i Narrow(const wchar_t* text) noexcept {
    const __m128i most = _mm_set1_epi32(0x800);
    return _mm_packus_epi32(_mm_min_epu32(Load(text), most), _mm_min_epu32(Load(text + 4), most));
}

KEST_SSE4 inline unsigned BitsOf(__m128i low, __m128i high) noexcept {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

/// Of sixteen code units, a bit each: those that are 0, those above 0x7F and those above 0x7FF.
struct TBlockOfUnits {
    unsigned Zeros;
    unsigned Long;
    unsigned Longer;
};

KEST_SSE4 inline TBlockOfUnits LookAt(const wchar_t* text) noexcept {
    const __m128i a = Narrow(text);
    const __m128i b = Narrow(text + 8);
    return {BitsOf(_mm_cmpeq_epi16(a, _mm_setzero_si128()), _mm_cmpeq_epi16(b, _mm_setzero_si128())),
            BitsOf(_mm_cmpgt_epi16(a, _mm_set1_epi16(0x7F)), _mm_cmpgt_epi16(b, _mm_set1_epi16(0x7F))),
            BitsOf(_mm_cmpgt_epi16(a, _mm_set1_epi16(0x7FF)), _mm_cmpgt_epi16(b, _mm_set1_epi16(0x7FF)))};
}

/// The bytes of the block's last @p units code units.
KEST_SSE4 inline std::size_t BytesOf(const TBlockOfUnits& block, std::size_t units) noexcept {
    const std::size_t gone = 16 - units;
    return units + static_cast<std::size_t>(_mm_popcnt_u32(block.Long >> gone | block.Longer >> gone << 16));
}

KEST_ENTRY KEST_SSE4 std::size_t CountBytes(const wchar_t* text, std::size_t& length) noexcept {
    constexpr std::size_t step = 16;
    constexpr std::size_t run = 4 * step;
    std::size_t bytes = 0;
    std::size_t index = 0;
    std::size_t nextLook = 0;
    for (; index + step <= length; index += step) {
        if (index >= nextLook && index + run <= length) {
            nextLook = index + run;
            if (IsASCII(text + index) && !HasZero(text + index)) {
                bytes += run;
                index += run - step;
                continue;
            }
        }
        const TBlockOfUnits block = LookAt(text + index);
        if (block.Zeros != 0)
            break;
        bytes += BytesOf(block, step);
    }
    if (const std::size_t rest = length - index; rest > 0 && rest < step && length >= step) {
        // The last code units once more, those that are counted already moved out.
        const TBlockOfUnits block = LookAt(text + length - step);
        if (block.Zeros >> (step - rest) == 0)
            return bytes + BytesOf(block, rest);
    }
    return bytes + _CountUTF8Bytes(text, index, length);
}

// Decoding: a block of bytes is looked at as a whole, and each byte gets the value of the form that ends in it, in two halves. Then the
// values at the ends of forms are moved together. That is right as long as every lead has the continuation bytes that it announces and
// there are no others. Else the block is decoded form by form.

/// Writes the code units of eight bytes: of the words those whose bits are set in @p ends.
KEST_SSE4 inline wchar_t* StoreUnits(__m128i words, unsigned ends, wchar_t* out) noexcept {
    const __m128i units = Shuffle(words, WordShuffles[ends & 0xFF]);
    Store(out, _mm_unpacklo_epi16(units, _mm_setzero_si128()));
    Store(out + 4, _mm_unpackhi_epi16(units, _mm_setzero_si128()));
    return out + _mm_popcnt_u32(ends & 0xFF);
}

/// Whether 64 bytes are ASCII.
KEST_SSE4 inline bool IsASCII(const char* text) noexcept {
    const __m128i any = _mm_or_si128(_mm_or_si128(Load(text), Load(text + 16)), _mm_or_si128(Load(text + 32), Load(text + 48)));
    return _mm_movemask_epi8(any) == 0;
}

KEST_SSE4 inline void StoreASCII(__m128i bytes, wchar_t* out) noexcept {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_unpacklo_epi8(bytes, zero);
    const __m128i high = _mm_unpackhi_epi8(bytes, zero);
    Store(out, _mm_unpacklo_epi16(low, zero));
    Store(out + 4, _mm_unpackhi_epi16(low, zero));
    Store(out + 8, _mm_unpacklo_epi16(high, zero));
    Store(out + 12, _mm_unpackhi_epi16(high, zero));
}

/// Decodes block after block.
struct TDecoder {
    wchar_t* Out;
    unsigned Missing = 0; ///< where the next block has to begin with continuation bytes
    __m128i PayloadBefore = __m128i();
    __m128i SecondBefore = __m128i();

    /// Writes the code units of the forms that end in @p bytes and in @p inside. False when they are not well formed; nothing is done then.
    KEST_SSE4 __attribute__((always_inline)) bool Decode(__m128i bytes, unsigned inside) noexcept {
        const auto isHigh = static_cast<unsigned>(_mm_movemask_epi8(bytes));
        const __m128i isContinuation = _mm_cmpgt_epi8(_mm_set1_epi8(-64), bytes);
        const auto continuations = static_cast<unsigned>(_mm_movemask_epi8(isContinuation));
        const auto leadsOfThree = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(bytes, _mm_set1_epi8(-33)))) & isHigh;
        const unsigned expected = Missing | (isHigh & ~continuations) << 1 | leadsOfThree << 2;
        if (((expected ^ continuations) & 0xFFFF) != 0)
            return false;
        const __m128i payloads =
            _mm_setr_epi8(0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x3F, 0x3F, 0x3F, 0x3F, 0x1F, 0x1F, 0x0F, 0x0F);
        const __m128i highHalves = _mm_and_si128(_mm_srli_epi16(bytes, 4), _mm_set1_epi8(0x0F));
        const __m128i payload = _mm_and_si128(bytes, _mm_shuffle_epi8(payloads, highHalves));
        const __m128i second = _mm_and_si128(_mm_alignr_epi8(payload, PayloadBefore, 15), isContinuation);
        const __m128i third = _mm_and_si128(_mm_alignr_epi8(second, SecondBefore, 15), isContinuation);
        const __m128i low = _mm_or_si128(payload, _mm_and_si128(_mm_slli_epi16(second, 6), _mm_set1_epi8(-64)));
        const __m128i high = _mm_or_si128(_mm_slli_epi16(third, 4), _mm_and_si128(_mm_srli_epi16(second, 2), _mm_set1_epi8(0x0F)));
        const unsigned ends = ~(expected >> 1) & inside;
        Out = StoreUnits(_mm_unpacklo_epi8(low, high), ends, Out);
        Out = StoreUnits(_mm_unpackhi_epi8(low, high), ends >> 8, Out);
        PayloadBefore = payload;
        SecondBefore = second;
        Missing = expected >> 16;
        return true;
    }
};

/// Decodes blocks from @p text on until one is not well formed or it cannot go on, and leaves @p text at the beginning of a form. The last
/// block may be a part of one if the text, which begins at @p begin, is not too short.
KEST_SSE4 inline wchar_t* DecodeBlocks(const char*& text, const char* begin, const char* limit, const char* end, wchar_t* out,
                                       const wchar_t* outEnd) noexcept {
    constexpr std::ptrdiff_t step = 16;
    constexpr std::ptrdiff_t run = 4 * step; // in mixed text no run of ASCII is so long; a shorter one would be a matter of luck
    TDecoder decoder{out};
    bool isWellFormed = true;
    while (isWellFormed && text < limit && end - text >= run && outEnd - decoder.Out >= run) {
        if (decoder.Missing == 0 && IsASCII(text)) {
            for (const char* const stop = text + run; text < stop; text += step, decoder.Out += step)
                StoreASCII(Load(text), decoder.Out);
            continue;
        }
        for (const char* const stop = text + run; text < stop; text += step) {
            isWellFormed = decoder.Decode(Load(text), 0xFFFF);
            if (!isWellFormed)
                break;
        }
    }
    while (isWellFormed && text < limit && decoder.Out < outEnd && end - text >= step) {
        isWellFormed = decoder.Decode(Load(text), 0xFFFF);
        if (isWellFormed)
            text += step;
    }
    const std::ptrdiff_t rest = end - text;
    if (isWellFormed && text < limit && decoder.Out < outEnd && rest < step && CanLoadLast(end - begin)) {
        if (decoder.Decode(LoadLast(end, rest, end - begin), 0xFFFFU >> (step - rest)))
            text = end;
    }
    if (decoder.Missing != 0) // back to the lead of what is not complete yet
        while (static_cast<signed char>(*--text) < -64) {
        }
    return decoder.Out;
}

KEST_ENTRY KEST_SSE4 std::size_t Decode(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept {
    const char* const begin = text;
    const wchar_t* const outBegin = out;
    const wchar_t* const outEnd = out + room;
    while (text < limit && out < outEnd) {
        out = DecodeBlocks(text, begin, limit, end, out, outEnd);
        // What is not well formed ends within a block, mostly.
        for (const char* const stop = limit - text < 16 ? limit : text + 16; text < stop && out < outEnd;)
            *out++ = _DecodeUTF8Form(text, end);
    }
    return static_cast<std::size_t>(out - outBegin);
}

// Encoding

/// Writes the bytes of four code units.
KEST_SSE4 inline char* StoreAnyBytes(__m128i units, char* out) noexcept {
    const TShortUnits isShort = FindShortUnits(units);
    const __m128i kinds = _mm_packs_epi16(_mm_packs_epi32(isShort.One, isShort.Two), _mm_setzero_si128());
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(kinds));
    // The three bytes, and the unit itself as the fourth.
    const __m128i first = _mm_and_si128(_mm_srli_epi32(units, 12), _mm_set1_epi32(0xFF));
    const __m128i second = _mm_and_si128(_mm_slli_epi32(units, 2), _mm_set1_epi32(0x3F00));
    const __m128i third = _mm_and_si128(_mm_slli_epi32(units, 16), _mm_set1_epi32(0x3F0000));
    const __m128i payload = _mm_or_si128(_mm_or_si128(first, second), _mm_or_si128(third, _mm_slli_epi32(units, 24)));
    // The second of them is the lead of a form of two.
    const __m128i marks = _mm_or_si128(_mm_set1_epi32(0x8080E0), _mm_and_si128(isShort.Two, _mm_set1_epi32(0x4000)));
    Store(out, Shuffle(_mm_or_si128(payload, marks), ThreeByteShuffles[mask]));
    return out + (12 - _mm_popcnt_u32(mask));
}

/// Writes the bytes of eight code units up to 0x7FF.
KEST_SSE4 inline char* StoreShortBytes(__m128i units, char* out) noexcept {
    const __m128i isOne = _mm_cmpgt_epi16(_mm_set1_epi16(0x80), units);
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(isOne, _mm_setzero_si128())));
    const __m128i second = _mm_and_si128(_mm_slli_epi16(units, 8), _mm_set1_epi16(0x3F00));
    const __m128i both = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(units, 6), second), _mm_set1_epi16(static_cast<short>(0x80C0)));
    Store(out, Shuffle(_mm_blendv_epi8(both, units, isOne), TwoByteShuffles[mask]));
    return out + (16 - _mm_popcnt_u32(mask));
}

/// Writes the bytes of four registers of code units, which are all ASCII.
KEST_SSE4 inline void StoreASCIIBytes(const wchar_t* text, char* out) noexcept {
    const __m128i low = _mm_packs_epi32(Load(text), Load(text + 4));
    Store(out, _mm_packus_epi16(low, _mm_packs_epi32(Load(text + 8), Load(text + 12))));
}

KEST_ENTRY KEST_SSE4 char* Encode(const wchar_t* text, std::size_t length, char* out) noexcept {
    constexpr std::size_t step = 16;
    constexpr std::size_t run = 4 * step;
    std::size_t index = 0;
    std::size_t nextLook = 0;
    while (index + step <= length) {
        const wchar_t* const place = text + index;
        if (index >= nextLook && index + run <= length) {
            if (IsASCII(place)) {
                for (std::size_t each = 0; each < run; each += step)
                    StoreASCIIBytes(place + each, out + each);
                index += run;
                out += run;
                continue;
            }
            nextLook = index + run;
        }
        if (HasNone(AnyOf(place), ~0x7FFU)) {
            out = StoreShortBytes(_mm_packs_epi32(Load(place), Load(place + 4)), out);
            out = StoreShortBytes(_mm_packs_epi32(Load(place + 8), Load(place + 12)), out);
        } else {
            for (std::size_t each = 0; each < step; each += 4)
                out = StoreAnyBytes(Load(place + each), out);
        }
        index += step;
    }
    if (const std::size_t rest = length - index; rest > 0 && length >= step && HasNone(AnyOf(text + length - step), ~0x7FFU)) {
        // The last code units once more, those that are written already moved out. The zeros behind them are a byte each, and given back.
        const wchar_t* const place = text + length - step;
        const __m128i low = _mm_packs_epi32(Load(place), Load(place + 4));
        const __m128i high = _mm_packs_epi32(Load(place + 8), Load(place + 12));
        const std::size_t gone = step - rest;
        if (gone < 8) {
            out = StoreShortBytes(_mm_shuffle_epi8(low, Load(MoveDown + 2 * gone)), out) - gone;
            return StoreShortBytes(high, out);
        }
        return StoreShortBytes(_mm_shuffle_epi8(high, Load(MoveDown + 2 * (gone - 8))), out) - (gone - 8);
    }
    for (; index + 4 <= length; index += 4)
        out = StoreAnyBytes(Load(text + index), out);
    for (; index < length; ++index)
        _EncodeUTF8Form(static_cast<std::uint32_t>(text[index]), out);
    return out;
}

bool HasSse4() noexcept {
    return __builtin_cpu_supports("sse4.2") != 0 && __builtin_cpu_supports("popcnt") != 0;
}

constexpr _TUTF8Form SSE4Form = {"sse4", HasSse4, CountCharacters, CountBytes, Decode, Encode};

#ifdef __x86_64__

// The same with the widest registers, which can move chosen bytes together without a table. Whole blocks of 64 elements only: what is left
// is for the narrower registers.

#define KEST_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,popcnt")))

constexpr std::ptrdiff_t WideStep = 64;

using TPlaces = std::array<std::uint8_t, 64>;

/// The bytes one before each of the second of two registers.
constexpr TPlaces MakePlacesBefore() {
    TPlaces places{};
    for (unsigned byte = 0; byte < 64; ++byte)
        places[byte] = static_cast<std::uint8_t>(63 + byte);
    return places;
}

/// Sixteen elements of four bytes: the low bytes from the first of two registers, the next from the second.
constexpr TPlaces MakePlacesOfUnits(unsigned quarter) {
    TPlaces places{};
    for (unsigned byte = 0; byte < 64; ++byte)
        places[byte] = static_cast<std::uint8_t>(64 * (byte % 2) + 16 * quarter + byte / 4);
    return places;
}

alignas(64) constexpr TPlaces PlacesBefore = MakePlacesBefore();
alignas(64) constexpr TPlaces PlacesOfUnits[4] = {MakePlacesOfUnits(0), MakePlacesOfUnits(1), MakePlacesOfUnits(2), MakePlacesOfUnits(3)};

KEST_AVX512 inline __m512i LoadWide(const void* place) noexcept {
    return _mm512_loadu_si512(place);
}

KEST_AVX512 std::size_t CountCharactersWide(const char* text, std::size_t length) noexcept {
    constexpr std::size_t step = WideStep;
    const __m512i last = _mm512_set1_epi8(-64);
    std::size_t characters = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step)
        characters += static_cast<std::size_t>(__builtin_popcountll(_mm512_cmpgt_epi8_mask(LoadWide(text + index), last)));
    if (index == length)
        return characters;
    const __mmask64 rest = ~std::uint64_t{0} >> (step - (length - index));
    const __m512i bytes = _mm512_maskz_loadu_epi8(rest, text + index);
    return characters + static_cast<std::size_t>(__builtin_popcountll(_mm512_mask_cmpgt_epi8_mask(rest, bytes, last)));
}

/// Adds 1 to each count for a unit above 0x7F, and once more for one above 0x7FF.
KEST_AVX512 inline __m512i AddLonger(__m512i counts, __m512i units) noexcept {
    const __m512i one = _mm512_set1_epi32(1);
    counts = _mm512_mask_add_epi32(counts, _mm512_test_epi32_mask(units, _mm512_set1_epi32(~0x7F)), counts, one);
    return _mm512_mask_add_epi32(counts, _mm512_test_epi32_mask(units, _mm512_set1_epi32(~0x7FF)), counts, one);
}

/// How many of @p length code units, a multiple of the step, are above 0x7F, and again how many above 0x7FF. Cuts @p length at the first
/// block that has a 0. No vector has an address here: with the sanitizer of addresses compilers put it where it is not aligned.
KEST_AVX512 inline std::size_t CountLongUnits(const wchar_t* text, std::size_t& length) noexcept {
    __m512i longer = _mm512_setzero_si512();
    for (std::size_t index = 0; index < length; index += WideStep) {
        const wchar_t* const place = text + index;
        const __m512i a = LoadWide(place);
        const __m512i b = LoadWide(place + 16);
        const __m512i c = LoadWide(place + 32);
        const __m512i d = LoadWide(place + 48);
        const __m512i least = _mm512_min_epu32(_mm512_min_epu32(a, b), _mm512_min_epu32(c, d));
        if (_mm512_testn_epi32_mask(least, least) != 0) {
            length = index;
            break;
        }
        if (_mm512_test_epi32_mask(_mm512_or_si512(_mm512_or_si512(a, b), _mm512_or_si512(c, d)), _mm512_set1_epi32(~0x7F)) == 0)
            continue;
        longer = AddLonger(AddLonger(AddLonger(AddLonger(longer, a), b), c), d);
    }
    return static_cast<std::size_t>(_mm512_reduce_add_epi32(longer));
}

KEST_AVX512 std::size_t CountBytesWide(const wchar_t* text, std::size_t& length) noexcept {
    constexpr std::size_t step = WideStep;
    constexpr std::size_t longest = std::size_t{1} << 24U; // so that the sum of the counts stays within 32 bits
    std::size_t bytes = 0;
    std::size_t index = 0;
    for (bool hasZero = false; !hasZero && length - index >= step;) {
        const std::size_t most = std::min(longest, (length - index) / step * step);
        std::size_t done = most;
        bytes += CountLongUnits(text + index, done) + done;
        index += done;
        hasZero = done < most;
    }
    length -= index;
    bytes += CountBytes(text + index, length);
    length += index;
    return bytes;
}

/// As DecodeBlocks(), as long as there are whole blocks and room for as many code units.
KEST_AVX512 inline wchar_t* DecodeWideBlocks(const char*& text, const char* limit, const char* end, wchar_t* out,
                                             const wchar_t* outEnd) noexcept {
    const __m512i payloads = _mm512_broadcast_i32x4(
        _mm_setr_epi8(0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x7F, 0x3F, 0x3F, 0x3F, 0x3F, 0x1F, 0x1F, 0x0F, 0x0F));
    const __m512i before = LoadWide(PlacesBefore.data());
    __m512i payloadBefore = _mm512_setzero_si512();
    __m512i secondBefore = _mm512_setzero_si512();
    std::uint64_t missing = 0;
    while (text < limit && end - text >= WideStep && outEnd - out >= WideStep) {
        const __m512i bytes = LoadWide(text);
        const std::uint64_t isHigh = _mm512_movepi8_mask(bytes);
        if ((isHigh | missing) == 0) {
            // Of a long text, no more than until whole registers are stored to whole lines of the cache, which takes half the time.
            const auto over = static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(out) / sizeof(wchar_t) % 16);
            if (over != 0 && end - text >= 16 * WideStep) {
                _mm512_storeu_si512(out, _mm512_cvtepu8_epi32(_mm512_castsi512_si128(bytes)));
                text += 16 - over;
                out += 16 - over;
                continue;
            }
            // This block and those like it that follow.
            std::ptrdiff_t blocks =
                std::min({(limit - text + WideStep - 1) / WideStep, (end - text) / WideStep, (outEnd - out) / WideStep});
            do {
                for (std::ptrdiff_t each = 0; each < WideStep; each += 16)
                    _mm512_storeu_si512(out + each, _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text + each))));
                text += WideStep;
                out += WideStep;
            } while (--blocks > 0 && _mm512_movepi8_mask(LoadWide(text)) == 0);
            continue;
        }
        const std::uint64_t continuations = _mm512_cmplt_epi8_mask(bytes, _mm512_set1_epi8(-64));
        const std::uint64_t leads = isHigh & ~continuations;
        const std::uint64_t leadsOfThree = _mm512_cmpge_epu8_mask(bytes, _mm512_set1_epi8(-32));
        if ((missing | leads << 1 | leadsOfThree << 2) != continuations)
            break;
        missing = leads >> 63 | leadsOfThree >> 62;
        const __m512i highHalves = _mm512_and_si512(_mm512_srli_epi16(bytes, 4), _mm512_set1_epi8(0x0F));
        const __m512i payload = _mm512_and_si512(bytes, _mm512_shuffle_epi8(payloads, highHalves));
        const __m512i second = _mm512_maskz_permutex2var_epi8(continuations, payloadBefore, before, payload);
        const __m512i third = _mm512_maskz_permutex2var_epi8(continuations, secondBefore, before, second);
        const __m512i low = _mm512_or_si512(payload, _mm512_and_si512(_mm512_slli_epi16(second, 6), _mm512_set1_epi8(-64)));
        const __m512i high =
            _mm512_or_si512(_mm512_slli_epi16(third, 4), _mm512_and_si512(_mm512_srli_epi16(second, 2), _mm512_set1_epi8(0x0F)));
        const std::uint64_t ends = ~(continuations >> 1 | missing << 63);
        const __m512i lows = _mm512_maskz_compress_epi8(ends, low);
        const __m512i highs = _mm512_maskz_compress_epi8(ends, high);
        const int count = __builtin_popcountll(ends);
        for (std::ptrdiff_t quarter = 0; quarter < 4; ++quarter) {
            if (quarter >= 2 && count <= 16 * quarter)
                break;
            const __m512i places = LoadWide(PlacesOfUnits[quarter].data());
            _mm512_storeu_si512(out + 16 * quarter, _mm512_maskz_permutex2var_epi8(0x3333333333333333U, lows, places, highs));
        }
        text += WideStep;
        out += count;
        payloadBefore = payload;
        secondBefore = second;
    }
    if (missing != 0)
        while (static_cast<signed char>(*--text) < -64) {
        }
    return out;
}

KEST_AVX512 std::size_t DecodeWide(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept {
    const wchar_t* const outBegin = out;
    const wchar_t* const outEnd = out + room;
    for (;;) {
        out = DecodeWideBlocks(text, limit, end, out, outEnd);
        if (text >= limit || end - text < WideStep || outEnd - out < WideStep)
            break;
        for (const char* const stop = limit - text < 16 ? limit : text + 16; text < stop;)
            *out++ = _DecodeUTF8Form(text, end);
    }
    const auto count = static_cast<std::size_t>(out - outBegin);
    _mm256_zeroupper(); // GCC leaves it out here, and each narrow step after it would wait for the upper halves of its registers
    return text < limit && count < room ? count + Decode(text, limit, end, out, room - count) : count;
}

/// Writes the bytes of sixteen code units.
KEST_AVX512 inline char* StoreAnyBytesWide(__m512i units, char* out) noexcept {
    // From each unit the bits from 12, 6 and 0 on, or from 6 and 0.
    const __m512i three = _mm512_multishift_epi64_epi8(_mm512_set1_epi64(0x0020262C'0000060C), units);
    const __m512i two = _mm512_multishift_epi64_epi8(_mm512_set1_epi64(0x00202026'00000006), units);
    const __mmask16 isLong = _mm512_test_epi32_mask(units, _mm512_set1_epi32(~0x7F));
    const __mmask16 isThree = _mm512_test_epi32_mask(units, _mm512_set1_epi32(~0x7FF));
    const __m512i twoBytes = _mm512_or_si512(_mm512_and_si512(two, _mm512_set1_epi32(0x3F1F)), _mm512_set1_epi32(0x80C0));
    const __m512i threeBytes = _mm512_or_si512(_mm512_and_si512(three, _mm512_set1_epi32(0x3F3FFF)), _mm512_set1_epi32(0x8080E0));
    const __m512i bytes = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(units, isLong, twoBytes), isThree, threeBytes);
    const std::uint64_t used = _mm512_test_epi8_mask(bytes, bytes) | 0x1111111111111111U;
    _mm512_storeu_si512(out, _mm512_maskz_compress_epi8(used, bytes));
    return out + __builtin_popcountll(used);
}

/// Writes the bytes of 32 code units up to 0x7FF.
KEST_AVX512 inline char* StoreShortBytesWide(__m512i low, __m512i high, char* out) noexcept {
    const __m512i words = _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvtepi32_epi16(low)), _mm512_cvtepi32_epi16(high), 1);
    const __mmask32 isTwo = _mm512_cmpgt_epu16_mask(words, _mm512_set1_epi16(0x7F));
    const __m512i second = _mm512_and_si512(_mm512_slli_epi16(words, 8), _mm512_set1_epi16(0x3F00));
    const __m512i both =
        _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi16(words, 6), second), _mm512_set1_epi16(static_cast<short>(0x80C0)));
    const __m512i bytes = _mm512_mask_mov_epi16(words, isTwo, both);
    const std::uint64_t used = _mm512_test_epi8_mask(bytes, bytes) | 0x5555555555555555U;
    _mm512_storeu_si512(out, _mm512_maskz_compress_epi8(used, bytes));
    return out + __builtin_popcountll(used);
}

KEST_AVX512 char* EncodeWide(const wchar_t* text, std::size_t length, char* out) noexcept {
    constexpr std::size_t step = 32;
    std::size_t index = 0;
    // A whole register is stored each time: there is room for it as long as at least so many units follow.
    for (; length - index >= 2 * step; index += step) {
        const __m512i low = LoadWide(text + index);
        const __m512i high = LoadWide(text + index + 16);
        const __m512i any = _mm512_or_si512(low, high);
        if (_mm512_test_epi32_mask(any, _mm512_set1_epi32(~0x7F)) == 0) {
            Store(out, _mm512_cvtepi32_epi8(low));
            Store(out + 16, _mm512_cvtepi32_epi8(high));
            out += step;
        } else if (_mm512_test_epi32_mask(any, _mm512_set1_epi32(~0x7FF)) == 0) {
            out = StoreShortBytesWide(low, high, out);
        } else {
            out = StoreAnyBytesWide(high, StoreAnyBytesWide(low, out));
        }
    }
    return Encode(text + index, length - index, out);
}

bool HasAvx512() noexcept {
    return __builtin_cpu_supports("avx512vbmi2") != 0 && __builtin_cpu_supports("avx512vbmi") != 0 &&
           __builtin_cpu_supports("avx512bw") != 0 && __builtin_cpu_supports("popcnt") != 0;
}

constexpr _TUTF8Form AVX512Form = {"avx512", HasAvx512, CountCharactersWide, CountBytesWide, DecodeWide, EncodeWide};

constexpr const _TUTF8Form* Forms[] = {&AVX512Form, &SSE4Form, &_PortableUTF8Form};

/// The processor is slower at first when it turns to its widest registers, which a shorter text does not make up for.
const _TUTF8Form* ChooseWideForm(std::size_t length) noexcept {
    return length >= 256 && HasAvx512() ? &AVX512Form : nullptr;
}

#else

constexpr const _TUTF8Form* Forms[] = {&SSE4Form, &_PortableUTF8Form};

const _TUTF8Form* ChooseWideForm(std::size_t /*length*/) noexcept {
    return nullptr;
}

#endif

} // namespace

const _TUTF8Form& _ChooseUTF8Form(std::size_t length) noexcept {
    const _TUTF8Form* const wide = ChooseWideForm(length);
    return wide != nullptr ? *wide : HasSse4() ? SSE4Form : _PortableUTF8Form;
}

#else

namespace Kest::System {

namespace {

constexpr const _TUTF8Form* Forms[] = {&_PortableUTF8Form};

} // namespace

const _TUTF8Form& _ChooseUTF8Form(std::size_t /*length*/) noexcept {
    return _PortableUTF8Form;
}

#endif

const _TUTF8Form* const* _GetUTF8Forms(std::size_t& count) noexcept {
    count = std::size(Forms);
    return Forms;
}

} // namespace Kest::System

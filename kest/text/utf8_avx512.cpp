#if defined(__x86_64__)

// GCC's own header leaves registers undefined on purpose. GCC 12 warns of them where it has inlined that header into functions of this
// file.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

#include <immintrin.h>

// avx512vbmi2 moves chosen bytes together without a table.
#define KEST_TARGET __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vbmi2,popcnt")))

#include <kest/text/utf8_frame.h>

namespace Kest::System {

namespace {

// No variable of a vector class has its address taken here: GCC 12 with AddressSanitizer would not align it in memory.

/// The places from which a permutation takes 64 bytes.
struct alignas(64) TPlaces {
    std::array<std::uint8_t, 64> Each;
};

/// For each byte the place of the byte before it.
constexpr TPlaces MakePlacesBefore() {
    TPlaces places{};
    for (unsigned byte = 1; byte < 64; ++byte)
        places.Each[byte] = static_cast<std::uint8_t>(byte - 1);
    return places;
}

/// The places for sixteen code units of four bytes: the lowest byte comes from the first of two registers, the next byte from the second.
constexpr TPlaces MakePlacesOfUnits(unsigned quarter) {
    TPlaces places{};
    for (unsigned byte = 0; byte < 64; ++byte)
        places.Each[byte] = static_cast<std::uint8_t>(64 * (byte % 2) + 16 * quarter + byte / 4);
    return places;
}

constexpr TPlaces PlacesBefore = MakePlacesBefore();
constexpr TPlaces PlacesOfUnits[4] = {MakePlacesOfUnits(0), MakePlacesOfUnits(1), MakePlacesOfUnits(2), MakePlacesOfUnits(3)};

KEST_STEP __m512i Load(const void* place) noexcept {
    return _mm512_loadu_si512(place);
}

/// Joins the masks of two registers of sixteen elements.
KEST_STEP std::uint64_t Both(__mmask16 low, __mmask16 high) noexcept {
    return std::uint64_t{low} | std::uint64_t{high} << 16U;
}

KEST_STEP __mmask16 FindAbove(__m512i units, int most) noexcept {
    return _mm512_test_epi32_mask(units, _mm512_set1_epi32(~most));
}

/// Takes each bit from @p first where it is set in @p choice, and from @p second elsewhere.
KEST_STEP __m512i Choose(char choice, __m512i first, __m512i second) noexcept {
    return _mm512_ternarylogic_epi32(_mm512_set1_epi8(choice), first, second, 0xCA);
}

/// A bit for each byte that is not 0, and the bits of @p always.
KEST_STEP __mmask64 FindUsed(__m512i bytes, std::uint64_t always) noexcept {
    return _kor_mask64(_mm512_test_epi8_mask(bytes, bytes), _cvtu64_mask64(always));
}

/// Writes those bytes whose bits are set in @p used, one behind the other, and zeros up to 64 bytes. Returns the end of the bytes.
KEST_STEP char* StoreBytes(__m512i bytes, __mmask64 used, char* out) noexcept {
    _mm512_storeu_si512(out, _mm512_maskz_compress_epi8(used, bytes));
    return out + __builtin_popcountll(used);
}

struct TSteps {
    static constexpr std::size_t BytesOfBlock = 64;
    static constexpr std::size_t UnitsOfBlock = 32;
    static constexpr std::size_t UnitsOfPart = 16;
    static constexpr std::size_t Run = 64;
    static constexpr std::size_t StoreOvershoot = 15;
    static constexpr std::size_t EncodeOvershoot = 48;

    using TMask = std::uint64_t;
    struct TLongUnits {
        TMask Zeros;
        TMask Long;
        TMask Longer;
    };

    KEST_STEP static TMask FindCharacters(const char* text) noexcept { return _mm512_cmpgt_epi8_mask(Load(text), _mm512_set1_epi8(-64)); }

    KEST_STEP static std::size_t CountCharacters(const char* text, std::size_t blocks) noexcept {
        std::size_t characters = 0;
        for (const char* const end = text + blocks * BytesOfBlock; text < end; text += BytesOfBlock)
            characters += static_cast<std::size_t>(__builtin_popcountll(FindCharacters(text)));
        return characters;
    }

    KEST_STEP static TLongUnits FindLongUnits(const wchar_t* text) noexcept {
        const __m512i low = Load(text);
        const __m512i high = Load(text + 16);
        return {Both(_mm512_testn_epi32_mask(low, low), _mm512_testn_epi32_mask(high, high)),
                Both(FindAbove(low, 0x7F), FindAbove(high, 0x7F)), Both(FindAbove(low, 0x7FF), FindAbove(high, 0x7FF))};
    }

    KEST_STEP static std::size_t CountBytes(const wchar_t* text, std::size_t& runs) noexcept {
        std::size_t longer = 0;
        std::size_t run = 0;
        for (; run < runs; ++run, text += Run) {
            const __m512i a = Load(text);
            const __m512i b = Load(text + 16);
            const __m512i c = Load(text + 32);
            const __m512i d = Load(text + 48);
            const __m512i least = _mm512_min_epi32(_mm512_min_epi32(a, b), _mm512_min_epi32(c, d));
            // A negative code unit ends the loop too.
            if (_mm512_cmple_epi32_mask(least, _mm512_setzero_si512()) != 0)
                break;
            if (FindAbove(_mm512_or_si512(_mm512_or_si512(a, b), _mm512_or_si512(c, d)), 0x7F) != 0)
                longer += CountLonger(_mm512_packs_epi32(a, b), _mm512_packs_epi32(c, d));
        }
        runs = run;
        return run * Run + longer;
    }

    template <bool IsFirst>
    KEST_STEP static bool FindEnds(const char* text, std::size_t count, TMask& missing, TMask& ends) noexcept {
        const __m512i bytes = Load(text);
        const TSequences<TMask> sequences{_mm512_movepi8_mask(bytes), _mm512_cmplt_epi8_mask(bytes, _mm512_set1_epi8(-64)),
                                          _mm512_cmpge_epu8_mask(bytes, _mm512_set1_epi8(-32))};
        return sequences.FindEnds(count, missing, ends);
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const __m512i bytes = Load(text);
        const __m512i before = IsFirst ? MoveUp(bytes) : Load(text - 1);
        const __mmask64 isContinuation = _mm512_cmplt_epi8_mask(bytes, _mm512_set1_epi8(-64));
        const __mmask64 isThird = _mm512_cmplt_epi8_mask(before, _mm512_set1_epi8(-64));
        const __m512i leads = _mm512_maskz_mov_epi8(isThird, IsFirst ? MoveUp(before) : Load(text - 2));
        const __m512i low = Choose(-64, _mm512_slli_epi16(before, 6), bytes);
        const __m512i high = Choose(0x0F, _mm512_srli_epi16(before, 2), _mm512_slli_epi16(leads, 4));
        const __m512i lows = _mm512_maskz_compress_epi8(ends, _mm512_mask_mov_epi8(bytes, isContinuation, low));
        const __m512i highs = _mm512_maskz_compress_epi8(ends, _mm512_maskz_mov_epi8(isContinuation, high));
        const auto count = static_cast<unsigned>(__builtin_popcountll(ends));
        for (unsigned quarter = 0; quarter == 0 || 16 * quarter < count; ++quarter) {
            const __m512i places = _mm512_load_si512(PlacesOfUnits[quarter].Each.data());
            _mm512_storeu_si512(out + std::size_t{16} * quarter, _mm512_maskz_permutex2var_epi8(0x3333333333333333U, lows, places, highs));
        }
    }

    KEST_STEP static bool IsASCII(const char* text) noexcept { return _mm512_movepi8_mask(Load(text)) == 0; }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
        for (std::size_t each = 0; each < Run; each += 16)
            _mm512_storeu_si512(out + each, _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text + each))));
    }

    KEST_STEP static bool EncodeASCII(const wchar_t* text, char* out) noexcept {
        const __m512i a = Load(text);
        const __m512i b = Load(text + 16);
        const __m512i c = Load(text + 32);
        const __m512i d = Load(text + 48);
        if (FindAbove(_mm512_or_si512(_mm512_or_si512(a, b), _mm512_or_si512(c, d)), 0x7F) != 0)
            return false;
        StoreLowBytes(a, out);
        StoreLowBytes(b, out + 16);
        StoreLowBytes(c, out + 32);
        StoreLowBytes(d, out + 48);
        return true;
    }

    KEST_STEP static bool IsShort(const wchar_t* text) noexcept {
        return FindAbove(_mm512_or_si512(Load(text), Load(text + 16)), 0x7FF) == 0;
    }

    KEST_STEP static char* EncodeShort(const wchar_t* text, char* out) noexcept {
        const __m512i eighths = _mm512_packus_epi32(Load(text), Load(text + 16)); // in the order 0, 4, 1, 5, 2, 6, 3, 7
        const __m512i words = _mm512_permutexvar_epi64(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7), eighths);
        const __mmask32 isTwo = _mm512_cmpgt_epu16_mask(words, _mm512_set1_epi16(0x7F));
        const __m512i second = _mm512_and_si512(_mm512_slli_epi16(words, 8), _mm512_set1_epi16(0x3F00));
        const __m512i both =
            _mm512_or_si512(_mm512_or_si512(_mm512_srli_epi16(words, 6), second), _mm512_set1_epi16(static_cast<short>(0x80C0)));
        const __m512i bytes = _mm512_mask_mov_epi16(words, isTwo, both);
        return StoreBytes(bytes, FindUsed(bytes, 0x5555555555555555U), out);
    }

    KEST_STEP static char* EncodeAny(const wchar_t* text, char* out) noexcept {
        const __m512i units = Load(text);
        // Each byte gets eight bits of its code unit: those from bit 12, 6 and 0 on. Two bytes are the last two of the three.
        const __m512i three = _mm512_multishift_epi64_epi8(_mm512_set1_epi64(0x0020262C'0000060C), units);
        const __m512i two = _mm512_srli_epi32(three, 8);
        const __m512i twoBytes = _mm512_or_si512(_mm512_and_si512(two, _mm512_set1_epi32(0x3F1F)), _mm512_set1_epi32(0x80C0));
        const __m512i threeBytes = _mm512_or_si512(_mm512_and_si512(three, _mm512_set1_epi32(0x3F3FFF)), _mm512_set1_epi32(0x8080E0));
        const __m512i longBytes = _mm512_mask_mov_epi32(units, FindAbove(units, 0x7F), twoBytes);
        const __m512i bytes = _mm512_mask_mov_epi32(longBytes, FindAbove(units, 0x7FF), threeBytes);
        return StoreBytes(bytes, FindUsed(bytes, 0x1111111111111111U), out);
    }

private:
    /// Counts the words above 0x7F, and those above 0x7FF once more. No word is negative.
    KEST_STEP static std::size_t CountLonger(__m512i low, __m512i high) noexcept {
        const __m512i most = _mm512_set1_epi16(0x7FF);
        // As bytes, the words above 0x7F have the highest bit set.
        int longer = __builtin_popcountll(_mm512_movepi8_mask(_mm512_packus_epi16(low, high)));
        if (_mm512_cmpgt_epi16_mask(_mm512_or_si512(low, high), most) != 0)
            longer += __builtin_popcount(_mm512_cmpgt_epi16_mask(low, most)) + __builtin_popcount(_mm512_cmpgt_epi16_mask(high, most));
        return static_cast<std::size_t>(longer);
    }

    /// Moves each byte one place up, and puts a zero at the first place.
    KEST_STEP static __m512i MoveUp(__m512i bytes) noexcept {
        return _mm512_maskz_permutexvar_epi8(~std::uint64_t{1}, _mm512_load_si512(PlacesBefore.Each.data()), bytes);
    }

    KEST_STEP static void StoreLowBytes(__m512i units, char* out) noexcept {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm512_cvtepi32_epi8(units));
    }
};

using TAVX512 = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _AVX512UTF8Codec = {"avx512", TAVX512::CountCharacters, TAVX512::CountBytes, TAVX512::Decode, TAVX512::Encode};

} // namespace Kest::System

#endif

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#define KEST_TARGET __attribute__((target("avx2,popcnt")))

#include <kest/text/utf8_frame.h>
#include <kest/text/utf8_shuffles.h>

namespace Kest::System {

namespace {

// A register has two lanes, and most instructions work in each by itself.

KEST_STEP __m256i Load(const void* place) noexcept {
    return _mm256_loadu_si256(static_cast<const __m256i*>(place));
}

KEST_STEP void Store(void* place, __m256i value) noexcept {
    _mm256_storeu_si256(static_cast<__m256i*>(place), value);
}

KEST_STEP __m128i Shuffle(__m128i value, const _TUTF8Shuffle& shuffle) noexcept {
    return _mm_shuffle_epi8(value, _mm_load_si128(reinterpret_cast<const __m128i*>(shuffle.Places.data())));
}

KEST_STEP std::uint32_t BitsOf(__m256i value) noexcept {
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(value));
}

KEST_STEP bool HasNone(__m256i units, int bits) noexcept {
    return _mm256_testz_si256(units, _mm256_set1_epi32(bits)) != 0;
}

KEST_STEP __m256i FindContinuations(__m256i bytes) noexcept {
    return _mm256_cmpgt_epi8(_mm256_set1_epi8(-64), bytes);
}

/// Sixteen elements, those above 0x800 as that, in half the space: the quarters in the order 0, 2, 1, 3.
KEST_STEP __m256i Narrow(const wchar_t* text) noexcept {
    const __m256i most = _mm256_set1_epi32(0x800);
    return _mm256_packus_epi32(_mm256_min_epu32(Load(text), most), _mm256_min_epu32(Load(text + 8), most));
}

/// 32 code units as bytes, eighths out of their order: what is negative as 0, what is above 0x7F with its highest bit set.
KEST_STEP __m256i NarrowToBytes(const wchar_t* text) noexcept {
    const __m256i low = _mm256_packs_epi32(Load(text), Load(text + 8));
    return _mm256_packus_epi16(low, _mm256_packs_epi32(Load(text + 16), Load(text + 24)));
}

/// What NarrowToBytes() gave, in order.
KEST_STEP __m256i InOrder(__m256i bytes) noexcept {
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

/// Writes the code units of eight bytes: of the words those whose bits are set in @p ends.
KEST_STEP wchar_t* StoreWords(__m128i words, std::uint32_t ends, wchar_t* out) noexcept {
    Store(out, _mm256_cvtepu16_epi32(Shuffle(words, _WordShuffles[ends])));
    return out + _mm_popcnt_u32(ends);
}

/// Writes the bytes of eight code units, of which those have one whose bits are set in @p ones.
KEST_STEP char* StoreTwoBytes(__m128i bytes, std::uint32_t ones, char* out) noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Shuffle(bytes, _TwoByteShuffles[ones]));
    return out + (16 - _mm_popcnt_u32(ones));
}

/// Writes the bytes of four code units, of the kinds that _ThreeByteShuffles tells.
KEST_STEP char* StoreThreeBytes(__m128i bytes, std::uint32_t kinds, char* out) noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Shuffle(bytes, _ThreeByteShuffles[kinds]));
    return out + (12 - _mm_popcnt_u32(kinds));
}

struct TSteps {
    static constexpr std::size_t BytesOfBlock = 32;
    static constexpr std::size_t UnitsOfBlock = 16;
    static constexpr std::size_t UnitsOfPart = 8;
    static constexpr std::size_t Run = 64;
    static constexpr std::size_t StoreOvershoot = 8;
    static constexpr std::size_t EncodeOvershoot = 12;

    using TMask = std::uint32_t;
    struct TLongUnits {
        TMask Zeros;
        TMask Long;
        TMask Longer;
    };

    KEST_STEP static TMask FindCharacters(const char* text) noexcept {
        return BitsOf(_mm256_cmpgt_epi8(Load(text), _mm256_set1_epi8(-64)));
    }

    KEST_STEP static std::size_t CountCharacters(const char* text, std::size_t blocks) noexcept {
        __m256i counts = _mm256_setzero_si256();
        for (const char* const end = text + blocks * BytesOfBlock; text < end; text += BytesOfBlock)
            counts = _mm256_sub_epi8(counts, _mm256_cmpgt_epi8(Load(text), _mm256_set1_epi8(-64)));
        const __m256i sums = _mm256_sad_epu8(counts, _mm256_setzero_si256());
        return static_cast<std::size_t>(_mm256_extract_epi16(sums, 0) + _mm256_extract_epi16(sums, 4) + _mm256_extract_epi16(sums, 8) +
                                        _mm256_extract_epi16(sums, 12));
    }

    KEST_STEP static TLongUnits FindLongUnits(const wchar_t* text) noexcept {
        const __m256i units = _mm256_permute4x64_epi64(Narrow(text), 0xD8);
        return {BitsOfWords(_mm256_cmpeq_epi16(units, _mm256_setzero_si256())),
                BitsOfWords(_mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7F))),
                BitsOfWords(_mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7FF)))};
    }

    KEST_STEP static std::size_t CountBytes(const wchar_t* text, std::size_t& runs) noexcept {
        std::size_t run = 0;
        __m256i longer = _mm256_setzero_si256();
        for (; run < runs; ++run, text += Run) {
            if (IsASCIIWithoutZero(text))
                continue;
            std::uint32_t zeros = 0;
            const __m256i more = CountLonger(text, zeros);
            if (zeros != 0)
                break;
            longer = _mm256_add_epi16(longer, more);
        }
        runs = run;
        const __m256i sums = _mm256_madd_epi16(longer, _mm256_set1_epi16(1));
        const __m128i half = _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
        const __m128i sum = _mm_add_epi32(half, _mm_unpackhi_epi64(half, half));
        return run * Run + static_cast<std::size_t>(_mm_extract_epi32(sum, 0) + _mm_extract_epi32(sum, 1));
    }

    template <bool IsFirst>
    KEST_STEP static bool FindEnds(const char* text, std::size_t count, TMask& missing, TMask& ends) noexcept {
        const __m256i bytes = Load(text);
        const std::uint32_t high = BitsOf(bytes);
        const TSequences<TMask> sequences{high, BitsOf(FindContinuations(bytes)),
                                          BitsOf(_mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(-33))) & high};
        return sequences.FindEnds(count, missing, ends);
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const __m256i bytes = Load(text);
        // The lower lane's bytes that go over into the upper one.
        const __m256i over = IsFirst ? _mm256_permute2x128_si256(bytes, bytes, 0x08) : bytes;
        const __m256i before = IsFirst ? _mm256_alignr_epi8(bytes, over, 15) : Load(text - 1);
        const __m256i leads = IsFirst ? _mm256_alignr_epi8(bytes, over, 14) : Load(text - 2);
        const __m256i isContinuation = FindContinuations(bytes);
        const __m256i isThird = _mm256_and_si256(FindContinuations(before), _mm256_set1_epi8(-16));
        const __m256i last = _mm256_and_si256(bytes, _mm256_set1_epi8(0x3F));
        const __m256i low = _mm256_or_si256(last, _mm256_and_si256(_mm256_slli_epi16(before, 6), _mm256_set1_epi8(-64)));
        const __m256i middle = _mm256_and_si256(_mm256_srli_epi16(before, 2), _mm256_set1_epi8(0x0F));
        const __m256i high = _mm256_or_si256(middle, _mm256_and_si256(_mm256_slli_epi16(leads, 4), isThird));
        const __m256i lows = _mm256_blendv_epi8(bytes, low, isContinuation);
        const __m256i highs = _mm256_and_si256(high, isContinuation);
        const __m256i even = _mm256_unpacklo_epi8(lows, highs); // of each lane the first half
        const __m256i odd = _mm256_unpackhi_epi8(lows, highs);
        out = StoreWords(_mm256_castsi256_si128(even), ends & 0xFF, out);
        out = StoreWords(_mm256_castsi256_si128(odd), ends >> 8U & 0xFF, out);
        out = StoreWords(_mm256_extracti128_si256(even, 1), ends >> 16U & 0xFF, out);
        (void)StoreWords(_mm256_extracti128_si256(odd, 1), ends >> 24U, out);
    }

    KEST_STEP static bool IsASCII(const char* text) noexcept { return BitsOf(_mm256_or_si256(Load(text), Load(text + 32))) == 0; }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
        for (const char* const end = text + Run; text < end; text += 8, out += 8)
            Store(out, _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(text))));
    }

    KEST_STEP static bool EncodeASCII(const wchar_t* text, char* out) noexcept {
        const __m256i low = NarrowToBytes(text);
        const __m256i high = NarrowToBytes(text + 32);
        if (!IsASCIIWithoutZero(low, high))
            return false;
        Store(out, InOrder(low));
        Store(out + 32, InOrder(high));
        return true;
    }

    KEST_STEP static bool IsShort(const wchar_t* text) noexcept { return HasNone(_mm256_or_si256(Load(text), Load(text + 8)), ~0x7FF); }

    KEST_STEP static char* EncodeShort(const wchar_t* text, char* out) noexcept {
        const __m256i units = _mm256_permute4x64_epi64(_mm256_packus_epi32(Load(text), Load(text + 8)), 0xD8);
        const __m256i isOne = _mm256_cmpgt_epi16(_mm256_set1_epi16(0x80), units);
        const std::uint32_t ones = BitsOf(_mm256_packs_epi16(isOne, isOne));
        const __m256i second = _mm256_and_si256(_mm256_slli_epi16(units, 8), _mm256_set1_epi16(0x3F00));
        const __m256i both =
            _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi16(units, 6), second), _mm256_set1_epi16(static_cast<short>(0x80C0)));
        const __m256i bytes = _mm256_blendv_epi8(both, units, isOne);
        out = StoreTwoBytes(_mm256_castsi256_si128(bytes), ones & 0xFF, out);
        return StoreTwoBytes(_mm256_extracti128_si256(bytes, 1), ones >> 24U, out);
    }

    KEST_STEP static char* EncodeAny(const wchar_t* text, char* out) noexcept {
        const __m256i units = Load(text);
        const __m256i isOne = _mm256_cmpeq_epi32(_mm256_and_si256(units, _mm256_set1_epi32(~0x7F)), _mm256_setzero_si256());
        const __m256i isTwo = _mm256_cmpeq_epi32(_mm256_and_si256(units, _mm256_set1_epi32(~0x7FF)), _mm256_setzero_si256());
        const __m256i kinds = _mm256_packs_epi32(isOne, isTwo);
        const std::uint32_t mask = BitsOf(_mm256_packs_epi16(kinds, kinds));
        // The three bytes, and the unit itself as the fourth.
        const __m256i first = _mm256_and_si256(_mm256_srli_epi32(units, 12), _mm256_set1_epi32(0xFF));
        const __m256i second = _mm256_and_si256(_mm256_slli_epi32(units, 2), _mm256_set1_epi32(0x3F00));
        const __m256i third = _mm256_and_si256(_mm256_slli_epi32(units, 16), _mm256_set1_epi32(0x3F0000));
        const __m256i payload = _mm256_or_si256(_mm256_or_si256(first, second), _mm256_or_si256(third, _mm256_slli_epi32(units, 24)));
        // The second of them is the lead of a sequence of two.
        const __m256i marks = _mm256_or_si256(_mm256_set1_epi32(0x8080E0), _mm256_and_si256(isTwo, _mm256_set1_epi32(0x4000)));
        const __m256i bytes = _mm256_or_si256(payload, marks);
        out = StoreThreeBytes(_mm256_castsi256_si128(bytes), mask & 0xFF, out);
        return StoreThreeBytes(_mm256_extracti128_si256(bytes, 1), mask >> 24U, out);
    }

private:
    KEST_STEP static TMask BitsOfWords(__m256i words) noexcept {
        const std::uint32_t bits = BitsOf(_mm256_packs_epi16(words, words));
        return (bits & 0xFF) | (bits >> 16U & 0xFF00);
    }

    KEST_STEP static bool IsASCIIWithoutZero(__m256i low, __m256i high) noexcept {
        const __m256i isZero = _mm256_cmpeq_epi8(_mm256_min_epu8(low, high), _mm256_setzero_si256());
        return BitsOf(_mm256_or_si256(_mm256_or_si256(low, high), isZero)) == 0;
    }

    KEST_STEP static bool IsASCIIWithoutZero(const wchar_t* text) noexcept {
        return IsASCIIWithoutZero(NarrowToBytes(text), NarrowToBytes(text + 32));
    }

    /// Counts at each place the code units of a run that are above 0x7F, and again those above 0x7FF.
    KEST_STEP static __m256i CountLonger(const wchar_t* text, std::uint32_t& zeros) noexcept {
        __m256i minus = _mm256_setzero_si256();
        __m256i isZero = _mm256_setzero_si256();
        for (const wchar_t* const end = text + Run; text < end; text += 16) {
            const __m256i units = Narrow(text);
            minus = _mm256_add_epi16(minus, _mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7F)));
            minus = _mm256_add_epi16(minus, _mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7FF)));
            isZero = _mm256_or_si256(isZero, _mm256_cmpeq_epi16(units, _mm256_setzero_si256()));
        }
        zeros = BitsOf(isZero);
        return _mm256_sub_epi16(_mm256_setzero_si256(), minus);
    }
};

using TAVX2 = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _AVX2UTF8Codec = {"avx2", TAVX2::CountCharacters, TAVX2::CountBytes, TAVX2::Decode, TAVX2::Encode};

} // namespace Kest::System

#endif

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

/// Returns @p value and hides from the compiler how it was computed. Otherwise the compiler would compute it again in each round of a loop.
KEST_STEP __m256i Kept(__m256i value) noexcept {
    asm("" : "+x"(value));
    return value;
}

KEST_STEP __m256i KeptWords(int word) noexcept {
    return Kept(_mm256_set1_epi16(static_cast<short>(word)));
}

KEST_STEP unsigned CountBits(std::uint32_t bits) noexcept {
    return static_cast<unsigned>(_mm_popcnt_u32(bits));
}

KEST_STEP __m256i FindContinuations(__m256i bytes) noexcept {
    return _mm256_cmpgt_epi8(_mm256_set1_epi8(-64), bytes);
}

/// Sixteen code units in words of 16 bits, the quarters in the order 0, 2, 1, 3. A code unit above 0x800 becomes 0x800.
KEST_STEP __m256i Narrow(const wchar_t* text) noexcept {
    const __m256i most = _mm256_set1_epi32(0x800);
    return _mm256_packus_epi32(_mm256_min_epu32(Load(text), most), _mm256_min_epu32(Load(text + 8), most));
}

/// 64 code units as words, with the quarters of each register out of order. One below -0x8000 becomes -0x8000, one above 0x7FFF becomes
/// 0x7FFF.
struct TRun {
    __m256i A;
    __m256i B;
    __m256i C;
    __m256i D;

    KEST_STEP explicit TRun(const wchar_t* text) noexcept
        : A(_mm256_packs_epi32(Load(text), Load(text + 8))), B(_mm256_packs_epi32(Load(text + 16), Load(text + 24))),
          C(_mm256_packs_epi32(Load(text + 32), Load(text + 40))), D(_mm256_packs_epi32(Load(text + 48), Load(text + 56))) {}

    /// Whether no word has any of the bits.
    KEST_STEP bool HasNone(int bits) const noexcept {
        const __m256i any = _mm256_or_si256(_mm256_or_si256(A, B), _mm256_or_si256(C, D));
        return _mm256_testz_si256(any, _mm256_set1_epi16(static_cast<short>(bits))) != 0;
    }

    /// Counts the words above @p most at each place. The counts are negative.
    KEST_STEP __m256i CountAbove(short most) const noexcept {
        const __m256i border = _mm256_set1_epi16(most);
        const __m256i low = _mm256_add_epi16(_mm256_cmpgt_epi16(A, border), _mm256_cmpgt_epi16(B, border));
        return _mm256_add_epi16(low, _mm256_add_epi16(_mm256_cmpgt_epi16(C, border), _mm256_cmpgt_epi16(D, border)));
    }

    /// The first and the last 32 words as bytes, with the eighths out of order. A negative word becomes 0, and one above 0x7F becomes a
    /// byte whose highest bit is set.
    KEST_STEP __m256i Low() const noexcept { return _mm256_packus_epi16(A, B); }
    KEST_STEP __m256i High() const noexcept { return _mm256_packus_epi16(C, D); }
};

/// What Low() and High() gave, in order.
KEST_STEP __m256i InOrder(__m256i bytes) noexcept {
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

/// Writes those of eight words whose bits are set in @p ends, as code units.
KEST_STEP wchar_t* StoreWords(__m128i words, std::uint32_t ends, wchar_t* out) noexcept {
    Store(out, _mm256_cvtepu16_epi32(Shuffle(words, _WordShuffles[ends])));
    return out + CountBits(ends);
}

/// Writes the bytes of eight code units: one byte of each whose bit is set in @p ones, two of every other. Returns their number minus 16.
KEST_STEP std::ptrdiff_t StoreTwoBytes(__m128i bytes, std::uint32_t ones, char* out) noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Shuffle(bytes, _TwoByteShuffles[ones]));
    return -static_cast<std::ptrdiff_t>(CountBits(ones));
}

/// Keeps some bytes of each of four elements of four bytes. The mask has two bits for an element: the lower one is set if its code unit
/// needs a second byte, the higher one if it needs a third. If neither is set, the last byte is kept. If only the lower one is set, the
/// second and the third byte are kept. If both are set, the first three bytes are kept.
constexpr _TUTF8Shuffles LongByteShuffles = _MakeUTF8Shuffles(4, [](unsigned element, unsigned mask) {
    const bool hasSecond = (mask >> (2 * element) & 1) != 0;
    const bool hasThird = (mask >> (2 * element) & 2) != 0;
    return hasThird ? _TUTF8Bytes{0, 3} : hasSecond ? _TUTF8Bytes{1, 3} : _TUTF8Bytes{3, 4};
});

/// Writes the bytes of four code units, of which LongByteShuffles keeps those that @p kinds tells. Returns their number minus 4.
KEST_STEP std::size_t StoreLongBytes(__m128i bytes, std::uint32_t kinds, char* out) noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Shuffle(bytes, LongByteShuffles[kinds]));
    return CountBits(kinds);
}

/// Writes the bytes of four code units, of which _ThreeByteShuffles keeps those that @p kinds tells.
KEST_STEP char* StoreThreeBytes(__m128i bytes, std::uint32_t kinds, char* out) noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), Shuffle(bytes, _ThreeByteShuffles[kinds]));
    return out + 12 - CountBits(kinds);
}

struct TSteps {
    static constexpr std::size_t BytesOfBlock = 32;
    static constexpr std::size_t UnitsOfBlock = 16;
    static constexpr std::size_t UnitsOfPart = 16;
    static constexpr std::size_t Run = 64;
    static constexpr std::size_t StoreOvershoot = 8;
    static constexpr std::size_t EncodeOvershoot = 12;

    using TMask = std::uint32_t;
    struct TLongUnits {
        TMask Zeros;
        TMask Long;
        TMask Longer;
    };

    KEST_STEP TSteps() noexcept = default; // declared, so that it is compiled for the instruction set

    KEST_STEP static TMask FindCharacters(const char* text) noexcept {
        return BitsOf(_mm256_cmpgt_epi8(Load(text), _mm256_set1_epi8(-64)));
    }

    KEST_STEP static std::size_t CountCharacters(const char* text, std::size_t blocks) noexcept {
        __m256i others = _mm256_setzero_si256();
#pragma GCC unroll 4
        for (std::size_t block = 0; block < blocks; ++block)
            others = _mm256_sub_epi8(others, _mm256_cmpgt_epi8(_mm256_set1_epi8(-63), Load(text + block * BytesOfBlock)));
        return blocks * BytesOfBlock - SumOf(_mm256_sad_epu8(others, _mm256_setzero_si256()));
    }

    KEST_STEP static TLongUnits FindLongUnits(const wchar_t* text) noexcept {
        const __m256i units = _mm256_permute4x64_epi64(Narrow(text), 0xD8);
        return {BitsOfWords(_mm256_cmpeq_epi16(units, _mm256_setzero_si256())),
                BitsOfWords(_mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7F))),
                BitsOfWords(_mm256_cmpgt_epi16(units, _mm256_set1_epi16(0x7FF)))};
    }

    KEST_STEP static std::size_t CountBytes(const wchar_t* text, std::size_t& runs) noexcept {
        const __m256i zero = _mm256_setzero_si256();
        __m256i low = zero;    // counts the code units above 0x7F of the first halves of runs, in a byte for each place
        __m256i high = zero;   // counts those of the second halves
        __m256i longer = zero; // counts the code units above 0x7FF, in a word for every four places
        std::size_t run = 0;
        for (; run < runs; ++run, text += Run) {
            const TRun units(text);
            // A negative code unit looks like a 0 and ends the loop too.
            if (BitsOf(_mm256_cmpeq_epi8(_mm256_min_epu8(units.Low(), units.High()), zero)) != 0)
                break;
            low = _mm256_sub_epi8(low, _mm256_cmpgt_epi8(zero, units.Low()));
            high = _mm256_sub_epi8(high, _mm256_cmpgt_epi8(zero, units.High()));
            if (!units.HasNone(~0x7FF))
                longer = _mm256_sub_epi16(longer, units.CountAbove(0x7FF));
        }
        runs = run;
        const __m256i sums = _mm256_add_epi64(_mm256_sad_epu8(low, zero), _mm256_sad_epu8(high, zero));
        return run * Run + SumOf(sums) + SumOf(_mm256_madd_epi16(longer, _mm256_set1_epi16(1)));
    }

    template <bool IsFirst>
    KEST_STEP static bool FindEnds(const char* text, std::size_t count, TMask& missing, TMask& ends) noexcept {
        const __m256i bytes = Load(text);
        const std::uint32_t high = BitsOf(bytes);
        const TSequences<TMask> sequences{high, BitsOf(FindContinuations(bytes)),
                                          BitsOf(_mm256_cmpgt_epi8(_mm256_set1_epi8(-32), bytes)) ^ high};
        return sequences.FindEnds(count, missing, ends);
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const __m256i bytes = Load(text);
        // The bytes that come before those of each lane: zeros before the lower lane, and the lower lane before the upper one.
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

    KEST_STEP static bool IsASCII(const char* text) noexcept {
        return BitsOf(_mm256_or_si256(Load(text), Load(text + 32))) == 0;
    }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
#pragma GCC unroll 8
        for (std::size_t each = 0; each < Run; each += 8)
            Store(out + each, _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(text + each))));
    }

    KEST_STEP static bool EncodeASCII(const wchar_t* text, char* out) noexcept {
        const TRun units(text);
        if (!units.HasNone(0xFF80))
            return false;
        Store(out, InOrder(units.Low()));
        Store(out + 32, InOrder(units.High()));
        return true;
    }

    KEST_STEP bool IsShort(const wchar_t* text) const noexcept {
        return _mm256_testz_si256(AnyOf(text), AboveShort) != 0;
    }

    KEST_STEP char* EncodeShort(const wchar_t* text, char* out) const noexcept {
        const __m256i units = _mm256_permute4x64_epi64(_mm256_packus_epi32(Load(text), Load(text + 8)), 0xD8);
        const __m256i isTwo = _mm256_cmpgt_epi16(units, MostOfOne);
        const std::uint32_t ones = ~BitsOf(_mm256_packs_epi16(isTwo, isTwo));
        const __m256i payload = _mm256_or_si256(_mm256_srli_epi16(units, 6), _mm256_slli_epi16(units, 8));
        const __m256i both = _mm256_or_si256(_mm256_and_si256(payload, PayloadOfTwo), MarksOfTwo);
        const __m256i bytes = _mm256_blendv_epi8(units, both, isTwo);
        out += StoreTwoBytes(_mm256_castsi256_si128(bytes), ones & 0xFF, out);
        out += StoreTwoBytes(_mm256_extracti128_si256(bytes, 1), ones >> 24U, out + 16);
        return out + 32;
    }

    KEST_STEP char* EncodeAny(const wchar_t* text, char* out) const noexcept {
        if (__builtin_expect(_mm256_testz_si256(AnyOf(text), AboveWord), 1) == 0)
            return EncodeHuge(text + 8, EncodeHuge(text, out));
        // The quarters in the order 0, 2, 1, 3.
        const __m256i units = _mm256_packus_epi32(Load(text), Load(text + 8));
        const __m256i upper = _mm256_srli_epi16(units, 4);
        const __m256i isLong = _mm256_cmpgt_epi16(upper, MostOfOneUpper);
        const __m256i isLonger = _mm256_cmpgt_epi16(upper, MostOfOne); // that of two without the lowest four bits
        const std::uint32_t kinds = BitsOf(_mm256_blendv_epi8(isLong, isLonger, SecondBytes));
        // The first two of three bytes. The second is the lead of a sequence of two.
        const __m256i payload = _mm256_maddubs_epi16(_mm256_and_si256(upper, FirstParts), FirstFactors);
        const __m256i marks = _mm256_blendv_epi8(MarksOfTwoAsSecond, MarksOfThree, isLonger);
        const __m256i first = _mm256_or_si256(payload, marks);
        // The third, and the unit itself as the fourth.
        const __m256i last = _mm256_or_si256(_mm256_and_si256(_mm256_shuffle_epi8(units, LowBytes), LastParts), LastMark);
        const __m256i low = _mm256_unpacklo_epi16(first, last);
        const __m256i high = _mm256_unpackhi_epi16(first, last);
        out += StoreLongBytes(_mm256_castsi256_si128(low), kinds & 0xFF, out);
        out += StoreLongBytes(_mm256_extracti128_si256(low, 1), kinds >> 16U & 0xFF, out + 4);
        out += StoreLongBytes(_mm256_castsi256_si128(high), kinds >> 8U & 0xFF, out + 8);
        out += StoreLongBytes(_mm256_extracti128_si256(high, 1), kinds >> 24U, out + 12);
        return out + 16;
    }

private:
    const __m256i AboveShort = Kept(_mm256_set1_epi32(~0x7FF));
    const __m256i AboveWord = Kept(_mm256_set1_epi32(~0xFFFF));
    const __m256i MostOfOne = KeptWords(0x7F);
    const __m256i PayloadOfTwo = KeptWords(0x3FFF);
    const __m256i MarksOfTwo = KeptWords(0x80C0);
    const __m256i MostOfOneUpper = KeptWords(0x7F >> 4);
    const __m256i SecondBytes = KeptWords(0xFF00);
    const __m256i FirstParts = KeptWords(0x0FFC);
    const __m256i FirstFactors = KeptWords(0x0140);
    const __m256i MarksOfTwoAsSecond = KeptWords(0xC000);
    const __m256i MarksOfThree = KeptWords(0x80E0);
    const __m256i LowBytes = Kept(_mm256_broadcastsi128_si256(_mm_setr_epi8(0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14)));
    const __m256i LastParts = KeptWords(0x7F3F);
    const __m256i LastMark = KeptWords(0x0080);

    KEST_STEP static __m256i AnyOf(const wchar_t* text) noexcept {
        return _mm256_or_si256(Load(text), Load(text + 8));
    }

    /// The sum of elements of eight or of four bytes. It has to be less than 2 to the power of 31.
    KEST_STEP static std::size_t SumOf(__m256i sums) noexcept {
        const __m128i half = _mm_add_epi32(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
        const __m128i sum = _mm_add_epi32(half, _mm_unpackhi_epi64(half, half));
        return static_cast<std::size_t>(_mm_extract_epi32(sum, 0) + _mm_extract_epi32(sum, 1));
    }

    /// Writes the bytes of eight code units, which may be above 0xFFFF.
    KEST_STEP static char* EncodeHuge(const wchar_t* text, char* out) noexcept {
        const __m256i units = Load(text);
        const __m256i isOne = _mm256_cmpeq_epi32(_mm256_and_si256(units, _mm256_set1_epi32(~0x7F)), _mm256_setzero_si256());
        const __m256i isTwo = _mm256_cmpeq_epi32(_mm256_and_si256(units, _mm256_set1_epi32(~0x7FF)), _mm256_setzero_si256());
        const __m256i kinds = _mm256_packs_epi32(isOne, isTwo);
        const std::uint32_t mask = BitsOf(_mm256_packs_epi16(kinds, kinds));
        // The three bytes of a long sequence, and as the fourth byte the code unit itself, for a sequence of one.
        const __m256i first = _mm256_and_si256(_mm256_srli_epi32(units, 12), _mm256_set1_epi32(0xFF));
        const __m256i second = _mm256_and_si256(_mm256_slli_epi32(units, 2), _mm256_set1_epi32(0x3F00));
        const __m256i third = _mm256_and_si256(_mm256_slli_epi32(units, 16), _mm256_set1_epi32(0x3F0000));
        const __m256i payload = _mm256_or_si256(_mm256_or_si256(first, second), _mm256_or_si256(third, _mm256_slli_epi32(units, 24)));
        // In a sequence of two the second byte is the lead.
        const __m256i marks = _mm256_or_si256(_mm256_set1_epi32(0x8080E0), _mm256_and_si256(isTwo, _mm256_set1_epi32(0x4000)));
        const __m256i bytes = _mm256_or_si256(payload, marks);
        out = StoreThreeBytes(_mm256_castsi256_si128(bytes), mask & 0xFF, out);
        return StoreThreeBytes(_mm256_extracti128_si256(bytes, 1), mask >> 24U, out);
    }

    KEST_STEP static TMask BitsOfWords(__m256i words) noexcept {
        const std::uint32_t bits = BitsOf(_mm256_packs_epi16(words, words));
        return (bits & 0xFF) | (bits >> 16U & 0xFF00);
    }
};

using TAVX2 = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _AVX2UTF8Codec = {"avx2", TAVX2::CountCharacters, TAVX2::CountBytes, TAVX2::Decode, TAVX2::Encode};

} // namespace Kest::System

#endif

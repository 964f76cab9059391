#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

// Each function is marked with what it may use of the processor. The rest of the library runs on any processor, and the codec is chosen
// when the program runs.
#define KEST_TARGET __attribute__((target("sse4.2,popcnt")))

#include <kest/text/utf8_frame.h>
#include <kest/text/utf8_shuffles.h>

namespace Kest::System {

namespace {

KEST_STEP __m128i Load(const void* place) noexcept {
    return _mm_loadu_si128(static_cast<const __m128i*>(place));
}

KEST_STEP void Store(void* place, __m128i value) noexcept {
    _mm_storeu_si128(static_cast<__m128i*>(place), value);
}

KEST_STEP __m128i Shuffle(__m128i value, const _TUTF8Shuffle& shuffle) noexcept {
    return _mm_shuffle_epi8(value, _mm_load_si128(reinterpret_cast<const __m128i*>(shuffle.Places.data())));
}

KEST_STEP unsigned BitsOf(__m128i value) noexcept {
    return static_cast<unsigned>(_mm_movemask_epi8(value));
}

KEST_STEP __m128i FindContinuations(__m128i bytes) noexcept {
    return _mm_cmpgt_epi8(_mm_set1_epi8(-64), bytes);
}

/// Eight code units in words of 16 bits. A code unit above 0x800 becomes 0x800.
KEST_STEP __m128i Narrow(const wchar_t* text) noexcept {
    const __m128i most = _mm_set1_epi32(0x800);
    return _mm_packus_epi32(_mm_min_epu32(Load(text), most), _mm_min_epu32(Load(text + 4), most));
}

/// The bits that any of 16 code units has.
KEST_STEP __m128i AnyOf(const wchar_t* text) noexcept {
    return _mm_or_si128(_mm_or_si128(Load(text), Load(text + 4)), _mm_or_si128(Load(text + 8), Load(text + 12)));
}

/// Sixteen code units as bytes. A negative one becomes 0, and one above 0x7F becomes a byte whose highest bit is set.
KEST_STEP __m128i NarrowToBytes(const wchar_t* text) noexcept {
    const __m128i low = _mm_packs_epi32(Load(text), Load(text + 4));
    return _mm_packus_epi16(low, _mm_packs_epi32(Load(text + 8), Load(text + 12)));
}

/// Writes those of eight words whose bits are set in @p ends, as code units.
KEST_STEP wchar_t* StoreWords(__m128i words, unsigned ends, wchar_t* out) noexcept {
    const __m128i units = Shuffle(words, _WordShuffles[ends]);
    Store(out, _mm_unpacklo_epi16(units, _mm_setzero_si128()));
    Store(out + 4, _mm_unpackhi_epi16(units, _mm_setzero_si128()));
    return out + _mm_popcnt_u32(ends);
}

/// Writes the bytes of eight code units up to 0x7FF.
KEST_STEP char* StoreTwoBytes(__m128i units, char* out) noexcept {
    const __m128i isOne = _mm_cmpgt_epi16(_mm_set1_epi16(0x80), units);
    const unsigned mask = BitsOf(_mm_packs_epi16(isOne, _mm_setzero_si128()));
    const __m128i second = _mm_and_si128(_mm_slli_epi16(units, 8), _mm_set1_epi16(0x3F00));
    const __m128i both = _mm_or_si128(_mm_or_si128(_mm_srli_epi16(units, 6), second), _mm_set1_epi16(static_cast<short>(0x80C0)));
    Store(out, Shuffle(_mm_blendv_epi8(both, units, isOne), _TwoByteShuffles[mask]));
    return out + (16 - _mm_popcnt_u32(mask));
}

struct TSteps {
    static constexpr std::size_t BytesOfBlock = 16;
    static constexpr std::size_t UnitsOfBlock = 16;
    static constexpr std::size_t UnitsOfPart = 4;
    static constexpr std::size_t Run = 64;
    static constexpr std::size_t StoreOvershoot = 8;
    static constexpr std::size_t EncodeOvershoot = 12;

    using TMask = std::uint32_t;
    struct TLongUnits {
        TMask Zeros;
        TMask Long;
        TMask Longer;
    };

    KEST_STEP static TMask FindCharacters(const char* text) noexcept { return BitsOf(_mm_cmpgt_epi8(Load(text), _mm_set1_epi8(-64))); }

    KEST_STEP static std::size_t CountCharacters(const char* text, std::size_t blocks) noexcept {
        __m128i counts = _mm_setzero_si128();
        for (const char* const end = text + blocks * BytesOfBlock; text < end; text += BytesOfBlock)
            counts = _mm_sub_epi8(counts, _mm_cmpgt_epi8(Load(text), _mm_set1_epi8(-64)));
        const __m128i sums = _mm_sad_epu8(counts, _mm_setzero_si128());
        return static_cast<std::size_t>(_mm_extract_epi16(sums, 0) + _mm_extract_epi16(sums, 4));
    }

    KEST_STEP static TLongUnits FindLongUnits(const wchar_t* text) noexcept {
        const __m128i a = Narrow(text);
        const __m128i b = Narrow(text + 8);
        const __m128i one = _mm_set1_epi16(0x7F);
        const __m128i two = _mm_set1_epi16(0x7FF);
        return {BitsOf(_mm_packs_epi16(_mm_cmpeq_epi16(a, _mm_setzero_si128()), _mm_cmpeq_epi16(b, _mm_setzero_si128()))),
                BitsOf(_mm_packs_epi16(_mm_cmpgt_epi16(a, one), _mm_cmpgt_epi16(b, one))),
                BitsOf(_mm_packs_epi16(_mm_cmpgt_epi16(a, two), _mm_cmpgt_epi16(b, two)))};
    }

    KEST_STEP static std::size_t CountBytes(const wchar_t* text, std::size_t& runs) noexcept {
        std::size_t run = 0;
        __m128i longer = _mm_setzero_si128();
        for (; run < runs; ++run, text += Run) {
            if (IsASCIIWithoutZero(text))
                continue;
            unsigned zeros = 0;
            const __m128i more = CountLonger(text, zeros);
            if (zeros != 0)
                break;
            longer = _mm_add_epi16(longer, more);
        }
        runs = run;
        const __m128i sums = _mm_madd_epi16(longer, _mm_set1_epi16(1));
        const __m128i sum = _mm_add_epi32(sums, _mm_unpackhi_epi64(sums, sums));
        return run * Run + static_cast<std::size_t>(_mm_extract_epi32(sum, 0) + _mm_extract_epi32(sum, 1));
    }

    template <bool IsFirst>
    KEST_STEP static bool FindEnds(const char* text, std::size_t count, TMask& missing, TMask& ends) noexcept {
        const __m128i bytes = Load(text);
        const unsigned high = BitsOf(bytes);
        const TSequences<TMask> sequences{high, BitsOf(FindContinuations(bytes)), BitsOf(_mm_cmpgt_epi8(bytes, _mm_set1_epi8(-33))) & high};
        return sequences.FindEnds(count, missing, ends);
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const __m128i bytes = Load(text);
        const __m128i before = IsFirst ? _mm_slli_si128(bytes, 1) : Load(text - 1);
        const __m128i leads = IsFirst ? _mm_slli_si128(bytes, 2) : Load(text - 2);
        const __m128i isContinuation = FindContinuations(bytes);
        const __m128i isThird = _mm_and_si128(FindContinuations(before), _mm_set1_epi8(-16));
        const __m128i last = _mm_and_si128(bytes, _mm_set1_epi8(0x3F));
        const __m128i low = _mm_or_si128(last, _mm_and_si128(_mm_slli_epi16(before, 6), _mm_set1_epi8(-64)));
        const __m128i middle = _mm_and_si128(_mm_srli_epi16(before, 2), _mm_set1_epi8(0x0F));
        const __m128i high = _mm_or_si128(middle, _mm_and_si128(_mm_slli_epi16(leads, 4), isThird));
        const __m128i lows = _mm_blendv_epi8(bytes, low, isContinuation);
        const __m128i highs = _mm_and_si128(high, isContinuation);
        out = StoreWords(_mm_unpacklo_epi8(lows, highs), ends & 0xFF, out);
        (void)StoreWords(_mm_unpackhi_epi8(lows, highs), ends >> 8U, out);
    }

    KEST_STEP static bool IsASCII(const char* text) noexcept {
        return BitsOf(_mm_or_si128(_mm_or_si128(Load(text), Load(text + 16)), _mm_or_si128(Load(text + 32), Load(text + 48)))) == 0;
    }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
        const __m128i zero = _mm_setzero_si128();
        for (const char* const end = text + Run; text < end; text += 16, out += 16) {
            const __m128i low = _mm_unpacklo_epi8(Load(text), zero);
            const __m128i high = _mm_unpackhi_epi8(Load(text), zero);
            Store(out, _mm_unpacklo_epi16(low, zero));
            Store(out + 4, _mm_unpackhi_epi16(low, zero));
            Store(out + 8, _mm_unpacklo_epi16(high, zero));
            Store(out + 12, _mm_unpackhi_epi16(high, zero));
        }
    }

    KEST_STEP static bool EncodeASCII(const wchar_t* text, char* out) noexcept {
        const __m128i any = _mm_or_si128(_mm_or_si128(AnyOf(text), AnyOf(text + 16)), _mm_or_si128(AnyOf(text + 32), AnyOf(text + 48)));
        if (_mm_testz_si128(any, _mm_set1_epi32(~0x7F)) == 0)
            return false;
        for (std::size_t each = 0; each < Run; each += 16)
            Store(out + each, NarrowToBytes(text + each));
        return true;
    }

    KEST_STEP static bool IsShort(const wchar_t* text) noexcept { return _mm_testz_si128(AnyOf(text), _mm_set1_epi32(~0x7FF)) != 0; }

    KEST_STEP static char* EncodeShort(const wchar_t* text, char* out) noexcept {
        out = StoreTwoBytes(_mm_packs_epi32(Load(text), Load(text + 4)), out);
        return StoreTwoBytes(_mm_packs_epi32(Load(text + 8), Load(text + 12)), out);
    }

    KEST_STEP static char* EncodeAny(const wchar_t* text, char* out) noexcept {
        const __m128i units = Load(text);
        const __m128i isOne = _mm_cmpeq_epi32(_mm_and_si128(units, _mm_set1_epi32(~0x7F)), _mm_setzero_si128());
        const __m128i isTwo = _mm_cmpeq_epi32(_mm_and_si128(units, _mm_set1_epi32(~0x7FF)), _mm_setzero_si128());
        const unsigned mask = BitsOf(_mm_packs_epi16(_mm_packs_epi32(isOne, isTwo), _mm_setzero_si128()));
        // Each element gets the payload of a sequence of three bytes, and the code unit itself as the fourth byte.
        const __m128i first = _mm_and_si128(_mm_srli_epi32(units, 12), _mm_set1_epi32(0xFF));
        const __m128i second = _mm_and_si128(_mm_slli_epi32(units, 2), _mm_set1_epi32(0x3F00));
        const __m128i third = _mm_and_si128(_mm_slli_epi32(units, 16), _mm_set1_epi32(0x3F0000));
        const __m128i payload = _mm_or_si128(_mm_or_si128(first, second), _mm_or_si128(third, _mm_slli_epi32(units, 24)));
        // In a sequence of two bytes the second of these is the lead.
        const __m128i marks = _mm_or_si128(_mm_set1_epi32(0x8080E0), _mm_and_si128(isTwo, _mm_set1_epi32(0x4000)));
        Store(out, Shuffle(_mm_or_si128(payload, marks), _ThreeByteShuffles[mask]));
        return out + (12 - _mm_popcnt_u32(mask));
    }

private:
    /// Whether each code unit of a run is from 1 to 0x7F.
    KEST_STEP static bool IsASCIIWithoutZero(const wchar_t* text) noexcept {
        const __m128i a = NarrowToBytes(text);
        const __m128i b = NarrowToBytes(text + 16);
        const __m128i c = NarrowToBytes(text + 32);
        const __m128i d = NarrowToBytes(text + 48);
        const __m128i least = _mm_min_epu8(_mm_min_epu8(a, b), _mm_min_epu8(c, d));
        const __m128i any = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
        return BitsOf(_mm_or_si128(any, _mm_cmpeq_epi8(least, _mm_setzero_si128()))) == 0;
    }

    /// Counts, at each of eight places, the code units of a run that are above 0x7F, and counts those above 0x7FF once more. Sets @p zeros
    /// to something other than 0 if a code unit is 0.
    KEST_STEP static __m128i CountLonger(const wchar_t* text, unsigned& zeros) noexcept {
        __m128i minus = _mm_setzero_si128();
        __m128i isZero = _mm_setzero_si128();
        for (const wchar_t* const end = text + Run; text < end; text += 8) {
            const __m128i units = Narrow(text);
            minus = _mm_add_epi16(minus, _mm_cmpgt_epi16(units, _mm_set1_epi16(0x7F)));
            minus = _mm_add_epi16(minus, _mm_cmpgt_epi16(units, _mm_set1_epi16(0x7FF)));
            isZero = _mm_or_si128(isZero, _mm_cmpeq_epi16(units, _mm_setzero_si128()));
        }
        zeros = BitsOf(isZero);
        return _mm_sub_epi16(_mm_setzero_si128(), minus);
    }
};

using TSSE4 = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _SSE4UTF8Codec = {"sse4", TSSE4::CountCharacters, TSSE4::CountBytes, TSSE4::Decode, TSSE4::Encode};

} // namespace Kest::System

#endif

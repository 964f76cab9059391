#include <kest/text/utf8_codec.h>

#ifdef KEST_HAS_NEON

#include <arm_neon.h>

#define KEST_TARGET // every processor for which this is compiled has the instructions

#include <kest/text/utf8_frame.h>
#include <kest/text/utf8_shuffles.h>

namespace Kest::System {

namespace {

// Vectors are loaded and stored as bytes, which may lie at any address.

KEST_STEP uint8x16_t Load(const char* place) noexcept {
    return vld1q_u8(reinterpret_cast<const std::uint8_t*>(place));
}

KEST_STEP uint32x4_t Load(const wchar_t* place) noexcept {
    return vreinterpretq_u32_u8(Load(reinterpret_cast<const char*>(place)));
}

KEST_STEP void Store(char* place, uint8x16_t value) noexcept {
    vst1q_u8(reinterpret_cast<std::uint8_t*>(place), value);
}

// Compilers have functions for the instructions that are written out here. With them GCC 12 takes pairs of registers through memory, and
// computes addresses by instructions of their own.

/// Returns @p value and hides from the compiler how it was computed.
template <class TValue>
KEST_STEP TValue Opaque(TValue value) noexcept {
    asm("" : "+r"(value));
    return value;
}

KEST_STEP uint8x16_t Load(const _TUTF8Shuffles& shuffles, std::size_t mask) noexcept {
    uint8x16_t shuffle;
    asm("ldr %q0, [%1, %2, lsl 4]" : "=w"(shuffle) : "r"(shuffles.data()), "r"(mask));
    return shuffle;
}

/// Writes eight code units.
KEST_STEP void Store(wchar_t* place, uint16x8_t units) noexcept {
    register uint16x8_t low asm("v30") = units;
    register uint16x8_t high asm("v31") = vdupq_n_u16(0);
    asm volatile("st2 {%0.8h, %1.8h}, [%2]" : : "w"(low), "w"(high), "r"(place) : "memory");
}

/// A mask of 64 bits with one for each byte. In each byte all bits are set, or none.
KEST_STEP std::uint64_t BitsOf(uint8x16_t a, uint8x16_t b, uint8x16_t c, uint8x16_t d) noexcept {
    const uint8x16_t weights = vreinterpretq_u8_u64(vdupq_n_u64(0x8040201008040201U));
    const uint8x16_t ab = vpaddq_u8(vandq_u8(a, weights), vandq_u8(b, weights));
    const uint8x16_t cd = vpaddq_u8(vandq_u8(c, weights), vandq_u8(d, weights));
    const uint8x16_t sums = vpaddq_u8(ab, cd);
    return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(sums, sums)), 0);
}

KEST_STEP uint8x16_t FindContinuations(uint8x16_t bytes) noexcept {
    return vcltq_s8(vreinterpretq_s8_u8(bytes), vdupq_n_s8(-64));
}

KEST_STEP uint8x16_t FindCounted(uint8x16_t bytes) noexcept {
    return vcgtq_s8(vreinterpretq_s8_u8(bytes), vdupq_n_s8(-64));
}

/// Finds the bytes that have to be continuations. @p before has the byte before each, @p leads the one before that.
KEST_STEP uint8x16_t FindExpected(uint8x16_t before, uint8x16_t leads) noexcept {
    return vorrq_u8(vcgeq_u8(before, vdupq_n_u8(0xC0)), vcgeq_u8(leads, vdupq_n_u8(0xE0)));
}

/// Eight code units in words of 16 bits. A code unit above 0xFFFF becomes 0xFFFF.
KEST_STEP uint16x8_t Narrow(const wchar_t* text) noexcept {
    return vqmovn_high_u32(vqmovn_u32(Load(text)), Load(text + 4));
}

KEST_STEP uint32x4_t AnyOf(const wchar_t* text) noexcept {
    return vorrq_u32(vorrq_u32(Load(text), Load(text + 4)), vorrq_u32(Load(text + 8), Load(text + 12)));
}

KEST_STEP uint32x4_t AnyOfRun(const wchar_t* text) noexcept {
    return vorrq_u32(vorrq_u32(AnyOf(text), AnyOf(text + 16)), vorrq_u32(AnyOf(text + 32), AnyOf(text + 48)));
}

KEST_STEP uint32x4_t LeastOf(const wchar_t* text) noexcept {
    return vminq_u32(vminq_u32(Load(text), Load(text + 4)), vminq_u32(Load(text + 8), Load(text + 12)));
}

KEST_STEP uint32x4_t LeastOfRun(const wchar_t* text) noexcept {
    return vminq_u32(vminq_u32(LeastOf(text), LeastOf(text + 16)), vminq_u32(LeastOf(text + 32), LeastOf(text + 48)));
}

/// The lower halves of eight code units.
KEST_STEP uint8x16_t HalvesOf(const wchar_t* text) noexcept {
    return vreinterpretq_u8_u16(vuzp1q_u16(vreinterpretq_u16_u32(Load(text)), vreinterpretq_u16_u32(Load(text + 4))));
}

/// Writes the bytes of eight code units up to 0x7FF.
KEST_STEP char* StoreTwoBytes(const wchar_t* text, char* out) noexcept {
    const uint16x8_t units = Narrow(text);
    const uint16x8_t isOne = vcltq_u16(units, vdupq_n_u16(0x80));
    const std::uint16_t weights[8] = {1, 2, 4, 8, 16, 32, 64, 128};
    const std::uint16_t mask = vaddvq_u16(vandq_u16(isOne, vld1q_u16(weights)));
    const uint16x8_t payload = vsliq_n_u16(vshrq_n_u16(units, 6), units, 8);
    const uint16x8_t both = vbslq_u16(vdupq_n_u16(0xC0E0), vdupq_n_u16(0x80C0), payload);
    const uint8x16_t bytes = vreinterpretq_u8_u16(vbslq_u16(isOne, units, both));
    Store(out, vqtbl1q_u8(bytes, Load(_TwoByteShuffles, mask)));
    return out + 16 + vaddvq_s16(vreinterpretq_s16_u16(isOne));
}

struct TSteps {
    static constexpr std::size_t BytesOfBlock = 64;
    static constexpr std::size_t UnitsOfBlock = 16;
    static constexpr std::size_t UnitsOfPart = 4;
    static constexpr std::size_t Run = 64;
    static constexpr std::size_t StoreOvershoot = 8;
    static constexpr std::size_t EncodeOvershoot = 12;

    using TMask = std::uint64_t;
    struct TLongUnits {
        TMask Zeros;
        TMask Long;
        TMask Longer;
    };

    KEST_STEP static TMask FindCharacters(const char* text) noexcept {
        return BitsOf(FindCounted(Load(text)), FindCounted(Load(text + 16)), FindCounted(Load(text + 32)), FindCounted(Load(text + 48)));
    }

    KEST_STEP static std::size_t CountCharacters(const char* text, std::size_t blocks) noexcept {
        std::size_t characters = 0;
        while (blocks > 0) {
            const std::size_t some = std::min<std::size_t>(blocks, 31); // each adds up to four to a count, which is a signed byte
            uint8x16_t minus = vdupq_n_u8(0);
            for (const char* const end = text + some * BytesOfBlock; text < end; text += BytesOfBlock) {
                const uint8x16_t low = vaddq_u8(FindCounted(Load(text)), FindCounted(Load(text + 16)));
                const uint8x16_t high = vaddq_u8(FindCounted(Load(text + 32)), FindCounted(Load(text + 48)));
                minus = vaddq_u8(minus, vaddq_u8(low, high));
            }
            characters -= static_cast<std::size_t>(std::ptrdiff_t{vaddlvq_s8(vreinterpretq_s8_u8(minus))});
            blocks -= some;
        }
        return characters;
    }

    KEST_STEP static TLongUnits FindLongUnits(const wchar_t* text) noexcept {
        const uint16x8_t a = Narrow(text);
        const uint16x8_t b = Narrow(text + 8);
        const uint16x8_t one = vdupq_n_u16(0x7F);
        const uint16x8_t two = vdupq_n_u16(0x7FF);
        return {BitsOfWords(vceqzq_u16(a), vceqzq_u16(b)), BitsOfWords(vcgtq_u16(a, one), vcgtq_u16(b, one)),
                BitsOfWords(vcgtq_u16(a, two), vcgtq_u16(b, two))};
    }

    KEST_STEP static std::size_t CountBytes(const wchar_t* text, std::size_t& runs) noexcept {
        std::size_t bytes = 0;
        std::size_t run = 0;
        for (; run < runs; ++run, text += Run) {
            if (vmaxvq_u32(AnyOfRun(text)) <= 0x7F && vminvq_u32(LeastOfRun(text)) > 0) {
                bytes += Run;
                continue;
            }
            uint16x8_t minus = vdupq_n_u16(0);
            uint16x8_t least = vdupq_n_u16(0xFFFF);
            for (std::size_t each = 0; each < Run; each += 8) {
                const uint16x8_t units = Narrow(text + each);
                minus = vaddq_u16(vaddq_u16(minus, vcgtq_u16(units, vdupq_n_u16(0x7F))), vcgtq_u16(units, vdupq_n_u16(0x7FF)));
                least = vminq_u16(least, units);
            }
            if (vminvq_u16(least) == 0)
                break;
            bytes += Run - static_cast<std::size_t>(std::ptrdiff_t{vaddvq_s16(vreinterpretq_s16_u16(minus))});
        }
        runs = run;
        return bytes;
    }

    template <bool IsFirst>
    KEST_STEP static bool FindEnds(const char* text, std::size_t count, TMask& missing, TMask& ends) noexcept {
        const uint8x16_t isA = FindContinuations(Load(text));
        const uint8x16_t isB = FindContinuations(Load(text + 16));
        const uint8x16_t isC = FindContinuations(Load(text + 32));
        const uint8x16_t isD = FindContinuations(Load(text + 48));
        const uint8x16_t badA = veorq_u8(isA, FindExpected(Before<IsFirst>(text, 1), Before<IsFirst>(text, 2)));
        const uint8x16_t badB = veorq_u8(isB, FindExpected(Load(text + 15), Load(text + 14)));
        const uint8x16_t badC = veorq_u8(isC, FindExpected(Load(text + 31), Load(text + 30)));
        const uint8x16_t badD = veorq_u8(isD, FindExpected(Load(text + 47), Load(text + 46)));
        const TMask inside = ~TMask{0} >> (BytesOfBlock - count);
        const bool isBad =
            IsFirst ? (BitsOf(badA, badB, badC, badD) & inside) != 0 : vmaxvq_u8(vorrq_u8(vorrq_u8(badA, badB), vorrq_u8(badC, badD))) != 0;
        if (isBad)
            return false;
        const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
        missing = byte(count - 1) >= 0xC0 || byte(count - 2) >= 0xE0 ? 1 : 0;
        ends = ~((BitsOf(isA, isB, isC, isD) & inside) >> 1U | missing << (count - 1)) & inside;
        return true;
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const TWords a = FindWords(Load(text), Before<IsFirst>(text, 1), Before<IsFirst>(text, 2));
        const TWords b = FindWords(Load(text + 16), Load(text + 15), Load(text + 14));
        const TWords c = FindWords(Load(text + 32), Load(text + 31), Load(text + 30));
        const TWords d = FindWords(Load(text + 48), Load(text + 47), Load(text + 46));
        const uint8x8_t counts = vcnt_u8(vcreate_u8(ends)); // of the units of each eighth of the block
        out = StoreWords<0>(a.Low, ends, counts, out);
        out = StoreWords<1>(a.High, ends, counts, out);
        out = StoreWords<2>(b.Low, ends, counts, out);
        out = StoreWords<3>(b.High, ends, counts, out);
        out = StoreWords<4>(c.Low, ends, counts, out);
        out = StoreWords<5>(c.High, ends, counts, out);
        out = StoreWords<6>(d.Low, ends, counts, out);
        (void)StoreWords<7>(d.High, ends, counts, out);
    }

    KEST_STEP static bool IsASCII(const char* text) noexcept {
        const uint8x16_t any = vorrq_u8(vorrq_u8(Load(text), Load(text + 16)), vorrq_u8(Load(text + 32), Load(text + 48)));
        return vmaxvq_u8(any) < 0x80;
    }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
        for (const char* const end = text + Run; text < end; text += 16, out += 16) {
            const uint8x16_t bytes = Load(text);
            Store(out, vmovl_u8(vget_low_u8(bytes)));
            Store(out + 8, vmovl_high_u8(bytes));
        }
    }

    KEST_STEP static bool EncodeASCII(const wchar_t* text, char* out) noexcept {
        if (vmaxvq_u32(AnyOfRun(text)) > 0x7F)
            return false;
        for (std::size_t each = 0; each < Run; each += 16)
            Store(out + each, vuzp1q_u8(HalvesOf(text + each), HalvesOf(text + each + 8)));
        return true;
    }

    KEST_STEP static bool IsShort(const wchar_t* text) noexcept { return vmaxvq_u32(AnyOf(text)) <= 0x7FF; }

    KEST_STEP static char* EncodeShort(const wchar_t* text, char* out) noexcept {
        return StoreTwoBytes(text + 8, StoreTwoBytes(text, out));
    }

    KEST_STEP static char* EncodeAny(const wchar_t* text, char* out) noexcept {
        const uint32x4_t units = Load(text);
        const uint32x4_t isOne = vcleq_u32(units, vdupq_n_u32(0x7F));
        const uint32x4_t isTwo = vcleq_u32(units, vdupq_n_u32(0x7FF));
        const std::uint32_t weights[4] = {0x01, 0x02, 0x04, 0x08};
        const uint32x4_t weight = vld1q_u32(weights);
        const std::uint32_t mask = vaddvq_u32(vorrq_u32(vandq_u32(isOne, weight), vandq_u32(isTwo, vshlq_n_u32(weight, 4))));
        // The three bytes, and the unit itself as the fourth.
        const uint32x4_t two = vsliq_n_u32(vshrq_n_u32(units, 12), vshrq_n_u32(units, 6), 8);
        const uint32x4_t payload = vsliq_n_u32(vsliq_n_u32(two, units, 16), units, 24);
        // The second of them is the lead of a sequence of two.
        const uint32x4_t marks = vorrq_u32(vdupq_n_u32(0x8080E0), vandq_u32(isTwo, vdupq_n_u32(0x4000)));
        const uint32x4_t bytes = vorrq_u32(vbicq_u32(payload, vdupq_n_u32(0xC0C000)), marks);
        Store(out, vqtbl1q_u8(vreinterpretq_u8_u32(bytes), Load(_ThreeByteShuffles, mask)));
        return out + 12 + vaddvq_s32(vreinterpretq_s32_u32(vaddq_u32(isOne, isTwo)));
    }

private:
    KEST_STEP static TMask BitsOfWords(uint16x8_t low, uint16x8_t high) noexcept {
        const uint8x16_t zero = vdupq_n_u8(0);
        return BitsOf(vmovn_high_u16(vmovn_u16(low), high), zero, zero, zero);
    }

    /// The sixteen bytes that begin @p count bytes before @p text. Nothing is read before the first block, so zeros stand for those bytes.
    template <bool IsFirst>
    KEST_STEP static uint8x16_t Before(const char* text, int count) noexcept {
        if constexpr (IsFirst)
            return count == 1 ? vextq_u8(vdupq_n_u8(0), Load(text), 15) : vextq_u8(vdupq_n_u8(0), Load(text), 14);
        else
            return Load(text - count);
    }

    struct TWords {
        uint8x16_t Low;
        uint8x16_t High;
    };

    /// For each of sixteen bytes, the value of a sequence that ends there.
    KEST_STEP static TWords FindWords(uint8x16_t bytes, uint8x16_t before, uint8x16_t leads) noexcept {
        const uint8x16_t isContinuation = FindContinuations(bytes);
        const uint8x16_t lows = vbslq_u8(isContinuation, vsliq_n_u8(bytes, before, 6), bytes);
        const uint8x16_t third = vandq_u8(leads, vcgeq_u8(leads, vdupq_n_u8(0xE0)));
        const uint8x16_t highs = vandq_u8(vsliq_n_u8(vshrq_n_u8(before, 2), third, 4), isContinuation);
        return {vzip1q_u8(lows, highs), vzip2q_u8(lows, highs)};
    }

    template <int Eighth>
    KEST_STEP static wchar_t* StoreWords(uint8x16_t words, TMask ends, uint8x8_t counts, wchar_t* out) noexcept {
        const uint16x8_t units = vreinterpretq_u16_u8(vqtbl1q_u8(words, Load(_WordShuffles, ends >> (8U * Eighth) & 0xFF)));
        Store(out, units);
        return Opaque(out + vget_lane_u8(counts, Eighth));
    }
};

using TNEON = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _NEONUTF8Codec = {"neon", TNEON::CountCharacters, TNEON::CountBytes, TNEON::Decode, TNEON::Encode};

} // namespace Kest::System

#endif

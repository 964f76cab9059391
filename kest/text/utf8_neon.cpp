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

KEST_STEP uint8x16x4_t LoadBlock(const char* place) noexcept {
    return {Load(place), Load(place + 16), Load(place + 32), Load(place + 48)};
}

/// Loads a block by one instruction. GCC 12 does not see when such a load is repeated, and computes again what it has computed from it.
KEST_STEP uint8x16x4_t LoadBlockAtOnce(const char* place) noexcept {
    return vld1q_u8_x4(reinterpret_cast<const std::uint8_t*>(place));
}

KEST_STEP uint32x4_t Load(const wchar_t* place) noexcept {
    return vreinterpretq_u32_u8(Load(reinterpret_cast<const char*>(place)));
}

KEST_STEP void Store(char* place, uint8x16_t value) noexcept {
    vst1q_u8(reinterpret_cast<std::uint8_t*>(place), value);
}

// Compilers have functions for the instructions that are written out here. With them GCC 12 takes groups of registers through memory or
// copies them before each use, and computes addresses by instructions of their own.

KEST_STEP uint8x16_t Load(const _TUTF8Shuffles& shuffles, std::size_t mask) noexcept {
    uint8x16_t shuffle;
    asm("ldr %q0, [%1, %2, lsl 4]" : "=w"(shuffle) : "r"(shuffles.data()), "r"(mask));
    return shuffle;
}

/// Writes sixteen code units.
KEST_STEP void Store(wchar_t* place, uint8x16_t units) noexcept {
    register uint8x16_t low asm("v28") = units;
    register uint8x16_t zero1 asm("v29") = vdupq_n_u8(0);
    register uint8x16_t zero2 asm("v30") = zero1;
    register uint8x16_t zero3 asm("v31") = zero1;
    asm volatile("st4 {%0.16b, %1.16b, %2.16b, %3.16b}, [%4]" : : "w"(low), "w"(zero1), "w"(zero2), "w"(zero3), "r"(place) : "memory");
}

/// The bytes at @p places of @p first and @p second, of which the latter begins at 16. The compiler leaves the order of these as it is,
/// because it would need more registers otherwise.
KEST_STEP uint16x8_t Gather(uint8x16_t first, uint8x16_t second, uint8x16_t places) noexcept {
    register uint8x16_t low asm("v28") = first;
    register uint8x16_t high asm("v29") = second;
    uint16x8_t gathered;
    asm volatile("tbl %0.16b, {%1.16b, %2.16b}, %3.16b" : "=w"(gathered) : "w"(low), "w"(high), "w"(places));
    return gathered;
}

/// Writes eight code units, and moves @p place on by @p bytes.
KEST_STEP void Store(wchar_t*& place, uint16x8_t units, std::uint64_t bytes) noexcept {
    register uint16x8_t low asm("v30") = units;
    register uint16x8_t high asm("v31") = vdupq_n_u16(0);
    asm volatile("st2 {%1.8h, %2.8h}, [%0], %3" : "+r"(place) : "w"(low), "w"(high), "r"(bytes) : "memory");
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

KEST_STEP uint8x16_t AnyOf(const uint8x16x4_t& block) noexcept {
    return vorrq_u8(vorrq_u8(block.val[0], block.val[1]), vorrq_u8(block.val[2], block.val[3]));
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

/// The places of the words of one half of sixteen pairs, of which the lower bytes come before all the upper ones.
constexpr _TUTF8Shuffles MakePairShuffles(unsigned firstPair) {
    _TUTF8Shuffles shuffles = _WordShuffles;
    for (_TUTF8Shuffle& shuffle : shuffles)
        for (std::uint8_t& place : shuffle.Places)
            if (place < 16)
                place = static_cast<std::uint8_t>(firstPair + place / 2 + place % 2 * 16);
    return shuffles;
}

constexpr _TUTF8Shuffles LowPairShuffles = MakePairShuffles(0);
constexpr _TUTF8Shuffles HighPairShuffles = MakePairShuffles(8);

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
            for (; blocks >= 4 && SkipFourASCII(text); blocks -= 4)
                characters += 4 * BytesOfBlock;
            const std::size_t some = std::min<std::size_t>(blocks, 63); // each adds up to four to a count, which is a byte
            uint8x16_t counted = vdupq_n_u8(0);
            const char* const end = text + some * BytesOfBlock;
            for (const char* const last = end - some % 2 * BytesOfBlock; text < last; text += 2 * BytesOfBlock)
                counted = vsubq_u8(counted, vaddq_u8(CountMinus(text), CountMinus(text + BytesOfBlock)));
            for (; text < end; text += BytesOfBlock)
                counted = vsubq_u8(counted, CountMinus(text));
            characters += vaddlvq_u8(counted);
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
        const uint8x16x4_t before = LoadBefore<IsFirst>(text, 1);
        const uint8x16x4_t leads = LoadBefore<IsFirst>(text, 2);
        const uint8x16_t isA = FindContinuations(Load(text));
        const uint8x16_t isB = FindContinuations(Load(text + 16));
        const uint8x16_t isC = FindContinuations(Load(text + 32));
        const uint8x16_t isD = FindContinuations(Load(text + 48));
        const uint8x16_t badA = veorq_u8(isA, FindExpected(before.val[0], leads.val[0]));
        const uint8x16_t badB = veorq_u8(isB, FindExpected(before.val[1], leads.val[1]));
        const uint8x16_t badC = veorq_u8(isC, FindExpected(before.val[2], leads.val[2]));
        const uint8x16_t badD = veorq_u8(isD, FindExpected(before.val[3], leads.val[3]));
        const TMask inside = ~TMask{0} >> (BytesOfBlock - count);
        const bool isBad = IsFirst ? (BitsOf(badA, badB, badC, badD) & inside) != 0 : vmaxvq_u8(AnyOf({badA, badB, badC, badD})) >= 0x80;
        if (isBad)
            return false;
        const auto byte = [text](std::size_t index) { return TMask{static_cast<unsigned char>(text[index])}; };
        missing = ((byte(count - 1) + 0x40) | (byte(count - 2) + 0x20)) >> 8U; // whether they are from 0xC0, 0xE0 on
        ends = ~((BitsOf(isA, isB, isC, isD) & inside) >> 1U | missing << (count - 1)) & inside;
        return true;
    }

    template <bool IsFirst>
    KEST_STEP static void StoreUnits(const char* text, TMask ends, wchar_t* out) noexcept {
        const uint8x16_t bytesB = Load(text + 16);
        const uint8x16_t bytesC = Load(text + 32);
        const uint8x16_t bytesD = Load(text + 48);
        const uint8x16x4_t before = LoadBefore<IsFirst>(text, 1);
        const uint8x16x4_t leads = LoadBefore<IsFirst>(text, 2);
        // Four bytes for each unit of each eighth of the block.
        const uint8x8_t steps = vshl_n_u8(vcnt_u8(vcreate_u8(ends)), 2);
        StoreValues<0>(Load(text), before.val[0], leads.val[0], ends, steps, out);
        StoreValues<2>(bytesB, before.val[1], leads.val[1], ends, steps, out);
        StoreValues<4>(bytesC, before.val[2], leads.val[2], ends, steps, out);
        StoreValues<6>(bytesD, before.val[3], leads.val[3], ends, steps, out);
    }

    KEST_STEP static bool IsASCII(const char* text) noexcept { return vmaxvq_u8(AnyOf(LoadBlock(text))) < 0x80; }

    KEST_STEP static void StoreASCII(const char* text, wchar_t* out) noexcept {
        for (std::size_t each = 0; each < Run; each += 16)
            Store(out + each, Load(text + each));
    }

    KEST_STEP static std::ptrdiff_t StoreRuns(const char* text, wchar_t* out, std::ptrdiff_t runs) noexcept {
        if (runs < 4)
            return 0;
        // Two registers of bytes, each in front of three of zeros. The compiler would copy the zeros anew for every store.
        register uint8x16_t zero1 asm("v25") = vdupq_n_u8(0);
        register uint8x16_t zero2 asm("v26") = zero1;
        register uint8x16_t zero3 asm("v27") = zero1;
        register uint8x16_t zero4 asm("v29") = zero1;
        register uint8x16_t zero5 asm("v30") = zero1;
        register uint8x16_t zero6 asm("v31") = zero1;
        std::ptrdiff_t done = 0;
        for (; done + 4 <= runs; done += 4) {
            uint8x16_t any = zero1;
            for (std::size_t each = 0; each < 4 * Run; each += 32)
                asm volatile("ldp q24, q28, [%0], 32\n\t"
                             "orr %2.16b, %2.16b, v24.16b\n\t"
                             "orr %2.16b, %2.16b, v28.16b\n\t"
                             "st4 {v24.16b, v25.16b, v26.16b, v27.16b}, [%1], 64\n\t"
                             "st4 {v28.16b, v29.16b, v30.16b, v31.16b}, [%1], 64"
                             : "+r"(text), "+r"(out), "+w"(any)
                             : "w"(zero1), "w"(zero2), "w"(zero3), "w"(zero4), "w"(zero5), "w"(zero6)
                             : "v24", "v28", "memory");
            if (vmaxvq_u8(any) >= 0x80)
                break;
        }
        return done;
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
        // The three bytes of a long sequence, and as the fourth byte the code unit itself, for a sequence of one.
        const uint32x4_t two = vsliq_n_u32(vshrq_n_u32(units, 12), vshrq_n_u32(units, 6), 8);
        const uint32x4_t payload = vsliq_n_u32(vsliq_n_u32(two, units, 16), units, 24);
        // In a sequence of two the second byte is the lead.
        const uint32x4_t marks = vorrq_u32(vdupq_n_u32(0x8080E0), vandq_u32(isTwo, vdupq_n_u32(0x4000)));
        const uint32x4_t bytes = vorrq_u32(vbicq_u32(payload, vdupq_n_u32(0xC0C000)), marks);
        Store(out, vqtbl1q_u8(vreinterpretq_u8_u32(bytes), Load(_ThreeByteShuffles, mask)));
        return out + 12 + vaddvq_s32(vreinterpretq_s32_u32(vaddq_u32(isOne, isTwo)));
    }

private:
    /// Moves @p text behind four blocks if those are ASCII.
    KEST_STEP static bool SkipFourASCII(const char*& text) noexcept {
        const char* next = text;
        uint8x16_t any = vdupq_n_u8(0);
        for (const char* const end = text + 4 * BytesOfBlock; next < end; next += BytesOfBlock)
            any = vorrq_u8(any, AnyOf(LoadBlockAtOnce(next)));
        if (vmaxvq_u8(any) >= 0x80)
            return false;
        text = next;
        return true;
    }

    /// Counts the bytes that _UTF8Length() counts at each place of the block's quarters. The counts are negative.
    KEST_STEP static uint8x16_t CountMinus(const char* text) noexcept {
        const uint8x16x4_t block = LoadBlockAtOnce(text);
        return vaddq_u8(vaddq_u8(FindCounted(block.val[0]), FindCounted(block.val[1])),
                        vaddq_u8(FindCounted(block.val[2]), FindCounted(block.val[3])));
    }

    KEST_STEP static TMask BitsOfWords(uint16x8_t low, uint16x8_t high) noexcept {
        const uint8x16_t zero = vdupq_n_u8(0);
        return BitsOf(vmovn_high_u16(vmovn_u16(low), high), zero, zero, zero);
    }

    /// The block that begins @p count bytes before @p text. Nothing is read before the first block, so zeros stand for those bytes.
    template <bool IsFirst>
    KEST_STEP static uint8x16x4_t LoadBefore(const char* text, int count) noexcept {
        if constexpr (IsFirst) {
            const uint8x16_t first = Load(text);
            const uint8x16_t zero = vdupq_n_u8(0);
            return {count == 1 ? vextq_u8(zero, first, 15) : vextq_u8(zero, first, 14), Load(text + 16 - count), Load(text + 32 - count),
                    Load(text + 48 - count)};
        } else {
            return LoadBlockAtOnce(text - count);
        }
    }

    /// Computes for each of sixteen bytes the value of a sequence that ends there, and writes those where one ends: two eighths of the
    /// block.
    template <int Eighth>
    KEST_STEP static void StoreValues(uint8x16_t bytes, uint8x16_t before, uint8x16_t leads, TMask ends, uint8x8_t steps,
                                      wchar_t*& out) noexcept {
        const uint8x16_t second = vandq_u8(before, FindContinuations(bytes));
        const uint8x16_t third = vqsubq_u8(leads, vdupq_n_u8(0xE0));
        // The bits that a shift moves out of a byte are those that mark a continuation or a lead.
        const uint8x16_t lows = vmlaq_u8(vandq_u8(bytes, vdupq_n_u8(0x7F)), second, vdupq_n_u8(0x40));
        const uint8x16_t highs = vsliq_n_u8(vshrq_n_u8(second, 2), third, 4);
        const uint8x16_t low = Load(LowPairShuffles, ends >> (8U * Eighth) & 0xFF);
        const uint8x16_t high = Load(HighPairShuffles, ends >> (8U * Eighth + 8) & 0xFF);
        Store(out, Gather(lows, highs, low), vget_lane_u8(steps, Eighth));
        Store(out, Gather(lows, highs, high), vget_lane_u8(steps, Eighth + 1));
    }
};

using TNEON = TFrame<TSteps>;

} // namespace

const _TUTF8Codec _NEONUTF8Codec = {"neon", TNEON::CountCharacters, TNEON::CountBytes, TNEON::Decode, TNEON::Encode};

} // namespace Kest::System

#endif

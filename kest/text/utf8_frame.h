// Internal header: used by each codec that works on vectors. The codec defines KEST_TARGET before, what its functions may use of the
// processor, and then the steps of its instruction set.
#ifndef KEST_TEXT_UTF8_FRAME_H
#define KEST_TEXT_UTF8_FRAME_H

#include <kest/text/utf8_codec.h>
#include <kest/text/utf8_sequence.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Functions that are compiled for an instruction set are the codec's alone: no other file must get them.
#define KEST_STEP KEST_TARGET __attribute__((always_inline)) inline

namespace Kest::System {

namespace { // functions of one name are compiled for several instruction sets: NOLINT(cert-dcl59-cpp)

/// Whether the steps of an instruction set have StoreRuns.
template <class TSteps, class = void>
inline constexpr bool HasRuns = false;
template <class TSteps>
inline constexpr bool HasRuns<TSteps, std::void_t<decltype(&TSteps::StoreRuns)>> = true;

/// Masks with a bit for each byte of a block: the bytes of 0x80 and above, the bytes from 0x80 to 0xBF, and the bytes of 0xE0 and above.
template <class TMask>
struct TSequences {
    TMask High;
    TMask Continuations;
    TMask LeadsOfThree;

    /// Returns whether each lead among the first @p count bytes has the continuation bytes that it announces, and no others follow it.
    /// @p missing has a bit for each continuation byte with which the block has to begin, and gets those of the next block.
    /// @p ends is set to the bytes that are the last of a sequence.
    KEST_STEP bool FindEnds(std::size_t count, TMask& missing, TMask& ends) const noexcept {
        const auto inside = static_cast<TMask>(~TMask{0} >> (8 * sizeof(TMask) - count));
        const TMask leads = High & static_cast<TMask>(~Continuations);
        const auto expected = static_cast<TMask>(missing | leads << 1U | LeadsOfThree << 2U);
        if (((expected ^ Continuations) & inside) != 0)
            return false;
        missing = static_cast<TMask>((leads >> (count - 1) & 1U) | (LeadsOfThree >> (count - 2) & 3U));
        ends = static_cast<TMask>(~(expected >> 1U | missing << (count - 1)) & inside);
        return true;
    }
};

/// The loops around the steps of one instruction set, TSteps:
///
///     BytesOfBlock, UnitsOfBlock, UnitsOfPart, Run    how many elements a step takes: a run is several blocks, a block is several parts
///     FindCharacters(bytes)                           a bit for each byte of the block that _UTF8Length() counts
///     CountCharacters(bytes, blocks)                  how many such bytes so many blocks have, at most 255 blocks
///     FindLongUnits(units)                            bits of the block's code units that are 0, above 0x7F, above 0x7FF
///     CountBytes(units, runs)                         the bytes of so many runs, at most 255, up to the first run that has a 0, or
///                                                     that the step cannot count; sets runs to the number of those counted
///     FindEnds<IsFirst>(bytes, count, missing, ends)  whether the first bytes of a block are well formed, and where sequences end
///     StoreUnits<IsFirst>(bytes, ends, out)           the code units of the sequences that end where a bit is set, and a few more
///     IsASCII(bytes), StoreASCII(bytes, out)          of a run
///     StoreRuns(bytes, out, runs)                     stores those of so many runs that come before one that is not ASCII, or a few
///                                                     less, and returns their number; need not exist; writes some of the other runs too
///     EncodeASCII(units, out)                         the bytes of a run; false when it is not all ASCII
///     IsShort(units)                                  whether a block has nothing above 0x7FF
///     EncodeShort(units, out), EncodeAny(units, out)  the bytes of such a block; of any part
///     StoreOvershoot, EncodeOvershoot                 how many elements these write beyond what they are asked for
///
/// IsShort(), EncodeShort() and EncodeAny() are called on an object, which can keep what is constant.
///
/// A text is rarely a whole number of blocks. The loops look at its whole first block, but convert only so many elements of it that whole
/// blocks remain. Mixed text rarely has a run of ASCII, so the loops look for one only once a run, and while they find none, encoding looks
/// less often.
template <class TSteps>
class TFrame {
    using TMask = typename TSteps::TMask;

    static constexpr std::size_t Bytes = TSteps::BytesOfBlock;
    static constexpr std::size_t Units = TSteps::UnitsOfBlock;
    static constexpr std::size_t Run = TSteps::Run;
    static constexpr std::size_t Most = 255; // steps whose results a counter of the codec holds

    KEST_STEP static TMask FirstOf(std::size_t count) noexcept { return static_cast<TMask>(~TMask{0} >> (8 * sizeof(TMask) - count)); }

    KEST_STEP static std::size_t CountOf(TMask mask) noexcept {
        return static_cast<std::size_t>(sizeof mask > 4 ? __builtin_popcountll(mask) : __builtin_popcount(static_cast<unsigned>(mask)));
    }

    /// The bytes of the block's first @p count code units.
    KEST_STEP static std::size_t BytesOf(const typename TSteps::TLongUnits& units, std::size_t count) noexcept {
        return count + CountOf(units.Long & FirstOf(count)) + CountOf(units.Longer & FirstOf(count));
    }

public:
    KEST_CODEC_ENTRY KEST_TARGET static std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
        if (length < Bytes)
            return _PortableUTF8Codec.CountCharacters(text, length);
        std::size_t index = length % Bytes;
        std::size_t characters = index == 0 ? 0 : CountOf(TSteps::FindCharacters(text) & FirstOf(index));
        while (index < length) {
            const std::size_t blocks = std::min((length - index) / Bytes, Most);
            characters += TSteps::CountCharacters(text + index, blocks);
            index += blocks * Bytes;
        }
        return characters;
    }

    KEST_CODEC_ENTRY KEST_TARGET static std::size_t CountBytes(const wchar_t* text, std::size_t& length) noexcept {
        std::size_t bytes = 0;
        std::size_t index = 0;
        bool isCut = false;
        if (const std::size_t odd = length % Units; odd != 0 && length >= Units) {
            const auto units = TSteps::FindLongUnits(text);
            isCut = (units.Zeros & FirstOf(odd)) != 0;
            bytes = isCut ? 0 : BytesOf(units, odd);
            index = isCut ? 0 : odd;
        }
        while (!isCut && length - index >= Run) {
            const std::size_t most = std::min((length - index) / Run, Most);
            std::size_t runs = most;
            bytes += TSteps::CountBytes(text + index, runs);
            index += runs * Run;
            isCut = runs < most;
        }
        for (; length - index >= Units; index += Units) {
            const auto units = TSteps::FindLongUnits(text + index);
            if (units.Zeros != 0)
                break;
            bytes += BytesOf(units, Units);
        }
        return bytes + _CountUTF8Bytes(text, index, length);
    }

    KEST_CODEC_ENTRY KEST_TARGET static std::size_t Decode(const char*& text, const char* limit, const char* end, wchar_t* out,
                                                           std::size_t room) noexcept {
        TDecoder decoder{text, out, out + room};
        while (decoder.Text < limit && decoder.Out < decoder.OutEnd) {
            decoder.DecodeWellFormed(limit, end);
            // What is not well formed ends within a few bytes, mostly.
            for (const char* const stop = limit - decoder.Text < 16 ? limit : decoder.Text + 16;
                 decoder.Text < stop && decoder.Out < decoder.OutEnd;)
                decoder.DecodeOne(end);
        }
        text = decoder.Text;
        return static_cast<std::size_t>(decoder.Out - out);
    }

    KEST_CODEC_ENTRY KEST_TARGET static char* Encode(const wchar_t* text, std::size_t length, char* out) noexcept {
        const TSteps steps{};
        const wchar_t* const end = text + length;
        if (const std::size_t odd = length % Units; odd != 0 && length >= Units + Spare) {
            (void)EncodeBlock(steps, text, out);
            out += BytesOf(TSteps::FindLongUnits(text), odd);
            text += odd;
        }
        std::size_t most = Run / Units; // blocks up to the next look for a run of ASCII
        while (static_cast<std::size_t>(end - text) >= Units + Spare) {
            const auto left = static_cast<std::size_t>(end - text) - Spare;
            if (left >= Run && TSteps::EncodeASCII(text, out)) {
                text += Run;
                out += Run;
                most = Run / Units;
                continue;
            }
            const std::size_t blocks = std::min(most, left / Units);
            out = EncodeBlocks(steps, text, blocks, out);
            text += blocks * Units;
            most = std::min(2 * most, 8 * Run / Units);
        }
        return EncodeRest(steps, text, end, out);
    }

private:
    /// How many code units have to follow those of a step. Their bytes take up what the step writes beyond its own bytes and the slack.
    static constexpr std::size_t Spare = TSteps::EncodeOvershoot > _TUTF8Codec::Slack ? TSteps::EncodeOvershoot - _TUTF8Codec::Slack : 0;

    KEST_STEP static char* EncodeBlock(const TSteps& steps, const wchar_t* text, char* out) noexcept {
        return steps.IsShort(text) ? steps.EncodeShort(text, out) : EncodeLong(steps, text, out);
    }

    KEST_STEP static char* EncodeLong(const TSteps& steps, const wchar_t* text, char* out) noexcept {
        for (std::size_t each = 0; each < Units; each += TSteps::UnitsOfPart)
            out = steps.EncodeAny(text + each, out);
        return out;
    }

    KEST_STEP static char* EncodeBlocks(const TSteps& steps, const wchar_t* text, std::size_t blocks, char* out) noexcept {
        const wchar_t* const stop = text + blocks * Units;
        while (text < stop) {
            for (; text < stop && steps.IsShort(text); text += Units)
                out = steps.EncodeShort(text, out);
            for (; text < stop && !steps.IsShort(text); text += Units)
                out = EncodeLong(steps, text, out);
        }
        return out;
    }

    KEST_STEP static char* EncodeRest(const TSteps& steps, const wchar_t* text, const wchar_t* end, char* out) noexcept {
        constexpr std::ptrdiff_t part = TSteps::UnitsOfPart;
        if constexpr (Spare == 0) {
            for (; end - text >= part; text += part)
                out = steps.EncodeAny(text, out);
        } else {
            std::array<char, 3 * TSteps::UnitsOfPart + TSteps::EncodeOvershoot> bytes;
            for (; end - text >= part; text += part) {
                const auto count = static_cast<std::size_t>(steps.EncodeAny(text, bytes.data()) - bytes.data());
                std::memcpy(out, bytes.data(), count);
                out += count;
            }
        }
        for (; text < end; ++text)
            _EncodeUTF8Sequence(static_cast<std::uint32_t>(*text), out);
        return out;
    }

    /// Decodes block after block. For each byte of a block it computes the value of a sequence that ends there, and keeps the values of
    /// those bytes where one ends. That is right as long as each lead has the continuation bytes that it announces, and no others follow.
    struct TDecoder {
        const char* Text;
        wchar_t* Out;
        const wchar_t* OutEnd;
        TMask Missing = 0; ///< not 0 if the next block has to begin with continuation bytes

        KEST_STEP void DecodeOne(const char* end) noexcept { *Out++ = _DecodeUTF8Sequence(Text, end); }

        /// Writes the code units of the sequences that end in the first @p count bytes of a block, and moves behind those bytes. Returns
        /// false and does nothing if the bytes are not well formed or there is no room. Reads two bytes before every block but the first.
        template <bool IsFirst>
        KEST_STEP bool DecodeBlock(const char* block, std::size_t count) noexcept {
            TMask next = Missing;
            TMask ends = 0;
            if (!TSteps::template FindEnds<IsFirst>(block, count, next, ends))
                return false;
            const std::size_t units = CountOf(ends);
            static_assert(TSteps::StoreOvershoot <= _TUTF8Codec::Slack);
            constexpr std::uintptr_t more = (_TUTF8Codec::Slack - TSteps::StoreOvershoot) * sizeof(wchar_t);
            // As addresses: a difference of pointers is divided, and a pointer may not point beyond the room.
            if (reinterpret_cast<std::uintptr_t>(Out) + units * sizeof(wchar_t) > reinterpret_cast<std::uintptr_t>(OutEnd) + more)
                return false;
            TSteps::template StoreUnits<IsFirst>(block, ends, Out);
            Out += units;
            Text += count;
            Missing = next;
            return true;
        }

        /// Decodes blocks while they are well formed and there is room. Stops at the beginning of a sequence.
        KEST_STEP void DecodeWellFormed(const char* limit, const char* end) noexcept {
            Missing = 0;
            if (DecodeFirst(end))
                DecodeBlocks(limit, end);
            if (Missing != 0) // the last sequence is not complete: back to its lead
                while (static_cast<signed char>(*--Text) < -64) {
                }
        }

        /// Decodes the first block, or a whole text that is shorter than a block. Returns false if no block can follow.
        KEST_STEP bool DecodeFirst(const char* end) noexcept {
            if (static_cast<std::size_t>(end - Text) % Bytes == 1 && end - Text > std::ptrdiff_t{Bytes})
                DecodeOne(end); // otherwise the second block would have only one byte before it
            const auto size = static_cast<std::size_t>(end - Text);
            if (size >= Bytes) {
                const std::size_t count = size % Bytes == 0 ? Bytes : size % Bytes;
                if constexpr (HasRuns<TSteps> && Run == Bytes)
                    if (OutEnd - Out >= std::ptrdiff_t{Run} && TSteps::IsASCII(Text)) {
                        TSteps::StoreASCII(Text, Out);
                        Text += count;
                        Out += count;
                        return true;
                    }
                return DecodeBlock<true>(Text, count);
            }
            if (size < Bytes / 2)
                return false;
            std::array<char, Bytes> block{};
            std::memcpy(block.data() + size - Bytes / 2, end - Bytes / 2, Bytes / 2);
            std::memcpy(block.data(), Text, Bytes / 2);
            return DecodeBlock<true>(block.data(), size);
        }

        KEST_STEP void DecodeBlocks(const char* limit, const char* end) noexcept {
            constexpr std::ptrdiff_t run = Run;
            constexpr std::ptrdiff_t block = Bytes;
            constexpr std::ptrdiff_t look = HasRuns<TSteps> ? 4 * run : run; // StoreRuns is worth a look for as many only
            while (Text < limit && end - Text >= block) {
                if (Missing == 0 && Text < limit && end - Text >= run && OutEnd - Out >= run && TSteps::IsASCII(Text)) {
                    DecodeASCII(limit, end);
                    continue;
                }
                for (const char* const stop = std::min(limit, end - Text >= look ? Text + look : end - (block - 1)); Text < stop;)
                    if (!DecodeBlock<false>(Text, Bytes))
                        return;
            }
        }

        /// Decodes a run of ASCII and the runs of ASCII that follow it.
        KEST_STEP void DecodeASCII(const char* limit, const char* end) noexcept {
            constexpr std::ptrdiff_t run = Run;
            // A long text is written twice as fast in whole lines of the cache, so the first step ends where a line begins. An instruction
            // that StoreRuns uses writes sixteen bytes after sixteen, and crosses no line if it begins at a multiple of sixteen.
            constexpr std::uintptr_t unitsOfStore = HasRuns<TSteps> ? 4 : 16;
            const auto over = static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(Out) / sizeof(wchar_t) % unitsOfStore);
            if (over != 0 && end - Text >= 16 * run) {
                TSteps::StoreASCII(Text, Out);
                Text += 16 - over;
                Out += 16 - over;
                return;
            }
            std::ptrdiff_t runs = std::min({(limit - Text - 1) / run + 1, (end - Text) / run, (OutEnd - Out) / run});
            if constexpr (HasRuns<TSteps>) {
                const std::ptrdiff_t stored = TSteps::StoreRuns(Text, Out, runs);
                Text += stored * run;
                Out += stored * run;
                runs -= stored;
                if (runs == 0 || (stored > 0 && !TSteps::IsASCII(Text)))
                    return;
            }
            do {
                TSteps::StoreASCII(Text, Out);
                Text += run;
                Out += run;
            } while (--runs > 0 && TSteps::IsASCII(Text));
        }
    };
};

} // namespace

} // namespace Kest::System

#endif

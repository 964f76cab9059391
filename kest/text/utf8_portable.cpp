#include <kest/text/utf8_codec.h>
#include <kest/text/utf8_sequence.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

#ifdef __SSE2__ // every 64-bit x86 has it, so packing ASCII may take its instructions here
#include <emmintrin.h>
#endif

namespace Kest::System {

namespace {

// The inner loops have a fixed length and no branch, so that compilers can use the vectors that every processor of the target has.

/// The length of a run that is tested for ASCII at once. Shorter runs of mixed text would be ASCII by chance, and the branch hard to
/// predict.
constexpr std::size_t RunLength = 64;

constexpr std::size_t BlockLength = 16;

constexpr std::uint64_t HighBits = 0x8080808080808080U;

std::uint64_t LoadEight(const char* text) noexcept {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text, sizeof bytes);
    return bytes;
}

KEST_CODEC_ENTRY std::size_t CountCharacters(const char* text, std::size_t length) noexcept {
    constexpr std::size_t step = 128; // a count in one byte cannot overflow
    constexpr std::size_t shortStep = 8;
    std::size_t characters = 0;
    std::size_t index = 0;
    for (; index + step <= length; index += step) {
        std::uint8_t count = 0;
        for (std::size_t each = 0; each < step; ++each)
            count = static_cast<std::uint8_t>(count + (static_cast<signed char>(text[index + each]) > -64 ? 1U : 0U));
        characters += count;
    }
    for (; index + shortStep <= length; index += shortStep) {
        const std::uint64_t bytes = LoadEight(text + index);
        const std::uint64_t aboveC0 = (bytes & ~HighBits) + 0x3F3F3F3F3F3F3F3FU; // highest bit set: the low seven bits exceed 0x40
        const std::uint64_t counted = (~bytes | aboveC0) >> 7U & 0x0101010101010101U;
        characters += static_cast<std::size_t>(counted * 0x0101010101010101U >> 56U);
    }
    for (; index < length; ++index)
        characters += _IsUTF8Counted(text[index]) ? 1U : 0U;
    return characters;
}

template <std::size_t Length>
bool IsASCII(const wchar_t* text) noexcept {
    std::uint32_t any = 0;
    for (std::size_t each = 0; each < Length; ++each)
        any |= static_cast<std::uint32_t>(text[each]);
    return any <= 0x7F;
}

/// Four code units. Compilers turn operations on them into the instructions that the processor has. A comparison gives -1 where it holds.
using TUnits = std::uint32_t __attribute__((vector_size(16)));

/// The number of bytes of @p Length code units.
template <std::size_t Length>
std::size_t CountBytesOf(const wchar_t* text) noexcept {
    TUnits minusShorter{}; // -1 for each code unit of less than three bytes, and again for each of less than two
    for (std::size_t each = 0; each < Length; each += 4) {
        TUnits units;
        std::memcpy(&units, text + each, sizeof units);
        minusShorter += ((units & ~0x7FU) == 0) + ((units & ~0x7FFU) == 0);
    }
    return 3 * Length - (0U - (minusShorter[0] + minusShorter[1] + minusShorter[2] + minusShorter[3]));
}

KEST_CODEC_ENTRY std::size_t CountBytes(const wchar_t* text, std::size_t& length) noexcept {
    if (const wchar_t* const zero = std::wmemchr(text, 0, length); zero != nullptr)
        length = static_cast<std::size_t>(zero - text);
    std::size_t bytes = 0;
    std::size_t index = 0;
    for (; index + RunLength <= length; index += RunLength)
        bytes += IsASCII<RunLength>(text + index) ? RunLength : CountBytesOf<RunLength>(text + index);
    for (; index + BlockLength <= length; index += BlockLength)
        bytes += CountBytesOf<BlockLength>(text + index);
    return bytes + _CountUTF8Bytes(text, index, length);
}

bool IsASCII(const char* text) noexcept {
    std::uint64_t any = 0;
    for (std::size_t each = 0; each < RunLength; each += sizeof any)
        any |= LoadEight(text + each);
    return (any & HighBits) == 0;
}

/// Copies a run of ASCII as it is, and decodes any other run sequence by sequence. In a run only the last two bytes can begin a sequence
/// that goes beyond the run, so the sequences before them are decoded without a test for the end.
KEST_CODEC_ENTRY std::size_t Decode(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept {
    constexpr std::ptrdiff_t run = RunLength;
    const wchar_t* const begin = out;
    const wchar_t* const outEnd = out + room;
    while (text < limit && out < outEnd && end - text >= run && outEnd - out >= run) {
        if (IsASCII(text)) {
            for (std::ptrdiff_t index = 0; index < run; ++index)
                out[index] = static_cast<wchar_t>(text[index]);
            text += run;
            out += run;
        } else {
            for (const char* const stop = text + (run - 2); text < stop;)
                *out++ = _DecodeUTF8Sequence(text, text + 3);
        }
    }
    while (text < limit && out < outEnd)
        *out++ = _DecodeUTF8Sequence(text, end);
    return static_cast<std::size_t>(out - begin);
}

/// Writes the code units as bytes. Returns false if not all of them are ASCII, and with SSE2 also if one is 0. The caller then writes other
/// bytes over these.
template <std::size_t Length>
bool EncodeASCII(const wchar_t* text, char* out) noexcept {
#ifdef __SSE2__ // its packing instructions make 0 of a negative number, and keep a number above 0x7F above 0x7F
    __m128i any = _mm_setzero_si128();
    __m128i least = _mm_set1_epi8(-1);
    for (std::size_t each = 0; each < Length; each += 16) {
        const auto load = [place = text + each](int index) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(place + index)); };
        const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(load(0), load(4)), _mm_packs_epi32(load(8), load(12)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + each), bytes);
        any = _mm_or_si128(any, bytes);
        least = _mm_min_epu8(least, bytes);
    }
    return _mm_movemask_epi8(_mm_or_si128(any, _mm_cmpeq_epi8(least, _mm_setzero_si128()))) == 0;
#else
    for (std::size_t each = 0; each < Length; ++each)
        out[each] = static_cast<char>(text[each]);
    return IsASCII<Length>(text);
#endif
}

char* EncodeBlock(const wchar_t* text, char* out) noexcept {
    if (EncodeASCII<BlockLength>(text, out))
        return out + BlockLength;
    for (std::size_t each = 0; each < BlockLength; ++each)
        _EncodeUTF8Sequence(static_cast<std::uint32_t>(text[each]), out);
    return out;
}

KEST_CODEC_ENTRY char* Encode(const wchar_t* text, std::size_t length, char* out) noexcept {
    std::size_t index = 0;
    while (index + BlockLength <= length) {
        if (index + RunLength <= length && EncodeASCII<RunLength>(text + index, out)) {
            index += RunLength;
            out += RunLength;
            continue;
        }
        const std::size_t stop = std::min(index + RunLength, length) - (BlockLength - 1);
        for (; index < stop; index += BlockLength)
            out = EncodeBlock(text + index, out);
    }
    for (; index < length; ++index)
        _EncodeUTF8Sequence(static_cast<std::uint32_t>(text[index]), out);
    return out;
}

} // namespace

const _TUTF8Codec _PortableUTF8Codec = {"portable", CountCharacters, CountBytes, Decode, Encode};

} // namespace Kest::System

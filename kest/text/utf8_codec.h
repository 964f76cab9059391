// Internal header: used by the conversions of utf8.cpp, by the codecs, and by what tests and measures each codec.
#ifndef KEST_TEXT_UTF8_CODEC_H
#define KEST_TEXT_UTF8_CODEC_H

#include <cstddef>

// Marks the functions that callers of a codec enter. A program for 32-bit x86 may align the stack to four bytes only. Vectors on the stack
// need more, so these functions align it themselves.
#ifdef __i386__
#define KEST_CODEC_ENTRY __attribute__((force_align_arg_pointer))
#else
#define KEST_CODEC_ENTRY
#endif

// Every arm64 processor has these instructions. The codec is written for the little-endian order of bytes.
#if defined(__aarch64__) && defined(__ARM_NEON) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define KEST_HAS_NEON
#endif

namespace Kest::System {

/// The loops of the conversions, written for one instruction set. All codecs give equal results.
struct _TUTF8Codec {
    /// How many elements beyond its result Decode or Encode may write.
    static constexpr std::size_t Slack = 16;

    /// How many bytes beyond @p limit Decode may decode.
    static constexpr std::size_t LongestStep = 64;

    const char* Name; ///< for the output of tests and measurements

    /// Returns what _UTF8Length() returns.
    std::size_t (*CountCharacters)(const char* text, std::size_t length) noexcept;

    /// Returns what _UTF8LengthOfUCS2() returns, and sets @p length to the number of code units before the first 0.
    std::size_t (*CountBytes)(const wchar_t* text, std::size_t& length) noexcept;

    /// Decodes @p text up to @p end in steps. No step begins at or after @p limit, or when @p room code units are written. The last step
    /// may write Slack elements beyond @p room. Moves @p text behind the bytes that were decoded.
    /// @return the number of code units.
    std::size_t (*Decode)(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept;

    /// Encodes @p length code units, zeros too.
    /// @return the end of the bytes at @p out.
    char* (*Encode)(const wchar_t* text, std::size_t length, char* out) noexcept;
};

/// The fastest codec that this processor can use for a text of @p length elements. Choosing is cheap enough for every call.
const _TUTF8Codec& _ChooseUTF8Codec(std::size_t length) noexcept;

/// Puts every codec that this processor can use into @p codecs, the fastest first, and returns their number.
std::size_t _GetUTF8Codecs(const _TUTF8Codec* (&codecs)[4]) noexcept;

extern const _TUTF8Codec _AVX512UTF8Codec; // x86-64
extern const _TUTF8Codec _AVX2UTF8Codec;   // x86
extern const _TUTF8Codec _SSE4UTF8Codec;   // x86
extern const _TUTF8Codec _NEONUTF8Codec;   // arm64
extern const _TUTF8Codec _PortableUTF8Codec;

} // namespace Kest::System

#endif

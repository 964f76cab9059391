// Internal header: used by the conversions of utf8.cpp, by the codecs, and by what tests and measures each codec.
#ifndef KEST_TEXT_UTF8_CODEC_H
#define KEST_TEXT_UTF8_CODEC_H

#include <cstddef>

// What callers enter. Programs for 32 bits may hold the stack aligned to four bytes only, and vectors have to lie on it at their own.
#ifdef __i386__
#define KEST_CODEC_ENTRY __attribute__((force_align_arg_pointer))
#else
#define KEST_CODEC_ENTRY
#endif

// Of arm64 with the usual order of bytes. Every such processor has the instructions.
#if defined(__aarch64__) && defined(__ARM_NEON) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define KEST_HAS_NEON
#endif

namespace Kest::System {

/// The loops of the conversions, written for one instruction set. All codecs give the same results.
struct _TUTF8Codec {
    /// How many elements beyond its result Decode or Encode may write.
    static constexpr std::size_t Slack = 16;

    /// How many bytes beyond its limit Decode may go.
    static constexpr std::size_t LongestStep = 64;

    const char* Name;

    /// As _UTF8Length() counts.
    std::size_t (*CountCharacters)(const char* text, std::size_t length) noexcept;

    /// As _UTF8LengthOfUCS2() counts. Cuts @p length at the first code unit 0.
    std::size_t (*CountBytes)(const wchar_t* text, std::size_t& length) noexcept;

    /// Decodes @p text in steps that begin before @p limit, until @p room code units or a few more are written. Moves @p text behind what
    /// it decoded and returns the number of code units.
    std::size_t (*Decode)(const char*& text, const char* limit, const char* end, wchar_t* out, std::size_t room) noexcept;

    /// Encodes @p length code units, zeros too, and returns the end of the bytes.
    char* (*Encode)(const wchar_t* text, std::size_t length, char* out) noexcept;
};

/// The fastest codec that this processor can use for a text of @p length elements. Cheap enough to ask for at every call.
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

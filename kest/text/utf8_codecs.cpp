#include <kest/text/utf8_codec.h>

namespace Kest::System {

// The codecs there are, what each needs of the processor, and from which length of a text on it is worth while.

#if defined(__x86_64__) || defined(__i386__)

namespace {

bool HasSSE4() noexcept {
    return __builtin_cpu_supports("sse4.2") != 0 && __builtin_cpu_supports("popcnt") != 0;
}

bool HasAVX2() noexcept {
    return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("popcnt") != 0;
}

#ifdef __x86_64__
bool HasAVX512() noexcept {
    return __builtin_cpu_supports("avx512vbmi2") != 0 && __builtin_cpu_supports("avx512vbmi") != 0 &&
           __builtin_cpu_supports("avx512bw") != 0 && __builtin_cpu_supports("popcnt") != 0;
}
#endif

} // namespace

const _TUTF8Codec& _ChooseUTF8Codec(std::size_t length) noexcept {
    // A processor is slower for a while after it begins to use its wider registers. A short text does not make up for that.
#ifdef __x86_64__
    if (length >= 256 && HasAVX512())
        return _AVX512UTF8Codec;
#endif
    if (length >= 96 && HasAVX2())
        return _AVX2UTF8Codec;
    return HasSSE4() ? _SSE4UTF8Codec : _PortableUTF8Codec;
}

std::size_t _GetUTF8Codecs(const _TUTF8Codec* (&codecs)[4]) noexcept {
    std::size_t count = 0;
#ifdef __x86_64__
    if (HasAVX512())
        codecs[count++] = &_AVX512UTF8Codec;
#endif
    if (HasAVX2())
        codecs[count++] = &_AVX2UTF8Codec;
    if (HasSSE4())
        codecs[count++] = &_SSE4UTF8Codec;
    codecs[count++] = &_PortableUTF8Codec;
    return count;
}

#else

// On these processors the target of the compiler decides.

const _TUTF8Codec& _ChooseUTF8Codec(std::size_t /*length*/) noexcept {
#ifdef KEST_HAS_NEON
    return _NEONUTF8Codec;
#else
    return _PortableUTF8Codec;
#endif
}

std::size_t _GetUTF8Codecs(const _TUTF8Codec* (&codecs)[4]) noexcept {
    std::size_t count = 0;
#ifdef KEST_HAS_NEON
    codecs[count++] = &_NEONUTF8Codec;
#endif
    codecs[count++] = &_PortableUTF8Codec;
    return count;
}

#endif

} // namespace Kest::System

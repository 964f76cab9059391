#ifndef KEST_FUZZ_FUZZ_H
#define KEST_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

/// libFuzzer calls this with each input. A target whose input is more than one text takes its numbers and texts from a FuzzedDataProvider.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Kest::Fuzz {

/// Ends the run unless @p holds. libFuzzer then reports the input.
inline void Require(bool holds, const char* claim) {
    if (holds)
        return;
    (void)std::fprintf(stderr, "does not hold: %s\n", claim);
    std::abort();
}

/// Ends the run unless both texts are equal. libFuzzer then reports the input.
inline void RequireEqual(const std::string& actual, const std::string& expected, const char* claim) {
    if (actual != expected)
        (void)std::fprintf(stderr, "'%s', expected '%s'\n", actual.c_str(), expected.c_str());
    Require(actual == expected, claim);
}

/// @p text up to its first zero byte, as the system reads it.
inline std::string UpToZero(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

} // namespace Kest::Fuzz

#endif

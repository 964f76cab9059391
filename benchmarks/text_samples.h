#ifndef KEST_BENCHMARKS_TEXT_SAMPLES_H
#define KEST_BENCHMARKS_TEXT_SAMPLES_H

#include <kest/text/utf8.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>

/// The texts that are converted: words of two to nine letters between spaces, which no processor can predict.
namespace Kest::Benchmark {

struct TScript {
    const char* Name;
    std::wstring (*MakeWord)(std::mt19937& random, std::size_t letters);
};

template <wchar_t First, unsigned Count>
std::wstring MakeWord(std::mt19937& random, std::size_t letters) {
    std::wstring word;
    while (word.size() < letters)
        word += static_cast<wchar_t>(First + static_cast<wchar_t>(random() % Count));
    return word;
}

/// As in French, one letter in twelve has an accent.
inline std::wstring MakeLatinWord(std::mt19937& random, std::size_t letters) {
    std::wstring word = MakeWord<L'a', 26>(random, letters);
    for (wchar_t& each : word)
        if (random() % 12 == 0)
            each = static_cast<wchar_t>(0xE0 + random() % 31);
    return word;
}

inline constexpr TScript Scripts[] = {
    {"ascii", MakeWord<L'a', 26>},
    {"latin", MakeLatinWord},
    {"cyrillic", MakeWord<0x430, 32>},
    {"cjk", MakeWord<0x4E00, 0x5000>},
};

/// A text of @p size bytes of UTF-8, or of one or two bytes less.
inline std::string MakeText(const TScript& script, std::size_t size) {
    std::mt19937 random(7);
    const std::size_t sentenceSize = std::min<std::size_t>(size, 1 << 20); // larger texts repeat a sentence
    std::string sentence;
    while (sentence.size() < sentenceSize)
        sentence += System::UCSToUTF8(script.MakeWord(random, 2 + random() % 8)) + ' ';
    std::string text;
    while (text.size() < size)
        text += sentence;
    do
        text.resize(size--);
    while (System::UCSToUTF8(System::UTF8ToUCS(text)) != text); // a character must not be cut
    return text;
}

} // namespace Kest::Benchmark

#endif

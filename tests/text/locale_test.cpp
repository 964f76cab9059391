#include <kest/text/locale.h>

#include <support/child.h>
#include <support/message.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::System;
using Kest::EException;
using Kest::Test::InChild;

namespace {

std::atomic<int> Questions[2]; // after LANG and LC_ALL

} // namespace

/// Counts the library's questions, the only trace that the detection leaves. Symbols of the program win over those of the system's
/// library.
extern "C" char* getenv(const char* name) noexcept {
    Questions[0] += std::strcmp(name, "LANG") == 0 ? 1 : 0;
    Questions[1] += std::strcmp(name, "LC_ALL") == 0 ? 1 : 0;
    return ::secure_getenv(name);
}

namespace {

const int QuestionsWhenLoaded = Questions[0] + Questions[1];

void SetVariable(const char* name, const char* value) {
    value == nullptr ? ::unsetenv(name) : ::setenv(name, value, 1);
}

TEST(Locale, EveryEnvironmentGivesTheDefaults) {
    const struct {
        const char *Lang, *LcAll;
        bool IsLcAllRead;
    } cases[] = {
        {"de_DE.UTF-8", "fr_FR.UTF-8", false},
        {"", "fr_FR.ISO-8859-1", true},
        {nullptr, "fr_FR.ISO-8859-1@euro", true},
        {nullptr, nullptr, true},
        {"", "", true},
        {"C", "fr_FR.UTF-8", false}, // malformed, but not empty
        {".", nullptr, false},
        {"de_DE.", nullptr, false},
        {".UTF-8", nullptr, false},
        {"de_DE_x.a.b", nullptr, false},
        {"_.x", nullptr, false},
        {"\xFF_\xFE.\xFD", nullptr, false},
    };
    for (const auto& each : cases)
        InChild([&each] {
            SetVariable("LANG", each.Lang);
            SetVariable("LC_ALL", each.LcAll);
            Questions[0] = Questions[1] = 0;
            const _TSystemLocaleDetector detector;
            EXPECT_EQ(detector.Encoding, "UTF-8");
            EXPECT_EQ(detector.Language + detector.Country, "");
            EXPECT_EQ(Questions[0], 1);
            EXPECT_EQ(Questions[1], each.IsLcAllRead ? 1 : 0);
        });
}

TEST(Locale, IsDetectedOnceAtTheFirstQuery) {
    EXPECT_EQ(QuestionsWhenLoaded, 0);
    InChild([] {
        SetVariable("LANG", "de_DE.UTF-8");
        Questions[0] = Questions[1] = 0;
        std::atomic<int> arrived{0};
        std::vector<std::thread> threads;
        for (int index = 0; index < 16; ++index)
            threads.emplace_back([&arrived] {
                ++arrived;
                while (arrived < 16) // so that all of them ask first
                    std::this_thread::yield();
                EXPECT_EQ(GetDefaultLanguage() + GetSystemEncoding() + GetDefaultCountry(), "UTF-8");
            });
        for (std::thread& thread : threads)
            thread.join();
        SetVariable("LANG", "");
        EXPECT_EQ(GetSystemEncoding(), "UTF-8");
        EXPECT_EQ(Questions[0], 1);
        EXPECT_EQ(Questions[1], 0);
    });
}

TEST(Locale, UpperCaseChangesTheLettersOfASCIIOnly) {
    std::string bytes, expected;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
        expected += static_cast<char>(byte >= 0x61 && byte <= 0x7A ? byte - 0x20 : byte);
    }
    _TSystemLocaleDetector::UpperCase(bytes);
    EXPECT_EQ(bytes, expected);
}

TEST(Locale, NamedEncodingsAreNotAvailable) {
    for (const char* text : {"", "UTF-8", "a"}) {
        EXPECT_KEST_THROW(UTF8ToEncoding(text, text), EException, "Kest: UTF8ToEncoding not implemented");
        EXPECT_KEST_THROW(EncodingToUTF8(text, text), EException, "Kest: EncodingToUTF8 not implemented");
    }
    EXPECT_EQ(sizeof _SystemLocaleDetector, 1U);
}

} // namespace

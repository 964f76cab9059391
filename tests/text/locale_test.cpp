#include <kest/text/locale.h>
#include <kest/text/system_text.h>

#include <support/child.h>
#include <support/message.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

using namespace Kest::System;
using Kest::EException;
using Kest::Test::InChild;

namespace {

std::atomic<int> Questions[2]; // after LANG and LC_ALL

} // namespace

/// Counts the library's questions, the only trace of the detection. The linker takes this definition before the C library's.
extern "C" char* getenv(const char* name) noexcept {
    Questions[0] += std::strcmp(name, "LANG") == 0 ? 1 : 0;
    Questions[1] += std::strcmp(name, "LC_ALL") == 0 ? 1 : 0;
    return ::secure_getenv(name);
}

namespace {

const int QuestionsWhenLoaded = Questions[0] + Questions[1];

TEST(Locale, EveryEnvironmentGivesTheDefaults) {
    for (const char* lang : {"de_DE.UTF-8", "C", "\xFF_\xFE.\xFD", "", static_cast<const char*>(nullptr)})
        InChild([lang] {
            lang == nullptr ? ::unsetenv("LANG") : ::setenv("LANG", lang, 1);
            ::setenv("LC_ALL", "fr_FR.ISO-8859-1", 1);
            Questions[0] = Questions[1] = 0;
            const _TSystemLocaleDetector detector;
            EXPECT_EQ(detector.Encoding, "UTF-8");
            EXPECT_EQ(detector.Language + detector.Country, "");
            EXPECT_EQ(Questions[0], 1);
            EXPECT_EQ(Questions[1], lang == nullptr || *lang == 0 ? 1 : 0);
        });
}

TEST(Locale, IsDetectedOnceAtTheFirstQuery) {
    EXPECT_EQ(QuestionsWhenLoaded, 0);
    InChild([] {
        ::setenv("LANG", "de_DE.UTF-8", 1);
        Questions[0] = 0;
        for (int round = 0; round < 2; ++round)
            EXPECT_EQ(GetDefaultLanguage() + GetSystemEncoding() + GetDefaultCountry(), "UTF-8");
        EXPECT_EQ(Questions[0], 1);
    });
}

TEST(Locale, NamedEncodingsAreNotAvailableAndTheSystemsIsUTF8) {
    for (const std::string& text : {std::string("a\0b", 3), std::string("\xFF\xED\xA0\x80")}) { // the second is no UTF-8
        EXPECT_KEST_THROW(UTF8ToEncoding(text, text), EException, "Kest: UTF8ToEncoding not implemented");
        EXPECT_KEST_THROW(EncodingToUTF8(text, text), EException, "Kest: EncodingToUTF8 not implemented");
        EXPECT_EQ(UTF8ToSystem(text), text);
        EXPECT_EQ(SystemToUTF8(text), text);
        EXPECT_TRUE(IsUTF8SystemRepresentable(text));
    }
}

} // namespace

#include <kest/text/system_text.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SystemText, EveryTextPassesUnchanged) {
    for (const std::string& text : {std::string(), std::string("a/b"), std::string("\xC3\xA4\xE2\x82\xAC"), std::string("a\0b\0", 4),
                                    std::string("\xFF\xC3\xED\xA0\x80")}) { // the last one is no UTF-8
        EXPECT_EQ(Kest::System::UTF8ToSystem(text), text);
        EXPECT_EQ(Kest::System::SystemToUTF8(text), text);
        EXPECT_TRUE(Kest::System::IsUTF8SystemRepresentable(text));
    }
}

} // namespace

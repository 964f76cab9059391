#include <kest/process/dll.h>

#include <models/temporary_directory.h>
#include <support/message.h>

#include <fstream>

#include <dlfcn.h>

using namespace Kest::Test;
using Kest::EException;
using Kest::System::TDLL;

namespace {

/// The plug-in under names of the test's own. The loader knows a loaded library again by its file, so each test has a copy.
class DLL : public testing::Test {
protected:
    DLL() {
        std::filesystem::copy_file(KEST_TEST_PLUGIN, Path + ".so");
        ::setenv("KEST_TEST_PLUGIN", "untouched", 1);
    }

    static std::string Told() { return std::getenv("KEST_TEST_PLUGIN"); }

    TTemporaryDirectory Directory;
    const std::string Path = Directory / "plugin";
};

TEST_F(DLL, IsLoadedAsLongAsAnObjectLives) {
    for (const std::string& name : {Path + ".so", Path}) { // the second by a second attempt
        {
            TDLL first(name);
            EXPECT_EQ(Told(), "started");
            const auto twice = reinterpret_cast<int (*)(int)>(first.GetSymbolAddress("Twice"));
            ASSERT_NE(twice, nullptr);
            EXPECT_EQ(twice(21), 42);
            EXPECT_NE(first.GetSymbolAddress("setenv"), nullptr) << "of a library that this one depends on";
            EXPECT_EQ(::dlsym(RTLD_DEFAULT, "Twice"), nullptr) << "offered to others";
            { const TDLL second(Path); }
            EXPECT_EQ(Told(), "started");
        }
        EXPECT_EQ(Told(), "ended");
    }
}

TEST_F(DLL, NameIsTriedAsItIsFirst) {
    std::filesystem::copy_file(Path + ".so", Path);
    const TDLL library(Path);
    EXPECT_EQ(::dlopen((Path + ".so").c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr); // the other one
}

TEST_F(DLL, FailureIsTheLoadersTextOnTheSecondAttempt) {
    std::ofstream(Directory / "broken") << "no library";
    std::ofstream(Directory / "bad.so") << "no library";
    for (const std::string& name : {Directory / "gone.so", Directory / "broken", Directory / "bad", std::string("d\xC3\xA4/\xFF")}) {
        EXPECT_EQ(::dlopen((name + ".so").c_str(), RTLD_LAZY), nullptr);
        const std::string expected = ::dlerror();
        EXPECT_NE(expected.find(name + ".so"), std::string::npos) << expected;
        EXPECT_KEST_THROW(TDLL{name}, EException, "Kest: " + expected);
    }
}

} // namespace

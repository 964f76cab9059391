#include <kest/foundation/exception.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

using namespace Kest;
using Kest::System::_GetLastErrorDescription;

namespace {

static_assert(sizeof(EException) == sizeof(std::string) && !std::is_polymorphic_v<EException>);
static_assert(std::is_nothrow_constructible_v<EException, const std::string&> && !std::is_convertible_v<std::string, EException>);
static_assert(noexcept(_GetLastErrorDescription()));

TEST(Exception, MessageIsThePrefixAndTheTextAndCopiesKeepIt) {
    for (const std::string& text : {std::string(), std::string("bad priority value"), std::string("Kest: "), std::string("a\0b", 3)}) {
        SCOPED_TRACE(text);
        const EException original(text);
        EXPECT_EQ(original.GetMessage(), "Kest: " + text);
        const EException copy(original);
        EXPECT_EQ(copy.GetMessage(), "Kest: " + text);
    }
}

TEST(Exception, DescriptionIsThatOfErrnoWhichKeepsItsValue) {
    for (const int code : {ENOENT, EACCES, 0, 12345, -1}) {
        SCOPED_TRACE(code);
        const std::string expected = std::strerror(code);
        errno = code;
        const std::string description = _GetLastErrorDescription();
        EXPECT_EQ(errno, code);
        EXPECT_EQ(description, expected);
    }
}

} // namespace

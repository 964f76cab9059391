#ifndef KEST_TESTS_SUPPORT_MESSAGE_H
#define KEST_TESTS_SUPPORT_MESSAGE_H

#include <kest/foundation/exception.h>

#include <gtest/gtest.h>

#include <cstring>
#include <cxxabi.h>
#include <string>
#include <typeinfo>

namespace Kest::Test {

/// The message of a failure that ends with the system's description.
inline std::string Described(const std::string& what, int code) {
    return "Kest: " + what + std::strerror(code);
}

/// The message of the exception that @p action throws. It must be one of exactly the class @p TException: the classes are not
/// polymorphic, so only the language runtime knows which one was thrown. Anything else is a failure of the test.
template <class TException = EException, class TAction>
std::string MessageOf(const TAction& action) {
    try {
        action();
    } catch (const EException& exception) {
        const std::type_info& thrown = *abi::__cxa_current_exception_type();
        EXPECT_STREQ(thrown.name(), typeid(TException).name()) << "with the message " << exception.GetMessage();
        return exception.GetMessage();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

} // namespace Kest::Test

/// Checks that @p statement throws an object of exactly @p exceptionClass with the whole message @p message, prefix included.
#define EXPECT_KEST_THROW(statement, exceptionClass, message)                                                                              \
    EXPECT_EQ(::Kest::Test::MessageOf<exceptionClass>([&] { statement; }), message)

#endif

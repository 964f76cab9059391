#ifndef KEST_TESTS_FAULTS_WORLD_H
#define KEST_TESTS_FAULTS_WORLD_H

#include "calls.h"
#include <filesystem/files.h>
#include <support/descriptors.h>
#include <support/failing_new.h>
#include <support/sockets.h>

#include <kest/kest.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <typeinfo>

namespace Kest::Test {

/// Something for every operation to work on.
struct TWorld {
    explicit TWorld(const TTree& tree = {"from=content", "to=old"}) {
        Make(Place.GetPath(), tree);
        (void)Net.Server.Send("some", 4);
    }

    TTemporaryDirectory Place;
    const std::string From = Place / "from";
    const std::string To = Place / "to";
    TConnection Net{"fs"}; ///< the client has something to receive
};

/// What an operation may leak: descriptors and threads of the process, locks and blocks of the heap of the calling thread.
inline std::array<long, 4> Resources() {
    return {OpenDescriptors(), Threads(), LocksHeld(), BlocksInUse};
}

/// Checks that nothing is left of an operation. A thread that was waited for is still listed for a moment.
inline void ExpectNothingLeaked(std::array<long, 4> before) {
    for (int round = 0; round < 10000 && Resources()[1] > before[1]; ++round)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto after = Resources();
    for (const std::size_t index : {1U, 3U})
        before[index] = std::min(before[index], after[index]); // an operation may end or release things
    EXPECT_EQ(after, before) << "descriptors, threads, locks, blocks of the heap";
}

/// What comes of an operation: its result as text, or "class: message" of its exception, without the prefix that all messages have.
template <class TAction>
std::string OutcomeOf(const TAction& action) {
    const auto thrown = [] {
        const std::unique_ptr<char, decltype(&std::free)> name(
            abi::__cxa_demangle(abi::__cxa_current_exception_type()->name(), nullptr, nullptr, nullptr), &std::free);
        const std::string whole = name.get();
        return whole.substr(whole.rfind(':') + 1);
    };
    try {
        if constexpr (std::is_void_v<decltype(action())>) {
            action();
            return "";
        } else if constexpr (std::is_arithmetic_v<decltype(action())>) {
            return std::to_string(action());
        } else {
            return action();
        }
    } catch (const EException& exception) {
        const std::string& message = exception.GetMessage();
        return thrown() + ": " + (message.rfind("Kest: ", 0) == 0 ? message.substr(6) : "without prefix: " + message);
    } catch (const std::exception&) {
        return thrown();
    }
}

/// @p text with the words FROM, TO and WHY replaced by the paths of @p world and the description of @p code.
inline std::string Filled(std::string text, const TWorld& world, int code) {
    const std::pair<const char*, std::string> words[] = {{"FROM", world.From}, {"TO", world.To}, {"WHY", std::strerror(code)}};
    for (std::size_t at = 0, next; at < text.size(); at = next) {
        next = at + 1;
        for (const auto& [word, value] : words)
            if (next == at + 1 && text.compare(at, std::strlen(word), word) == 0) { // a path may contain the letters of a word
                text.replace(at, std::strlen(word), value);
                next = at + value.size();
            }
    }
    return text;
}

/// Names the test of a row by its number and by its words, which operator<< writes: "012_rename_in_TFile_Rename".
struct TNameOfRow {
    template <class TRow>
    std::string operator()(const testing::TestParamInfo<TRow>& row) const {
        std::string name = std::to_string(1000 + row.index).substr(1); // in three digits
        for (const char each : "_" + testing::PrintToString(row.param))
            if (std::isalnum(static_cast<unsigned char>(each)) != 0)
                name += each;
            else if (name.back() != '_')
                name += '_';
        return name.substr(0, name.find_last_not_of('_') + 1);
    }
};

} // namespace Kest::Test

#endif

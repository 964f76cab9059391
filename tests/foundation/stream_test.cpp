#include <kest/foundation/stream.h>
#include <models/stream_model.h>

#include <gtest/gtest.h>

#include <deque>
#include <limits>
#include <random>
#include <type_traits>

using namespace Kest::Test;

namespace {

static_assert(!std::is_convertible_v<TStream*, std::streambuf*> && std::is_convertible_v<TStream*, std::iostream*>);
static_assert(!std::is_copy_constructible_v<TStream> && std::has_virtual_destructor_v<TStream>);

constexpr int Throws = std::numeric_limits<int>::min(); ///< as an answer of a scripted transport

/// Answers by its script and logs each call. After the end of the script it has no data and takes everything. A read gives bytes, in as
/// many calls as they need, or a code, which the script writes as "0", "-2" or "+5".
class TScript final : public TStream::TInterface {
public:
    explicit TScript(std::deque<std::string> reads = {}, std::deque<int> writes = {})
        : Reads(std::move(reads)), Writes(std::move(writes)) {}

    int Read(void* buffer, unsigned int size) override {
        Log += "Read(" + std::to_string(size) + ") ";
        if (Reads.empty())
            return 0;
        std::string& data = Reads.front();
        const bool isCode = data == "0" || data[0] == '-' || data[0] == '+';
        const int result = isCode ? std::stoi(std::exchange(data, "")) : static_cast<int>(data.copy(static_cast<char*>(buffer), size));
        if (data.erase(0, size).empty())
            Reads.pop_front();
        return result;
    }

    int Write(const void* buffer, unsigned int size) override {
        Log += "Write(" + std::string(static_cast<const char*>(buffer), size) + ") ";
        if (Writes.empty())
            return static_cast<int>(size);
        const int result = Writes.front();
        Writes.pop_front();
        if (result == Throws)
            throw std::ios_base::failure("transport"); // the transport's, not the stream's
        return result;
    }

    std::string TakeLog() { return std::exchange(Log, std::string()); }

private:
    std::deque<std::string> Reads;
    std::deque<int> Writes;
    std::string Log;
};

/// Performs the operations. Commas separate the operations, and the results.
std::string PerformAll(TStream& stream, const std::string& operations) {
    std::istringstream input(operations);
    std::string operation, results;
    while (std::getline(input >> std::ws, operation, ',')) {
        const std::string result = Perform(stream, operation);
        results += (result.empty() || results.empty() ? "" : ", ") + result;
    }
    return results;
}

TEST(Stream, MakesTheseTransportCalls) {
    const struct {
        const char* Name;
        unsigned int Size;
        std::deque<std::string> Reads;
        std::deque<int> Writes;
        const char *Operations, *Results, *Log; // the log up to and including the destructor
    } cases[] = {
        // clang-format off
        {"a refill asks for the whole buffer", 2, {"abc"}, {}, "read 1, read 1, read 1, outcome", "a, b, c, good 0", "Read(2) Read(2) "},
        {"the last byte value is no end", 2, {"\xFF\xFE"}, {}, "peek, get, buffer get", "255, 255, 254", "Read(2) "},
        {"no data ends the reading until it is cleared", 4, {"0", "x"}, {},
            "get, outcome, get, clear, get, outcome", "-1, eof fail 0, -1, 120, good 0", "Read(4) Read(4) "},
        {"a failed read, a good one, whose caller clears the bit", 4, {"-2", "x"}, {},
            "buffer peek, outcome, buffer peek, outcome", "-1, fail -2, 120, fail 0", "Read(4) Read(4) "},
        {"a flush drops what was read ahead", 8, {"abc", "def"}, {}, "read 1, flush, read 1", "a, d", "Read(8) Read(8) "},
        {"output waits for a full buffer", 4, {}, {},
            "write 123456789, flush, flush, outcome", "good 0", "Write(1234) Write(5678) Write(9) "},
        {"a flush offers once and the rest comes first", 8, {}, {3},
            "write 12345678, flush, write 9, flush, outcome", "good 0", "Write(12345678) Write(456789) "},
        {"nothing taken from a full buffer loses nothing", 4, {}, {0},
            "buffer write 12345, outcome, write 6, outcome", "4, good 0, good 0", "Write(1234) Write(1234) Write(6) "},
        {"each character without a buffer", 1, {}, {1, 0, -3},
            "buffer write a, buffer write b, outcome, buffer write c, outcome",
            "97, -1, good 0, -1, fail -3", "Write(a) Write(b) Write(c) "},
        {"putting back within what was read", 8, {"ab"}, {}, "read 1, unget, read 1, unget, unget, outcome", "a, a, bad 0", "Read(8) "},
        {"no buffers, no calls", 4, {"abc", "d"}, {},
            "doallocate, read 1, write x, destroy, buffer peek, buffer get, buffer write 1, buffer write 12, "
            "buffer flush, destroy, outcome, doallocate, doallocate, write y, read 1",
            "0, a, -1, -1, -1, 0, 0, good 0, 1, 0, d", "Read(4) Write(x) Write(y) Read(1) "},
        {"a size that means no buffer", 0, {"ab"}, {}, "outcome, write xy, read 2", "good 0, ab", "Write(x) Write(y) Read(1) Read(1) "},
        {"more than was asked for is no answer", 4, {"+5", "ab"}, {3},
            "buffer peek, outcome, clear, write 12, flush, outcome, clear, flush, read 1, outcome",
            "-1, bad 0, bad 0, a, good 0", "Read(4) Write(12) Write(12) Read(4) "},
        {"nor without a buffer", 1, {"+2", "a"}, {2},
            "buffer peek, outcome, clear, buffer write x, outcome, clear, read 1", "-1, bad 0, -1, bad 0, a", "Read(1) Write(x) Read(1) "},
        {"another one", 0x80000000u, {"ab"}, {}, "outcome, write xy, read 2", "good 0, ab", "Write(x) Write(y) Read(1) Read(1) "},
        // clang-format on
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Name);
        TScript script(each.Reads, each.Writes);
        {
            TStream stream(script, each.Size);
            EXPECT_EQ(PerformAll(stream, each.Operations), each.Results);
        }
        EXPECT_EQ(script.TakeLog(), each.Log);
    }
}

TEST(Stream, NewBuffersBeginAfreshWhateverTheOldOnesCameTo) {
    for (const int answer : {1, -2, Throws}) {
        for (const std::string change : {"allocate 2", "destroy, doallocate, allocate 2"}) {
            SCOPED_TRACE(change + " " + std::to_string(answer));
            TScript script({"abc", "def"}, {answer});
            TStream stream(script, 8);
            EXPECT_EQ(PerformAll(stream, "read 1, write xy"), "a");
            stream.setstate(std::ios::eofbit);
            stream.exceptions(std::ios::failbit | std::ios::badbit);
            EXPECT_NO_THROW(PerformAll(stream, change));
            EXPECT_EQ(stream.exceptions(), std::ios::goodbit);
            EXPECT_EQ(PerformAll(stream, "outcome, write z, read 1"), answer == -2 ? "good -2, d" : "good 0, d");
            EXPECT_EQ(script.TakeLog(), "Read(8) Write(xy) Read(2) ");
        }
    }
}

TEST(Stream, StateExceptionsAreThrownWhenEnabledButNotByTheDestructor) {
    for (const int answer : {-2, Throws}) {
        TScript script({"-3"}, {-1, answer});
        {
            TStream stream(script, 4);
            stream.exceptions(std::ios::failbit);
            EXPECT_THROW(stream.rdbuf()->sgetc(), std::ios::failure);
            EXPECT_EQ(Outcome(stream), "fail -3");
            stream.clear();
            stream << "x";
            EXPECT_THROW(stream.rdbuf()->pubsync(), std::ios::failure);
            EXPECT_EQ(Outcome(stream), "fail -1");
        }
        EXPECT_EQ(script.TakeLog(), "Read(4) Write(x) Write(x) ");
    }
}

TEST(Stream, FlushFromASentryEndsNoProcess) {
    for (const int answer : {-2, Throws}) {
        TScript script({}, {answer});
        TStream stream(script, 4);
        stream << std::unitbuf; // now the standard library flushes in a destructor
        stream.exceptions(std::ios::failbit | std::ios::badbit);
        try {
            throw std::ios_base::failure("before");
        } catch (const std::exception&) { // in a handler too
            EXPECT_NO_THROW(stream << "x");
        }
        EXPECT_EQ(Outcome(stream), answer == Throws ? "bad 0" : "fail -2");
        stream.clear();
        stream << "y";
        EXPECT_EQ(script.TakeLog(), "Write(x) Write(xy) ");
    }
}

TEST(Stream, OperationsReachEachOtherThroughTheTable) {
    struct TDerived : TStream {
        using TStream::TStream;
        void allocate(int size) override { Log += "allocate ", TStream::allocate(size); }
        int sync() override { return Log += "sync ", TStream::sync(); }
        int overflow(int c) override { return Log += "overflow ", TStream::overflow(c); }
        int underflow() override { return Log += "underflow ", TStream::underflow(); }
        std::string Log;
    };
    TScript script;
    TDerived stream(script, 2);
    stream.DestroyBuffer();
    stream.doallocate();
    stream.uflow();
    EXPECT_EQ(stream.Log, "sync overflow allocate underflow ");
    EXPECT_EQ(stream.tellg(), std::streampos(-1));
    EXPECT_TRUE(stream.seekg(0).fail());
    EXPECT_EQ(stream.imbue(std::locale::classic()), stream.getloc()) << "the stream's, which its buffer has as well";
}

TEST(Stream, BehavesLikeTheModel) {
    for (unsigned int seed = 1; seed <= 60; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
        TStreamWalk walk(seed % 10, [answers = std::mt19937(seed)]() mutable { return static_cast<unsigned int>(answers()); });
        for (int step = 0; step != 2000; ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            const unsigned int kinds = TStreamWalk::OperationCount;
            std::string operation = TStreamWalk::Operations[below(below(4) == 0 ? kinds : kinds - 3)]; // new buffers are rare
            if ((operation += ' ') == "write ")
                for (auto length = below(12); length != 0; --length)
                    operation += static_cast<char>('a' + below(26));
            else
                operation += std::to_string(below(10));
            const auto [actual, expected] = walk.Step(operation, below(2) == 0);
            ASSERT_EQ(actual, expected);
        }
        const auto [actual, expected] = walk.End();
        ASSERT_EQ(actual, expected) << "in the destructor, seed " << seed;
    }
}

} // namespace

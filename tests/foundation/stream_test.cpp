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

/// Answers by its script, after whose end it has no data and takes everything, and writes down each call. A read gives bytes, over as
/// many calls as they take, or a code, which is written as "0", "-2" or "+5".
class TScript final : public TStream::TInterface {
public:
    explicit TScript(std::deque<std::string> reads = {}, std::deque<int> writes = {})
        : Reads(std::move(reads)), Writes(std::move(writes)) {}

    int Read(void* buffer, unsigned int size) override {
        Log += "R" + std::to_string(size) + " ";
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
        Log += "W[" + std::string(static_cast<const char*>(buffer), size) + "] ";
        if (Writes.empty())
            return static_cast<int>(size);
        const int result = Writes.front();
        Writes.pop_front();
        if (result == Throws)
            throw std::ios_base::failure("transport"); // which is not one of the stream
        return result;
    }

    std::string TakeLog() { return std::exchange(Log, std::string()); }

private:
    std::deque<std::string> Reads;
    std::deque<int> Writes;
    std::string Log;
};

/// Performs the operations, which are separated by spaces; so are the results.
std::string PerformAll(TStream& stream, const std::string& operations) {
    std::istringstream input(operations);
    std::string operation, results;
    while (input >> operation) {
        const std::string result = Perform(stream, operation);
        results += (result.empty() || results.empty() ? "" : " ") + result;
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
        {"a refill asks for the whole buffer", 2, {"abc"}, {}, "r1 r1 r1 o", "a b c 0", "R2 R2 "},
        {"the last byte value is no end", 2, {"\xFF\xFE"}, {}, "p g G", "255 255 254", "R2 "},
        {"no data ends the reading until it is cleared", 4, {"0", "x"}, {}, "g o g c g o", "-1 ef0 -1 120 0", "R4 R4 "},
        {"a failed read, a good one, whose caller clears the bit", 4, {"-2", "x"}, {}, "P o P o", "-1 f-2 120 f0", "R4 R4 "},
        {"a flush drops what was read ahead", 8, {"abc", "def"}, {}, "r1 f r1", "a d", "R8 R8 "},
        {"output waits for a full buffer", 4, {}, {}, "w123456789 f f o", "0", "W[1234] W[5678] W[9] "},
        {"a flush offers once and the rest comes first", 8, {}, {3}, "w12345678 f w9 f o", "0", "W[12345678] W[456789] "},
        {"nothing taken from a full buffer loses nothing", 4, {}, {0}, "W12345 o w6 o", "4 0 0", "W[1234] W[1234] W[6] "},
        {"each character without a buffer", 1, {}, {1, 0, -3}, "Wa Wb o Wc o", "97 -1 0 -1 f-3", "W[a] W[b] W[c] "},
        {"putting back within what was read", 8, {"ab"}, {}, "r1 u r1 u u o", "a a b0", "R8 "},
        {"no buffers, no calls", 4, {"abc", "d"}, {}, "i r1 wx d P G W1 W12 F d o i i wy r1", "0 a -1 -1 -1 0 0 0 1 0 d",
            "R4 W[x] W[y] R1 "},
        {"a size that means no buffer", 0, {"ab"}, {}, "o wxy r2", "0 ab", "W[x] W[y] R1 R1 "},
        {"more than was asked for is no answer", 4, {"+5", "ab"}, {3}, "P o c w12 f o c f r1 o", "-1 b0 b0 a 0", "R4 W[12] W[12] R4 "},
        {"nor without a buffer", 1, {"+2", "a"}, {2}, "P o c Wx o c r1", "-1 b0 -1 b0 a", "R1 W[x] R1 "},
        {"another one", 0x80000000u, {"ab"}, {}, "o wxy r2", "0 ab", "W[x] W[y] R1 R1 "},
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
        for (const std::string change : {"a2", "d i a2"}) {
            SCOPED_TRACE(change + " " + std::to_string(answer));
            TScript script({"abc", "def"}, {answer});
            TStream stream(script, 8);
            EXPECT_EQ(PerformAll(stream, "r1 wxy"), "a");
            stream.setstate(std::ios::eofbit);
            stream.exceptions(std::ios::failbit | std::ios::badbit);
            EXPECT_NO_THROW(PerformAll(stream, change));
            EXPECT_EQ(stream.exceptions(), std::ios::goodbit);
            EXPECT_EQ(PerformAll(stream, "o wz r1"), answer == -2 ? "-2 d" : "0 d");
            EXPECT_EQ(script.TakeLog(), "R8 W[xy] R2 ");
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
            EXPECT_EQ(Outcome(stream), "f-3");
            stream.clear();
            stream << "x";
            EXPECT_THROW(stream.rdbuf()->pubsync(), std::ios::failure);
            EXPECT_EQ(Outcome(stream), "f-1");
        }
        EXPECT_EQ(script.TakeLog(), "R4 W[x] W[x] ");
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
        EXPECT_EQ(Outcome(stream), answer == Throws ? "b0" : "f-2");
        stream.clear();
        stream << "y";
        EXPECT_EQ(script.TakeLog(), "W[x] W[xy] ");
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
            std::string operation(1, TStreamWalk::Operations[below(below(4) == 0 ? kinds : kinds - 3)]); // new buffers are rare
            if (operation[0] == 'W')
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

#include <kest/foundation/stream.h>

#include "support/failing_new.h"
#include "support/helper_thread.h"
#include "support/slot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <deque>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <pthread.h>
#include <unistd.h>

using namespace Kest::Test;
using Kest::_Gadgets::TStream;

namespace {

static_assert(!std::is_convertible_v<TStream*, std::streambuf*> && std::is_convertible_v<TStream*, std::iostream*>);
static_assert(!std::is_copy_constructible_v<TStream> && std::has_virtual_destructor_v<TStream>);

constexpr int EndOfFile = -1;
constexpr int Throws = std::numeric_limits<int>::min(); ///< as an answer of a scripted transport

/// What a scripted Read does: deliver bytes, over as many calls as it takes, or return a code.
struct TAnswer {
    TAnswer(int code) : Code(code) {}
    TAnswer(const char* data) : Data(data) {}
    int Code = 0;
    std::string Data;
};

/// Answers by its script, after whose end it has no data and takes everything, and writes down each call.
class TScript final : public TStream::TInterface {
public:
    explicit TScript(std::deque<TAnswer> reads = {}, std::deque<int> writes = {}) : Reads(std::move(reads)), Writes(std::move(writes)) {}

    int Read(void* buffer, unsigned int size) override {
        Log += "R" + std::to_string(size) + " ";
        if (Reads.empty())
            return 0;
        std::string& data = Reads.front().Data;
        const int result = data.empty() ? Reads.front().Code : static_cast<int>(data.copy(static_cast<char*>(buffer), size));
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
            throw std::runtime_error("transport");
        return std::min(result, static_cast<int>(size));
    }

    std::string TakeLog() { return std::exchange(Log, std::string()); }

private:
    std::deque<TAnswer> Reads;
    std::deque<int> Writes;
    std::string Log;
};

/// State and last result in one text, such as "f-2".
std::string Outcome(const TStream& stream) {
    const auto bit = [&](std::ios::iostate mask, const char* name) { return (stream.rdstate() & mask) != 0 ? name : ""; };
    return std::string(bit(std::ios::badbit, "b")) + bit(std::ios::eofbit, "e") + bit(std::ios::failbit, "f") +
           std::to_string(stream.GetLastResult());
}

/// An operation is a letter with an argument; it is done through the stream (small letter) or through its buffer (capital letter).
/// The result is a text.
std::string Perform(TStream& stream, const std::string& operation) {
    std::streambuf& buffer = *stream.rdbuf();
    const std::string argument = operation.substr(1);
    const auto size = static_cast<std::streamsize>(argument.size());
    const int number = std::atoi(argument.c_str());
    std::string text(std::tolower(operation[0]) == 'r' ? static_cast<std::size_t>(number) : 0, ' ');
    const auto cut = [&](std::streamsize length) { return text.substr(0, static_cast<std::size_t>(length)); };
    // clang-format off
    switch (operation[0]) {
    case 'p': return std::to_string(stream.peek());
    case 'P': return std::to_string(buffer.sgetc());
    case 'g': return std::to_string(stream.get());
    case 'G': return std::to_string(buffer.sbumpc());
    case 'r': return cut(stream.read(text.data(), number).gcount());
    case 'R': return cut(buffer.sgetn(text.data(), number));
    case 'u': stream.unget(); return "";
    case 'U': return std::to_string(buffer.sungetc());
    case 'w': size == 1 ? stream.put(argument[0]) : stream.write(argument.data(), size); return "";
    case 'W': return std::to_string(size == 1 ? buffer.sputc(argument[0]) : buffer.sputn(argument.data(), size));
    case 'f': stream.flush(); return "";
    case 'F': return std::to_string(buffer.pubsync());
    case 'c': stream.clear(); return "";
    case 'a': stream.allocate(number); return "";
    case 'd': stream.DestroyBuffer(); return "";
    case 'i': return std::to_string(stream.doallocate());
    case 'o': return Outcome(stream);
    }
    // clang-format on
    throw std::logic_error(operation);
}

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
        std::deque<TAnswer> Reads;
        std::deque<int> Writes;
        const char *Operations, *Results, *Log; // the log up to and including the destructor
    } cases[] = {
        // clang-format off
        {"a refill asks for the whole buffer", 2, {"abc"}, {}, "r1 r1 r1 o", "a b c 0", "R2 R2 "},
        {"what was read is used up first", 8, {"abc", "d"}, {}, "r4 o", "abcd 0", "R8 R8 "},
        {"a long read", 4, {"abcdefghij"}, {}, "r10 o", "abcdefghij 0", "R4 R4 R4 "},
        {"looking consumes nothing", 8, {"ab"}, {}, "p p r2", "97 97 ab", "R8 "},
        {"without a buffer it does", 1, {"abc"}, {}, "p p r1", "97 98 c", "R1 R1 R1 "},
        {"the last byte value is no end", 2, {"\xFF\xFE"}, {}, "p g G", "255 255 254", "R2 "},
        {"nor without a buffer", 1, {"\xFF\xFF"}, {}, "g P W\xFF", "255 255 255", "R1 R1 W[\xFF] "},
        {"no data ends the reading until it is cleared", 4, {0, "x"}, {}, "g o g c g o", "-1 ef0 -1 120 0", "R4 R4 "},
        {"no data sets no bit by itself", 4, {0}, {}, "P o", "-1 0", "R4 "},
        {"nor without a buffer", 1, {0}, {}, "P o", "-1 0", "R1 "},
        {"a failed read, a good one, whose caller clears the bit", 4, {-2, "x"}, {}, "P o P o", "-1 f-2 120 f0", "R4 R4 "},
        {"the same without a buffer", 1, {-2, 0}, {}, "P o P o", "-1 f-2 -1 f0", "R1 R1 "},
        {"input stays while output is collected", 8, {"abc"}, {}, "r1 wxy r1", "a b", "R8 W[xy] "},
        {"a flush drops what was read ahead", 8, {"abc", "def"}, {}, "r1 f r1", "a d", "R8 R8 "},
        {"one that fails does too", 8, {"abc", "def"}, {-1}, "r1 wx F o P o", "a 0 f-1 100 f0", "R8 W[x] R8 W[x] "},
        {"output waits for a full buffer", 4, {}, {}, "w123456789 f f o", "0", "W[1234] W[5678] W[9] "},
        {"a flush offers once and the rest comes first", 8, {}, {3}, "w12345678 f w9 f o", "0", "W[12345678] W[456789] "},
        {"a full buffer offers once and has room then", 4, {}, {1, 1}, "w123456 o", "0", "W[1234] W[2345] W[3456] "},
        {"nothing taken from a full buffer loses nothing", 4, {}, {0}, "W12345 o w6 o", "4 0 0", "W[1234] W[1234] W[6] "},
        {"nothing taken by a flush sets no bit", 4, {}, {0}, "w1 F o", "0 0", "W[1] W[1] "},
        {"a failed flush keeps the output", 4, {}, {-2}, "w12 F o F o", "0 f-2 0 f0", "W[12] W[12] "},
        {"each character without a buffer", 1, {}, {1, 0, -3}, "Wa Wb o Wc o", "97 -1 0 -1 f-3", "W[a] W[b] W[c] "},
        {"a flush without a buffer has nothing to do", 1, {}, {}, "f F o", "0 0", ""},
        {"putting back within what was read", 8, {"ab"}, {}, "r1 u r1 u u o", "a a b0", "R8 "},
        {"no buffers, no calls", 4, {"abc", "d"}, {}, "i r1 wx d P G W1 W12 F d o i i wy r1", "0 a -1 -1 -1 0 0 0 1 0 d",
            "R4 W[x] W[y] R1 "},
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

TEST(Stream, SizesThatMeanNoBuffer) {
    for (const unsigned int size : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(size);
        TScript script({"ab"});
        TStream stream(script, size);
        EXPECT_EQ(PerformAll(stream, "o wxy r2"), "0 ab");
        EXPECT_EQ(script.TakeLog(), "W[x] W[y] R1 R1 ");
    }
}

TEST(Stream, HasNoPositions) {
    TScript script;
    TStream stream(script, 8);
    EXPECT_EQ(stream.tellg(), std::streampos(-1));
    EXPECT_TRUE(stream.good());
    EXPECT_TRUE(stream.seekg(0).fail());
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
        TScript script({-3}, {-1, answer});
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
        EXPECT_NO_THROW(stream << "x");
        EXPECT_EQ(Outcome(stream), answer == Throws ? "b0" : "f-2");
        stream.clear();
        stream << "y";
        EXPECT_EQ(script.TakeLog(), "W[x] W[xy] ");
    }
}

TEST(Stream, NoMemoryForABufferLeaksNothingAndLeavesAStreamWithoutBuffers) {
    for (const int successes : {0, 1}) {
        SCOPED_TRACE(successes);
        TScript script({"abc"});
        const long before = BlocksInUse;
        EXPECT_THROW(
            {
                const TFailingNew failing(successes);
                TStream stream(script, 64);
            },
            std::bad_alloc);
        EXPECT_EQ(BlocksInUse, before);
        {
            TStream stream(script, 64);
            stream << "x";
            EXPECT_THROW(
                {
                    const TFailingNew failing(successes);
                    stream.allocate(32);
                },
                std::bad_alloc);
            EXPECT_EQ(BlocksInUse, before); // the old buffers are gone
            EXPECT_EQ(PerformAll(stream, "P Wx a32 r3"), "-1 -1 abc");
        }
        EXPECT_EQ(script.TakeLog(), "W[x] R32 ");
        EXPECT_EQ(BlocksInUse, before);
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
    EXPECT_EQ(Slot(&TStream::doallocate), 14); // behind the destructor and the twelve operations of a stream buffer
    EXPECT_EQ(Slot(&TStream::allocate), 15);
    EXPECT_EQ(Slot(&TStream::TInterface::Read), 0);
    EXPECT_EQ(Slot(&TStream::TInterface::Write), 1);
}

// A random walk beside a model.

/// Answers at random, alike for one seed, and delivers bytes that count up, so that a lost one shows.
class TRandomTransport final : public TStream::TInterface {
public:
    explicit TRandomTransport(unsigned int seed) : Random(seed) {}

    int Read(void* buffer, unsigned int size) override {
        const int result = Answer("R" + std::to_string(size), size);
        for (int i = 0; i < result; ++i)
            static_cast<unsigned char*>(buffer)[i] = NextByte++;
        return result;
    }

    int Write(const void* buffer, unsigned int size) override {
        return Answer("W[" + std::string(static_cast<const char*>(buffer), size) + "]", size);
    }

    std::string Log;

private:
    int Answer(const std::string& call, unsigned int size) {
        const auto kind = Random() % 8;
        const int result = kind == 0 ? 0 : kind == 1 ? -1 - static_cast<int>(Random() % 3) : 1 + static_cast<int>(Random() % size);
        Log += call + "=" + std::to_string(result) + " ";
        return result;
    }

    std::mt19937 Random;
    unsigned char NextByte = 0;
};

/// What a stream does, told with strings.
struct TModel {
    TRandomTransport& Transport;
    unsigned int Size;
    std::string Input{}, Pending{};
    std::size_t At = 0; ///< consumed of the input
    std::ios::iostate State = std::ios::goodbit;
    int Last = 0;

    bool Note(int result) {
        Last = std::min(result, 0);
        if (result < 0)
            State |= std::ios::failbit;
        return result > 0;
    }

    int Next(bool consume) {
        if (Size != 0 && At == Input.size()) {
            std::string fresh(Size, ' ');
            const int result = Transport.Read(fresh.data(), Size);
            if (!Note(result))
                return EndOfFile;
            if (Size == 1)
                return static_cast<unsigned char>(fresh[0]);
            Input = fresh.substr(0, static_cast<std::size_t>(result));
            At = 0;
        }
        return Size == 0 ? EndOfFile : static_cast<unsigned char>(Input[consume ? At++ : At]);
    }

    bool Offer(std::string& text) {
        if (text.empty())
            return true;
        const int result = Transport.Write(text.data(), static_cast<unsigned int>(text.size()));
        text.erase(0, static_cast<std::size_t>(std::max(result, 0)));
        return Note(result);
    }

    bool Put(char character) {
        std::string alone(1, character);
        if (Size < 2)
            return Size == 1 && Offer(alone);
        if (Pending.size() == Size && !Offer(Pending))
            return false;
        Pending += character;
        return true;
    }

    void Sync() {
        (void)Offer(Pending);
        Input.clear();
        At = 0;
    }

    void Allocate(unsigned int size) {
        Sync();
        Pending.clear();
        Size = size;
        State = std::ios::goodbit;
    }
};

std::string Perform(TModel& model, const std::string& operation) {
    const std::string argument = operation.substr(1);
    const auto number = static_cast<unsigned int>(std::atoi(argument.c_str()));
    const bool onStream = std::islower(operation[0]) != 0; // whose operations set bits of their own
    const auto fail = [&](std::ios::iostate bits) { model.State |= onStream ? bits : std::ios::goodbit; };
    std::string text;
    std::size_t written = 0;
    int next = 0;
    switch (std::tolower(operation[0])) {
    case 'p':
    case 'g':
        next = model.Next(std::tolower(operation[0]) == 'g');
        if (next < 0)
            fail(std::tolower(operation[0]) == 'g' ? std::ios::eofbit | std::ios::failbit : std::ios::eofbit);
        return std::to_string(next);
    case 'r':
        while (text.size() != number && (next = model.Next(true)) >= 0)
            text += static_cast<char>(next);
        if (text.size() != number)
            fail(std::ios::eofbit | std::ios::failbit);
        return text;
    case 'u':
        return std::to_string(model.At == 0 ? EndOfFile : static_cast<unsigned char>(model.Input[--model.At]));
    case 'w':
        while (written != argument.size() && model.Put(argument[written]))
            ++written;
        if (written != argument.size())
            fail(std::ios::badbit);
        if (argument.size() == 1)
            return onStream ? "" : std::to_string(written == 0 ? EndOfFile : argument[0]);
        return onStream ? "" : std::to_string(written);
    case 'f':
        model.Sync();
        return onStream ? "" : "0";
    case 'a':
        model.Allocate(std::max(number, 1u));
        return "";
    case 'd':
        model.Allocate(0);
        return "";
    case 'i':
        next = model.Size == 0 ? 1 : 0;
        if (next != 0)
            model.Allocate(1);
        return std::to_string(next);
    default:
        model.State = std::ios::goodbit;
        return "";
    }
}

TEST(Stream, BehavesLikeTheModel) {
    for (unsigned int seed = 1; seed <= 60; ++seed) {
        std::mt19937 random(seed);
        TRandomTransport transport(seed), expected(seed);
        TModel model{expected, std::max(seed % 10, 1u)};
        {
            TStream stream(transport, seed % 10);
            for (int step = 0; step != 2000; ++step) {
                std::string operation(1, "PGRUWFWRcadi"[random() % (random() % 4 == 0 ? 12 : 9)]); // new buffers are rare
                if (operation[0] == 'U' && model.Input.empty())
                    operation = "c"; // what would come back is whatever the buffer holds
                if (operation[0] == 'W')
                    for (auto length = random() % 12; length != 0; --length)
                        operation += static_cast<char>('a' + random() % 26);
                else
                    operation += std::to_string(random() % 10);
                if (operation[0] != 'U' && random() % 2 == 0 && stream.good())
                    operation[0] = static_cast<char>(std::tolower(operation[0]));
                SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step) + ": " + operation);
                const std::string result = Perform(stream, operation);
                ASSERT_EQ(result, Perform(model, operation));
                ASSERT_EQ(transport.Log, expected.Log);
                ASSERT_EQ(stream.rdstate(), model.State);
                ASSERT_EQ(stream.GetLastResult(), model.Last);
                transport.Log.clear();
                expected.Log.clear();
            }
        }
        model.Sync();
        ASSERT_EQ(transport.Log, expected.Log) << "in the destructor, seed " << seed;
    }
}

// Cancellation.

class TFunctionTransport final : public TStream::TInterface {
public:
    TFunctionTransport(std::function<void()> beforeRead, std::function<void()> beforeWrite)
        : BeforeRead(std::move(beforeRead)), BeforeWrite(std::move(beforeWrite)) {}

    int Read(void*, unsigned int) override { return BeforeRead(), 0; }
    int Write(const void* buffer, unsigned int size) override {
        BeforeWrite();
        Written.append(static_cast<const char*>(buffer), size);
        return static_cast<int>(size);
    }

    std::string Written;

private:
    std::function<void()> BeforeRead, BeforeWrite;
};

/// Blocks in a read, which is a cancellation point, for ever.
void Block(TGate& begun) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe(ends), 0);
    struct TCloser {
        ~TCloser() { ::close(Ends[0]), ::close(Ends[1]); }
        int* Ends;
    } closer{ends};
    begun.Open();
    char byte = 0;
    (void)!::read(ends[0], &byte, 1);
}

TEST(StreamCancellation, InARefillUnwindsAndWritesWhatIsPending) {
    for (const unsigned int size : {1u, 16u}) {
        SCOPED_TRACE(size);
        TGate reading;
        TFunctionTransport transport{[&] { Block(reading); }, [] { ::pthread_testcancel(); }};
        bool returned = false;
        TFunctionThread thread([&] {
            TStream stream(transport, size);
            stream << "pending";
            std::string line;
            std::getline(stream, line);
            returned = true;
        });
        thread.Start();
        reading.Wait();
        thread.Cancel();
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_FALSE(returned);
        EXPECT_EQ(transport.Written, "pending");
    }
}

TEST(StreamCancellation, InAFlushUnwindsAndTheDestructorTriesAgain) {
    void (*const acts[])(TStream&) = {
        [](TStream& stream) { stream.flush(); },
        [](TStream& stream) { stream.DestroyBuffer(); },
        [](TStream& stream) { stream.allocate(4); },
        [](TStream& stream) { stream << "more than there is room for"; },
    };
    for (const auto act : acts) {
        TGate writing;
        bool isFirst = true, returned = false;
        TFunctionTransport transport{[] {},
                                     [&] {
                                         if (std::exchange(isFirst, false))
                                             Block(writing);
                                     }};
        TFunctionThread thread([&] {
            TStream stream(transport, 7);
            stream << "pending";
            act(stream);
            returned = true;
        });
        thread.Start();
        writing.Wait();
        thread.Cancel();
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_FALSE(returned);
        EXPECT_EQ(transport.Written, "pending");
    }
}

TEST(StreamCancellation, WaitsWhileADestructorFlushes) {
    for (const bool isUnitBuffered : {false, true}) {
        SCOPED_TRACE(isUnitBuffered);
        TFunctionTransport transport{[] {}, [] { ::pthread_testcancel(); }};
        int reached = 0;
        TFunctionThread thread([&] {
            auto stream = std::make_unique<TStream>(transport, 16);
            ::pthread_cancel(::pthread_self());
            if (isUnitBuffered)
                *stream << std::unitbuf; // the sentry's destructor flushes
            *stream << "pending";
            reached = 1;
            stream.reset();
            reached = 2;
            ::pthread_testcancel();
            reached = 3;
        });
        thread.Start();
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_EQ(reached, 2);
        EXPECT_EQ(transport.Written, "pending");
    }
}

} // namespace

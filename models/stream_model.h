#ifndef KEST_MODELS_STREAM_MODEL_H
#define KEST_MODELS_STREAM_MODEL_H

/// @file
/// A model of _Gadgets::TStream, and what walks both side by side. Used by the tests and by the fuzz target of streams.

#include <kest/foundation/stream.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace Kest::Test {

using _Gadgets::TStream;

constexpr int EndOfFile = -1;

/// Tells a state and a last result in one text, such as "eof fail 0".
inline std::string Outcome(std::ios::iostate state, int lastResult) {
    const auto bit = [&](std::ios::iostate mask, const char* name) { return (state & mask) != 0 ? name : ""; };
    return std::string(bit(std::ios::badbit, "bad ")) + bit(std::ios::eofbit, "eof ") + bit(std::ios::failbit, "fail ") +
           (state == std::ios::goodbit ? "good " : "") + std::to_string(lastResult);
}

inline std::string Outcome(const TStream& stream) {
    return Outcome(stream.rdstate(), stream.GetLastResult());
}

/// An operation in words, such as "read 3", "write text" or "flush". The stream does it. With the word "buffer" before it the buffer of the
/// stream does it.
struct TOperation {
    TOperation(const std::string& words) : OnBuffer(words.rfind("buffer ", 0) == 0) {
        const std::size_t begin = OnBuffer ? words.find(' ') + 1 : 0;
        const std::size_t end = std::min(words.find(' ', begin), words.size());
        Name = words.substr(begin, end - begin);
        Argument = words.substr(std::min(end + 1, words.size()));
    }
    int Number() const { return static_cast<int>(std::strtol(Argument.c_str(), nullptr, 10)); }

    std::string Name, Argument;
    bool OnBuffer;
};

/// Does @p operation with @p stream. Returns the result as text.
inline std::string Perform(TStream& stream, const TOperation& operation) {
    std::streambuf& buffer = *stream.rdbuf();
    const auto is = [&](const char* name) { return operation.Name == name; };
    const bool onBuffer = operation.OnBuffer;
    const std::string& argument = operation.Argument;
    const auto size = static_cast<std::streamsize>(argument.size());
    if (is("peek"))
        return std::to_string(onBuffer ? buffer.sgetc() : stream.peek());
    if (is("get"))
        return std::to_string(onBuffer ? buffer.sbumpc() : stream.get());
    if (is("read")) {
        std::string text(static_cast<std::size_t>(operation.Number()), ' ');
        const auto length =
            onBuffer ? buffer.sgetn(text.data(), operation.Number()) : stream.read(text.data(), operation.Number()).gcount();
        return text.substr(0, static_cast<std::size_t>(length));
    }
    if (is("unget"))
        return onBuffer ? std::to_string(buffer.sungetc()) : (stream.unget(), "");
    if (is("write") && onBuffer)
        return std::to_string(size == 1 ? buffer.sputc(argument[0]) : buffer.sputn(argument.data(), size));
    if (is("write"))
        size == 1 ? stream.put(argument[0]) : stream.write(argument.data(), size);
    else if (is("flush") && onBuffer)
        return std::to_string(buffer.pubsync());
    else if (is("flush"))
        stream.flush();
    else if (is("clear"))
        stream.clear();
    else if (is("allocate"))
        stream.allocate(operation.Number());
    else if (is("destroy"))
        stream.DestroyBuffer();
    else if (is("doallocate"))
        return std::to_string(stream.doallocate());
    else if (is("outcome"))
        return Outcome(stream);
    else
        throw std::logic_error(operation.Name);
    return "";
}

/// Delivers bytes that count up, so that a lost byte shows. A source of random numbers decides how many bytes each call delivers or takes,
/// and when a call fails.
class TRandomTransport final : public TStream::TInterface {
public:
    using TSource = std::function<unsigned int()>;

    explicit TRandomTransport(TSource random) : Random(std::move(random)) {}

    int Read(void* buffer, unsigned int size) override {
        const int result = Answer("Read(" + std::to_string(size) + ")", size);
        for (int i = 0; i < result; ++i)
            static_cast<unsigned char*>(buffer)[i] = NextByte++;
        return result;
    }

    int Write(const void* buffer, unsigned int size) override {
        return Answer("Write(" + std::string(static_cast<const char*>(buffer), size) + ")", size);
    }

    std::string TakeLog() { return std::exchange(Log, std::string()); }

private:
    int Answer(const std::string& call, unsigned int size) {
        const unsigned int kind = Random() % 8;
        const int result = kind == 0 ? 0 : kind == 1 ? -1 - static_cast<int>(Random() % 3) : 1 + static_cast<int>(Random() % size);
        Log += call + "=" + std::to_string(result) + " ";
        return result;
    }

    TSource Random;
    unsigned char NextByte = 0;
    std::string Log;
};

/// A model of a stream, whose buffers are strings.
struct TStreamModel {
    TStream::TInterface& Transport;
    unsigned int Size;
    std::string Input{}, Pending{};
    std::size_t At = 0; ///< how much of the input is consumed
    std::ios::iostate State = std::ios::goodbit;
    int Last = 0; ///< the last transport result

    /// Notes the result of a call of the transport. Returns whether bytes went over.
    bool Note(int result) {
        Last = std::min(result, 0);
        if (result < 0)
            State |= std::ios::failbit;
        return result > 0;
    }

    /// Returns the next byte of the input, or EndOfFile.
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

    /// Offers @p text to the transport and takes away what the transport took. Returns whether it took anything, or there was nothing to
    /// take.
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

/// Does @p operation with @p model. Returns the result as text.
inline std::string Perform(TStreamModel& model, const TOperation& operation) {
    const auto is = [&](const char* name) { return operation.Name == name; };
    const bool onStream = !operation.OnBuffer; // the stream's operations set bits of their own
    const auto fail = [&](std::ios::iostate bits) { model.State |= onStream ? bits : std::ios::goodbit; };
    const std::string& argument = operation.Argument;
    const auto number = static_cast<unsigned int>(operation.Number());
    int next = 0;
    if (is("peek") || is("get")) {
        next = model.Next(is("get"));
        if (next < 0)
            fail(is("get") ? std::ios::eofbit | std::ios::failbit : std::ios::eofbit);
        return std::to_string(next);
    }
    if (is("read")) {
        std::string text;
        while (text.size() != number && (next = model.Next(true)) >= 0)
            text += static_cast<char>(next);
        if (text.size() != number)
            fail(std::ios::eofbit | std::ios::failbit);
        return text;
    }
    if (is("unget"))
        return std::to_string(model.At == 0 ? EndOfFile : static_cast<unsigned char>(model.Input[--model.At]));
    if (is("write")) {
        std::size_t written = 0;
        while (written != argument.size() && model.Put(argument[written]))
            ++written;
        if (written != argument.size())
            fail(std::ios::badbit);
        if (argument.size() == 1)
            return onStream ? "" : std::to_string(written == 0 ? EndOfFile : static_cast<unsigned char>(argument[0]));
        return onStream ? "" : std::to_string(written);
    }
    if (is("flush")) {
        model.Sync();
        return onStream ? "" : "0";
    }
    if (is("doallocate")) {
        next = model.Size == 0 ? 1 : 0;
        if (next != 0)
            model.Allocate(1);
        return std::to_string(next);
    }
    if (is("clear"))
        model.State = std::ios::goodbit;
    else
        model.Allocate(is("allocate") ? std::max(number, 1U) : 0);
    return "";
}

/// A stream and its model side by side, over transports that answer alike.
class TStreamWalk {
public:
    /// The operations that Step takes. "write" takes a text, and every other operation takes a number, which most ignore. The seeds of the
    /// fuzz target depend on this order. The last four are operations of the stream alone, and the last three of these change its buffers.
    static constexpr const char* Operations[] = {"peek",  "get",  "read",  "unget",    "write",   "flush",
                                                 "write", "read", "clear", "allocate", "destroy", "doallocate"};
    static constexpr unsigned int OperationCount = 12;

    TStreamWalk(unsigned int size, const TRandomTransport::TSource& random)
        : Transport(random), Expected(random), Stream(std::make_unique<TStream>(Transport, size)), Model{Expected, std::max(size, 1u)} {}

    /// Does an operation with both: through the stream if @p onStream and the stream is good, else through the buffer. Returns both
    /// outcomes, which must be equal: result, state and the calls of the transport.
    std::pair<std::string, std::string> Step(const std::string& words, bool onStream) {
        TOperation operation(words);
        if (operation.Name == "unget" && Model.Input.empty())
            operation = TOperation("clear"); // without input, the result of unget would be whatever the buffer holds
        operation.OnBuffer = operation.Name == "unget" || !onStream || !Stream->good();
        const std::string result = Perform(*Stream, operation), expected = Perform(Model, operation);
        return {words + ": " + result + " " + Outcome(*Stream) + " " + Transport.TakeLog(),
                words + ": " + expected + " " + Outcome(Model.State, Model.Last) + " " + Expected.TakeLog()};
    }

    /// Destroys the stream. Returns the calls of both transports at that, which must be equal.
    std::pair<std::string, std::string> End() {
        Stream.reset();
        Model.Sync();
        return {Transport.TakeLog(), Expected.TakeLog()};
    }

private:
    TRandomTransport Transport, Expected;
    std::unique_ptr<TStream> Stream;
    TStreamModel Model;
};

} // namespace Kest::Test

#endif

#ifndef KEST_MODELS_STREAM_MODEL_H
#define KEST_MODELS_STREAM_MODEL_H

#include <kest/foundation/stream.h>

#include <algorithm>
#include <cctype>
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

/// State and last result in one text, such as "f-2".
inline std::string Outcome(std::ios::iostate state, int lastResult) {
    const auto bit = [&](std::ios::iostate mask, const char* name) { return (state & mask) != 0 ? name : ""; };
    return std::string(bit(std::ios::badbit, "b")) + bit(std::ios::eofbit, "e") + bit(std::ios::failbit, "f") + std::to_string(lastResult);
}

inline std::string Outcome(const TStream& stream) {
    return Outcome(stream.rdstate(), stream.GetLastResult());
}

/// An operation is a letter with an argument; it is done through the stream (small letter) or through its buffer (capital letter).
/// The result is a text.
inline std::string Perform(TStream& stream, const std::string& operation) {
    std::streambuf& buffer = *stream.rdbuf();
    const std::string argument = operation.substr(1);
    const auto size = static_cast<std::streamsize>(argument.size());
    const auto number = static_cast<int>(std::strtol(argument.c_str(), nullptr, 10));
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

/// Delivers bytes that count up, so that a lost one shows; how many, and when it fails, is up to a source of random numbers.
class TRandomTransport final : public TStream::TInterface {
public:
    using TSource = std::function<unsigned int()>;

    explicit TRandomTransport(TSource random) : Random(std::move(random)) {}

    int Read(void* buffer, unsigned int size) override {
        const int result = Answer("R" + std::to_string(size), size);
        for (int i = 0; i < result; ++i)
            static_cast<unsigned char*>(buffer)[i] = NextByte++;
        return result;
    }

    int Write(const void* buffer, unsigned int size) override {
        return Answer("W[" + std::string(static_cast<const char*>(buffer), size) + "]", size);
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

/// What a stream does, told with strings.
struct TStreamModel {
    TStream::TInterface& Transport;
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

inline std::string Perform(TStreamModel& model, const std::string& operation) {
    const std::string argument = operation.substr(1);
    const auto number = static_cast<unsigned int>(std::strtoul(argument.c_str(), nullptr, 10));
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
            return onStream ? "" : std::to_string(written == 0 ? EndOfFile : static_cast<unsigned char>(argument[0]));
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

/// A stream and its model side by side, over transports that answer alike.
class TStreamWalk {
public:
    /// What Step takes. Those that are done through the stream only, with new buffers among them, come last.
    static constexpr const char* Operations = "PGRUWFWRcadi";
    static constexpr unsigned int OperationCount = 12;

    TStreamWalk(unsigned int size, const TRandomTransport::TSource& random)
        : Transport(random), Expected(random), Stream(std::make_unique<TStream>(Transport, size)), Model{Expected, std::max(size, 1u)} {}

    /// Does an operation with both, through the stream where that is asked for and the stream is good. Both outcomes, which are to be
    /// equal: result, state and the transport's calls.
    std::pair<std::string, std::string> Step(std::string operation, bool onStream) {
        if (operation[0] == 'U' && Model.Input.empty())
            operation = "c"; // what would come back is whatever the buffer holds
        if (operation[0] != 'U' && onStream && Stream->good())
            operation[0] = static_cast<char>(std::tolower(operation[0]));
        const std::string result = Perform(*Stream, operation), expected = Perform(Model, operation);
        return {operation + ": " + result + " " + Outcome(*Stream) + " " + Transport.TakeLog(),
                operation + ": " + expected + " " + Outcome(Model.State, Model.Last) + " " + Expected.TakeLog()};
    }

    /// The same for the end of the stream, which comes with this.
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

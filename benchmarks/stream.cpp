// Characters, lines and blocks through a stream, over a TCP connection and over a transport in memory. One iteration is as much text as a
// socket's buffers hold; between iterations the other end of the connection fills or empties them with bare calls, which are not timed.
#include <benchmarks/sockets.h>
#include <kest/net/socket_stream.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <vector>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Net/SocketStream.h>
#include <Poco/Net/StreamSocketImpl.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/asio/ip/tcp.hpp>
#endif

namespace Kest::Benchmark {

namespace {

constexpr std::size_t TextSize = 65536;
constexpr std::size_t LineSize = 64;
constexpr std::size_t BlockSize = 4096;

/// Lines of one length, the end of the line counted.
std::string MakeText() {
    std::string text(TextSize, 'k');
    for (std::size_t end = LineSize; end <= TextSize; end += LineSize)
        text[end - 1] = '\n';
    return text;
}

const std::string Text = MakeText();
const std::string Line = Text.substr(0, LineSize - 1);

// The transports. They have the calls of _Gadgets::TStream::TInterface.

/// A transport in memory, which gives the text again and again, and takes anything.
class TMemory final : public _Gadgets::TStream::TInterface {
public:
    int Read(void* buffer, unsigned size) override {
        const std::size_t count = std::min<std::size_t>(size, TextSize - Position);
        std::copy_n(Text.data() + Position, count, static_cast<char*>(buffer));
        Position = (Position + count) % TextSize;
        return static_cast<int>(count);
    }
    int Write(const void* data, unsigned size) override {
        std::copy_n(static_cast<const char*>(data), size, Taken.begin());
        return static_cast<int>(size);
    }

private:
    std::size_t Position = 0;
    std::vector<char> Taken = std::vector<char>(TextSize);
};

class TBareTransport final : public _Gadgets::TStream::TInterface {
public:
    explicit TBareTransport(int descriptor) : Socket(descriptor, AF_INET, false) {}
    int Read(void* buffer, unsigned size) override { return Socket.Receive(buffer, size); }
    int Write(const void* data, unsigned size) override { return Socket.Send(data, size); }

private:
    TBareSocket Socket;
};

/// The least stream buffer over a transport.
template <class TTransport>
class TLeastBuffer : public std::streambuf {
public:
    TLeastBuffer(TTransport& transport, std::size_t size) : Transport(transport), Input(size), Output(size) {
        setp(Output.data(), Output.data() + size);
    }

protected:
    int underflow() override {
        const int count = Transport.Read(Input.data(), static_cast<unsigned>(Input.size()));
        if (count <= 0)
            return traits_type::eof();
        setg(Input.data(), Input.data(), Input.data() + count);
        return traits_type::to_int_type(Input[0]);
    }
    int overflow(int character) override {
        if (sync() != 0)
            return traits_type::eof();
        if (character != traits_type::eof())
            (void)sputc(traits_type::to_char_type(character));
        return traits_type::not_eof(character);
    }
    int sync() override {
        const auto pending = static_cast<int>(pptr() - pbase());
        if (pending > 0 && Transport.Write(pbase(), static_cast<unsigned>(pending)) != pending)
            return -1;
        setp(Output.data(), Output.data() + Output.size());
        return 0;
    }

private:
    TTransport& Transport;
    std::vector<char> Input;
    std::vector<char> Output;
};

// A stream of each kind: Stream() over the descriptor of a connection, or over the text in memory where that is -1.

template <class TTransport>
class TLeast {
public:
    TLeast(int descriptor, std::size_t size) : Transport(Make(descriptor)), Buffer(*Transport, size), Both(&Buffer) {}
    std::iostream& Stream() { return Both; }

private:
    static std::unique_ptr<TTransport> Make(int descriptor) {
        if constexpr (std::is_same_v<TTransport, TMemory>)
            return std::make_unique<TMemory>();
        else
            return std::make_unique<TTransport>(descriptor);
    }

    std::unique_ptr<TTransport> Transport;
    TLeastBuffer<TTransport> Buffer;
    std::iostream Both;
};

class TKestOverSocket {
public:
    TKestOverSocket(int descriptor, std::size_t size) : Socket(descriptor, AF_INET), Both(Socket, static_cast<unsigned>(size)) {}
    std::iostream& Stream() { return Both; }

private:
    System::TSocket Socket;
    System::TSocket::TStream Both;
};

class TKestOverMemory {
public:
    TKestOverMemory(int, std::size_t size) : Both(Memory, static_cast<unsigned>(size)) {}
    std::iostream& Stream() { return Both; }

private:
    TMemory Memory;
    _Gadgets::TStream Both;
};

/// The standard library's stream over a string needs no transport, and begins anew with each iteration.
class TStringStream {
public:
    TStringStream(int, std::size_t) : Both(Text) {}
    std::iostream& Stream() {
        Both.clear();
        Both.seekg(0);
        Both.seekp(0);
        return Both;
    }

private:
    std::stringstream Both;
};

#ifdef KEST_BENCHMARK_POCO
class TPocoOverSocket {
public:
    TPocoOverSocket(int descriptor, std::size_t) : Both(Poco::Net::StreamSocket(new Poco::Net::StreamSocketImpl(descriptor))) {}
    std::iostream& Stream() { return Both; }

private:
    Poco::Net::SocketStream Both;
};
#endif

#ifdef KEST_BENCHMARK_BOOST
class TBoostOverSocket {
public:
    TBoostOverSocket(int descriptor, std::size_t) {
        Both.socket().assign(boost::asio::ip::tcp::v4(), descriptor);
        (void)Both.unsetf(std::ios_base::unitbuf); // set by default: each character would be a call
    }
    std::iostream& Stream() { return Both; }

private:
    boost::asio::ip::tcp::iostream Both;
};
#endif

// The work, on the whole text.

void ReadCharacters(std::istream& in) {
    for (std::size_t left = TextSize; left > 0; --left)
        benchmark::DoNotOptimize(in.get());
}

void ReadLines(std::istream& in) {
    std::string line;
    for (std::size_t left = TextSize; left > 0; left -= LineSize) {
        (void)std::getline(in, line);
        benchmark::DoNotOptimize(line.data());
    }
}

void ReadBlocks(std::istream& in) {
    char block[BlockSize];
    for (std::size_t left = TextSize; left > 0; left -= BlockSize) {
        (void)in.read(block, BlockSize);
        benchmark::DoNotOptimize(block);
    }
}

void WriteCharacters(std::ostream& out) {
    for (const char each : Text)
        out.put(each);
    out.flush();
}

void WriteLines(std::ostream& out) {
    for (std::size_t left = TextSize; left > 0; left -= LineSize)
        out << Line << '\n';
    out.flush();
}

void WriteBlocks(std::ostream& out) {
    for (std::size_t done = 0; done < TextSize; done += BlockSize)
        out.write(Text.data() + done, BlockSize);
    out.flush();
}

struct TWork {
    const char* Name;
    bool IsReading;
    void (*Call)(std::iostream&);
};

const TWork Works[] = {
    {"read characters", true, [](std::iostream& stream) { ReadCharacters(stream); }},
    {"read lines", true, [](std::iostream& stream) { ReadLines(stream); }},
    {"read blocks", true, [](std::iostream& stream) { ReadBlocks(stream); }},
    {"write characters", false, [](std::iostream& stream) { WriteCharacters(stream); }},
    {"write lines", false, [](std::iostream& stream) { WriteLines(stream); }},
    {"write blocks", false, [](std::iostream& stream) { WriteBlocks(stream); }},
};

/// The other end of the connection, with room for the whole text on its way.
class TOtherEnd {
public:
    explicit TOtherEnd(const std::array<int, 2>& ends) : Descriptor(ends[1]), Received(TextSize) {
        const int room = static_cast<int>(4 * TextSize);
        for (const int end : ends) {
            (void)Checked(::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &room, sizeof room));
            (void)Checked(::setsockopt(end, SOL_SOCKET, SO_RCVBUF, &room, sizeof room));
        }
    }
    TOtherEnd(const TOtherEnd&) = delete;
    TOtherEnd& operator=(const TOtherEnd&) = delete;
    ~TOtherEnd() { (void)::close(Descriptor); }

    void Fill() const { (void)Checked(static_cast<int>(::send(Descriptor, Text.data(), TextSize, 0))); }
    void Empty() { (void)Checked(static_cast<int>(::recv(Descriptor, Received.data(), TextSize, MSG_WAITALL))); }

private:
    const int Descriptor;
    std::vector<char> Received;
};

template <class TStream>
void OverSocket(benchmark::State& state, std::int64_t bufferSize, const TWork& work) {
    const auto ends = Connect(AF_INET);
    TOtherEnd other(ends);
    TStream stream(ends[0], static_cast<std::size_t>(bufferSize));
    for (auto _ : state) {
        if (work.IsReading)
            other.Fill();
        TimeIteration(state, CLOCK_THREAD_CPUTIME_ID, [&] { work.Call(stream.Stream()); });
        if (!work.IsReading)
            other.Empty();
    }
    if (!stream.Stream())
        state.SkipWithError("the stream failed");
    state.SetLabel("buffers of that size, but for POCO, which has 1,024 bytes, and Boost, which has 512");
}

template <class TStream>
void OverMemory(benchmark::State& state, std::int64_t bufferSize, const TWork& work) {
    TStream stream(-1, static_cast<std::size_t>(bufferSize));
    for (auto _ : state)
        work.Call(stream.Stream());
    if (!stream.Stream())
        state.SkipWithError("the stream failed");
}

template <class TBody>
void Add(const std::string& variant, const std::string& who, const TBody& body) {
    for (const TWork& work : Works) {
        for (const std::int64_t bufferSize : {1024, 8192}) {
            auto* measurement = Register(std::string(work.Name) + '/' + variant + '/' + who, bufferSize,
                                         [&work, body](benchmark::State& state, std::int64_t size) { body(state, size, work); });
            if (variant == "socket")
                measurement->UseManualTime();
        }
    }
}

} // namespace

void RegisterTopic() {
    Add("socket", "limit", OverSocket<TLeast<TBareTransport>>);
    Add("socket", "kest", OverSocket<TKestOverSocket>);
    Add("memory", "limit", OverMemory<TLeast<TMemory>>);
    Add("memory", "kest", OverMemory<TKestOverMemory>);
    Add("memory", "std", OverMemory<TStringStream>);
#ifdef KEST_BENCHMARK_POCO
    Add("socket", "poco", OverSocket<TPocoOverSocket>);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("socket", "boost", OverSocket<TBoostOverSocket>);
#endif
}

} // namespace Kest::Benchmark

/// @file
/// Sends its standard input to a line_server, line by line, and prints the answers. Waits for each answer before it sends the next line.
///
/// Shows      connecting, a stream over a socket, one time limit for all that belongs to a line, and how failures are told apart.
/// Arguments  DOMAIN ADDRESS LIMIT: "inet" and host:port, or "fs" and the path of a socket; seconds that the server may take to accept
///            the connection, and then for each line, from sending it to the end of its answer; 0 for no limit.
/// Status     0 to 8, see Usage.

#include "line_protocol.h"

#include <kest/foundation/time.h>
#include <kest/net/address.h>
#include <kest/net/socket.h>
#include <kest/net/socket_stream.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

using Kest::EException;
using Kest::System::TimeLimit;
using Kest::System::TSocket;
using namespace Kest::System::Interface::_Socket;

namespace {

enum TStatus : int {
    Fine = 0,
    OtherFailure = 1,
    BadArguments = 2,
    TimeOut = 3,
    ShutDown = 4,
    Reset = 5,
    Refused = 6,
    BadAddress = 7,
    OutputFailure = 8
};

constexpr char Usage[] =
    "usage: line_client DOMAIN ADDRESS LIMIT\n"
    "  DOMAIN   inet or fs\n"
    "  ADDRESS  inet: host:port; fs: the path of a socket\n"
    "  LIMIT    seconds to wait for the server: to connect, and for each line to be sent and answered; 0 for no limit\n"
    "exit status\n"
    "  0  every line was answered     5  reset: the server reset the connection\n"
    "  1  any other failure           6  refusal: nobody listens at the address, or there is no room\n"
    "  2  bad arguments               7  bad address\n"
    "  3  time-out                    8  the answers cannot be written\n"
    "  4  shutdown: the server closed the connection\n";

/// A socket with one limit for a whole exchange. It keeps the exception that ended the exchange. A stream calls the virtual operations of
/// its socket once for each piece that it sends or receives. So this class sets the time that is left as the limit of each piece. A stream
/// keeps only a code of an exception, which does not tell a reset from other failures.
class TExchangingSocket final : public TSocket {
public:
    using TSocket::TSocket;

    /// From now on, sending and receiving take at most @p limit seconds altogether; 0 for no limit.
    void BeginExchange(double limit) {
        constexpr std::chrono::hours aYear(365 * 24); // without a limit a flush may send a part and keep what is left
        End = std::chrono::steady_clock::now() + (limit == 0 ? TSeconds(aYear) : TSeconds(limit));
        Failure = nullptr;
    }

    int Receive(void* buffer, unsigned size) override {
        return Remember([&] {
            SetReceiveTimeout(Rest());
            return TSocket::Receive(buffer, size);
        });
    }

    int Send(const void* data, unsigned size) override {
        return Remember([&] {
            SetSendTimeout(Rest());
            return TSocket::Send(data, size);
        });
    }

    /// Throws what failed first in the exchange. Requires: something failed.
    [[noreturn]] void ThrowFailure() const { std::rethrow_exception(Failure); }

private:
    using TSeconds = std::chrono::duration<double>;

    double Rest() const {
        const TSeconds rest = End - std::chrono::steady_clock::now();
        if (rest <= rest.zero())
            throw ETimeout();
        return TimeLimit(rest);
    }

    template <class TTransfer>
    int Remember(const TTransfer& transfer) {
        try {
            return transfer();
        } catch (const EException&) {
            if (Failure == nullptr)
                Failure = std::current_exception();
            throw;
        }
    }

    std::chrono::time_point<std::chrono::steady_clock, TSeconds> End;
    std::exception_ptr Failure;
};

/// Reasons to end the program for which the library has no exception.
struct EEnd {
    TStatus Status;
    std::string Sentence;
};

/// A refused connection has no class of its own: its message is the system's description and nothing else, so this compares the message.
/// An address that the system cannot take, such as too long a path, is ENotConnected.
void Connect(TSocket& socket, const TSocket::TAddress& address, const std::string& text) {
    try {
        socket.Connect(address);
    } catch (const ENotConnected&) {
        throw EBadAddress("refused by the system");
    } catch (const EException& failure) {
        if (std::strcmp(Lines::ReasonOf(failure), std::strerror(ECONNREFUSED)) == 0) // NOLINT(concurrency-mt-unsafe): there is one thread
            throw EEnd{Refused, "refusal: nobody listens on " + text + "."};
        throw;
    }
}

/// Sends a line and reads its answer. A busy server may have closed already: then sending fails, but its answer can be read.
void Exchange(TExchangingSocket& socket, TSocket::TStream& stream, const std::string& line, std::string& answer) {
    constexpr std::size_t lengthAndSpace = 20;
    const bool isSent = static_cast<bool>(stream << line << '\n' << std::flush);
    stream.clear();
    const Lines::TRead read = Lines::ReadLine(stream, answer, lengthAndSpace + Lines::LongestLine);
    if (!isSent)
        Lines::EndSending(socket);
    if (read == Lines::TRead::Line && answer + '\n' == Lines::Busy)
        throw EEnd{Refused, "refusal: the server has no room for another client."};
    if (!isSent || read == Lines::TRead::End)
        socket.ThrowFailure();
    if (read == Lines::TRead::TooLong)
        throw EEnd{OtherFailure, "failure: the server sent an answer longer than any line."};
}

/// One stream is enough: each answer is read to its end before the next line is flushed, so no input is dropped.
void Converse(TExchangingSocket& socket, double limit) {
    TSocket::TStream stream(socket, Lines::BufferSize);
    std::string line;
    std::string answer;
    while (std::getline(std::cin, line)) {
        socket.BeginExchange(limit);
        Exchange(socket, stream, line, answer);
        std::cout << answer << '\n' << std::flush;
        if (!std::cout)
            throw EEnd{OutputFailure, "output: the answers cannot be written to standard output."};
    }
    if (std::cin.bad())
        throw EEnd{OtherFailure, "failure: standard input cannot be read."};
}

void Run(const std::string& domain, const std::string& text, double limit) {
    const TSocket::TAddress address(domain, text, true);
    TExchangingSocket socket(Lines::ConnectionOf(domain));
    socket.SetSendTimeout(limit);
    Connect(socket, address, text);
    Converse(socket, limit);
}

TStatus End(TStatus status, const std::string& sentence) {
    std::cerr << "line_client: " + sentence + '\n';
    return status;
}

TStatus RunAndTell(const std::string& domain, const std::string& text, double limit) {
    try {
        Run(domain, text, limit);
        return Fine;
    } catch (const ETimeout&) {
        return End(TimeOut, "time-out: the server did not react in time.");
    } catch (const EReset&) {
        return End(Reset, "reset: the server reset the connection.");
    } catch (const EShutdown&) {
        return End(ShutDown, "shutdown: the server closed the connection before all lines were answered.");
    } catch (const ENotConnected& failure) {
        return End(OtherFailure, std::string("failure: ") + Lines::ReasonOf(failure) + ".");
    } catch (const EIOError&) { // a broken pipe: the server closed while the line was being sent
        return End(ShutDown, "shutdown: the server closed the connection and took no more lines.");
    } catch (const EBadAddress& failure) {
        return End(BadAddress, "bad address: \"" + text + "\" cannot be used (" + Lines::ReasonOf(failure) + ").");
    } catch (const EUnsupportedDomain& failure) {
        return End(BadAddress, "bad address: \"" + domain + "\" has no addresses (" + Lines::ReasonOf(failure) + ").");
    } catch (const EEnd& end) {
        return End(end.Status, end.Sentence);
    } catch (const EException& failure) {
        return End(OtherFailure, std::string("failure: ") + Lines::ReasonOf(failure) + ".");
    } catch (const std::exception& failure) {
        return End(OtherFailure, std::string("failure: ") + failure.what() + ".");
    }
}

} // namespace

int main(int argc, char** argv) {
    if (!Lines::FillStandardDescriptors())
        return OtherFailure;
    double limit = 0;
    if (argc != 4 || !Lines::ParseLimit(argv[3], limit)) {
        std::cerr << Usage;
        return BadArguments;
    }
    std::ios_base::sync_with_stdio(false);
    return RunAndTell(argv[1], argv[2], limit);
}

/// Sends its standard input to a line_server, line by line, and prints the answers. Waits for each answer before it sends the next line.

#include "line_protocol.h"

#include <kest/net/address.h>
#include <kest/net/socket.h>
#include <kest/net/socket_stream.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

using Kest::EException;
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

constexpr char Usage[] = "usage: line_client DOMAIN ADDRESS LIMIT\n"
                         "  DOMAIN   inet or fs\n"
                         "  ADDRESS  inet: host:port; fs: the path of a socket\n"
                         "  LIMIT    seconds to wait for the server: to connect, to send a line, to get an answer; 0 for no limit\n"
                         "exit status\n"
                         "  0  every line was answered     5  reset: the server reset the connection\n"
                         "  1  any other failure           6  refusal: nobody listens at the address\n"
                         "  2  bad arguments               7  bad address\n"
                         "  3  time-out                    8  the answers cannot be written\n"
                         "  4  shutdown: the server closed the connection\n";

/// A stream keeps a code of what failed, the same one for a reset and for much else, and drops the exception. It calls its socket through
/// the virtual operations, so a socket can keep the exception.
class TRememberingSocket final : public TSocket {
public:
    using TSocket::TSocket;

    int Receive(void* buffer, unsigned size) override {
        return Remember([&] { return TSocket::Receive(buffer, size); });
    }

    int Send(const void* data, unsigned size) override {
        return Remember([&] { return TSocket::Send(data, size); });
    }

    /// Throws what ended the last transfer. Requires: a transfer failed.
    [[noreturn]] void ThrowFailure() const { std::rethrow_exception(Failure); }

private:
    template <class TTransfer>
    int Remember(const TTransfer& transfer) {
        try {
            return transfer();
        } catch (const EException&) {
            Failure = std::current_exception();
            throw;
        }
    }

    std::exception_ptr Failure;
};

struct ERefused {};
struct EOutput {};
struct EInput {};

/// A refused connection has no class of its own: its message is the system's description and nothing else, and that is compared. An
/// address that the system cannot take, such as too long a path, is not told apart from a socket without a connection, which this one is.
void Connect(TSocket& socket, const TSocket::TAddress& address) {
    try {
        socket.Connect(address);
    } catch (const ENotConnected&) {
        throw EBadAddress("refused by the system");
    } catch (const EException& failure) {
        if (Lines::ReasonOf(failure) == std::strerror(ECONNREFUSED)) // NOLINT(concurrency-mt-unsafe): there is one thread
            throw ERefused();
        throw;
    }
}

/// One stream is enough: each answer is read to its end before the next line is flushed, so no input is dropped.
void Converse(TRememberingSocket& socket) {
    constexpr std::size_t lengthAndSpace = 20;
    TSocket::TStream stream(socket, Lines::BufferSize);
    std::string line;
    std::string answer;
    while (std::getline(std::cin, line)) {
        stream << line << '\n' << std::flush;
        if (!stream || !Lines::ReadLine(stream, answer, lengthAndSpace + Lines::LongestLine)) {
            Lines::GiveUpSending(socket);
            socket.ThrowFailure();
        }
        std::cout << answer << '\n' << std::flush;
        if (!std::cout)
            throw EOutput();
    }
    if (std::cin.bad())
        throw EInput();
}

void Run(const std::string& domain, const std::string& text, double limit) {
    const TSocket::TAddress address(domain, text, true);
    TRememberingSocket socket(Lines::ConnectionOf(domain));
    Lines::SetLimits(socket, limit);
    Connect(socket, address);
    Converse(socket);
}

/// A standard stream that is closed would lend its number to the socket, and answers would go back to the server. It gets a descriptor for
/// the other direction, with which reading or writing fails.
void FillStandardDescriptors() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(number, F_GETFD) == -1)
            (void)::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY); // gives the lowest number that is free
    }
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
        return End(OtherFailure, "failure: " + Lines::ReasonOf(failure) + ".");
    } catch (const EIOError&) { // a broken pipe: the server closed while the line was being sent
        return End(ShutDown, "shutdown: the server closed the connection and took no more lines.");
    } catch (const EBadAddress& failure) {
        return End(BadAddress, "bad address: \"" + text + "\" cannot be used (" + Lines::ReasonOf(failure) + ").");
    } catch (const EUnsupportedDomain& failure) {
        return End(BadAddress, "bad address: \"" + domain + "\" has no addresses (" + Lines::ReasonOf(failure) + ").");
    } catch (const ERefused&) {
        return End(Refused, "refusal: nobody listens on " + text + ".");
    } catch (const EOutput&) {
        return End(OutputFailure, "output: the answers cannot be written to standard output.");
    } catch (const EInput&) {
        return End(OtherFailure, "failure: standard input cannot be read.");
    } catch (const Lines::ELineTooLong&) {
        return End(OtherFailure, "failure: the server sent an answer longer than any line.");
    } catch (const EException& failure) {
        return End(OtherFailure, "failure: " + Lines::ReasonOf(failure) + ".");
    } catch (const std::exception& failure) {
        return End(OtherFailure, std::string("failure: ") + failure.what() + ".");
    }
}

} // namespace

int main(int argc, char** argv) {
    double limit = 0;
    if (argc != 4 || !Lines::ParseLimit(argv[3], limit)) {
        std::cerr << Usage;
        return BadArguments;
    }
    FillStandardDescriptors();
    std::ios_base::sync_with_stdio(false);
    return RunAndTell(argv[1], argv[2], limit);
}

/// @file
/// What line_server and line_client share: the protocol, how lines are read, and how the command line is understood.
///
/// The protocol: each line that a client sends is answered by its length in bytes, a space, and the line itself. Bytes have no meaning
/// but for the newline that ends a line. A server that has no room for a client sends the one line "busy" and closes.
#ifndef KEST_EXAMPLES_LINE_PROTOCOL_H
#define KEST_EXAMPLES_LINE_PROTOCOL_H

#include <kest/net/socket.h>

#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Lines {

/// The longest line that the server takes, in bytes without its newline: a client cannot make the server hold more.
constexpr std::size_t LongestLine = std::size_t{1024} * 1024;

/// Bytes of each buffer of a socket's stream: some dozens of usual lines for one system call.
constexpr unsigned BufferSize = 4096;

/// The line of a server that has no room for a client.
constexpr std::string_view Busy = "busy\n";

/// How the reading of a line ended.
enum class TRead { Line, End, TooLong };

/// Reads up to the next newline, which is dropped. Before it has to wait it flushes the stream that @p input is tied to.
/// @return Line; End: the input ended or failed, or the tied stream failed, and @p line is what came before; TooLong: more than
///         @p longest bytes came without a newline, and @p line is the first of them.
inline TRead ReadLine(std::istream& input, std::string& line, std::size_t longest) {
    line.clear();
    std::streambuf& buffer = *input.rdbuf();
    for (;;) {
        if (buffer.in_avail() <= 0 && input.tie() != nullptr && !input.tie()->flush())
            return TRead::End;
        const int character = buffer.sbumpc();
        if (character == std::char_traits<char>::eof())
            return TRead::End;
        if (character == '\n')
            return TRead::Line;
        if (line.size() == longest)
            return TRead::TooLong;
        line.push_back(static_cast<char>(character));
    }
}

/// Reads a time limit in seconds, 0 for none; false when @p text is anything else.
inline bool ParseLimit(std::string_view text, double& limit) {
    // std::from_chars does this in one call, but libc++ does not have it for double.
    if (text.empty() || text.find_first_not_of("0123456789.eE-") != std::string_view::npos)
        return false;
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    limit = std::strtod(copy.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(limit) && limit >= 0;
}

/// What a connection of the family @p domain is made from.
inline Kest::System::TSocket::TProtocolInfo ConnectionOf(const std::string& domain) {
    return {domain, Kest::System::TSocket::Stream, domain == "inet" ? "tcp" : "ip"}; // "ip" is number 0, a family's own protocol
}

/// Shuts the sending side down after a failed flush. The stream's destructor would send what is pending and wait for the peer once more;
/// with the sending side shut down it fails at once.
inline void EndSending(Kest::System::TSocket& socket) {
    try {
        socket.Shutdown(false, true);
    } catch (const Kest::System::Interface::_Socket::EIOError&) { // the connection is gone, so sending fails at once
    }
}

/// The message of @p failure without the library's name in front, for a sentence that begins otherwise. It is part of @p failure.
inline const char* ReasonOf(const Kest::EException& failure) {
    constexpr std::string_view prefix = "Kest: ";
    return failure.GetMessage().c_str() + prefix.size();
}

/// Gives each closed standard stream a descriptor for the other direction, so that reading or writing fails. Otherwise a socket could get
/// its number: what is printed would go to the peer, and what the peer sends would be input. Requires: called first in main().
/// @return false when one is still closed.
inline bool FillStandardDescriptors() {
    for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(number, F_GETFD) == -1 && ::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY) != number)
            return false;
    }
    return true;
}

} // namespace Lines

#endif

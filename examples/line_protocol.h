/// What line_server and line_client share: how lines are read and how the command line is understood.
///
/// The protocol: each line that a client sends is answered by its length in bytes, a space, and the line itself. Bytes have no meaning
/// but for the newline that ends a line.
#ifndef KEST_EXAMPLES_LINE_PROTOCOL_H
#define KEST_EXAMPLES_LINE_PROTOCOL_H

#include <kest/foundation/time.h>
#include <kest/net/socket.h>

#include <charconv>
#include <cmath>
#include <cstddef>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>

namespace Lines {

/// The longest line that is taken, in bytes without its newline: what one client can make the server hold.
constexpr std::size_t LongestLine = std::size_t{1024} * 1024;

/// Bytes of each buffer of a socket's stream: some dozens of usual lines for one system call.
constexpr unsigned BufferSize = 4096;

struct ELineTooLong {};

/// Reads up to the next newline, which is dropped. False when the stream ended or failed first; @p line is then what came before that.
/// Before it has to wait it flushes the stream that @p input is tied to, and does not wait if that fails.
/// @throw ELineTooLong  more than @p longest bytes came without a newline; the rest of the line is not read.
inline bool ReadLine(std::istream& input, std::string& line, std::size_t longest) {
    line.clear();
    std::streambuf& buffer = *input.rdbuf();
    for (;;) {
        if (buffer.in_avail() <= 0 && input.tie() != nullptr && !input.tie()->flush())
            return false;
        const int character = buffer.sbumpc();
        if (character == std::char_traits<char>::eof())
            return false;
        if (character == '\n')
            return true;
        if (line.size() == longest)
            throw ELineTooLong();
        line.push_back(static_cast<char>(character));
    }
}

/// Reads a time limit in seconds, 0 for none; false when @p text is anything else.
inline bool ParseLimit(std::string_view text, double& limit) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), limit);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(limit) && limit >= 0;
}

/// What a connection of the family @p domain is made from.
inline Kest::System::TSocket::TProtocolInfo ConnectionOf(const std::string& domain) {
    return {domain, Kest::System::TSocket::Stream, domain == "inet" ? "tcp" : "ip"}; // "ip" is number 0, a family's own protocol
}

/// Sets both limits of @p socket. Without a limit a flush may send only a part, when the process is stopped and continued meanwhile,
/// and the rest would wait for the next flush. With one it is all or nothing, so the limit for sending is at least very long.
inline void SetLimits(Kest::System::TSocket& socket, double limit) {
    constexpr double thirtyYears = 1e9;
    socket.SetReceiveTimeout(limit);
    socket.SetSendTimeout(limit == Kest::System::EndlessTimeInterval ? thirtyYears : limit);
}

/// For a stream whose flush failed: what is pending would go out with its destructor and keep it waiting for another whole limit.
inline void GiveUpSending(Kest::System::TSocket& socket) {
    constexpr double untilItBlocks = -1;
    socket.SetSendTimeout(untilItBlocks);
}

/// The message of @p failure without the library's name in front, for a sentence that begins with the program's.
inline std::string ReasonOf(const Kest::EException& failure) {
    constexpr std::string_view prefix = "Kest: ";
    return failure.GetMessage().substr(prefix.size());
}

} // namespace Lines

#endif

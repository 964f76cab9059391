#ifndef KEST_NET_SOCKET_STREAM_H
#define KEST_NET_SOCKET_STREAM_H

/// @file
/// TSocket::TStream: a standard stream over a socket.

#include <kest/export.h>
#include <kest/foundation/stream.h>
#include <kest/net/socket.h>

namespace Kest::System {

#pragma GCC diagnostic push // for callers who build with it: no transport is destroyed through its base
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
/// A socket as the transport of a stream: each transport call is one call of the socket, and its exceptions become the codes below.
/// The socket is borrowed and must outlive the adapter.
class KEST_EXPORT _TSocketStreamInterface : public _Gadgets::TStream::TInterface {
public:
    /// A transport over @p socket.
    explicit _TSocketStreamInterface(TSocket& socket) noexcept : Socket(&socket) {}

    /// Calls the socket's Receive once. No exception leaves this operation, a cancellation does.
    /// @return what Receive returns; -1 for ETimeout, -2 for EShutdown, -3 for any other exception.
    int Read(void* buffer, unsigned int size) override;

    /// Calls the socket's Send once. No exception leaves this operation, a cancellation does.
    /// @return what Send returns; -1 for ETimeout, -2 for EShutdown, -3 for any other exception.
    int Write(const void* buffer, unsigned int size) override;

private:
    TSocket* Socket;
};
#pragma GCC diagnostic pop

/// A standard stream over a connected socket. The socket is borrowed: it must outlive the stream, and destroying the stream neither
/// shuts it down nor closes it.
///
/// A failed operation sets failbit, and GetLastResult() tells why:
///
/// | code | meaning                                                                                                          |
/// |------|------------------------------------------------------------------------------------------------------------------|
/// | -1   | a time limit of the socket ran out                                                                               |
/// | -2   | the connection was shut down: the peer closed its side, the sending side was shut down, or a signal interrupted  |
/// | -3   | any other failure, a reset or a would-block answer of a non-blocking socket among them                           |
///
/// The peer's close is -2 and failbit, never the end of the data. Reading sets eofbit too, after every code: eof() tells nothing. The
/// socket's limits and mode apply to every call.
///
/// When reading fails with -1, or with -2 by a signal, nothing is lost: failbit stays set until clear(), and then reading goes on where it
/// stopped. The result of the failed operation holds what it has read. std::getline leaves the beginning of a line in its string, and
/// empties the string when it is called again: keep the beginning. A failed read also stops writing through this stream until clear().
///
/// A last line without a line end is in the string too when the peer has closed its side, but the stream has failed. No code tells that
/// close from a signal, or why a result is -3: the exceptions of the socket's own Receive() and Send() do.
///
/// With a send limit, after any failure of a flush (-1, -2 by a signal, -3) a part may have gone out. Nobody knows how much, and the stream
/// still has all of it pending: any further flush, that of the destructor included, sends it again from its beginning. The peer would read
/// bytes twice, so the connection is over: shut the sending side down (`socket.Shutdown(false, true)`) before the stream goes or is flushed
/// again. That throws ENotConnected where a reset has ended the connection, and nothing more can go out then. Without a send limit the
/// system may take a part of a flush, and what is left goes out with the next flush, once; a flush that fails has sent nothing.
///
/// A flush also drops input that its stream has read ahead. Read an answer to its end before the next flush, or let two streams use the
/// socket in one thread, one to read and one to write: a flush of one drops nothing of the other.
///
/// Reading and writing are cancellation points (not with libc++). A cancellation in a flush makes the stream give up what was pending, with
/// a limit and without one: a part may have gone out, and the destructor sends nothing of it. While std::unitbuf is set, a cancellation
/// waits until the flush is over: a flush that fails then leaves everything pending, and the destructor sends it again. The final flush of
/// the destructor is no cancellation point. It waits for the peer if something is pending: as long as the send limit, or for ever without
/// one. A stream is not for a thread that may be cancelled while handling an exception: the process would end.
///
/// A stream and its socket belong to one thread at a time.
class KEST_EXPORT TSocket::TStream : private _TSocketStreamInterface, public _Gadgets::TStream {
public:
    /// @param socket      borrowed; must outlive the stream.
    /// @param bufferSize  bytes of each of the two buffers; 0 and 1 mean unbuffered: a call for each character.
    /// @throw std::bad_alloc  there is no memory for the buffers.
    TStream(TSocket& socket, unsigned int bufferSize);

    /// Sends what is pending, whatever comes of it, and releases the buffers.
    ~TStream() override;
};

} // namespace Kest::System

#endif

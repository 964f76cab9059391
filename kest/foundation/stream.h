#ifndef KEST_FOUNDATION_STREAM_H
#define KEST_FOUNDATION_STREAM_H

#include <kest/export.h>

#include <iostream>
#include <streambuf>

/// @file
/// A standard stream over a transport of the caller's own.

namespace Kest::_Gadgets {

/// A standard input and output stream whose bytes come from and go to a transport. It is its own stream buffer, with one buffer for
/// input and one for output, both of one size, or with none (unbuffered mode: every character is a transport call of its own).
///
/// | size        | state                                                                                       |
/// |-------------|---------------------------------------------------------------------------------------------|
/// | 2 and more  | buffered: one transport call for a refill or a flush                                        |
/// | 0 and 1     | unbuffered                                                                                  |
/// | none        | no buffers, after DestroyBuffer(): reading and writing fail at once without transport calls |
///
/// The transport is borrowed and must outlive the stream. Streams are not copied. A stream and its transport belong to one thread at
/// a time. Transport calls block as long as the transport does, and are cancellation points if it is (never with libc++).
///
/// Unbuffered reading takes every character that it looks at. Operations that look at the next character before they take it lose that
/// character: std::getline, the operators >>, peek(). In unbuffered mode read with get() and read().
///
/// A cancellation in the transport's write passes through the stream, and the stream gives up what was pending: nobody can tell how much
/// of it went out. So the destructor writes none of it again, and does not wait for the transport on the way. While std::unitbuf is set,
/// sync() holds a cancellation off, and nothing is given up. An exception of the transport leaves everything pending. An exception of
/// the transport in a read sets badbit in the reading operation, as with any standard stream.
///
/// A thread that is cancelled inside a stream operation while it is handling an exception ends the process: the standard library's own
/// stream operations catch a cancellation and pass it on, which its runtime cannot do inside a handler. Read and write outside handlers,
/// or with cancellation off (TCancellationOff), where a thread may be cancelled.
///
/// A second stream that is given this stream's buffer (std::cerr.rdbuf(stream.rdbuf())) flushes it too. Where std::unitbuf is set in the
/// second stream, as it always is in std::cerr, the standard library flushes from a destructor, and this stream cannot see that: an
/// exception of the transport, or a cancellation in it, ends the process.
/// Requires: std::unitbuf is not set in such a stream, or the transport neither throws nor is a cancellation point.
///
/// No positioning, and no putting back beyond what the input buffer still holds.
class KEST_EXPORT TStream : private std::basic_streambuf<char>, public std::basic_iostream<char> {
public:
    /// Where the bytes come from and go to. A class that implements it and is built with -Wnon-virtual-dtor as an error is declared final.
    class KEST_EXPORT TInterface {
    public:
        /// Reads at most @p size bytes into @p buffer.
        /// @return their number, at least 1; 0 at the end of the data; a negative reason code of the transport's own when reading
        ///         failed. A number above @p size is a mistake of the transport: the stream sets badbit and uses none of the bytes.
        virtual int Read(void* buffer, unsigned int size) = 0;

        /// Writes at most @p size bytes from @p buffer.
        /// @return how many were taken, which may be fewer than @p size; 0 when nothing could be written; a negative reason code of the
        ///         transport's own when writing failed. A number above @p size is a mistake of the transport: the stream sets badbit and
        ///         keeps everything pending.
        virtual int Write(const void* buffer, unsigned int size) = 0;

    protected:
        ~TInterface() = default;
    };

    /// Makes a stream whose state is good and whose exception mask is empty.
    /// @param transport   borrowed; must outlive the stream.
    /// @param bufferSize  bytes of each of the two buffers; 0, 1 and everything from 2^31 on mean unbuffered.
    /// @throw std::bad_alloc  there is no memory for the buffers.
    TStream(TInterface& transport, unsigned int bufferSize);
    TStream(const TStream&) = delete;
    TStream& operator=(const TStream&) = delete;

    /// Writes what is pending with one transport call, whatever comes of it, and releases the buffers. Cancellation is off meanwhile:
    /// it waits as long as the transport waits, so give a transport that may hang a limit of its own.
    ~TStream() override;

    /// @return the transport's negative reason code when the last transport call failed, 0 otherwise and before the first call.
    int GetLastResult() const noexcept { return LastResult; }

    /// Sets up unbuffered mode if there are no buffers, and changes nothing otherwise.
    /// @return 1 when it set up unbuffered mode, 0 otherwise.
    virtual int doallocate();

    /// Replaces the buffers by new ones of @p size bytes each; 1 or less means unbuffered. May be called at any time. First DestroyBuffer()
    /// writes what is pending. Input read ahead is lost. The state becomes good and the exception mask empty: a caller who wants state
    /// exceptions sets them again.
    /// @throw std::bad_alloc  there is no memory; the stream then has no buffers until the next call.
    virtual void allocate(int size);

    /// Empties the exception mask, writes what is pending with one transport call, dropping any exception of it, and releases the
    /// buffers; the state is good afterwards. A cancellation in the transport call passes: the buffers are then still there, and nothing is
    /// pending.
    void DestroyBuffer();

    /// Looks at the next input character. Buffered: the character stays the next one, and an empty buffer is refilled with one transport
    /// call for as much as it holds. Unbuffered: one transport call takes one byte, which is thereby consumed.
    /// A negative transport result sets failbit. A result of 0 sets no bit here; the reading operation sets eofbit. A result of more than
    /// was asked for sets badbit.
    /// @return the character, 0 to 255, or -1 when there is none.
    int underflow() override;

    /// Does what underflow() does, and consumes the character.
    /// @return the character, 0 to 255, or -1 when there is none.
    int uflow() override;

    /// Buffered: offers everything pending to the transport in one call, keeps what the transport did not take, then appends @p c.
    /// With -1 this only flushes. Unbuffered: one transport call for @p c; -1 does nothing.
    /// A negative transport result sets failbit, a result of 0 no bit, a result of more than was offered badbit. After each of these the
    /// pending bytes stay pending, and @p c is not taken.
    /// @return @p c, or 0 where @p c is -1; -1 when a transport call took nothing, or there are no buffers.
    int overflow(int c) override;

    /// Offers what is pending to the transport in one call and drops input that was read ahead but not consumed. A failure shows in the
    /// state and in GetLastResult(). std::flush, std::endl and flush() call this.
    ///
    /// While std::unitbuf is set the standard library flushes from a destructor, where an exception or a cancellation would end the
    /// process. Then no state exception leaves this call, an exception of the transport, of any class, becomes badbit, and a cancellation
    /// waits until the call is over. The standard library skips output on a failed stream silently: test the state.
    /// @return 0, always.
    int sync() override;

    // Both bases have these names; a stream's caller means the stream's.
    using std::basic_iostream<char>::char_type;
    using std::basic_iostream<char>::int_type;
    using std::basic_iostream<char>::pos_type;
    using std::basic_iostream<char>::off_type;
    using std::basic_iostream<char>::traits_type;
    using std::basic_iostream<char>::imbue;
    using std::basic_iostream<char>::getloc;

private:
    bool IsUnbuffered() const noexcept { return BufferSize == 1; }
    KEST_HIDDEN void ResetAreas() noexcept;
    KEST_HIDDEN bool Record(int result, int size);
    KEST_HIDDEN bool WritePending();
    KEST_HIDDEN void FlushFromSentry();

    TInterface& Transport;
    int LastResult = 0;
    int BufferSize = 0;
    char* InputBuffer = nullptr;
    char* OutputBuffer = nullptr;
};

} // namespace Kest::_Gadgets

#endif

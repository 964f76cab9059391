#include <kest/foundation/stream.h>

#include <kest/foundation/unwinding.h>

#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>

namespace Kest::_Gadgets {

TStream::TStream(TInterface& transport, unsigned int bufferSize)
    : std::basic_iostream<char>(static_cast<std::basic_streambuf<char>*>(this)), Transport(transport) {
    TStream::allocate(static_cast<int>(bufferSize));
}

TStream::~TStream() {
    const System::TCancellationOff off; // acted on in the final flush, a cancellation would leave through this destructor
    DestroyBuffer();
}

int TStream::doallocate() {
    if (BufferSize != 0)
        return 0;
    allocate(1);
    return 1;
}

void TStream::allocate(int size) {
    DestroyBuffer();
    if (size <= 1) {
        BufferSize = 1;
        return;
    }
    const auto bytes = static_cast<std::size_t>(size);
    std::unique_ptr<char[]> input(new char[bytes]()); // zeros: putting back before the first input gives what is there
    std::unique_ptr<char[]> output(new char[bytes]);  // both owned here until both are there
    InputBuffer = input.release();
    OutputBuffer = output.release();
    BufferSize = size;
    clear();
    ResetAreas();
}

void TStream::DestroyBuffer() {
    exceptions(std::ios_base::goodbit);
    if (BufferSize != 0)
        System::_CatchAll([&] { (void)sync(); }, [] {}); // releasing never reports
    delete[] InputBuffer;
    delete[] OutputBuffer;
    InputBuffer = nullptr;
    OutputBuffer = nullptr;
    BufferSize = 0;
    ResetAreas();
    clear();
}

int TStream::underflow() {
    const System::_TCancellationOffInStream off;
    if (IsUnbuffered()) {
        char byte = 0;
        const int result = Transport.Read(&byte, 1);
        return Record(result, 1) && result != 0 ? traits_type::to_int_type(byte) : traits_type::eof();
    }
    if (BufferSize == 0)
        return traits_type::eof();
    if (gptr() == egptr()) {
        const int result = Transport.Read(InputBuffer, static_cast<unsigned int>(BufferSize));
        if (!Record(result, BufferSize) || result == 0)
            return traits_type::eof();
        setg(InputBuffer, InputBuffer, InputBuffer + result);
    }
    return traits_type::to_int_type(*gptr());
}

int TStream::uflow() {
    const int character = underflow();
    if (character != traits_type::eof() && !IsUnbuffered())
        gbump(1);
    return character;
}

int TStream::overflow(int c) {
    const System::_TCancellationOffInStream off;
    const bool flushOnly = c == traits_type::eof();
    if (IsUnbuffered()) {
        if (flushOnly)
            return 0;
        const char byte = traits_type::to_char_type(c);
        const int result = Transport.Write(&byte, 1);
        return Record(result, 1) && result != 0 ? c : traits_type::eof();
    }
    if (BufferSize == 0 || !WritePending())
        return traits_type::eof();
    if (flushOnly)
        return 0;
    *pptr() = traits_type::to_char_type(c); // there is room: a full buffer was flushed by a write that took at least one byte
    pbump(1);
    return c;
}

int TStream::sync() {
    if ((flags() & std::ios_base::unitbuf) != 0)
        FlushFromSentry();
    else
        (void)overflow(traits_type::eof());
    if (InputBuffer != nullptr)
        setg(InputBuffer, InputBuffer + BufferSize, InputBuffer + BufferSize);
    return 0;
}

/// With std::unitbuf set the caller may be the destructor of an output operation's sentry, which nothing may leave. While the mask is empty
/// no state is thrown, so an exception is the transport's, of whatever class.
void TStream::FlushFromSentry() {
    const System::TCancellationOff off;
    const std::ios_base::iostate mask = exceptions();
    exceptions(std::ios_base::goodbit);
    System::_CatchAll([&] { (void)overflow(traits_type::eof()); }, [&] { setstate(std::ios_base::badbit); });
    try {
        exceptions(mask);
    } catch (const std::exception&) { // the mask is set before the state is thrown
    }
}

/// Both areas empty: input to be read by the next refill, the whole output buffer free.
void TStream::ResetAreas() noexcept {
    setg(InputBuffer, InputBuffer + BufferSize, InputBuffer + BufferSize);
    setp(OutputBuffer, OutputBuffer + BufferSize);
}

/// Records what the transport answered to a call for @p size bytes. When the call failed, or the answer is more than @p size, this sets the
/// state bit and returns false: the caller uses none of the bytes.
bool TStream::Record(int result, int size) {
    LastResult = result < 0 ? result : 0;
    if (result < 0)
        setstate(std::ios_base::failbit);
    else if (result > size)
        setstate(std::ios_base::badbit);
    return result >= 0 && result <= size;
}

/// Offers the pending bytes once and moves those that the transport did not take to the front. False when bytes were pending and it took
/// none. After a cancellation nobody knows how many it took: nothing is pending then, or the destructor would write some a second time.
bool TStream::WritePending() {
    const auto pending = static_cast<int>(pptr() - pbase());
    if (pending == 0)
        return true;
    const int result = System::_UndoneByCancellation([&] { return Transport.Write(OutputBuffer, static_cast<unsigned int>(pending)); },
                                                     [this] { setp(OutputBuffer, OutputBuffer + BufferSize); });
    if (!Record(result, pending) || result == 0)
        return false;
    const int remaining = pending - result;
    std::memmove(OutputBuffer, OutputBuffer + result, static_cast<std::size_t>(remaining));
    setp(OutputBuffer, OutputBuffer + BufferSize);
    pbump(remaining);
    return true;
}

} // namespace Kest::_Gadgets

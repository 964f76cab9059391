// Internal header: used by the operations on files.
#ifndef KEST_FILESYSTEM_DESCRIPTOR_H
#define KEST_FILESYSTEM_DESCRIPTOR_H

#include <kest/foundation/cancellation.h>

#include <utility>

#include <unistd.h>

namespace Kest::System {

/// Owns a descriptor, or none. The descriptor is closed with cancellation off: close is a cancellation point, and a cancellation that
/// unwound out of a destructor would end the process.
class _TDescriptor {
public:
    explicit _TDescriptor(int descriptor = -1) : Descriptor(descriptor) {}
    _TDescriptor(const _TDescriptor&) = delete;
    _TDescriptor& operator=(const _TDescriptor&) = delete;
    _TDescriptor(_TDescriptor&& other) noexcept : Descriptor(std::exchange(other.Descriptor, -1)) {}
    _TDescriptor& operator=(_TDescriptor&& other) noexcept {
        (void)Close();
        Descriptor = std::exchange(other.Descriptor, -1);
        return *this;
    }
    ~_TDescriptor() { (void)Close(); }

    /// Closes the descriptor, if there is one. Returns false when the system reports an error: it may report only now that writing failed.
    bool Close() {
        const TCancellationOff off;
        const int descriptor = std::exchange(Descriptor, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }

    bool IsOpen() const { return Descriptor >= 0; }
    int Get() const { return Descriptor; }

private:
    int Descriptor;
};

} // namespace Kest::System

#endif

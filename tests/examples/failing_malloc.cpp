// Preloaded into a program, lets a single allocation fail: the file that KEST_FAILING_MALLOC names begins with an int, which every
// allocation counts down while it is positive. The allocation that brings it to zero fails. The test that runs the program writes the int.

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

std::atomic<int>* Remaining = nullptr;

__attribute__((constructor)) void Begin() {
    const char* const path = std::getenv("KEST_FAILING_MALLOC");
    const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC); // stays open, as its number may be a standard one
    void* const memory = ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory != MAP_FAILED)
        Remaining = static_cast<std::atomic<int>*>(memory);
}

bool Fails() {
    if (Remaining == nullptr || Remaining->load() <= 0 || Remaining->fetch_sub(1) != 1)
        return false;
    errno = ENOMEM; // malloc of the C library sets it
    return true;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return Fails() ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return Fails() ? nullptr : __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
    return Fails() ? nullptr : __libc_realloc(memory, size);
}
}

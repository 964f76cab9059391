// A library that the tests load. It tells through the environment what it does and knows nothing of the library under test.
#include <cstdlib>

extern "C" {

__attribute__((visibility("default"))) int Twice(int number) {
    return 2 * number;
}

void NowhereDefined();

__attribute__((visibility("default"))) void CallNowhere() {
    NowhereDefined(); // which is no harm as long as nobody calls it, since functions are bound late
}
}

namespace {

__attribute__((constructor)) void Start() {
    setenv("KEST_TEST_PLUGIN", "started", 1);
}

__attribute__((destructor)) void End() {
    setenv("KEST_TEST_PLUGIN", "ended", 1);
}

} // namespace

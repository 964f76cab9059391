#include <kest/foundation/time.h>
#include <kest/threads/thread.h>

#include <iostream>

using namespace Kest::System;

int main() {
    const double begin = GetCurrentTime(); // seconds since 1970, with microseconds
    TThreadInstance::Sleep(0.01);          // 0.0 would be EndlessTimeInterval: sleep for ever
    const double interval = GetCurrentTime() - begin;
    std::cout << (interval > 0.0 ? "time passes" : "somebody set the clock back") << '\n';
    std::cout << (LocalToUTC(UTCToLocal(86400.0)) == 86400.0 ? "there and back" : "the zone changed its rules") << '\n';
}

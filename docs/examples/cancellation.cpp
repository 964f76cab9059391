#include <kest/foundation/time.h>
#include <kest/threads/thread.h>

#include <iostream>

using namespace Kest::System;

struct TFarewell {
    ~TFarewell() { std::cout << "destructors run\n"; }
};

class TSleeper : public TThread {
public:
    ~TSleeper() override { WaitFor(); }

    int Run() override {
        const TFarewell farewell;
        Sleep(EndlessTimeInterval); // a cancellation point, like everything that waits
        return 0;
    }
};

int main() {
    TSleeper sleeper;
    sleeper.Start();
    sleeper.Cancel(); // acted on in Sleep(), whether the thread is there already or not
    const int result = sleeper.WaitFor();
    std::cout << "the thread ended with " << result << '\n';
}

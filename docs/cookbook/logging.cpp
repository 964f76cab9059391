// Writes a log from threads that may be cancelled at any moment: each line is whole, and the log is never left locked.
#include <kest/kest.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <list>
#include <mutex>
#include <string>

using namespace Kest::System;

namespace {

class TLog {
public:
    /// @throw EException  the file cannot be opened.
    explicit TLog(const std::string& path) : File(UTF8ToSystem(path), std::ios::app) {
        if (!File)
            throw Kest::EException("cannot open " + path);
    }

    /// Adds a line. A cancellation that arrives meanwhile is acted on at the caller's next cancellation point, so that no line ends in its
    /// middle. That also makes it safe where streams are not: in a handler, and in a destructor.
    void Add(const std::string& line) {
        const TCancellationOff off; // before the lock, which is held no longer than a line takes
        const std::lock_guard<TMutex> inside(Mutex);
        File << line << '\n' << std::flush; // a full disk shows in the state, and the program goes on
    }

private:
    TMutex Mutex{false};
    std::ofstream File;
};

class TWorker : public TThread {
public:
    TWorker(TLog& log, int number) : Log(log), Number(number) {}
    ~TWorker() override { CancelAndFinish(); }

    static std::atomic<int> Begun;

    int Run() override {
        const TFarewell farewell(Log);
        ++Begun;
        while (true) {
            Log.Add("worker " + std::to_string(Number) + " works");
            TThreadInstance::Yield(); // a cancellation point; the log has none
        }
    }

private:
    struct TFarewell {
        explicit TFarewell(TLog& log) : Log(log) {}
        TFarewell(const TFarewell&) = delete;
        TFarewell& operator=(const TFarewell&) = delete;
        ~TFarewell() { Log.Add("a worker has gone"); } // also when it is cancelled
        TLog& Log;
    };

    TLog& Log;
    const int Number;
};

std::atomic<int> TWorker::Begun{0};

} // namespace

int main() try {
    {
        TLog log("log");
        std::list<TWorker> workers;
        for (int number = 0; number < 4; ++number)
            workers.emplace_back(log, number).Start();
        while (TWorker::Begun < 4)
            TThreadInstance::Sleep(0.01);
    } // the workers are cancelled and waited for, then the log is closed

    int whole = 0, gone = 0, torn = 0;
    std::ifstream file("log");
    for (std::string line; std::getline(file, line);)
        ++(GetFileNameMatch(line, "worker ? works") ? whole : line == "a worker has gone" ? gone : torn);
    std::cout << (whole > 0 ? "work was done, " : "no work was done, ") << gone << " have gone, " << torn << " lines are torn" << std::endl;
    TFile::Remove("log");
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
}

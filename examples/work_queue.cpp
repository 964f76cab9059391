// Worker threads take the lines of a text file from a bounded queue, convert each from UTF-8 to UCS-2 and back and check that nothing
// changed.

#include <kest/foundation/exception.h>
#include <kest/text/utf8.h>
#include <kest/threads/condition.h>
#include <kest/threads/mutex.h>
#include <kest/threads/thread.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace Kest::System;

namespace {

constexpr int ExitUnchanged = 0;
constexpr int ExitChanged = 1;
constexpr int ExitUsage = 2;
constexpr int ExitFailed = 3;
constexpr int ExitInterrupted = 4;

constexpr std::size_t MostWaiting = 64;
constexpr long MostWorkers = 256;
constexpr double LookInterval = 0.02; // seconds between two looks for the end or the signal

volatile std::sig_atomic_t IsInterrupted = 0;

void Interrupt(int) {
    IsInterrupted = 1;
}

/// Holds a lock for a scope.
class TInside {
public:
    explicit TInside(TMutex& mutex) : Mutex(mutex) { Mutex.Enter(); }
    TInside(const TInside&) = delete;
    TInside& operator=(const TInside&) = delete;
    ~TInside() { Mutex.Leave(); }

private:
    TMutex& Mutex;
};

struct TLine {
    unsigned long Number;
    std::string Text;
};

/// A bounded queue between one reader and many workers. It ends when the reader closes it.
class TQueue {
public:
    /// Waits for room. The waits of a queue are cancellation points and leave it free.
    void Put(TLine line) {
        const TInside inside(Mutex);
        while (Lines.size() >= MostWaiting && !IsClosed)
            HasRoom.Wait(Mutex);
        if (IsClosed)
            return;
        Lines.push_back(std::move(line));
        HasLines.Signal();
    }

    /// Waits for a line; false when the queue is closed and empty.
    bool Take(TLine& line) {
        const TInside inside(Mutex);
        while (Lines.empty() && !IsClosed)
            HasLines.Wait(Mutex);
        if (Lines.empty())
            return false;
        line = std::move(Lines.front());
        Lines.pop_front();
        HasRoom.Signal();
        return true;
    }

    /// No more lines will come; what waits is still delivered unless @p dropsWaiting.
    void Close(bool dropsWaiting) {
        const TInside inside(Mutex);
        IsClosed = true;
        if (dropsWaiting)
            Lines.clear();
        HasLines.Broadcast();
        HasRoom.Broadcast();
    }

    /// True when no more lines will come. Nobody can wait for that: a second kind of waiter would take signals away from the first.
    bool IsOver() {
        const TInside inside(Mutex);
        return IsClosed;
    }

private:
    TMutex Mutex{false};
    TCondition HasLines;
    TCondition HasRoom;
    std::deque<TLine> Lines;
    bool IsClosed = false;
};

/// Closes the queue whichever way its scope is left, so that nobody waits for it any more.
class TClosing {
public:
    explicit TClosing(TQueue& queue) : Queue(queue) {}
    TClosing(const TClosing&) = delete;
    TClosing& operator=(const TClosing&) = delete;
    ~TClosing() { Queue.Close(true); }

private:
    TQueue& Queue;
};

/// Puts the lines of a file into the queue, and closes it at the end.
class TReader : public TThread {
public:
    TReader(std::ifstream& file, TQueue& queue) : File(file), Queue(queue) {}
    TReader(const TReader&) = delete;
    TReader& operator=(const TReader&) = delete;
    ~TReader() override { (void)WaitFor(); } // started by the statement after its construction

    int Run() override {
        std::string text;
        for (unsigned long number = 1; std::getline(File, text); ++number)
            Queue.Put({number, text});
        Queue.Close(false);
        return 0;
    }

private:
    std::ifstream& File;
    TQueue& Queue;
};

/// Converts lines until the queue ends.
class TWorker : public TThread {
public:
    explicit TWorker(TQueue& queue) : Queue(queue) {}
    TWorker(const TWorker&) = delete;
    TWorker& operator=(const TWorker&) = delete;
    ~TWorker() override { (void)WaitFor(); } // the same

    int Run() override {
        TLine line{};
        while (Queue.Take(line)) {
            const auto wide = UTF8ToUCS(line.Text);
            ++Lines;
            Characters += wide.size();
            if (UCSToUTF8(wide) != line.Text)
                Changed.push_back(line.Number);
        }
        return 0;
    }

    // For others to read once the thread has been waited for.
    unsigned long Lines = 0;
    unsigned long long Characters = 0;
    std::vector<unsigned long> Changed;

private:
    TQueue& Queue;
};

/// Lets the threads work until the file's end or the signal; the summary and the exit status.
int Process(std::ifstream& file, long workerCount) {
    TQueue queue;
    std::vector<std::unique_ptr<TWorker>> workers;
    const TClosing closing(queue); // before the workers are waited for, should one of the next steps fail
    for (long index = 0; index < workerCount; ++index) {
        workers.push_back(std::make_unique<TWorker>(queue));
        workers.back()->Start();
    }
    TReader reader(file, queue);
    reader.Start();

    while (!queue.IsOver() && !IsInterrupted)
        TThreadInstance::Sleep(LookInterval); // a signal ends it
    if (IsInterrupted) {
        reader.Cancel(); // it may wait for a file that never ends
        queue.Close(true);
    }
    (void)reader.WaitFor();
    const bool isRead = IsInterrupted || !file.bad();

    unsigned long lines = 0;
    unsigned long long characters = 0;
    unsigned long changed = 0;
    for (const auto& worker : workers) {
        (void)worker->WaitFor();
        lines += worker->Lines;
        characters += worker->Characters;
        for (const unsigned long number : worker->Changed)
            std::printf("line %lu changed\n", number);
        changed += worker->Changed.size();
    }
    std::printf("%s%lu lines, %llu characters, %lu changed, %ld workers\n", IsInterrupted ? "interrupted: " : "", lines, characters,
                changed, workerCount);
    if (!isRead)
        std::fputs("the file could not be read to its end\n", stderr);
    return !isRead ? ExitFailed : IsInterrupted ? ExitInterrupted : changed != 0 ? ExitChanged : ExitUnchanged;
}

} // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const long workerCount = argc == 3 ? std::strtol(argv[2], &end, 10) : 0;
    if (argc != 3 || end == argv[2] || *end != 0 || workerCount < 1 || workerCount > MostWorkers) {
        std::fprintf(stderr,
                     "usage: %s FILE WORKERS\n"
                     "WORKERS threads (1 to 256) convert the lines of FILE from UTF-8 to UCS-2 and back and check that nothing changed.\n"
                     "Exit status: 0; 1 lines changed (their numbers are told); 3 a failure; 4 interrupted; 2 for this text.\n",
                     argv[0]);
        return ExitUsage;
    }
    struct sigaction action {};
    action.sa_handler = Interrupt;
    (void)sigaction(SIGINT, &action, nullptr);
    std::ifstream file(argv[1], std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: %s\n", argv[1], std::strerror(errno));
        return ExitFailed;
    }
    try {
        return Process(file, workerCount);
    } catch (const Kest::EException& failure) {
        std::fprintf(stderr, "%s\n", failure.GetMessage().c_str());
        return ExitFailed;
    }
}

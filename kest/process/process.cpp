#include <kest/process/process.h>

#include <kest/filesystem/file.h>
#include <kest/foundation/failure.h>
#include <kest/foundation/mapper.h>
#include <kest/foundation/system_text.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include <sys/resource.h>
#include <unistd.h>

namespace Kest::System {

namespace {

constexpr int LowestPriority = -100;
constexpr int HighestPriority = 100;

const _Template::TMetaPriorityRangeMapper<int, 20, -20> ProcessPriorityMapper{};

} // namespace

std::string GetApplicationFileName(int, char** argv) {
    std::string name;
    const char* shell = std::getenv("SHELL");
    const char* started = std::getenv("_");
    if (shell != nullptr && started != nullptr && shell == std::string_view("/bin/bash"))
        name = started;
    if (name.empty())
        name = argv[0];
    return GetFullPathName(SystemToUTF8(name));
}

void SetStandardStreamMode(TStandardStream, TStandardStreamMode) {}

void SetProcessPriority(int priority) {
    if (priority < LowestPriority || priority > HighestPriority)
        _Throw("bad priority value");
    if (::setpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()), ProcessPriorityMapper.Forward(priority)) != 0)
        _ThrowLastError();
}

int GetProcessPriority() {
    errno = 0; // getpriority returns -1 for a failure and for the nice value -1: only errno tells them apart
    const int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()));
    if (nice == -1 && errno != 0)
        _ThrowLastError();
    return ProcessPriorityMapper.Inverse(nice);
}

} // namespace Kest::System

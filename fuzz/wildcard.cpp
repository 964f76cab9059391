// Wildcard matching, beside a matcher of "*" and "?" for patterns without brackets; and what holds for any pattern.
#include "fuzz.h"

#include <kest/filesystem/file.h>

#include <vector>

using namespace Kest::Fuzz;
using Kest::System::GetFileNameMatch;

namespace {

/// By the row of all beginnings of the name that the pattern so far matches, in the "C" locale, where a byte is a character.
bool MatchesByModel(const std::string& name, const std::string& pattern) {
    std::vector<bool> matched(name.size() + 1);
    matched[0] = true;
    for (const char wanted : pattern) {
        std::vector<bool> next(name.size() + 1);
        next[0] = wanted == '*' && matched[0];
        for (std::size_t end = 1; end <= name.size(); ++end)
            next[end] = wanted == '*' ? next[end - 1] || matched[end] : matched[end - 1] && (wanted == '?' || wanted == name[end - 1]);
        matched = next;
    }
    return matched[name.size()];
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string name = input.ConsumeRandomLengthString(48);
    const std::string pattern = input.ConsumeRemainingBytesAsString();
    const std::string systemName = UpToZero(name);
    const std::string systemPattern = UpToZero(pattern);

    const bool matches = GetFileNameMatch(name, pattern);
    if (systemPattern.find('[') == std::string::npos)
        Require(matches == MatchesByModel(systemName, systemPattern), "the model's answer");
    Require(GetFileNameMatch(systemName, systemPattern) == matches, "a text ends at its first zero byte");
    if (matches) {
        Require(GetFileNameMatch(systemName + "tail", systemPattern + "*"), "a star more takes what is more");
        Require(GetFileNameMatch("head" + systemName, "*" + systemPattern), "in front too");
    }
    Require(GetFileNameMatch(name, "*"), "a star matches everything");
    if (systemName.find('[') == std::string::npos)
        Require(GetFileNameMatch(name, name), "a name matches itself, wildcards in it included");
    return 0;
}

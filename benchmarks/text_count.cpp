// Converts texts of 4 KiB by each codec for an emulator that counts instructions: see scripts/count_text.sh. Called with the name of a
// codec, what to do, the name of a script and how often. "decode" and "encode" count the result, allocate it and convert, as a program's
// call does; "decode-alone" and "encode-alone" convert into a buffer that is there.
#include <benchmarks/text_samples.h>
#include <kest/text/utf8_strings.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

using namespace Kest;

namespace {

/// How many elements the results have together.
template <class TWay>
std::size_t Repeat(const TWay& way, long rounds) {
    std::size_t elements = 0;
    for (long round = 0; round < rounds; ++round)
        elements += way();
    return elements;
}

std::size_t Convert(const System::_TUTF8Codec& codec, const std::string& task, const std::string& narrow, long rounds) {
    const std::wstring wide = System::UTF8ToUCS(narrow);
    std::wstring units(wide.size() + System::_TUTF8Codec::Slack, 0);
    std::string bytes(narrow.size() + System::_TUTF8Codec::Slack, 0);
    if (task == "decode")
        return Repeat([&] { return System::_DecodeUTF8String(codec, narrow).size(); }, rounds);
    if (task == "encode")
        return Repeat([&] { return System::_EncodeUTF8String(codec, wide).size(); }, rounds);
    if (task == "encode-alone")
        return Repeat([&] { return static_cast<std::size_t>(codec.Encode(wide.data(), wide.size(), bytes.data()) - bytes.data()); },
                      rounds);
    const auto decode = [&] {
        const char* text = narrow.data();
        const char* const end = text + narrow.size();
        return codec.Decode(text, end, end, units.data(), wide.size());
    };
    return task == "decode-alone" ? Repeat(decode, rounds) : 0;
}

} // namespace

int main(int count, char** arguments) {
    const System::_TUTF8Codec* codecs[4];
    const std::size_t usable = System::_GetUTF8Codecs(codecs);
    const long rounds = count == 5 ? std::strtol(arguments[4], nullptr, 10) : 0;
    for (std::size_t index = 0; count == 5 && index < usable; ++index)
        for (const Benchmark::TScript& script : Benchmark::Scripts)
            if (std::strcmp(codecs[index]->Name, arguments[1]) == 0 && std::strcmp(script.Name, arguments[3]) == 0)
                return Convert(*codecs[index], arguments[2], MakeText(script, 4096), rounds) > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    std::cerr << "usage: text_count CODEC decode|encode|decode-alone|encode-alone SCRIPT ROUNDS; this processor has";
    for (std::size_t index = 0; index < usable; ++index)
        std::cerr << ' ' << codecs[index]->Name;
    std::cerr << '\n';
    return 2;
}

// Converts texts of 4 KiB by each codec for an emulator that counts instructions: see scripts/count_text.sh. Called with the name of a
// codec, "decode" or "encode", the name of a script and how often.
#include <benchmarks/text_samples.h>
#include <kest/text/utf8_strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace Kest;

namespace {

template <class TWay>
int Convert(const TWay& way, int rounds) {
    std::size_t elements = 0;
    for (int round = 0; round < rounds; ++round)
        elements += way().size();
    return elements > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int Convert(const System::_TUTF8Codec& codec, bool decodes, const std::string& narrow, int rounds) {
    const std::wstring wide = System::UTF8ToUCS(narrow);
    return decodes ? Convert([&] { return System::_DecodeUTF8String(codec, narrow); }, rounds)
                   : Convert([&] { return System::_EncodeUTF8String(codec, wide); }, rounds);
}

} // namespace

int main(int count, char** arguments) {
    const System::_TUTF8Codec* codecs[4];
    const std::size_t usable = System::_GetUTF8Codecs(codecs);
    for (std::size_t index = 0; count == 5 && index < usable; ++index)
        for (const Benchmark::TScript& script : Benchmark::Scripts)
            if (std::strcmp(codecs[index]->Name, arguments[1]) == 0 && std::strcmp(script.Name, arguments[3]) == 0)
                return Convert(*codecs[index], std::strcmp(arguments[2], "decode") == 0, MakeText(script, 4096), std::atoi(arguments[4]));
    std::fprintf(stderr, "usage: text_count CODEC decode|encode SCRIPT ROUNDS; this processor has");
    for (std::size_t index = 0; index < usable; ++index)
        std::fprintf(stderr, " %s", codecs[index]->Name);
    std::fputs("\n", stderr);
    return 2;
}

#include <benchmarks/text_codecs.h>

#include <kest/text/utf8_strings.h>

namespace Kest::Benchmark {

std::wstring DecodeBy(const System::_TUTF8Codec& codec, const std::string& text) {
    return System::_DecodeUTF8String(codec, text);
}

std::string EncodeBy(const System::_TUTF8Codec& codec, const std::wstring& text) {
    return System::_EncodeUTF8String(codec, text);
}

} // namespace Kest::Benchmark

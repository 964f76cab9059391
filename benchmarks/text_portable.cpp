#include <benchmarks/text_portable.h>

#include <kest/text/utf8_strings.h>

namespace Kest::Benchmark {

std::wstring DecodePortably(const std::string& text) {
    return System::_DecodeUTF8String(System::_PortableUTF8Form, text);
}

std::string EncodePortably(const std::wstring& text) {
    return System::_EncodeUTF8String(System::_PortableUTF8Form, text);
}

} // namespace Kest::Benchmark

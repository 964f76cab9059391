#ifndef KEST_BENCHMARKS_TEXT_CODECS_H
#define KEST_BENCHMARKS_TEXT_CODECS_H

#include <kest/text/utf8_codec.h>

#include <string>

/// The text conversions by one codec, which the library does not export.
namespace Kest::Benchmark {

std::wstring DecodeBy(const System::_TUTF8Codec& codec, const std::string& text);
std::string EncodeBy(const System::_TUTF8Codec& codec, const std::wstring& text);

} // namespace Kest::Benchmark

#endif

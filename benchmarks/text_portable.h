#ifndef KEST_BENCHMARKS_TEXT_PORTABLE_H
#define KEST_BENCHMARKS_TEXT_PORTABLE_H

#include <string>

/// The portable form of the text conversions, which the library does not export.
namespace Kest::Benchmark {

std::wstring DecodePortably(const std::string& text);
std::string EncodePortably(const std::wstring& text);

} // namespace Kest::Benchmark

#endif

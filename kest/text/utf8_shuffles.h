// Internal header: used by the codecs that move elements together by a table.
#ifndef KEST_TEXT_UTF8_SHUFFLES_H
#define KEST_TEXT_UTF8_SHUFFLES_H

#include <array>
#include <cstdint>

namespace Kest::System {

/// The places that 16 bytes are taken from, by a mask of eight bits. A place beyond 16 gives a zero byte.
struct alignas(16) _TUTF8Shuffle {
    std::array<std::uint8_t, 16> Places;
};
using _TUTF8Shuffles = std::array<_TUTF8Shuffle, 256>;

/// @p choose tells for an element and a mask which of the element's bytes are kept: from the first up to the second.
template <class TChoose>
constexpr _TUTF8Shuffles _MakeUTF8Shuffles(unsigned elements, TChoose choose) {
    _TUTF8Shuffles shuffles{};
    for (unsigned mask = 0; mask < 256; ++mask) {
        std::array<std::uint8_t, 16>& places = shuffles[mask].Places;
        unsigned count = 0;
        for (unsigned element = 0; element < elements; ++element) {
            const auto [first, last] = choose(element, mask);
            for (unsigned byte = first; byte < last; ++byte)
                places[count++] = static_cast<std::uint8_t>(element * (16 / elements) + byte);
        }
        while (count < 16)
            places[count++] = 0x80;
    }
    return shuffles;
}

struct _TUTF8Bytes {
    unsigned First;
    unsigned Last;
};

/// Of eight words those whose bits are set.
inline constexpr _TUTF8Shuffles _WordShuffles = _MakeUTF8Shuffles(8, [](unsigned word, unsigned mask) {
    return _TUTF8Bytes{0, (mask >> word & 1) != 0 ? 2U : 0U};
});

/// Of eight words whose bits are set the first byte, of the others both.
inline constexpr _TUTF8Shuffles _TwoByteShuffles = _MakeUTF8Shuffles(8, [](unsigned word, unsigned mask) {
    return _TUTF8Bytes{0, (mask >> word & 1) != 0 ? 1U : 2U};
});

/// Of four elements of four bytes the last byte where the bit of the low half is set, else the second and the third where that of the high
/// half is, else the first three.
inline constexpr _TUTF8Shuffles _ThreeByteShuffles = _MakeUTF8Shuffles(4, [](unsigned element, unsigned mask) {
    const bool isOne = (mask >> element & 1) != 0;
    const bool isTwo = (mask >> element & 0x10) != 0;
    return isOne ? _TUTF8Bytes{3, 4} : _TUTF8Bytes{isTwo ? 1U : 0U, 3};
});

} // namespace Kest::System

#endif

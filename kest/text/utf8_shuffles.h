// Internal header: used by the codecs that move elements together by a table.
#ifndef KEST_TEXT_UTF8_SHUFFLES_H
#define KEST_TEXT_UTF8_SHUFFLES_H

#include <array>
#include <cstdint>

namespace Kest::System {

/// The places from which a shuffle takes 16 bytes. The place 0x80 gives a zero byte.
struct alignas(16) _TUTF8Shuffle {
    std::array<std::uint8_t, 16> Places;
};
using _TUTF8Shuffles = std::array<_TUTF8Shuffle, 256>; ///< one shuffle for each mask of eight bits

/// Makes the shuffles that move the kept bytes of @p elements elements together. @p choose tells, for an element and a mask, which bytes of
/// the element are kept: those from First up to Last, without Last.
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

/// Some bytes of an element: those from First up to Last, without Last.
struct _TUTF8Bytes {
    unsigned First;
    unsigned Last;
};

/// Keeps, of eight words, those whose bits are set in the mask.
inline constexpr _TUTF8Shuffles _WordShuffles = _MakeUTF8Shuffles(8, [](unsigned word, unsigned mask) {
    return _TUTF8Bytes{0, (mask >> word & 1) != 0 ? 2U : 0U};
});

/// Keeps the first byte of each of eight words whose bit is set in the mask, and both bytes of every other word.
inline constexpr _TUTF8Shuffles _TwoByteShuffles = _MakeUTF8Shuffles(8, [](unsigned word, unsigned mask) {
    return _TUTF8Bytes{0, (mask >> word & 1) != 0 ? 1U : 2U};
});

/// Keeps some bytes of each of four elements of four bytes. The mask has two bits for an element, one in its low half and one in its high
/// half. If the low one is set, the last byte is kept. If only the high one is set, the second and the third byte are kept. If neither is
/// set, the first three bytes are kept.
inline constexpr _TUTF8Shuffles _ThreeByteShuffles = _MakeUTF8Shuffles(4, [](unsigned element, unsigned mask) {
    const bool isOne = (mask >> element & 1) != 0;
    const bool isTwo = (mask >> element & 0x10) != 0;
    return isOne ? _TUTF8Bytes{3, 4} : _TUTF8Bytes{isTwo ? 1U : 0U, 3};
});

} // namespace Kest::System

#endif

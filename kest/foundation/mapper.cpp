#include <kest/foundation/mapper.h>

#include <cstdint>

namespace Kest::_Gadgets {

namespace {

// Differences and products wrap like the machine's: unsigned arithmetic does, signed overflow is undefined.
std::int32_t Difference(std::int32_t left, std::int32_t right) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(left) - static_cast<std::uint32_t>(right));
}

std::int32_t Product(std::int32_t left, std::int32_t right) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(left) * static_cast<std::uint32_t>(right));
}

std::int32_t Sum(std::int32_t left, std::int32_t right) noexcept {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(left) + static_cast<std::uint32_t>(right));
}

/// Truncated toward zero. The one quotient that does not fit, that of the lowest value by -1, wraps too instead of trapping.
std::int32_t Quotient(std::int32_t dividend, std::int32_t divisor) noexcept {
    return divisor == -1 ? Difference(0, dividend) : dividend / divisor;
}

} // namespace

int TLinearMapper<int>::Forward(int a) const {
    const std::int32_t product = Product(Difference(a, GetAA()), Difference(GetBB(), GetBA()));
    return Sum(GetBA(), Quotient(product, Difference(GetAB(), GetAA())));
}

int TLinearMapper<int>::Inverse(int b) const {
    const std::int32_t product = Product(Difference(b, GetBA()), Difference(GetAB(), GetAA()));
    return Sum(GetAA(), Quotient(product, Difference(GetBB(), GetBA())));
}

} // namespace Kest::_Gadgets

namespace Kest::System::_Template {

int TPriorityRangeMapper<int>::GetAA() const {
    return -100;
}

int TPriorityRangeMapper<int>::GetAB() const {
    return 100;
}

int TPriorityRangeMapper<int>::GetBA() const {
    return GetA();
}

int TPriorityRangeMapper<int>::GetBB() const {
    return GetB();
}

template class TMetaPriorityRangeMapper<int, 20, -20>;

} // namespace Kest::System::_Template

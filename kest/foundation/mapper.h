#ifndef KEST_FOUNDATION_MAPPER_H
#define KEST_FOUNDATION_MAPPER_H

#include <kest/export.h>

/// @file
/// Linear mapping of one closed range of integers onto another. Nothing here has state: any thread may call anything.

namespace Kest::_Gadgets {

template <class T>
class TLinearMapper;

/// Maps range A onto range B along the line through their two pairs of ends. The ends may be given in either order. A subclass
/// states them; they are asked for at each use, so a subclass that changes its ends changes the mapping at once.
///
/// Values outside a range are extrapolated along the same line. Divisions truncate toward zero, so Inverse(Forward(a)) is @p a only
/// where the division is exact. Arithmetic is that of 32 bits and wraps.
///
/// Objects live as static or automatic objects; there is no virtual destructor.
template <>
class KEST_EXPORT TLinearMapper<int> {
public:
    virtual int GetAA() const = 0; ///< first end of range A
    virtual int GetAB() const = 0; ///< second end of range A
    virtual int GetBA() const = 0; ///< first end of range B, the image of GetAA()
    virtual int GetBB() const = 0; ///< second end of range B, the image of GetAB()

    /// The image of @p a: GetBA() + (a - GetAA()) * (GetBB() - GetBA()) / (GetAB() - GetAA()), multiplied before it is divided.
    /// Requires: the ends of range A differ.
    int Forward(int a) const;

    /// Maps @p b from range B to range A.
    /// Requires: the ends of range B differ.
    int Inverse(int b) const;

protected:
    ~TLinearMapper() = default;
};

} // namespace Kest::_Gadgets

namespace Kest::System::_Template {

template <class T>
class TPriorityRangeMapper;

/// Maps the framework's priorities, -100 (lowest) to 100 (highest), onto a platform's scale whose ends a subclass states.
template <>
class KEST_EXPORT TPriorityRangeMapper<int> : private _Gadgets::TLinearMapper<int> {
public:
    using TLinearMapper<int>::Forward;
    using TLinearMapper<int>::Inverse;

    int GetAA() const override; ///< -100
    int GetAB() const override; ///< 100
    int GetBA() const override; ///< GetA()
    int GetBB() const override; ///< GetB()

    virtual int GetA() const = 0; ///< the platform's value for framework priority -100
    virtual int GetB() const = 0; ///< the platform's value for framework priority 100

protected:
    ~TPriorityRangeMapper() = default;
};

#pragma GCC diagnostic push // for callers who build with it: no mapper is destroyed through its base; Clang looks where each is first named
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Exported here too: Clang gives an instance the visibility of the primary template, GCC that of the specialization.
template <class T, T A, T B>
class KEST_EXPORT TMetaPriorityRangeMapper;

/// A TPriorityRangeMapper with the platform's ends as template arguments. The library itself uses the one for the nice value, 20 to -20,
/// with 20 as the least favourable end: Forward(-100) is 20, Forward(1) is 0, Forward(100) is -20, Forward(150) is -30.
template <int A, int B>
class KEST_EXPORT TMetaPriorityRangeMapper<int, A, B> : public TPriorityRangeMapper<int> {
public:
    int GetA() const override { return A; }
    int GetB() const override { return B; }
};

extern template class TMetaPriorityRangeMapper<int, 20, -20>;
#pragma GCC diagnostic pop

} // namespace Kest::System::_Template

#endif

#include <kest/foundation/mapper.h>

#include <gtest/gtest.h>

#include <limits>
#include <type_traits>

using TPriorityMapper = Kest::System::_Template::TMetaPriorityRangeMapper<int, 20, -20>;

namespace {

constexpr int Min = std::numeric_limits<int>::min();
constexpr int Max = std::numeric_limits<int>::max();

struct TAnyMapper : Kest::_Gadgets::TLinearMapper<int> {
    TAnyMapper(int aa, int ab, int ba, int bb) : AA(aa), AB(ab), BA(ba), BB(bb) {}
    int GetAA() const override { return AA; }
    int GetAB() const override { return AB; }
    int GetBA() const override { return BA; }
    int GetBB() const override { return BB; }
    int AA, AB, BA, BB;
};

static_assert(sizeof(TPriorityMapper) == sizeof(void*));
static_assert(!std::is_convertible_v<TPriorityMapper*, Kest::_Gadgets::TLinearMapper<int>*>);

TEST(Mapper, PrioritiesMapToNiceValuesAndBack) {
    const int forward[][2] = {{-100, 20}, {-99, 20}, {-97, 20}, {-51, 11}, {-50, 10},  {-1, 1},    {0, 0},     {1, 0},
                              {3, 0},     {49, -9},  {50, -10}, {99, -19}, {100, -20}, {150, -30}, {-150, 30}, // along the same line
                              {Max, 1}}; // 2^31 + 99 and the product wrap to -3960
    const int inverse[][2] = {{20, -100}, {19, -95}, {10, -50}, {1, -5}, {0, 0}, {-1, 5}, {-19, 95}, {-20, 100}, {-30, 150}};
    const TPriorityMapper mapper{};
    for (const auto& each : forward)
        EXPECT_EQ(mapper.Forward(each[0]), each[1]) << each[0];
    for (const auto& each : inverse)
        EXPECT_EQ(mapper.Inverse(each[0]), each[1]) << each[0];
}

TEST(Mapper, EndsAreAskedForAtEachUse) {
    TAnyMapper mapper(0, 10, 100, 0);
    EXPECT_EQ(mapper.Forward(3), 70);
    EXPECT_EQ(mapper.Inverse(70), 3);
    mapper.BB = 200;
    EXPECT_EQ(mapper.Forward(3), 130);
    EXPECT_EQ(mapper.Inverse(130), 3);
}

TEST(Mapper, ArithmeticWraps) {
    EXPECT_EQ(TAnyMapper(0, 3, 0, 65536).Forward(65536), 0);       // 2^32
    EXPECT_EQ(TAnyMapper(0, 3, 0, 65536).Forward(32768), Min / 3); // 2^31
    EXPECT_EQ(TAnyMapper(0, -1, 0, 1).Forward(Min), Min);          // the quotient that does not fit
    EXPECT_EQ(TAnyMapper(0, 1, 0, -1).Inverse(Min), Min);
    EXPECT_EQ(TAnyMapper(Min, Max, 1, 0).Forward(Max), 0); // a range of the length -1
    EXPECT_EQ(TAnyMapper(0, 1, Max, 0).Forward(-1), -2);   // Max + Max
}

} // namespace

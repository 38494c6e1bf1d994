// The hinge shapes over every knot triple the members use: the straight pieces,
// the smooth joins at both knots, and the mirror relation between the two sides.
#include <gtest/gtest.h>

#include <cmath>

#include "feature_vectors.h"
#include "models.h"

namespace ksieve::test {
namespace {

template <typename Check>
void for_each_triple(Check check) {
    for (const MemberCase& member_case : kMemberCases) {
        for (const MarsTerm& term : member_case.member->terms) {
            SCOPED_TRACE(testing::Message() << member_case.name << " knots " << term.a << ' '
                                            << term.t << ' ' << term.b);
            check(term.a, term.t, term.b);
        }
    }
}

TEST(MarsTermShapes, StraightPiecesFromTheKnotsOutward) {
    for_each_triple([](double a, double t, double b) {
        const double below = a - 0.25 * (b - a);
        const double above = b + 0.25 * (b - a);
        EXPECT_EQ(RightTerm(below, a, t, b), 0.0);
        EXPECT_EQ(RightTerm(above, a, t, b), above - t);
        EXPECT_EQ(LeftTerm(below, a, t, b), t - below);
        EXPECT_EQ(LeftTerm(above, a, t, b), 0.0);
        // The knots themselves belong to the straight pieces.
        EXPECT_EQ(RightTerm(a, a, t, b), 0.0);
        EXPECT_EQ(RightTerm(b, a, t, b), b - t);
        EXPECT_EQ(LeftTerm(a, a, t, b), t - a);
        EXPECT_EQ(LeftTerm(b, a, t, b), 0.0);
    });
}

TEST(MarsTermShapes, CubicMeetsTheHingeWithEqualValueAndSlope) {
    for_each_triple([](double a, double t, double b) {
        const double h = (b - a) * 1e-6;
        // Values just inside the cubic stretch against the straight pieces' values.
        const double value_tol = 1e-9 * (1.0 + std::fabs(b - t) + std::fabs(t - a));
        EXPECT_NEAR(RightTerm(a + h, a, t, b), 0.0, value_tol);
        EXPECT_NEAR(RightTerm(b - h, a, t, b), (b - t) - h, value_tol);
        EXPECT_NEAR(LeftTerm(a + h, a, t, b), (t - a) - h, value_tol);
        EXPECT_NEAR(LeftTerm(b - h, a, t, b), 0.0, value_tol);
        // One-sided slopes inside the stretch: 0 and 1 on the right side, -1 and 0 on
        // the left side, as the straight pieces beyond the knots have.
        const double slope_tol = 1e-4;
        EXPECT_NEAR((RightTerm(a + 2 * h, a, t, b) - RightTerm(a + h, a, t, b)) / h, 0.0,
                    slope_tol);
        EXPECT_NEAR((RightTerm(b - h, a, t, b) - RightTerm(b - 2 * h, a, t, b)) / h, 1.0,
                    slope_tol);
        EXPECT_NEAR((LeftTerm(a + 2 * h, a, t, b) - LeftTerm(a + h, a, t, b)) / h, -1.0, slope_tol);
        EXPECT_NEAR((LeftTerm(b - h, a, t, b) - LeftTerm(b - 2 * h, a, t, b)) / h, 0.0, slope_tol);
    });
}

TEST(MarsTermShapes, RightMinusLeftIsTheDistanceFromTheCentre) {
    for_each_triple([](double a, double t, double b) {
        for (int step = -4; step <= 24; ++step) {
            const double x = a + (b - a) * step / 20.0;
            const double tol = 1e-12 * (1.0 + std::fabs(x) + std::fabs(t));
            EXPECT_NEAR(RightTerm(x, a, t, b) - LeftTerm(x, a, t, b), x - t, tol) << "x " << x;
        }
    });
}

}  // namespace
}  // namespace ksieve::test

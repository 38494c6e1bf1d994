// The smoothed hinge shapes, and scoring through a real candidate evaluator, where
// the model id picks the member and the features come from the evaluator's caches.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <type_traits>
#include <vector>

#include "featuresextractor.h"
#include "isopattern.h"
#include "models.h"
#include "userparameters.h"

namespace ksieve {
namespace {

// Three candidates: a plausible precursor near the threshold, a clean one, and
// noise. Values in MarsFeature order; mass_z is charge times m/z.
struct FeatureVector {
    std::array<double, kMarsFeatureCount> values;
    double value(MarsFeature f) const { return values[static_cast<size_t>(f)]; }
    double mz() const { return value(MarsFeature::mass_z) / charge(); }
    int charge() const { return static_cast<int>(value(MarsFeature::charge)); }
};
constexpr std::array<FeatureVector, 3> kVectors{{
    {{0.9, 0.8, 0.7, 0.9, 0.2, 0.8, 4, 3, 0.6, 1.5, 1600.0, 2}},
    {{0.99, 0.97, 0.96, 0.995, 0.1, 0.95, 5, 4, 0.9, 0.4, 1400.0, 2}},
    {{0.2, 0.1, 0.0, 0.1, 0.95, 0.3, 2, 1, 0.1, 12.0, 1600.0, 4}},
}};

// Known scores of each member on the three vectors: members 0 and 4 to full
// precision, the others to ten decimals.
struct MemberScores {
    const MarsMember* member;
    std::array<double, 3> scores;
    double tolerance;
};
const MemberScores kMembers[] = {
    {&g_mars_model0, {-0.10248148353057229, 0.7768713751942816, -2.962197146957754}, 1e-12},
    {&g_mars_model1, {-0.2509814447, 0.7652780227, -2.3020050271}, 1e-10},
    {&g_mars_model2, {-0.1405494177, 0.7174437493, -1.8898481601}, 1e-10},
    {&g_mars_model3, {-0.2559201130, 0.9205840758, -2.4412877112}, 1e-10},
    {&g_mars_model4, {-0.17426662002765664, 0.9914409641179912, -2.164652798356612}, 1e-12},
    {&g_mars_model5, {-0.6917031920, -0.2459237881, -1.0350333736}, 1e-10},
    {&g_mars_model250, {-0.1465948166, 0.8161643312, -2.1565374744}, 1e-10},
};

// Over every knot triple the members use: the straight pieces from the knots
// outward, values continuous where the cubic meets them, and
// RightTerm - LeftTerm == x - t everywhere.
TEST(MarsTermShapes, HingesAreContinuousAndMirrorEachOther) {
    for (const MemberScores& m : kMembers) {
        for (const MarsTerm& term : m.member->terms) {
            const double a = term.a, t = term.t, b = term.b;
            SCOPED_TRACE(testing::Message() << "knots " << a << ' ' << t << ' ' << b);
            const double below = a - 0.25 * (b - a), above = b + 0.25 * (b - a);
            EXPECT_EQ(RightTerm(below, a, t, b) + RightTerm(a, a, t, b), 0.0);
            EXPECT_EQ(LeftTerm(above, a, t, b) + LeftTerm(b, a, t, b), 0.0);
            EXPECT_EQ(RightTerm(above, a, t, b), above - t);
            EXPECT_EQ(LeftTerm(below, a, t, b), t - below);
            const double h = (b - a) * 1e-6;
            const double tol = 1e-9 * (1.0 + std::fabs(b - t) + std::fabs(t - a));
            EXPECT_NEAR(RightTerm(a + h, a, t, b), 0.0, tol);
            EXPECT_NEAR(RightTerm(b - h, a, t, b), (b - t) - h, tol);
            for (int step = -4; step <= 24; ++step) {
                const double x = a + (b - a) * step / 20.0;
                EXPECT_NEAR(RightTerm(x, a, t, b) - LeftTerm(x, a, t, b), x - t,
                            1e-12 * (1.0 + std::fabs(x) + std::fabs(t)))
                    << "x " << x;
            }
        }
    }
}

// A candidate with a real isotope cluster in every slice, so that any feature a
// member asks for beyond its own can be computed and shows up in the flags.
class ScoreCandidateTest : public testing::Test {
  protected:
    FeaturesExtractor& evaluator(const FeatureVector& v, FeatureCache known = {}) {
        m_merged.clear();
        for (int i = 0; i < 4; ++i) {
            m_merged.push_back({v.mz() + i * 1.003 / v.charge(), 1000.0 / (i + 1)});
        }
        m_slices.assign(10, m_merged);
        m_ms2.m_activation_center = v.mz();
        m_grid.emplace(m_params.m_peak_window, m_slices, m_ms2);
        m_features.emplace(m_params, m_ipv, m_slices, m_merged, *m_grid, m_ms2,
                           Precursor{v.mz(), v.charge()}, known);
        return *m_features;
    }

    // Every feature of the vector, as an evaluator's cache.
    static FeatureCache preset(const FeatureVector& v) {
        FeatureCache known;
        known.m_corr_0 = v.value(MarsFeature::corr_0);
        known.m_corr_m1 = v.value(MarsFeature::corr_m1);
        known.m_corr_m2 = v.value(MarsFeature::corr_m2);
        known.m_cos_0_1 = v.value(MarsFeature::cos_0_1);
        known.m_cos_m1_0 = v.value(MarsFeature::cos_m1_0);
        known.m_cluster_fraction = v.value(MarsFeature::cluster_fraction);
        known.m_isotope_run = static_cast<int32_t>(v.value(MarsFeature::isotope_run));
        known.m_isotopes_in_window = static_cast<int32_t>(v.value(MarsFeature::isotopes_in_window));
        known.m_window_share = v.value(MarsFeature::window_share);
        known.m_mz_spread_ppm = v.value(MarsFeature::mz_spread_ppm);
        return known;
    }

    UserParameters m_params;
    IsotopeTable m_ipv = IsotopeTable(3000, {1.0, 0.6, 0.25, 0.08, 0.02});
    PeakList m_merged;
    Ms1Slices m_slices;
    MS2Spectrum m_ms2;
    std::optional<IntensityGrid> m_grid;
    std::optional<FeaturesExtractor> m_features;
};

// Each id against the member(s) it must score with: 0 and every unlisted id fall to
// MarsModel0, 1024 is another name of MarsModel4, and 15 takes the better of
// MarsModel250 and MarsModel5 (the first two vectors go to the former, the third
// to the latter).
TEST_F(ScoreCandidateTest, EachIdScoresWithItsMemberFromPresetCaches) {
    const struct {
        int32_t id;
        size_t member, other;
    } ids[] = {{0, 0, 0},   {1, 1, 1},    {2, 2, 2}, {3, 3, 3},  {4, 4, 4}, {5, 5, 5},
               {250, 6, 6}, {1024, 4, 4}, {7, 0, 0}, {-1, 0, 0}, {15, 6, 5}};
    for (const auto& id : ids) {
        for (size_t v = 0; v < kVectors.size(); ++v) {
            FeaturesExtractor& fe = evaluator(kVectors[v], preset(kVectors[v]));
            const double expected =
                std::max(kMembers[id.member].scores[v], kMembers[id.other].scores[v]);
            m_params.m_mars_model = id.id;
            EXPECT_NEAR(ScoreCandidate(m_params, fe), expected, kMembers[id.member].tolerance)
                << "id " << id.id << ", vector " << v;
        }
    }
}

// From empty caches a member fills what it reads and nothing else. isotope_run is
// left out: window_share computes it on the way.
TEST_F(ScoreCandidateTest, MembersLeaveFeaturesTheyDoNotUseUncomputed) {
    FeaturesExtractor& fe = evaluator(kVectors[0]);
    m_params.m_mars_model = 2;
    ScoreCandidate(m_params, fe);
    const FeatureCache& cache = fe.cache();
    EXPECT_TRUE(cache.m_corr_0);
    EXPECT_FALSE(cache.m_corr_m1 || cache.m_corr_m2 || cache.m_cos_0_1 ||
                 cache.m_isotopes_in_window || cache.m_mz_spread_ppm);
}

}  // namespace
}  // namespace ksieve

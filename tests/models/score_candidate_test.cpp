// Scoring through a real candidate evaluator: the model id picks the member, the
// features come from the evaluator's caches, and a member leaves the features it
// does not use uncomputed.
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <type_traits>
#include <vector>

#include "feature_vectors.h"
#include "featuresextractor.h"
#include "isopattern.h"
#include "models.h"
#include "userparameters.h"

namespace ksieve::test {
namespace {

// A candidate with a real isotope cluster in every slice, so that any feature a
// member asks for beyond its own can be computed and shows up in the flags.
class ScoreCandidateTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        FeaturesExtractor::InstallIpvMatrix(
            std::vector<std::array<double, 5>>(3000, {1.0, 0.6, 0.25, 0.08, 0.02}));
    }

    FeaturesExtractor& evaluator(const FeatureVector& v) {
        const double step = 1.003 / v.charge;
        m_merged.clear();
        for (int i = 0; i < 4; ++i) {
            m_merged.push_back({v.mz + i * step, 1000.0 / (i + 1)});
        }
        m_features.reset();
        m_slices.assign(10, m_merged);
        m_ms2.m_activation_center = v.mz;
        m_grid.emplace(m_params.m_peak_window, m_slices, m_ms2);
        m_features.emplace(m_params, m_slices, m_merged, *m_grid, m_ms2, Precursor{v.mz, v.charge});
        return *m_features;
    }

    // Fills every cache of the evaluator with the vector's values.
    static void preset(FeaturesExtractor& fe, const FeatureVector& v) {
        auto fill = [&](MarsFeature f, bool& flag, auto& field) {
            flag = true;
            field = static_cast<std::remove_reference_t<decltype(field)>>(v.value(f));
        };
        fill(MarsFeature::corr_0, fe.m_has_corr_0, fe.m_corr_0);
        fill(MarsFeature::corr_m1, fe.m_has_corr_m1, fe.m_corr_m1);
        fill(MarsFeature::corr_m2, fe.m_has_corr_m2, fe.m_corr_m2);
        fill(MarsFeature::cos_0_1, fe.m_has_cos_0_1, fe.m_cos_0_1);
        fill(MarsFeature::cos_m1_0, fe.m_has_cos_m1_0, fe.m_cos_m1_0);
        fill(MarsFeature::cluster_fraction, fe.m_has_cluster_fraction, fe.m_cluster_fraction);
        fill(MarsFeature::isotope_run, fe.m_has_isotope_run, fe.m_isotope_run);
        fill(MarsFeature::isotopes_in_window, fe.m_has_isotopes_in_window, fe.m_isotopes_in_window);
        fill(MarsFeature::window_share, fe.m_has_window_share, fe.m_window_share);
        fill(MarsFeature::mz_spread_ppm, fe.m_has_mz_spread_ppm, fe.m_mz_spread_ppm);
    }

    double score(int32_t model_id, FeaturesExtractor& fe) {
        m_params.m_mars_model = model_id;
        return ScoreCandidate(m_params, fe);
    }

    UserParameters m_params;
    PeakList m_merged;
    Ms1Slices m_slices;
    MS2Spectrum m_ms2;
    std::optional<IntensityGrid> m_grid;
    std::optional<FeaturesExtractor> m_features;
};

struct IdCase {
    int32_t id;
    size_t member;  // index into kMemberCases
};

// 0 and every unlisted id fall to MarsModel0; 1024 is another name of MarsModel4.
constexpr IdCase kIdCases[] = {{0, 0}, {1, 1},   {2, 2},    {3, 3}, {4, 4},
                               {5, 5}, {250, 6}, {1024, 4}, {7, 0}, {-1, 0}};

TEST_F(ScoreCandidateTest, EachIdScoresWithItsMemberFromPresetCaches) {
    for (const IdCase& id_case : kIdCases) {
        const MemberCase& expected = kMemberCases[id_case.member];
        for (size_t v = 0; v < kVectors.size(); ++v) {
            FeaturesExtractor& fe = evaluator(kVectors[v]);
            preset(fe, kVectors[v]);
            EXPECT_NEAR(score(id_case.id, fe), expected.scores[v], expected.tolerance)
                << "id " << id_case.id << ", vector " << v;
        }
    }
}

TEST_F(ScoreCandidateTest, Id15TakesTheBetterOfTheTwoLabellingModels) {
    // MarsModel250 wins the first two vectors, MarsModel5 the third.
    const std::array<double, 3> expected{-0.1465948166, 0.8161643312, -1.0350333736};
    for (size_t v = 0; v < kVectors.size(); ++v) {
        FeaturesExtractor& fe = evaluator(kVectors[v]);
        preset(fe, kVectors[v]);
        EXPECT_NEAR(score(15, fe), expected[v], 1e-10) << "vector " << v;
    }
}

TEST_F(ScoreCandidateTest, MembersLeaveFeaturesTheyDoNotUseUncomputed) {
    const FeatureVector& v = kVectors[0];
    // From empty caches a member fills what it reads and nothing else. isotope_run
    // is left out: window_share computes it on the way.
    FeaturesExtractor& fe = evaluator(v);
    score(2, fe);
    EXPECT_TRUE(fe.m_has_corr_0);
    EXPECT_FALSE(fe.m_has_corr_m1);
    EXPECT_FALSE(fe.m_has_corr_m2);
    EXPECT_FALSE(fe.m_has_cos_0_1);
    EXPECT_FALSE(fe.m_has_isotopes_in_window);
    EXPECT_FALSE(fe.m_has_mz_spread_ppm);

    FeaturesExtractor& both = evaluator(v);
    score(15, both);
    EXPECT_TRUE(both.m_has_mz_spread_ppm);
    EXPECT_FALSE(both.m_has_corr_m1);
    EXPECT_FALSE(both.m_has_corr_m2);
    EXPECT_FALSE(both.m_has_isotopes_in_window);
}

}  // namespace
}  // namespace ksieve::test

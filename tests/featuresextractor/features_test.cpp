#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <optional>

#include "featuresextractor.h"

namespace ksieve {
namespace {

using ::testing::HasSubstr;
constexpr std::array<double, 5> kTheory = {100, 80, 40, 15, 5};

// Pearson correlation in its two-pass form, against the evaluator's one-pass sums.
double centred_correlation(const std::vector<double>& t, const std::vector<double>& p) {
    const double mt = std::accumulate(t.begin(), t.end(), 0.0) / t.size();
    const double mp = std::accumulate(p.begin(), p.end(), 0.0) / p.size();
    double stp = 0, stt = 0, spp = 0;
    for (std::size_t k = 0; k < t.size(); ++k) {
        stp += (t[k] - mt) * (p[k] - mp);
        stt += (t[k] - mt) * (t[k] - mt);
        spp += (p[k] - mp) * (p[k] - mp);
    }
    return stp / std::sqrt(stt * spp);
}

// A scan centred at 700.5 with a charge-2 cluster at 700.0 seen in the parent scan
// (slice 4, with a peak one isotope step below) and at half height in the scan
// before it. The raw slices carry one more peak, 7 ppm above the mono-isotopic
// peak, that noise removal took out. The merged list adds a foreign peak at 700.8.
// Isotope-table rows hold their own mass in column 0, except row 1398 (this
// candidate's), which holds kTheory.
class Features : public ::testing::Test {
  protected:
    Features() {
        m_ipv.resize(15000);
        for (std::size_t m = 0; m < m_ipv.size(); ++m) {
            m_ipv[m] = {static_cast<double>(m), 1, 0, 0, 0};
        }
        m_ipv[1398] = kTheory;
        const Precursor c{700.0, 2};
        auto at = [&](int32_t i, double intensity) {
            return Peak{IsotopePosition(c, i), intensity};
        };
        m_clean[3] = {at(0, 50), at(1, 40), at(2, 20), at(3, 7.5)};
        m_clean[4] = {at(-1, 30), at(0, 100), at(1, 80), at(2, 40), at(3, 15)};
        m_raw = m_clean;
        m_raw[6] = {{700.0049, 100}};
        m_merged = m_clean[4];
        m_merged.insert(m_merged.begin() + 3, Peak{700.8, 55});
        m_ms2.m_activation_center = 700.5;
        m_grid.emplace(3.0, m_clean, m_ms2);
    }
    FeaturesExtractor make(Precursor candidate) {
        return FeaturesExtractor(m_params, m_ipv, m_raw, m_merged, *m_grid, m_ms2, candidate);
    }

    UserParameters m_params;
    IsotopeTable m_ipv;
    Ms1Slices m_clean = Ms1Slices(10);
    Ms1Slices m_raw;
    PeakList m_merged;
    MS2Spectrum m_ms2;
    std::optional<IntensityGrid> m_grid;
};

// The correlations take the best row and penalise signal below the mono-isotopic peak.
TEST_F(Features, FeaturesOfAKnownCluster) {
    FeaturesExtractor fx = make({700.0, 2});
    EXPECT_NEAR(fx.corr_0(), centred_correlation({100, 80, 40, 15, 5}, {100, 80, 40, 15, 0}),
                1e-12);
    const double clean_m1 = centred_correlation({0, 100, 80, 40, 15, 5}, {0, 50, 40, 20, 7.5, 0});
    ASSERT_GT(clean_m1, centred_correlation({0, 100, 80, 40, 15, 5}, {30, 100, 80, 40, 15, 0}));
    EXPECT_NEAR(fx.corr_m1(), clean_m1, 1e-12);
    EXPECT_NEAR(fx.corr_m2(),
                centred_correlation({0, 0, 100, 80, 40, 15, 5}, {0, 0, 50, 40, 20, 7.5, 0}), 1e-12);
    EXPECT_NEAR(fx.cos_0_1(), 1.0, 1e-12);
    EXPECT_NEAR(fx.cos_m1_0(), 100.0 / std::sqrt(12500.0), 1e-12);
    EXPECT_DOUBLE_EQ(fx.GetClusterFraction(), 352.5 / 382.5);
    EXPECT_EQ(fx.GetIsotopeRun(), 4);
    EXPECT_EQ(fx.GetIsotopesInWindow(), 4);
    EXPECT_DOUBLE_EQ(fx.GetWindowShare(), 220.0 / 275.0);
    const double mean = 700.0 + 0.0049 * 0.4;
    const double variance =
        (150 * (700.0 - mean) * (700.0 - mean) + 100 * (700.0049 - mean) * (700.0049 - mean)) / 250;
    EXPECT_NEAR(fx.GetMzSpreadPpm(), std::sqrt(variance) * 1e6 / 700.0, 1e-4);

    // A narrower window loses the fourth isotope and half the width scales the share.
    m_params.m_isolation_width = 1.0;
    FeaturesExtractor narrow = make({700.0, 2});
    EXPECT_EQ(narrow.GetIsotopesInWindow(), 3);
    EXPECT_DOUBLE_EQ(narrow.GetWindowShare(), 80.0 * 1.0 / 135.0 * 0.5);
}

// The row is the protonated mass truncated toward zero; a mass outside the table
// ends the process.
using FeaturesDeathTest = Features;

TEST_F(FeaturesDeathTest, IsotopeTableRowIsTheTruncatedProtonatedMass) {
    const std::pair<Precursor, double> rows[] = {
        {{800.0, 2}, 1598.0}, {{1500.99, 1}, 1500.0}, {{14999.9, 1}, 14999.0}, {{-0.5, 1}, 0.0}};
    for (const auto& [candidate, row] : rows) {
        EXPECT_EQ(make(candidate).GetIpvRow()[0], row) << candidate.m_mz;
    }
    const auto text =
        HasSubstr("Assertion failed: m_h_is_IPV_inited && (int)mz < m_h_IPV_Matrix.size()");
    EXPECT_DEATH(make({15000.0, 1}).GetIpvRow(), text);
    EXPECT_DEATH(make({5.0, -1}).GetIpvRow(), text);
}

}  // namespace
}  // namespace ksieve

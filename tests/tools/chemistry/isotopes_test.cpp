#include <cmath>

#include <gtest/gtest.h>

#include "chemistry.h"

namespace ksieve::chem {
namespace {

constexpr double kC12 = 0.9893;
constexpr double kC13 = 0.0107;
constexpr double kC13Shift = 13.00335483507 - 12.0;

Formula carbon(double atoms) {
    Formula formula;
    formula.m_count[kCarbon] = atoms;
    return formula;
}

// Pure carbon is a binomial: independent of the series arithmetic, and its
// peak masses are exact multiples of the 13C shift.
TEST(IsotopePattern, WholeCarbonCountsFollowTheBinomial) {
    for (int n : {1, 3, 60, 700}) {
        const std::vector<IsotopePeak> peaks = isotope_pattern(carbon(n), 6);
        ASSERT_EQ(peaks.size(), 6u);
        double binomial = std::pow(kC12, n);
        for (int k = 0; k < 6; ++k) {
            if (k > n) {
                EXPECT_EQ(peaks[k].m_abundance, 0.0) << "C" << n << " peak " << k;
                EXPECT_EQ(peaks[k].m_mass, 0.0);
                continue;
            }
            EXPECT_NEAR(peaks[k].m_abundance, binomial, 1e-12 + 1e-12 * binomial)
                << "C" << n << " peak " << k;
            EXPECT_NEAR(peaks[k].m_mass, 12.0 * n + k * kC13Shift, 1e-9) << "C" << n;
            binomial *= (n - k) / (k + 1.0) * kC13 / kC12;
        }
    }
}

// Oxygen and sulfur have isotopes two and four neutrons up, which must land in
// peaks 2 and 4, not 1.
TEST(IsotopePattern, HeavyIsotopesLandInTheirNominalPeak) {
    Formula o2;
    o2.m_count[kOxygen] = 2;
    const double a16 = 0.99757, a17 = 0.00038, a18 = 0.00205;
    const std::vector<IsotopePeak> oxygen = isotope_pattern(o2, 5);
    EXPECT_NEAR(oxygen[0].m_abundance, a16 * a16, 1e-15);
    EXPECT_NEAR(oxygen[1].m_abundance, 2 * a16 * a17, 1e-15);
    EXPECT_NEAR(oxygen[2].m_abundance, a17 * a17 + 2 * a16 * a18, 1e-15);
    EXPECT_NEAR(oxygen[3].m_abundance, 2 * a17 * a18, 1e-15);
    EXPECT_NEAR(oxygen[4].m_abundance, a18 * a18, 1e-15);
    // Peak 2 mixes 17O17O and 16O18O: its mass is their abundance-weighted mean.
    const double m16 = 15.99491461957, m17 = 16.99913175650, m18 = 17.99915961286;
    const double mixed =
        (a17 * a17 * 2 * m17 + 2 * a16 * a18 * (m16 + m18)) / (a17 * a17 + 2 * a16 * a18);
    EXPECT_NEAR(oxygen[2].m_mass, mixed, 1e-9);

    Formula s1;
    s1.m_count[kSulfur] = 1;
    const std::vector<IsotopePeak> sulfur = isotope_pattern(s1, 5);
    EXPECT_NEAR(sulfur[2].m_abundance, 0.0425, 1e-15);
    EXPECT_EQ(sulfur[3].m_abundance, 0.0);
    EXPECT_NEAR(sulfur[4].m_abundance, 0.0001, 1e-15);
}

// With all populated peaks kept, the shares add up to 1 and the mean mass of the
// distribution is the average mass of the formula.
TEST(IsotopePattern, FullPatternConservesAbundanceAndAverageMass) {
    const Formula formula = peptide_formula("MCWHK");
    const std::vector<IsotopePeak> peaks = isotope_pattern(formula, 80);
    double total = 0.0;
    double mean = 0.0;
    for (const IsotopePeak& peak : peaks) {
        total += peak.m_abundance;
        mean += peak.m_abundance * peak.m_mass;
    }
    EXPECT_NEAR(total, 1.0, 1e-12);
    EXPECT_NEAR(mean, average_mass(formula), 1e-8);
    EXPECT_NEAR(peaks[0].m_mass, monoisotopic_mass(formula), 1e-9);
}

// A fractional count must behave as a true power: half an averagine twice over
// is the whole one, term by term, masses included.
TEST(IsotopePattern, FractionalCountsComposeLikePowers) {
    for (double mass : {900.0, 2750.5, 9000.0}) {
        const std::vector<IsotopePeak> half = isotope_pattern(averagine(mass / 2), 5);
        const std::vector<IsotopePeak> whole = isotope_pattern(averagine(mass), 5);
        for (int k = 0; k < 5; ++k) {
            double abundance = 0.0;
            double moment = 0.0;
            for (int j = 0; j <= k; ++j) {
                abundance += half[j].m_abundance * half[k - j].m_abundance;
                moment += half[j].m_abundance * half[k - j].m_abundance *
                          (half[j].m_mass + half[k - j].m_mass);
            }
            EXPECT_NEAR(whole[k].m_abundance, abundance, 1e-13) << mass << " peak " << k;
            EXPECT_NEAR(whole[k].m_mass, moment / abundance, 1e-8) << mass << " peak " << k;
        }
    }
}

TEST(IsotopePattern, EmptyFormulaAndCountEdges) {
    const std::vector<IsotopePeak> nothing = isotope_pattern(Formula{}, 3);
    ASSERT_EQ(nothing.size(), 3u);
    EXPECT_EQ(nothing[0].m_abundance, 1.0);
    EXPECT_EQ(nothing[1].m_abundance, 0.0);
    EXPECT_TRUE(isotope_pattern(carbon(10), 0).empty());
    EXPECT_EQ(isotope_pattern(carbon(10), 1).size(), 1u);
}

TEST(Averagine, HitsTheRequestedMonoisotopicMass) {
    for (double mass : {57.0, 1234.5678, 14998.0}) {
        EXPECT_NEAR(monoisotopic_mass(averagine(mass)), mass, 1e-9 * mass);
    }
    EXPECT_EQ(averagine(0.0), Formula{});
    EXPECT_EQ(averagine(-1.0), Formula{});
    // The published unit weighs 111.1254 Da with older atomic weights; ours may
    // differ in the third decimal, not more.
    EXPECT_NEAR(average_mass(averagine_unit()), 111.1254, 0.005);
    EXPECT_NEAR(monoisotopic_mass(averagine_unit()), 111.0543, 0.001);
}

}  // namespace
}  // namespace ksieve::chem

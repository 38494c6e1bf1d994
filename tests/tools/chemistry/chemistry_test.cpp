#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

#include "chemistry.h"

namespace ksieve::chem {
namespace {

// Pure carbon is a binomial, independent of the series arithmetic, and its peak
// masses are exact multiples of the 13C shift.
TEST(IsotopePattern, WholeCarbonCountsFollowTheBinomial) {
    for (int n : {1, 3, 60, 700}) {
        Formula carbon;
        carbon.m_count[kCarbon] = n;
        const std::vector<IsotopePeak> peaks = isotope_pattern(carbon, 6);
        ASSERT_EQ(peaks.size(), 6u);
        double binomial = std::pow(0.9893, n);
        for (int k = 0; k < 6; ++k) {
            const double expected = k > n ? 0.0 : binomial;
            EXPECT_NEAR(peaks[k].m_abundance, expected, 1e-12 * (1 + expected)) << n << " " << k;
            EXPECT_NEAR(peaks[k].m_mass, k > n ? 0.0 : 12.0 * n + k * 1.00335483507, 1e-9);
            binomial *= (n - k) / (k + 1.0) * 0.0107 / 0.9893;
        }
    }
}

// A fractional count must behave as a true power: half an averagine convolved
// with itself is the whole one, term by term, peak masses included. Oxygen and
// sulfur, whose isotopes skip peaks, take part.
TEST(IsotopePattern, FractionalCountsComposeLikePowers) {
    for (double mass : {900.0, 2750.5, 9000.0}) {
        const std::vector<IsotopePeak> half = isotope_pattern(averagine(mass / 2), 5);
        const std::vector<IsotopePeak> whole = isotope_pattern(averagine(mass), 5);
        for (int k = 0; k < 5; ++k) {
            double abundance = 0.0;
            double moment = 0.0;
            for (int j = 0; j <= k; ++j) {
                const double product = half[j].m_abundance * half[k - j].m_abundance;
                abundance += product;
                moment += product * (half[j].m_mass + half[k - j].m_mass);
            }
            EXPECT_NEAR(whole[k].m_abundance, abundance, 1e-13) << mass << " peak " << k;
            EXPECT_NEAR(whole[k].m_mass, moment / abundance, 1e-8) << mass << " peak " << k;
        }
    }
}

TEST(Averagine, HitsTheRequestedMonoisotopicMass) {
    for (double mass : {57.0, 1234.5678, 14998.0}) {
        EXPECT_NEAR(monoisotopic_mass(averagine(mass)), mass, 1e-9 * mass);
    }
    EXPECT_EQ(averagine(-1.0), Formula{});
    // The published unit weighs 111.1254 Da with older atomic weights.
    EXPECT_NEAR(average_mass(averagine_unit()), 111.1254, 0.005);
}

TEST(Peptide, KnownCompositionsAndBadLetters) {
    // Angiotensin II, DRVYIHPF: C50H71N13O12, 1045.5345 Da; y1 of a C-terminal
    // lysine 147.1128.
    const Formula angiotensin = peptide_formula("DRVYIHPF");
    EXPECT_EQ(angiotensin, (Formula{{50, 71, 13, 12, 0}}));
    EXPECT_NEAR(monoisotopic_mass(angiotensin), 1045.5345, 1e-4);
    EXPECT_NEAR(y_ion_mz("SAMPLERK", 1).front(), 147.1128, 1e-4);
    EXPECT_EQ(residue_formula('L'), residue_formula('I'));
    for (char letter : {'B', 'J', 'O', 'U', 'X', 'Z', 'a', '*'}) {
        EXPECT_THROW(residue_formula(letter), std::invalid_argument) << letter;
    }
    EXPECT_THROW(peptide_formula(""), std::invalid_argument);
    EXPECT_THROW(b_ion_mz("PEPTIDE", 0), std::invalid_argument);
}

}  // namespace
}  // namespace ksieve::chem

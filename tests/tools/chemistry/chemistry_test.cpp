#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "chemistry.h"

#ifdef KSIEVE_OPENMS_REFERENCE
#include <OpenMS/CHEMISTRY/AASequence.h>
#include <OpenMS/CHEMISTRY/EmpiricalFormula.h>
#include <OpenMS/CHEMISTRY/ISOTOPEDISTRIBUTION/CoarseIsotopePatternGenerator.h>
#include <OpenMS/CHEMISTRY/Residue.h>
#endif

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
            double abundance = 0.0, moment = 0.0;
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

// Angiotensin II, DRVYIHPF: C50H71N13O12, 1045.5345 Da.
TEST(Peptide, KnownCompositionAveragineMassAndBadLetters) {
    EXPECT_EQ(peptide_formula("DRVYIHPF"), (Formula{{50, 71, 13, 12, 0}}));
    EXPECT_NEAR(monoisotopic_mass(peptide_formula("DRVYIHPF")), 1045.5345, 1e-4);
    for (double mass : {57.0, 1234.5678, 14998.0}) {
        EXPECT_NEAR(monoisotopic_mass(averagine(mass)), mass, 1e-9 * mass);
    }
    EXPECT_THROW(peptide_formula("PEPTIDEX"), std::invalid_argument);
    EXPECT_THROW(peptide_formula(""), std::invalid_argument);
    EXPECT_THROW(b_ion_mz("PEPTIDE", 0), std::invalid_argument);
}

#ifdef KSIEVE_OPENMS_REFERENCE
// Against OpenMS, an independent implementation whose element tables differ in
// the last digits of the atomic masses and keep older N and S abundances, hence
// small tolerances rather than equality.
TEST(OpenMSReference, PeptideFormulaMassIsotopePatternAndFragments) {
    const OpenMS::CoarseIsotopePatternGenerator generator(5);
    for (const char* sequence :
         {"PEPTIDEK", "MCWHKQNGSAYLVTER", "LVNELTEFAKTCVADESHAGCEK", "GGGGGGR"}) {
        SCOPED_TRACE(sequence);
        const OpenMS::AASequence seq = OpenMS::AASequence::fromString(sequence);
        const OpenMS::EmpiricalFormula reference = seq.getFormula();
        const Formula formula = peptide_formula(sequence);
        EXPECT_NEAR(monoisotopic_mass(formula), reference.getMonoWeight(), 2e-5);
        EXPECT_NEAR(average_mass(formula), reference.getAverageWeight(), 0.02);
        // Patterns compared after scaling both to their largest peak.
        const OpenMS::IsotopeDistribution expected = generator.run(reference);
        const std::vector<IsotopePeak> ours = isotope_pattern(formula, 5);
        ASSERT_EQ(expected.size(), 5u);
        double ours_max = 0.0, expected_max = 0.0;
        for (int k = 0; k < 5; ++k) {
            ours_max = std::max(ours_max, ours[k].m_abundance);
            expected_max = std::max(expected_max, double(expected[k].getIntensity()));
        }
        for (int k = 0; k < 5; ++k) {
            EXPECT_NEAR(ours[k].m_abundance / ours_max, expected[k].getIntensity() / expected_max,
                        2e-3)
                << "peak " << k;
        }
        for (int z : {1, 2, 3}) {
            using OpenMS::Residue;
            const std::vector<double> b = b_ion_mz(sequence, z), y = y_ion_mz(sequence, z);
            ASSERT_TRUE(b.size() == seq.size() - 1 && y.size() == b.size());
            for (OpenMS::Size i = 1; i < seq.size(); ++i) {
                EXPECT_NEAR(b[i - 1], seq.getPrefix(i).getMonoWeight(Residue::BIon, z) / z, 2e-5)
                    << "b" << i << "+" << z;
                EXPECT_NEAR(y[i - 1], seq.getSuffix(i).getMonoWeight(Residue::YIon, z) / z, 2e-5)
                    << "y" << i << "+" << z;
            }
        }
    }
}
#endif

}  // namespace
}  // namespace ksieve::chem

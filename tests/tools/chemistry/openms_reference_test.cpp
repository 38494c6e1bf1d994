// Our chemistry against OpenMS, an independent implementation with its own
// element tables. The tables differ in the last digits of the atomic masses and
// in the N and S abundances (OpenMS keeps older IUPAC values), hence small
// tolerances rather than equality.
#include <algorithm>
#include <string>

#include <OpenMS/CHEMISTRY/AASequence.h>
#include <OpenMS/CHEMISTRY/EmpiricalFormula.h>
#include <OpenMS/CHEMISTRY/ISOTOPEDISTRIBUTION/CoarseIsotopePatternGenerator.h>
#include <OpenMS/CHEMISTRY/Residue.h>
#include <gtest/gtest.h>

#include "chemistry.h"

namespace ksieve::chem {
namespace {

const char* const kPeptides[] = {"PEPTIDEK", "MCWHKQNGSAYLVTER", "LVNELTEFAKTCVADESHAGCEK",
                                 "GGGGGGR"};

TEST(OpenMSReference, PeptideFormulaMassAndIsotopePattern) {
    const OpenMS::CoarseIsotopePatternGenerator generator(5);
    for (const char* sequence : kPeptides) {
        const OpenMS::EmpiricalFormula reference =
            OpenMS::AASequence::fromString(sequence).getFormula();
        const Formula formula = peptide_formula(sequence);
        std::string text;
        for (int e = 0; e < kElementCount; ++e) {
            text += element_symbol(Element(e)) + std::to_string(long(formula.m_count[e]));
        }
        EXPECT_EQ(OpenMS::EmpiricalFormula(text), reference) << sequence;
        EXPECT_NEAR(monoisotopic_mass(formula), reference.getMonoWeight(), 2e-5) << sequence;
        EXPECT_NEAR(average_mass(formula), reference.getAverageWeight(), 0.02) << sequence;
        // Patterns compared after scaling both to their largest peak.
        const OpenMS::IsotopeDistribution expected = generator.run(reference);
        const std::vector<IsotopePeak> ours = isotope_pattern(formula, 5);
        ASSERT_EQ(expected.size(), 5u);
        double ours_max = 0.0;
        double expected_max = 0.0;
        for (int k = 0; k < 5; ++k) {
            ours_max = std::max(ours_max, ours[k].m_abundance);
            expected_max = std::max(expected_max, double(expected[k].getIntensity()));
        }
        for (int k = 0; k < 5; ++k) {
            EXPECT_NEAR(ours[k].m_abundance / ours_max, expected[k].getIntensity() / expected_max,
                        2e-3)
                << sequence << " peak " << k;
        }
    }
}

TEST(OpenMSReference, FragmentIons) {
    for (const char* sequence : kPeptides) {
        const OpenMS::AASequence reference = OpenMS::AASequence::fromString(sequence);
        for (int charge : {1, 2, 3}) {
            const std::vector<double> b = b_ion_mz(sequence, charge);
            const std::vector<double> y = y_ion_mz(sequence, charge);
            ASSERT_EQ(b.size(), reference.size() - 1);
            ASSERT_EQ(y.size(), reference.size() - 1);
            for (OpenMS::Size i = 1; i < reference.size(); ++i) {
                EXPECT_NEAR(
                    b[i - 1],
                    reference.getPrefix(i).getMonoWeight(OpenMS::Residue::BIon, charge) / charge,
                    2e-5)
                    << sequence << " b" << i << "+" << charge;
                EXPECT_NEAR(
                    y[i - 1],
                    reference.getSuffix(i).getMonoWeight(OpenMS::Residue::YIon, charge) / charge,
                    2e-5)
                    << sequence << " y" << i << "+" << charge;
            }
        }
    }
}

}  // namespace
}  // namespace ksieve::chem

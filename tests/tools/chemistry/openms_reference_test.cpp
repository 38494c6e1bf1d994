// Our chemistry against OpenMS, an independent implementation with its own
// element tables. The tables differ in the last digits of the atomic masses and
// in a few abundances (OpenMS keeps older IUPAC values for N and S), hence the
// small tolerances below rather than exact equality.
#include <string>

#include <OpenMS/CHEMISTRY/AASequence.h>
#include <OpenMS/CHEMISTRY/EmpiricalFormula.h>
#include <OpenMS/CHEMISTRY/ISOTOPEDISTRIBUTION/CoarseIsotopePatternGenerator.h>
#include <OpenMS/CHEMISTRY/Residue.h>
#include <gtest/gtest.h>

#include "chemistry.h"

namespace ksieve::chem {
namespace {

const char* const kPeptides[] = {"PEPTIDEK", "DRVYIHPF", "MCWHKQNGSAYLVTER",
                                 "LVNELTEFAKTCVADESHAGCEK", "GGGGGGR"};

std::string formula_text(const Formula& formula) {
    std::string text;
    for (int e = 0; e < kElementCount; ++e) {
        const auto count = static_cast<long>(formula.m_count[e]);
        if (count != 0) {
            text += element_symbol(static_cast<Element>(e)) + std::to_string(count);
        }
    }
    return text;
}

TEST(OpenMSReference, PeptideCompositionAndMasses) {
    for (const char* sequence : kPeptides) {
        const OpenMS::AASequence reference = OpenMS::AASequence::fromString(sequence);
        const Formula formula = peptide_formula(sequence);
        EXPECT_EQ(OpenMS::EmpiricalFormula(formula_text(formula)), reference.getFormula())
            << sequence;
        EXPECT_NEAR(monoisotopic_mass(formula), reference.getMonoWeight(), 2e-5) << sequence;
        EXPECT_NEAR(average_mass(formula), reference.getAverageWeight(), 0.02) << sequence;
    }
}

TEST(OpenMSReference, FragmentIons) {
    for (const char* sequence : kPeptides) {
        const OpenMS::AASequence reference = OpenMS::AASequence::fromString(sequence);
        const OpenMS::Size length = reference.size();
        for (int charge : {1, 2, 3}) {
            const std::vector<double> b = b_ion_mz(sequence, charge);
            const std::vector<double> y = y_ion_mz(sequence, charge);
            ASSERT_EQ(b.size(), length - 1);
            for (OpenMS::Size i = 1; i < length; ++i) {
                const double b_ref =
                    reference.getPrefix(i).getMonoWeight(OpenMS::Residue::BIon, charge) / charge;
                const double y_ref =
                    reference.getSuffix(i).getMonoWeight(OpenMS::Residue::YIon, charge) / charge;
                EXPECT_NEAR(b[i - 1], b_ref, 2e-5) << sequence << " b" << i << "+" << charge;
                EXPECT_NEAR(y[i - 1], y_ref, 2e-5) << sequence << " y" << i << "+" << charge;
            }
        }
    }
}

// Patterns compared after scaling both to their largest peak, the way isotope
// clusters are compared in spectra.
TEST(OpenMSReference, PeptideIsotopePatterns) {
    const OpenMS::CoarseIsotopePatternGenerator generator(5);
    for (const char* sequence : kPeptides) {
        const OpenMS::IsotopeDistribution reference =
            generator.run(OpenMS::AASequence::fromString(sequence).getFormula());
        const std::vector<IsotopePeak> ours = isotope_pattern(peptide_formula(sequence), 5);
        ASSERT_EQ(reference.size(), 5u) << sequence;
        double ours_max = 0.0;
        double reference_max = 0.0;
        for (int k = 0; k < 5; ++k) {
            ours_max = std::max(ours_max, ours[k].m_abundance);
            reference_max = std::max(reference_max, double(reference[k].getIntensity()));
        }
        for (int k = 0; k < 5; ++k) {
            EXPECT_NEAR(ours[k].m_abundance / ours_max, reference[k].getIntensity() / reference_max,
                        2e-3)
                << sequence << " peak " << k;
        }
    }
}

}  // namespace
}  // namespace ksieve::chem

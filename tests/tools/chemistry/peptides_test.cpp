#include <stdexcept>

#include <gtest/gtest.h>

#include "chemistry.h"

namespace ksieve::chem {
namespace {

TEST(Peptide, CompositionAndMassOfKnownPeptides) {
    // Published values: the glycine residue, free glycine and angiotensin II
    // (DRVYIHPF, C50H71N13O12).
    EXPECT_NEAR(residue_mass('G'), 57.02146, 1e-5);
    EXPECT_NEAR(monoisotopic_mass(peptide_formula("G")), 75.03203, 1e-5);
    const Formula angiotensin = peptide_formula("DRVYIHPF");
    EXPECT_EQ(angiotensin, (Formula{{50, 71, 13, 12, 0}}));
    EXPECT_NEAR(monoisotopic_mass(angiotensin), 1045.5345, 1e-4);
    // Leucine and isoleucine are isomers; the two sulfur residues carry one S each.
    EXPECT_EQ(residue_formula('L'), residue_formula('I'));
    EXPECT_EQ(peptide_formula("MC").m_count[kSulfur], 2.0);
}

TEST(Peptide, RejectsWhatIsNoStandardResidue) {
    for (char letter : {'B', 'J', 'O', 'U', 'X', 'Z', 'a', '*', '\0'}) {
        EXPECT_FALSE(is_standard_residue(letter)) << letter;
        EXPECT_THROW(residue_formula(letter), std::invalid_argument) << letter;
    }
    EXPECT_THROW(peptide_formula(""), std::invalid_argument);
    EXPECT_THROW(peptide_formula("PEPXIDE"), std::invalid_argument);
    EXPECT_THROW(b_ion_mz("PEPTIDE", 0), std::invalid_argument);
    EXPECT_THROW(y_ion_mz("PEPUIDE", 1), std::invalid_argument);
}

// b_i and y_(n-i) together hold every residue and the water, plus two protons.
TEST(Fragments, ComplementaryPairsAddUpToThePrecursor) {
    const std::string sequence = "SAMPLERK";
    const double neutral = monoisotopic_mass(peptide_formula(sequence));
    const std::vector<double> b = b_ion_mz(sequence, 1);
    const std::vector<double> y = y_ion_mz(sequence, 1);
    ASSERT_EQ(b.size(), sequence.size() - 1);
    ASSERT_EQ(y.size(), sequence.size() - 1);
    for (size_t i = 0; i < b.size(); ++i) {
        EXPECT_NEAR(b[i] + y[y.size() - 1 - i], neutral + 2 * kProtonMass, 1e-9) << i;
    }
    // y1 of a C-terminal lysine: 147.1128, a textbook marker of tryptic peptides.
    EXPECT_NEAR(y.front(), 147.1128, 1e-4);
    const std::vector<double> y2 = y_ion_mz(sequence, 2);
    EXPECT_NEAR(y2.front(), (y.front() + kProtonMass) / 2, 1e-12);
    EXPECT_TRUE(b_ion_mz("K", 1).empty());
}

TEST(Fragments, MzFromNeutralMass) {
    EXPECT_NEAR(mz_from_neutral(1000.0, 1), 1001.007276, 1e-6);
    EXPECT_NEAR(mz_from_neutral(1000.0, 4), 251.007276, 1e-6);
}

}  // namespace
}  // namespace ksieve::chem

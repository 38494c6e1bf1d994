#include <stdexcept>

#include <gtest/gtest.h>

#include "run_model.h"
#include "simulator.h"
#include "test_support.h"

namespace ksieve::sim {
namespace {

using Strings = std::vector<std::string>;

// Pieces: AAAAAAKPGGGGGR (no cleavage before P), LLLLLLK, VVVVVV.
const std::string kProtein = "AAAAAAKPGGGGGRLLLLLLKVVVVVV";

TEST(Digest, TrypsinCutsAfterKAndRButNotBeforeP) {
    EXPECT_EQ(tryptic_peptides(kProtein, 0, 6, 40),
              (Strings{"AAAAAAKPGGGGGR", "LLLLLLK", "VVVVVV"}));
    EXPECT_EQ(
        tryptic_peptides(kProtein, 1, 6, 40),
        (Strings{"AAAAAAKPGGGGGR", "AAAAAAKPGGGGGRLLLLLLK", "LLLLLLK", "LLLLLLKVVVVVV", "VVVVVV"}));
    EXPECT_EQ(tryptic_peptides(kProtein, 2, 7, 14),
              (Strings{"AAAAAAKPGGGGGR", "LLLLLLK", "LLLLLLKVVVVVV"}));
    // Neighbouring sites give a one-residue piece; a piece with a letter that is
    // no standard amino acid is left out, and so is every peptide holding it.
    EXPECT_EQ(tryptic_peptides("AAAAAARRLLXLLLKWWWWWW", 1, 1, 40),
              (Strings{"AAAAAAR", "AAAAAARR", "R", "WWWWWW"}));
    EXPECT_TRUE(tryptic_peptides("", 1, 1, 40).empty());
}

TEST(Digest, FastaEntriesJoinTheirLines) {
    test::TempDir dir;
    test::write_file(dir.file("p.fasta"), "stray\n>sp|P1|A\r\nmkaaa\r\nLLK R\n\n>sp|P2|B\nGGG");
    EXPECT_EQ(read_fasta(dir.file("p.fasta")), (Strings{"MKAAALLKR", "GGG"}));
    EXPECT_THROW(read_fasta(dir.file("missing.fasta")), std::runtime_error);
}

// A charge needs a basic site, and the mono-isotopic m/z must lie in the survey
// range of 350 to 1800.
TEST(Digest, ChargesFollowBasicSitesAndTheSurveyRange) {
    const std::vector<Peptide> peptides =
        digest_proteome({"GGGGGGK"                    // 1+ only by mass: m/z of 2+ is below 350
                         "VVVVVVVVVVVVVVVVVVVVVVVVK"  // one K plus the N-terminus: 2+ at most
                         "HHLLHHLLHHLLHHLLHHLLHHLR"   // many sites, heavy: 2+ to 5+
                         "WWWWWWWWW"},                // C-terminal, no basic residue: no charge
                        0);
    ASSERT_EQ(peptides.size(), 2u);
    EXPECT_EQ(peptides[0].m_sequence, "HHLLHHLLHHLLHHLLHHLLHHLR");
    EXPECT_EQ(peptides[0].m_charges, (std::vector<int>{2, 3, 4, 5}));
    EXPECT_EQ(peptides[1].m_sequence, "VVVVVVVVVVVVVVVVVVVVVVVVK");
    EXPECT_EQ(peptides[1].m_charges, (std::vector<int>{2}));
    // Shared peptides of two proteins appear once.
    EXPECT_EQ(digest_proteome({"LLLLLLLLLLK", "LLLLLLLLLLK"}, 1).size(), 1u);
}

}  // namespace
}  // namespace ksieve::sim

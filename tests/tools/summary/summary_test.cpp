#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "summary.h"

namespace ksieve::eval {
namespace {

constexpr double kPpm = 20.0;

DeclaredFate fate_of(Precursor declared, std::vector<Precursor> written) {
    return classify_row({100, declared, std::move(written)}, kPpm);
}

TEST(ClassifyRow, TellsTheFatesApartPreferringTheDeclaredIon) {
    using enum DeclaredFate;
    // Written as declared (detection found nothing); recalibrated by 3 ppm and
    // found second; the second isotope peak of a 2+ ion, or a peak below, taken
    // for the first; a 3+ ion declared as 2+ at its first and second peaks.
    EXPECT_EQ(fate_of({500.25, 2}, {{500.25, 2}, {500.25, 3}}), kKept);
    EXPECT_EQ(fate_of({500.25, 2}, {{612.3, 3}, {500.2515, 2}}), kConfirmed);
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.25, 2}}), kMonoShift);
    EXPECT_EQ(fate_of({499.7485, 2}, {{500.25, 2}}), kMonoShift);
    EXPECT_EQ(fate_of({514.1886, 2}, {{514.1883, 3}}), kChargeChange);
    EXPECT_EQ(fate_of({436.1913, 2}, {{435.8570, 3}}), kChargeChange);
    EXPECT_EQ(fate_of({500.25, 2}, {{733.01, 2}, {612.3, 3}}), kReplaced);
    EXPECT_EQ(fate_of({502.7575, 2}, {{500.25, 2}}), kReplaced);  // five peaks away
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.7510, 2}, {500.25, 2}}), kConfirmed);
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.7515, 3}, {500.25, 2}}), kMonoShift);
    // The tolerance is in ppm of the declared m/z.
    EXPECT_EQ(fate_of({1000.0, 2}, {{1000.0199, 2}}), kConfirmed);
    EXPECT_EQ(fate_of({1000.0, 2}, {{1000.0201, 2}}), kReplaced);
    EXPECT_EQ(fate_of({1000.0, 2}, {{999.9801, 2}}), kConfirmed);
}

// Scans read: the last count of each input of the stem in the log.
TEST(Summary, CountsFromTheLogAndTheTableAndLaysThemOut) {
    const ScanCounts counts = read_scan_counts(
        "[kSieve] <INFO> - Scan Number in out/run.ms1: 10\n"
        "[kSieve] <INFO> - Scan Number in out/other.ms2: 99\n"
        "[kSieve] <INFO> - Scan Number in /data/x: y/run.ms1: 75\n"
        "[kSieve] <INFO> - Scan Number in run.ms2: 225\n"
        "[kSieve] <INFO> - Scan Number in out/run.csv: 224\n",
        "run");
    EXPECT_EQ(counts.m_ms1, 75);
    EXPECT_EQ(counts.m_ms2, 225);
    const std::vector<TableRow> rows = {
        {1, {500.25, 2}, {{500.25, 2}, {500.25, 3}}},      // kept, two declared
        {2, {500.25, 2}, {{500.2515, 2}, {612.3, 3}}},     // confirmed, one co-eluted
        {3, {500.7515, 2}, {{500.25, 2}}},                 // mono shift
        {4, {514.1886, 2}, {{514.1883, 3}, {733.01, 2}}},  // charge, one co-eluted
    };
    const RunSummary summary = summarise(rows, {}, kPpm);
    EXPECT_EQ(summary.m_written, 4);
    EXPECT_EQ(summary.m_precursors, 7);
    EXPECT_EQ(summary.m_fates, (std::array<int64_t, kDeclaredFates>{1, 1, 1, 1, 0}));
    EXPECT_EQ(summary.m_with_coeluted, 2);
    // Names in a column of 28, sizes right-aligned in the next 10.
    const std::string text = format_summary("run", summary, kPpm, "out", {{"run_HCDFT.mgf", 1536}});
    EXPECT_NE(text.find("scans read            ? MS1, ? MS2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("run_HCDFT.mgf" + std::string(20, ' ') + "1.5 kB  MS2 peak lists"),
              std::string::npos)
        << text;
}

// The validation stage's line is the pipeline's own; only the stem's last one
// counts, and without one the summary has no validation block.
TEST(Summary, ValidationCountsByReasonWhenTheStageRan) {
    const std::string line =
        ": 90 detected, 70 kept; removed charge alias 8, isotope alias 7, duplicate 3, not "
        "co-eluting 1, poor envelope 1; corrected isotope 4, charge 2; scans left with the best "
        "detected only 5\n";
    const std::string log = "[kSieve] <INFO> - Precursor validation in out/other.ms1" + line +
                            "[kSieve] <INFO> - Precursor validation in /d: x/run.ms1" + line +
                            "[kSieve] <INFO> - Precursor validation in run.ms1: 1 detected\n";
    const std::optional<ValidationCounts> tally = read_validation_tally(log, "run");
    ASSERT_TRUE(tally);
    const ValidationCounts& t = *tally;
    EXPECT_EQ((std::array<int64_t, 10>{t.m_in, t.m_out, t.m_charge_alias, t.m_isotope_alias,
                                       t.m_duplicate, t.m_not_coeluting, t.m_poor_envelope,
                                       t.m_corrected_isotope, t.m_corrected_charge, t.m_restored}),
              (std::array<int64_t, 10>{90, 70, 8, 7, 3, 1, 1, 4, 2, 5}));
    EXPECT_FALSE(read_validation_tally(log, "absent"));

    RunSummary summary;
    EXPECT_EQ(format_summary("run", summary, kPpm, "out", {}).find("validation"),
              std::string::npos);
    summary.m_validation = tally;
    const std::string text = format_summary("run", summary, kPpm, "out", {});
    EXPECT_NE(text.find("  precursor validation  90 detected, 70 kept\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("    removed: isotope alias               7\n"), std::string::npos) << text;
    EXPECT_NE(text.find("    corrected: charge                    2\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace ksieve::eval

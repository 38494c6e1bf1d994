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

TEST(ClassifyRow, TellsKeptConfirmedShiftedRechargedAndReplacedApart) {
    // Written exactly as declared: detection found nothing.
    EXPECT_EQ(fate_of({500.25, 2}, {{500.25, 2}, {500.25, 3}}), DeclaredFate::kKept);
    // Recalibrated by 3 ppm, and found second behind a stronger ion.
    EXPECT_EQ(fate_of({500.25, 2}, {{500.2515, 2}}), DeclaredFate::kConfirmed);
    EXPECT_EQ(fate_of({500.25, 2}, {{612.3, 3}, {500.2515, 2}}), DeclaredFate::kConfirmed);
    // The instrument took the second isotope peak of a 2+ ion for its first.
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.25, 2}}), DeclaredFate::kMonoShift);
    // ... or a peak below what detection calls mono-isotopic.
    EXPECT_EQ(fate_of({499.7485, 2}, {{500.25, 2}}), DeclaredFate::kMonoShift);
    // A 3+ ion declared as 2+, at its mono-isotopic peak and at its second peak.
    EXPECT_EQ(fate_of({514.1886, 2}, {{514.1883, 3}}), DeclaredFate::kChargeChange);
    EXPECT_EQ(fate_of({436.1913, 2}, {{435.8570, 3}}), DeclaredFate::kChargeChange);
    EXPECT_EQ(fate_of({500.25, 2}, {{733.01, 2}, {612.3, 3}}), DeclaredFate::kReplaced);
    // Five peaks away is too far to be a mistaken peak of the same cluster.
    EXPECT_EQ(fate_of({502.7575, 2}, {{500.25, 2}}), DeclaredFate::kReplaced);
}

TEST(ClassifyRow, PrefersTheDeclaredIonAndHoldsTheToleranceInPpmOfTheDeclaredMz) {
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.25, 2}, {500.7510, 2}}), DeclaredFate::kConfirmed);
    EXPECT_EQ(fate_of({500.7515, 2}, {{500.7515, 3}, {500.25, 2}}), DeclaredFate::kMonoShift);
    EXPECT_EQ(fate_of({1000.0, 2}, {{1000.0199, 2}}), DeclaredFate::kConfirmed);
    EXPECT_EQ(fate_of({1000.0, 2}, {{1000.0201, 2}}), DeclaredFate::kReplaced);
    EXPECT_EQ(fate_of({1000.0, 2}, {{999.9801, 2}}), DeclaredFate::kConfirmed);
}

TEST(ScanCounts, TakeTheLastCountOfEachInputFileOfTheStem) {
    const std::string log =
        "[kSieve] <INFO> - Scan Number in out/run.ms1: 10\n"
        "[kSieve] <INFO> - Scan Number in out/run.ks1: 10\n"
        "[kSieve] <INFO> - Scan Number in out/other.ms2: 99\n"
        "[kSieve] <INFO> - Scan Number in out/run_CIDIT.ks2: 40\n"
        "[kSieve] <INFO> - Scan Number in /data/x: y/run.ms1: 75\n"
        "[kSieve] <INFO> - Scan Number in run.ms2: 225\n"
        "[kSieve] <INFO> - Scan Number in out/run.csv: 224\n";
    const ScanCounts counts = read_scan_counts(log, "run");
    EXPECT_EQ(counts.m_ms1, 75);
    EXPECT_EQ(counts.m_ms2, 225);
    EXPECT_EQ(read_scan_counts(log, "missing").m_ms1, -1);
    EXPECT_EQ(read_scan_counts(log, "missing").m_ms2, -1);
}

TEST(Summary, CountsFatesAndOnlyDetectedScansGainCoelutedPrecursors) {
    const std::vector<TableRow> rows = {
        {1, {500.25, 2}, {{500.25, 2}, {500.25, 3}}},      // kept, two declared
        {2, {500.25, 2}, {{500.2515, 2}, {612.3, 3}}},     // confirmed, one co-eluted
        {3, {500.7515, 2}, {{500.25, 2}}},                 // mono shift
        {4, {514.1886, 2}, {{514.1883, 3}, {733.01, 2}}},  // charge, one co-eluted
    };
    const RunSummary summary = summarise(rows, {63, 224}, kPpm);
    EXPECT_EQ(summary.m_read.m_ms1, 63);
    EXPECT_EQ(summary.m_written, 4);
    EXPECT_EQ(summary.m_precursors, 7);
    EXPECT_EQ(summary.m_fates, (std::array<int64_t, kDeclaredFates>{1, 1, 1, 1, 0}));
    EXPECT_EQ(summary.m_with_coeluted, 2);

    // Names in a column of 28, sizes right-aligned in the next 10.
    const std::string text =
        format_summary("run", summarise(rows, {}, kPpm), kPpm, "out",
                       {{"run.csv", 300}, {"run_HCDFT.mgf", 1536}, {"run.ks1", 3 << 20}});
    EXPECT_NE(text.find("scans read            ? MS1, ? MS2\n"), std::string::npos);
    EXPECT_NE(text.find("MS2 scans written     4, with 7 precursors\n"), std::string::npos);
    EXPECT_NE(text.find("changed: mono-isotopic shift         1\n"), std::string::npos);
    EXPECT_NE(text.find("scans that gained co-eluted precursors: 2\n"), std::string::npos);
    EXPECT_NE(text.find("run.csv" + std::string(27, ' ') + "300 B  precursor table"),
              std::string::npos);
    EXPECT_NE(text.find("run_HCDFT.mgf" + std::string(20, ' ') + "1.5 kB  MS2 peak lists"),
              std::string::npos);
    EXPECT_NE(text.find("run.ks1" + std::string(26, ' ') + "3.0 MB  MS1 scans"), std::string::npos);
}

}  // namespace
}  // namespace ksieve::eval

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "accuracy.h"
#include "test_support.h"

namespace ksieve::eval {
namespace {

constexpr const char* kHeader =
    "ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, TotleNumOfPrecursor, "
    "PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, "
    "MZ, Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge\n";
constexpr const char* kTruthHeader =
    "ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,window_share,selected\n";

std::string failure_of(auto&& action) {
    try {
        action();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "no failure";
}

MATCHER_P2(IsPrecursor, mz, charge, "") {
    return arg.m_mz == mz && arg.m_charge == charge;
}

TEST(PrecursorTable, ReadsRowsOfEveryLengthAndCarriageReturns) {
    test::TempDir dir;
    test::write_file(dir.file("run.csv"),
                     std::string(kHeader) +
                         "HCD, FT, 12, 500.250000, 2, 1, 1, 500.251000, 2, \r\n"
                         "CID, IT, 15, 400.100000, 3, 3, 1, 399.766000, 3, 2, 612.300000, 2, "
                         "3, 733.010000, 4, \n"
                         "HCD, FT, 16, -1.000000, -1, 0, \n");
    const std::vector<TableRow> rows = read_precursor_table(dir.file("run.csv"));
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].m_scan, 12);
    EXPECT_THAT(rows[0].m_declared, IsPrecursor(500.25, 2));
    EXPECT_THAT(rows[0].m_precursors, testing::ElementsAre(IsPrecursor(500.251, 2)));
    EXPECT_EQ(rows[1].m_scan, 15);
    EXPECT_THAT(rows[1].m_declared, IsPrecursor(400.1, 3));
    EXPECT_THAT(rows[1].m_precursors,
                testing::ElementsAre(IsPrecursor(399.766, 3), IsPrecursor(612.3, 2),
                                     IsPrecursor(733.01, 4)));
    EXPECT_THAT(rows[2].m_declared, IsPrecursor(-1.0, -1));
    EXPECT_TRUE(rows[2].m_precursors.empty());
}

TEST(PrecursorTable, NamesTheLineOfAMalformedTable) {
    test::TempDir dir;
    const std::string path = dir.file("bad.csv");
    test::write_file(path, "ms2_scan,charge\n");
    EXPECT_NE(failure_of([&] { read_precursor_table(path); }).find("line 1: not a kSieve"),
              std::string::npos);
    // The count says two precursors, the row holds one.
    test::write_file(path, std::string(kHeader) + "HCD, FT, 12, 500.25, 2, 1, 1, 500.25, 2, \n" +
                               "HCD, FT, 13, 500.25, 2, 2, 1, 500.25, 2, \n");
    EXPECT_NE(failure_of([&] { read_precursor_table(path); }).find("line 3: the row announces 2"),
              std::string::npos);
    test::write_file(path, std::string(kHeader) + "HCD, FT, 12, 500.25, 2, 1, 1, 500.2x, 2, \n");
    EXPECT_NE(failure_of([&] { read_precursor_table(path); }).find("'500.2x' is not a number"),
              std::string::npos);
    EXPECT_NE(
        failure_of([&] { read_precursor_table(dir.file("missing.csv")); }).find("cannot read"),
        std::string::npos);
}

TEST(TruthTable, GroupsIonsByScanLargestShareFirst) {
    test::TempDir dir;
    test::write_file(dir.file("truth.csv"), std::string(kTruthHeader) +
                                                "7,1,500.3,PEPTIDEK,2,500.1,0.25,1\r\n"
                                                "7,1,500.3,ELVISK,3,499.9,0.70,0\n"
                                                "9,8,650.0,SAMPLER,2,649.8,1.0,1\n");
    const TruthTable truth = read_truth_table(dir.file("truth.csv"));
    ASSERT_EQ(truth.size(), 2u);
    ASSERT_EQ(truth.at(7).size(), 2u);
    EXPECT_THAT(truth.at(7)[0].m_ion, IsPrecursor(499.9, 3));
    EXPECT_EQ(truth.at(7)[0].m_share, 0.70);
    EXPECT_THAT(truth.at(7)[1].m_ion, IsPrecursor(500.1, 2));
    EXPECT_THAT(truth.at(9)[0].m_ion, IsPrecursor(649.8, 2));

    test::write_file(dir.file("short.csv"), "ms2_scan,charge,mono_mz\n7,2,500.1\n");
    EXPECT_NE(failure_of([&] {
                  read_truth_table(dir.file("short.csv"));
              }).find("line 1: no column window_share"),
              std::string::npos);
}

TEST(Matching, ToleranceIsInPpmOfTheTrueMzAndChargesMustAgree) {
    const Precursor truth{1000.0, 2};
    EXPECT_TRUE(same_ion({1000.00999, 2}, truth, 10.0));
    EXPECT_TRUE(same_ion({999.99001, 2}, truth, 10.0));
    EXPECT_FALSE(same_ion({1000.01001, 2}, truth, 10.0));
    EXPECT_FALSE(same_ion({999.98999, 2}, truth, 10.0));
    EXPECT_FALSE(same_ion({1000.0, 3}, truth, 10.0));
    EXPECT_TRUE(same_ion({1000.019, 2}, truth, 20.0));
    // The scale is the true m/z: 10 ppm of 100 is a tenth of 10 ppm of 1000.
    EXPECT_FALSE(same_ion({100.00101, 2}, {100.0, 2}, 10.0));
}

TEST(Matching, EachTrueIonGoesToTheFirstWrittenPrecursorAtItsNearest) {
    const std::vector<TruthIon> truth = {{{500.0, 2}, 0.6}, {{500.004, 2}, 0.3}, {{500.0, 3}, 0.1}};
    // 500.003 lies within 10 ppm of both 2+ ions and takes the nearer; the
    // repeat of 500.0 2+ finds its ion taken; the 4+ matches nothing.
    const std::vector<Precursor> written = {{500.003, 2}, {500.0, 2}, {500.0, 2}, {500.0, 4}};
    EXPECT_EQ(match_precursors(written, truth, 10.0), (std::vector<int>{1, 0, -1, -1}));
    EXPECT_EQ(match_precursors({{500.0, 3}}, truth, 10.0), (std::vector<int>{2}));
}

TEST(Matching, IsotopeOffsetCountsWholeSpacingsOfTheIonsCharge) {
    const Precursor ion{500.0, 2};
    EXPECT_EQ(isotope_offset(500.004, ion, 10.0), 0);
    EXPECT_EQ(isotope_offset(500.5015, ion, 10.0), 1);
    EXPECT_EQ(isotope_offset(498.997, ion, 10.0), -2);
    EXPECT_EQ(isotope_offset(502.006, ion, 10.0), 4);
    EXPECT_EQ(isotope_offset(502.5075, ion, 10.0), std::nullopt);
    EXPECT_EQ(isotope_offset(500.751, ion, 10.0), std::nullopt);  // half-way
    EXPECT_EQ(isotope_offset(500.511, ion, 10.0), std::nullopt);
    EXPECT_EQ(isotope_offset(500.511, ion, 20.0), 1);
    EXPECT_EQ(isotope_offset(500.3343, {500.0, 3}, 10.0), 1);
}

// Scan 10: first precursor dominant, a minor ion, a false one.
// Scan 11: co-eluted ion first, dominant second, then the dominant's second
//          isotope peak.
// Scan 12: wrong charge first, then the dominant twice.
// Scan 13: no row.
struct Scenario {
    TruthTable truth = {
        {10, {{{500.0, 2}, 0.70}, {{600.0, 3}, 0.20}, {{700.0, 2}, 0.02}}},
        {11, {{{450.0, 2}, 0.90}, {{451.0, 2}, 0.08}}},
        {12, {{{800.0, 2}, 1.00}}},
        {13, {{{900.0, 4}, 0.60}, {{905.0, 2}, 0.40}}},
    };
    std::vector<TableRow> rows = {
        {10, {500.0, 2}, {{500.0015, 2}, {700.0, 2}, {999.0, 2}}},
        {11, {451.0, 2}, {{451.0, 2}, {450.0, 2}, {450.5015, 2}}},
        {12, {800.0, 3}, {{800.0, 3}, {800.0, 2}, {800.0, 2}}},
    };
};

TEST(Evaluate, CountsDominantAndCoelutedFiguresWithMinorIonsLeftOut) {
    const Scenario scenario;
    const AccuracyCounts counts = evaluate(scenario.rows, scenario.truth, MatchRules{});
    EXPECT_EQ(counts.m_scans, 4);
    EXPECT_EQ(counts.m_rows, 3);
    EXPECT_EQ(counts.m_precursors, 9);
    EXPECT_EQ(counts.m_first_is_dominant, 1);
    EXPECT_EQ(counts.m_dominant_found, 3);
    EXPECT_EQ(counts.m_coeluted, 3);  // 600.0 3+, 451.0 2+, 905.0 2+
    EXPECT_EQ(counts.m_coeluted_found, 1);
    EXPECT_EQ(counts.m_extra, 5);  // 999.0, 450.0, 450.5015, 800.0 and its repeat; 700.0 is minor
    EXPECT_EQ(counts.m_extra_correct, 2);
    EXPECT_EQ(counts.m_wrong_isotope, 1);  // 450.5015 2+
    EXPECT_EQ(counts.m_wrong_charge, 1);   // 800.0 3+
    EXPECT_EQ(counts.m_wrong_other, 2);    // 999.0 2+, the repeat of 800.0 2+

    // With a lower minimum share the minor ion becomes a co-eluted one to find.
    const AccuracyCounts low = evaluate(scenario.rows, scenario.truth, MatchRules{10.0, 0.01});
    EXPECT_EQ(low.m_coeluted, 4);
    EXPECT_EQ(low.m_coeluted_found, 2);
    EXPECT_EQ(low.m_extra, 6);
    EXPECT_EQ(low.m_extra_correct, 3);
}

TEST(Evaluate, RefusesATableFromAnotherRun) {
    Scenario scenario;
    scenario.rows.push_back({14, {500.0, 2}, {{500.0, 2}}});
    EXPECT_EQ(failure_of([&] { evaluate(scenario.rows, scenario.truth, MatchRules{}); }),
              "scan 14 of the table is not in the truth");
    scenario.rows.back().m_scan = 11;
    EXPECT_EQ(failure_of([&] { evaluate(scenario.rows, scenario.truth, MatchRules{}); }),
              "scan 11 has two rows in the table");
}

TEST(Report, ShowsPercentagesWithTheirCountsAndDashesForNothingCounted) {
    const Scenario scenario;
    AccuracyCounts none;
    none.m_scans = 4;
    const std::string report = format_report(
        {{"model 4", evaluate(scenario.rows, scenario.truth, MatchRules{})}, {"empty", none}},
        MatchRules{});
    EXPECT_NE(report.find("4 MS2 scans in the truth, 3 co-eluted ions with at least 5 % of the "
                          "window; match: same charge, m/z within 10 ppm\n"),
              std::string::npos);
    EXPECT_NE(report.find("| model 4 | 3 | 9 | 33.3 % (1/3) | 75.0 % (3/4) | 40.0 % (2/5) "
                          "| 33.3 % (1/3) |\n"),
              std::string::npos);
    EXPECT_NE(report.find("| empty | 0 | 0 | - | 0.0 % (0/4) | - | - |\n"), std::string::npos);
    EXPECT_NE(report.find("| model 4 | 4 | 25.0 % (1/4) | 25.0 % (1/4) | 50.0 % (2/4) |\n"),
              std::string::npos);
    EXPECT_NE(report.find("| empty | 0 | - | - | - |\n"), std::string::npos);
}

}  // namespace
}  // namespace ksieve::eval

#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "accuracy.h"
#include "test_support.h"

namespace ksieve::eval {
namespace {

using Ions = std::vector<std::pair<double, int>>;

Ions ions_of(const std::vector<Precursor>& precursors) {
    Ions ions;
    for (const Precursor& precursor : precursors) {
        ions.emplace_back(precursor.m_mz, precursor.m_charge);
    }
    return ions;
}

TEST(Tables, ReadRowsOfEveryLengthAndTheTruthByColumnName) {
    test::TempDir dir;
    const std::string path = dir.file("run.csv");
    const std::string header =
        "ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, TotleNumOfPrecursor, "
        "PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, "
        "MZ, Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge\n";
    test::write_file(path,
                     header + "HCD, FT, 12, 500.25, 2, 1, 1, 500.251, 2, \r\n" +
                         "CID, IT, 15, 400.1, 3, 3, 1, 399.766, 3, 2, 612.3, 2, 3, 733.01, 4, \n" +
                         "HCD, FT, 16, -1.000000, -1, 0, \n");
    const std::vector<TableRow> rows = read_precursor_table(path);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[1].m_scan, 15);
    EXPECT_EQ(ions_of({rows[0].m_declared, rows[1].m_declared, rows[2].m_declared}),
              (Ions{{500.25, 2}, {400.1, 3}, {-1.0, -1}}));
    EXPECT_EQ(ions_of(rows[1].m_precursors), (Ions{{399.766, 3}, {612.3, 2}, {733.01, 4}}));
    EXPECT_TRUE(rows[2].m_precursors.empty());

    test::write_file(path,
                     "ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,"
                     "window_share,selected\n7,1,500.3,PEPTIDEK,2,500.1,0.25,1\r\n"
                     "7,1,500.3,ELVISK,3,499.9,0.70,0\n9,8,650.0,SAMPLER,2,649.8,1.0,1\n");
    const TruthTable truth = read_truth_table(path);  // largest share first
    ASSERT_EQ(truth.size(), 2u);
    ASSERT_EQ(truth.at(7).size(), 2u);
    EXPECT_EQ(ions_of({truth.at(7)[0].m_ion, truth.at(7)[1].m_ion, truth.at(9)[0].m_ion}),
              (Ions{{499.9, 3}, {500.1, 2}, {649.8, 2}}));
    EXPECT_EQ(truth.at(7)[0].m_share, 0.70);
}

TEST(Matching, PpmOfTheTrueMzSameChargeNearestFirstAndIsotopeOffsets) {
    EXPECT_TRUE(same_ion({1000.00999, 2}, {1000.0, 2}, 10.0));
    EXPECT_FALSE(same_ion({999.98999, 2}, {1000.0, 2}, 10.0) ||
                 same_ion({1000.0, 3}, {1000.0, 2}, 10.0));
    EXPECT_FALSE(same_ion({100.00101, 2}, {100.0, 2}, 10.0));  // the scale is the true m/z
    // 500.003 lies within 10 ppm of both 2+ ions and takes the nearer; the
    // repeat of 500.0 2+ finds its ion taken; the 4+ matches nothing.
    EXPECT_EQ(match_precursors({{500.003, 2}, {500.0, 2}, {500.0, 2}, {500.0, 4}},
                               {{{500.0, 2}, 0.6}, {{500.004, 2}, 0.3}, {{500.0, 3}, 0.1}}, 10.0),
              (std::vector<int>{1, 0, -1, -1}));
    // clang-format off
    const std::tuple<double, int, double, std::optional<int>> offsets[] = {  // of 500.0
        {500.004, 2, 10.0, 0}, {500.5015, 2, 10.0, 1}, {498.997, 2, 10.0, -2},
        {502.006, 2, 10.0, 4}, {502.5075, 2, 10.0, {}}, {500.751, 2, 10.0, {}},
        {500.511, 2, 10.0, {}}, {500.511, 2, 20.0, 1}, {500.3343, 3, 10.0, 1}};
    // clang-format on
    for (const auto& [mz, charge, ppm, offset] : offsets) {
        EXPECT_EQ(isotope_offset(mz, {500.0, charge}, ppm), offset) << mz << " ppm " << ppm;
    }
}

// Scan 10: first precursor dominant, a minor ion, a false one. Scan 11: co-eluted
// ion first, dominant second, then the dominant's second isotope peak. Scan 12:
// wrong charge first, then the dominant twice. Scan 13: no row.
TEST(Evaluate, CountsFiguresLeavesMinorIonsOutAndReports) {
    TruthTable truth = {{10, {{{500.0, 2}, 0.70}, {{600.0, 3}, 0.20}, {{700.0, 2}, 0.02}}},
                        {11, {{{450.0, 2}, 0.90}, {{451.0, 2}, 0.08}}},
                        {12, {{{800.0, 2}, 1.00}}},
                        {13, {{{900.0, 4}, 0.60}, {{905.0, 2}, 0.40}}}};
    std::vector<TableRow> rows = {{10, {500.0, 2}, {{500.0015, 2}, {700.0, 2}, {999.0, 2}}},
                                  {11, {451.0, 2}, {{451.0, 2}, {450.0, 2}, {450.5015, 2}}},
                                  {12, {800.0, 3}, {{800.0, 3}, {800.0, 2}, {800.0, 2}}}};
    const AccuracyCounts c = evaluate(rows, truth, MatchRules{});
    // Co-eluted: 600.0 3+, 451.0 2+, 905.0 2+. Extra: 999.0, 450.0, 450.5015,
    // 800.0 and its repeat, but not 700.0, a minor ion.
    EXPECT_EQ((std::vector<int64_t>{c.m_scans, c.m_rows, c.m_precursors, c.m_first_is_dominant,
                                    c.m_dominant_found, c.m_coeluted, c.m_coeluted_found, c.m_extra,
                                    c.m_extra_correct, c.m_wrong_isotope, c.m_wrong_charge,
                                    c.m_wrong_other}),
              (std::vector<int64_t>{4, 3, 9, 1, 3, 3, 1, 5, 2, 1, 1, 2}));
    // With a lower minimum share the minor ion becomes a co-eluted one to find.
    const AccuracyCounts low = evaluate(rows, truth, MatchRules{10.0, 0.01});
    EXPECT_EQ(std::tie(low.m_coeluted, low.m_coeluted_found, low.m_extra, low.m_extra_correct),
              std::make_tuple(4, 2, 6, 3));
    // Precision over every written precursor: the minor ion's match counts as
    // right, the second precursor for one ion as wrong.
    EXPECT_EQ(matching_precursors(c), 5);
    EXPECT_DOUBLE_EQ(precision(c), 5.0 / 9.0);
    AccuracyCounts none;
    none.m_scans = 4;
    EXPECT_EQ(precision(none), 0.0);
    const std::string report = format_report({{"model 4", c}, {"empty", none}}, MatchRules{});
    EXPECT_NE(report.find("| model 4 | 3 | 9 | 55.6 % (5/9) | 33.3 % (1/3) | 75.0 % (3/4) | "
                          "40.0 % (2/5) | 33.3 % (1/3) |\n"
                          "| empty | 0 | 0 | - | - | 0.0 % (0/4) | - | - |\n"),
              std::string::npos)
        << report;
    rows.push_back({14, {500.0, 2}, {{500.0, 2}}});  // a table from another run
    EXPECT_THROW(evaluate(rows, truth, MatchRules{}), std::runtime_error);
}

}  // namespace
}  // namespace ksieve::eval

// Precursor validation on constructed MS1 slices: each kind of wrong precursor
// the stage is built to remove, with an ion whose envelope and elution are known.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include "validation.h"

namespace ksieve {
namespace {

constexpr double kStep = kPeptideIsotopeSpacing;
// One expected pattern for every mass: enough for cosines and scaled fits.
const std::array<double, 5> kPattern{1.0, 0.8, 0.4, 0.15, 0.05};

IsotopeTable make_table() {
    return IsotopeTable(6000, kPattern);
}

// Elution over the ten slices: a peak at `apex` two slices wide.
std::array<double, 10> elution(double apex) {
    std::array<double, 10> shape{};
    for (std::size_t s = 0; s < shape.size(); ++s) {
        const double d = (static_cast<double>(s) - apex) / 2.0;
        shape[s] = std::exp(-0.5 * d * d);
    }
    return shape;
}

struct Ion {
    double m_mz = 0.0;
    int m_charge = 2;
    double m_height = 1e6;
    // Elution apex of the mono-isotopic peak and of the later isotopes; equal
    // for a real ion.
    double m_mono_apex = 4.0;
    double m_isotope_apex = 4.0;
    // Relative heights of its first five peaks.
    std::array<double, 5> m_pattern = kPattern;
};

Ms1Slices make_slices(const std::vector<Ion>& ions) {
    Ms1Slices slices(10);
    for (const Ion& ion : ions) {
        for (std::size_t k = 0; k < ion.m_pattern.size(); ++k) {
            const auto shape = elution(k == 0 ? ion.m_mono_apex : ion.m_isotope_apex);
            for (std::size_t s = 0; s < slices.size(); ++s) {
                slices[s].push_back({ion.m_mz + static_cast<double>(k) * kStep / ion.m_charge,
                                     ion.m_height * ion.m_pattern[k] * shape[s]});
            }
        }
    }
    // Peaks of two ions at one m/z are one centroid, as the instrument sees them.
    for (PeakList& slice : slices) {
        std::sort(slice.begin(), slice.end(), peak_less);
        PeakList merged;
        for (const Peak& peak : slice) {
            if (!merged.empty() && std::abs(merged.back().m_mz - peak.m_mz) < 1e-9) {
                merged.back().m_intensity += peak.m_intensity;
            } else {
                merged.push_back(peak);
            }
        }
        slice = merged;
    }
    return slices;
}

// A hand-set model: support rises with the fit at the reported reading and the
// co-elution of the isotopes, falls when a lower mono-isotopic peak, another
// charge or peaks between the isotopes fit better.
ValidationModel hand_model() {
    ValidationModel model;
    model.m_weights = {.m_fit = 8.0,
                       .m_one_lower = -8.0,
                       .m_two_lower = -4.0,
                       .m_other_charge = -6.0,
                       .m_between = -8.0,
                       .m_elution = 8.0,
                       .m_below = -3.0};
    model.m_bias = -12.0;
    model.m_keep = 0.5;
    model.m_alias_keep = 0.95;
    model.m_alias_profile = 0.8;
    model.m_alias_unexplained = 0.3;
    model.m_correct_margin = 0.2;
    model.m_min_elution = 0.3;
    return model;
}

using Fate = ValidationFate;

struct Case {
    std::string m_name;
    std::vector<Ion> m_ions;
    std::vector<Precursor> m_detected;
    std::vector<Fate> m_fates;
    std::vector<Precursor> m_expected;
};

// A case prints in a few words beside its name, not as a dump of its bytes.
void PrintTo(const Case& c, std::ostream* out) {
    *out << c.m_ions.size() << " ions, " << c.m_detected.size() << " detected";
}

const double kMz = 600.3;
const Ion kTwoPlus{kMz, 2};
const Ion kOther{812.45, 3, 5e5};

std::vector<Case> cases() {
    return {
        {"charge_alias_half_the_charge",
         {{kMz, 4}},
         {{kMz, 4}, {kMz, 2}},
         {Fate::kKept, Fate::kChargeAlias},
         {{kMz, 4}}},
        {"charge_alias_twice_the_charge_reported_first",
         {kTwoPlus},
         {{kMz, 4}, {kMz, 2}},
         {Fate::kChargeAlias, Fate::kKept},
         {{kMz, 2}}},
        {"isotope_alias_one_peak_high",
         {kTwoPlus},
         {{kMz + kStep / 2, 2}, {kMz, 2}},
         {Fate::kIsotopeAlias, Fate::kKept},
         {{kMz, 2}}},
        {"isotope_alias_two_peaks_high",
         {kTwoPlus},
         {{kMz + kStep, 2}, {kMz, 2}},
         {Fate::kIsotopeAlias, Fate::kKept},
         {{kMz, 2}}},
        {"duplicate",
         {kTwoPlus},
         {{kMz, 2}, {kMz + 0.001, 2}},
         {Fate::kKept, Fate::kDuplicate},
         {{kMz, 2}}},
        {"envelope_that_does_not_coelute",
         {kTwoPlus, {kOther.m_mz, 3, 5e5, 0.5, 7.5}},
         {{kMz, 2}, {kOther.m_mz, 3}},
         {Fate::kKept, Fate::kNotCoeluting},
         {{kMz, 2}}},
        {"two_real_ions_stay",
         {kTwoPlus, kOther},
         {{kMz, 2}, {kOther.m_mz, 3}},
         {Fate::kKept, Fate::kKept},
         {{kMz, 2}, {kOther.m_mz, 3}}},
        {"two_peptides_one_isotope_apart_stay",
         {kTwoPlus, {kMz + kStep / 2, 2, 1e6, 8.0, 8.0}},
         {{kMz, 2}, {kMz + kStep / 2, 2}},
         {Fate::kKept, Fate::kKept},
         {{kMz, 2}, {kMz + kStep / 2, 2}}},
        {"lone_wrong_isotope_corrected",
         {kTwoPlus},
         {{kMz + kStep / 2, 2}},
         {Fate::kCorrectedIsotope},
         {{kMz, 2}}},
        // Its isotopes co-elute but stand in no ratio any reading explains.
        {"poor_envelope",
         {kTwoPlus, {kOther.m_mz, 3, 5e5, 4.0, 4.0, {0.05, 1.0, 0.05, 0.05, 1.0}}},
         {{kMz, 2}, {kOther.m_mz, 3}},
         {Fate::kKept, Fate::kPoorEnvelope},
         {{kMz, 2}}},
        // A singly charged ion on the first isotope peak keeps the one-high reading
        // apart from the kept one, until its correction lands on it: it is written once.
        {"corrected_onto_a_kept_precursor",
         {kTwoPlus, {kMz + kStep / 2, 1, 3e5}},
         {{kMz, 2}, {kMz + kStep / 2, 2}},
         {Fate::kKept, Fate::kIsotopeAlias},
         {{kMz, 2}}},
        {"lone_failure_restored",
         {{kMz, 2, 1e6, 0.5, 7.5}},
         {{kMz, 2}},
         {Fate::kRestored},
         {{kMz, 2}}},
    };
}

class Validation : public ::testing::TestWithParam<Case> {};

TEST_P(Validation, RemovesOrCorrectsByReason) {
    const Case& c = GetParam();
    const IsotopeTable table = make_table();
    const Ms1Slices slices = make_slices(c.m_ions);
    const ValidationInput input{&c.m_detected, &slices, &table, 10.0};
    const ValidationResult result = ValidatePrecursors(input, hand_model());
    EXPECT_EQ(result.m_fates, c.m_fates);
    ASSERT_EQ(result.m_precursors.size(), c.m_expected.size());
    for (std::size_t i = 0; i < c.m_expected.size(); ++i) {
        EXPECT_NEAR(result.m_precursors[i].m_mz, c.m_expected[i].m_mz, 1e-6 * c.m_expected[i].m_mz);
        EXPECT_EQ(result.m_precursors[i].m_charge, c.m_expected[i].m_charge);
    }
    EXPECT_EQ(result.m_counts.m_in, static_cast<int64_t>(c.m_detected.size()));
    EXPECT_EQ(result.m_counts.m_out, static_cast<int64_t>(c.m_expected.size()));
}

INSTANTIATE_TEST_SUITE_P(Cases, Validation, ::testing::ValuesIn(cases()),
                         [](const auto& test) { return test.param.m_name; });

TEST(Validation, CountsAddUpByReason) {
    const IsotopeTable table = make_table();
    const Ms1Slices slices = make_slices({kTwoPlus, {kOther.m_mz, 3, 5e5, 0.5, 7.5}});
    const std::vector<Precursor> detected{
        {kMz, 2}, {kMz + kStep / 2, 2}, {kMz, 4}, {kMz + 0.001, 2}, {kOther.m_mz, 3}};
    const ValidationInput input{&detected, &slices, &table, 10.0};
    ValidationCounts total;
    add_counts(total, ValidatePrecursors(input, hand_model()).m_counts);
    add_counts(total, ValidatePrecursors(input, hand_model()).m_counts);
    EXPECT_EQ(total.m_scans, 2);
    EXPECT_EQ(total.m_in, 10);
    EXPECT_EQ(total.m_out, 2);
    EXPECT_EQ(total.m_isotope_alias, 2);
    EXPECT_EQ(total.m_charge_alias, 2);
    EXPECT_EQ(total.m_duplicate, 2);
    EXPECT_EQ(total.m_not_coeluting, 2);
}

// Every count distinct, set field by field: a name, number or word out of place
// in the tables shows in the log line, the evidence names or the counts.
TEST(ValidationNames, TheLogLineHoldsEveryCountButTheScansInItsPlace) {
    const ValidationCounts counts{.m_scans = 100,
                                  .m_in = 101,
                                  .m_out = 102,
                                  .m_charge_alias = 103,
                                  .m_isotope_alias = 104,
                                  .m_duplicate = 105,
                                  .m_not_coeluting = 106,
                                  .m_poor_envelope = 107,
                                  .m_corrected_isotope = 108,
                                  .m_corrected_charge = 109,
                                  .m_restored = 110};
    EXPECT_EQ(ValidationCountsLine("/r/a b.ms1", counts),
              "Precursor validation in /r/a b.ms1: 101 detected, 102 kept; removed charge alias "
              "103, isotope alias 104, duplicate 105, not co-eluting 106, poor envelope 107; "
              "corrected isotope 108, charge 109; scans left with the best detected only 110");
    // Read back after the log's prefix, whatever the path holds; the scans stay 0.
    const std::string line = ValidationCountsLine("/d: x/a.ms1", counts);
    const auto read = ReadValidationCountsLine("[kSieve] <INFO> - " + line);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->m_path, "/d: x/a.ms1");
    EXPECT_EQ(ValidationCountsLine("/d: x/a.ms1", read->m_counts), line);
    EXPECT_EQ(read->m_counts.m_scans, 0);
    for (const std::string& other : {line.substr(0, line.find("; scans")), line + " more",
                                     std::string("Precursor validation in a"),
                                     std::string(line).replace(line.find("103"), 3, "-13")}) {
        EXPECT_FALSE(ReadValidationCountsLine(other)) << other;
    }
    ValidationCounts total = counts;
    add_counts(total, counts);
    EXPECT_EQ(ValidationCountsLine("", total).substr(0, 60),
              "Precursor validation in : 202 detected, 204 kept; removed ch");
    EXPECT_EQ(total.m_scans, 200);
    EXPECT_EQ(total.m_restored, 220);
}

// The outcome names the precursor table's validation column carries.
TEST(ValidationNames, EachOutcomeHasItsEvidenceName) {
    const std::vector<std::string> names = {
        "kept",      "corrected_isotope", "corrected_charge", "charge_alias", "isotope_alias",
        "duplicate", "not_coeluting",     "poor_envelope",    "restored"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(ValidationFateName(static_cast<Fate>(i)), names[i]);
    }
}

TEST(Validation, WithoutSlicesTheListPassesUnchanged) {
    const IsotopeTable table = make_table();
    const Ms1Slices none;
    const std::vector<Precursor> detected{{kMz, 2}, {kMz, 4}};
    const ValidationInput input{&detected, &none, &table, 10.0};
    const ValidationResult result = ValidatePrecursors(input, hand_model());
    ASSERT_EQ(result.m_precursors.size(), 2u);
    EXPECT_EQ(result.m_precursors[1].m_charge, 4);
    EXPECT_EQ(result.m_counts.m_out, 2);
}

// The compiled-in model, on the commonest wrong answers next to a clean ion.
TEST(Validation, FittedModelKeepsTheRightReading) {
    const IsotopeTable table = make_table();
    const Ms1Slices slices = make_slices({kTwoPlus});
    const std::vector<Precursor> detected{{kMz, 2}, {kMz + kStep / 2, 2}, {kMz, 4}};
    const ValidationInput input{&detected, &slices, &table, 10.0};
    const ValidationResult result = ValidatePrecursors(input, kFittedValidationModel);
    ASSERT_EQ(result.m_precursors.size(), 1u);
    EXPECT_EQ(result.m_precursors[0].m_charge, 2);
    EXPECT_NEAR(result.m_precursors[0].m_mz, kMz, 1e-6);
}

}  // namespace
}  // namespace ksieve

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <random>

#include <string>
#include <tuple>
#include <vector>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

// kSieve's own command is run by the conversions of the sample files.
TEST(SpexorOptions, RefusesWhatItCannotDo) {
    // clang-format off
    const std::vector<std::vector<std::string>> bad = {
        {"-i", "11", "-o", "d", "x"}, {"-m", "-1", "-o", "d", "x"}, {"-i", "2x", "-o", "d", "x"},
        {"-i", "", "-o", "d", "x"}, {"-o", "d"}, {"x.mzML"}, {"-o", "d", "x", "y"},
        {"-x", "-o", "d", "x"}, {"-o", "d", "x", "-m"}, {"-mgf", "-o", "d", "x"}};
    // clang-format on
    for (const auto& args : bad) {
        EXPECT_NE(parse_options(args).error, "") << testing::PrintToString(args);
    }
    EXPECT_EQ(parse_options({"-ms", "-a", "-o", "d", "x"}).error, "");
    EXPECT_EQ(stem_of("/data/run.1.mzML"), "run.1");
    EXPECT_EQ(stem_of("C:\\data\\run.mzXML"), "run");
    EXPECT_EQ(stem_of("/data/run.mzML.gz"), "run");
    EXPECT_EQ(stem_of("run.mzXML.GZ"), "run");
    EXPECT_EQ(stem_of(".gz"), "");
}

TEST(SpexorScanMapping, ScanNumbersInstrumentsAndCharges) {
    // clang-format off
    const std::pair<const char*, int> ids[] = {
        {"controllerType=0 controllerNumber=1 scan=1764", 1764}, {"scan=12", 12},
        {"spectrum=1011", -1}, {"subscan=3", -1}, {"scan=12a", -1}, {"scan=", -1},
        {"scan=99999999999", -1}};
    for (const auto& [id, number] : ids) {
        EXPECT_EQ(scan_number_from_native_id(id), number) << id;
    }
    // The filter string, then the scan's own configuration, then a run of
    // traps or TOFs only, then the scan kind; a lone Orbitrap decides nothing.
    const RunAnalyzers orbitrap{true, false, false}, tof{false, true, false},
        trap{false, false, true}, hybrid{true, false, true}, none;
    const std::tuple<const char*, RunAnalyzers, RunAnalyzers, int, const char*, const char*>
        instruments[] = {
        {"ITMS + c NSI d Full ms2", orbitrap, orbitrap, 2, "HCD", "ITMS"},
        {"FTMS + p NSI Full ms", trap, trap, 1, "", "FTMS"}, {"TOFMS + p", none, none, 2, "CID", "FTMS"},
        {"", trap, hybrid, 2, "HCD", "ITMS"}, {"", orbitrap, hybrid, 2, "CID", "FTMS"},
        {"", none, trap, 1, "", "ITMS"}, {"", none, tof, 2, "CID", "FTMS"},
        {"", none, orbitrap, 2, "CID", "ITMS"}, {"", none, orbitrap, 2, "HCD", "FTMS"},
        {"", none, hybrid, 1, "", "FTMS"}, {"", none, none, 2, "ETD", "ITMS"}};
    // clang-format on
    for (const auto& [filter, own, run, level, activation, type] : instruments) {
        EXPECT_EQ(instrument_type_of(filter, own, run, level, activation), type)
            << filter << " level " << level << " " << activation;
    }

    std::vector<DeclaredPrecursor> out;
    append_declared_precursors(out, 500.0, 4, {});
    append_declared_precursors(out, 600.0, 0, {0, 5});
    append_declared_precursors(out, 700.0, 0, {});  // unknown: 2+ and 3+
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(std::make_tuple(out[0].charge, out[1].charge, out[2].charge, out[3].charge),
              std::make_tuple(4, 5, 2, 3));
    EXPECT_EQ(out[3].mz, 700.0);
}

ActivationTerms terms(std::initializer_list<bool ActivationTerms::*> flags,
                      std::string other = "") {
    ActivationTerms t;
    for (bool ActivationTerms::*flag : flags) {
        t.*flag = true;
    }
    t.other = std::move(other);
    return t;
}

TEST(SpexorScanMapping, ActivationWordsInferenceAndGate) {
    using T = ActivationTerms;
    // clang-format off
    const std::tuple<ActivationTerms, const char*, const char*> words[] = {
        {terms({&T::collision}), "", "CID"}, {terms({&T::beam_type}), "", "HCD"},
        {terms({&T::electron_transfer}), "FTMS + c d Full ms2 600.00@etd25.00 [1]", "ETD"},
        {terms({&T::ethcd}), "", "ETHCD"},
        {terms({&T::electron_transfer, &T::supplemental_beam_type}), "", "ETHCD"},
        {terms({&T::electron_transfer, &T::supplemental_collision}), "", "ETCID"},
        {terms({&T::electron_transfer, &T::beam_type}), "", "ETHCD"},
        {terms({&T::electron_transfer, &T::collision}), "", "ETCID"},
        // A supplemental energy of no stated type: the filter string's chain.
        {terms({&T::electron_transfer, &T::supplemental_energy}),
         "FTMS + c d Full ms2 600.00@etd25.00@hcd20.00 [1]", "ETHCD"},
        {terms({&T::electron_transfer}), "ITMS + c d Full ms2 600.00@etd25.00@cid35.00 [1]", "ETCID"},
        // A later step of an MS3 filter is no supplemental activation.
        {terms({&T::electron_transfer}), "ms3 600.00@etd25.00 300.00@hcd30.00", "ETD"},
        {terms({}, "ECD"), "", "ECD"}, {terms({}), "FTMS + c Full ms2 600.00@hcd30.00", ""}};
    // clang-format on
    for (const auto& [t, filter, word] : words) {
        EXPECT_EQ(activation_type_of(t, filter), word) << filter;
    }
    const RunAnalyzers orbitrap{true, false, false}, tof{false, true, false},
        trap{false, false, true}, hybrid{true, false, true}, none;
    EXPECT_EQ(inferred_activation_type("ETHCD", "ITMS + c", trap), "ETHCD");  // the run's word
    EXPECT_EQ(inferred_activation_type("", "ITMS + c Full ms2", orbitrap), "CID");
    EXPECT_EQ(inferred_activation_type("", "FTMS + c Full ms2", trap), "HCD");
    for (const auto& [analyzers, word] :
         {std::pair{orbitrap, "HCD"}, std::pair{tof, "HCD"}, std::pair{trap, "CID"},
          std::pair{hybrid, "CID"}, std::pair{none, "CID"}}) {
        EXPECT_EQ(inferred_activation_type("", "", analyzers), word);
    }
    for (const char* word : {"CID", "HCD", "ETD", "ETCID", "ETHCD"}) {
        EXPECT_TRUE(gate_processes(word, "FTMS"));
        EXPECT_TRUE(gate_processes(word, "ITMS"));
    }
    EXPECT_FALSE(gate_processes("ECD", "FTMS"));
    EXPECT_FALSE(gate_processes("cid", "ITMS"));
    EXPECT_FALSE(gate_processes("HCD", "TOF"));
}

TEST(SpexorScanMapping, ProfileDataLookDense) {
    EXPECT_TRUE(looks_like_profile({500.0, 500.01, 500.02, 500.03, 500.04, 501.0}));
    EXPECT_FALSE(looks_like_profile({500.0, 500.01, 500.02, 500.03}));  // too few points
    EXPECT_FALSE(looks_like_profile({500.0, 500.33, 500.67, 501.0, 501.01, 502.0}));
}

TEST(SpexorNumbering, NativeNumbersUntilTheyBreak) {
    ScanNumbering thermo(true);
    EXPECT_EQ(thermo.number("scan=10", 1, 0), 10);
    EXPECT_EQ(thermo.number("scan=11", 2, 1), 11);
    EXPECT_EQ(thermo.number("scan=5", 3, 2), 5);  // MS3 is not written: it does not count
    EXPECT_EQ(thermo.number("scan=12", 1, 3), 12);
    // Two runs appended: MS1 numbers fall.
    ScanNumbering merged(true);
    EXPECT_EQ(merged.number("scan=3", 1, 0), 3);
    EXPECT_EQ(merged.number("scan=1", 1, 1), -1);
    EXPECT_EQ(ScanNumbering(true).number("spectrum=4", 2, 0), -1);
    // By position, whatever the IDs.
    ScanNumbering by_position(false);
    EXPECT_EQ(by_position.number("scan=3", 1, 0), 1);
    EXPECT_EQ(by_position.number("spectrum=1", 2, 6), 7);
}

TEST(SpexorNumbering, ParentsAreSurveyScansReadSoFar) {
    // All MS1 spectra stored before all MS2 spectra, at times 10, 20, 30 s.
    SurveyScans surveys;
    for (int i = 0; i < 3; ++i) {
        surveys.add("spectrum=" + std::to_string(i + 1), i + 1, 10.0 * (i + 1),
                    static_cast<std::size_t>(i));
    }
    const std::tuple<const char*, double, std::size_t, int> parents[] = {
        {"", 5.0, 3, 0},   // nothing before it
        {"", 20.0, 4, 2},  // equal time counts as before
        {"", 29.9, 5, 2},
        {"spectrum=1", 29.9, 5, 1},
        {"spectrum=99", 31.0, 6, 3},  // unknown reference
        {"spectrum=4", 31.0, 6, 3}};  // not a survey scan
    for (const auto& [ref, rt, position, parent] : parents) {
        EXPECT_EQ(surveys.parent_of(ref, rt, position), parent) << ref << " " << rt;
    }
    // No retention times at all: file order decides.
    SurveyScans untimed;
    untimed.add("scan=1", 1, 0.0, 0);
    untimed.add("scan=3", 3, 0.0, 2);
    EXPECT_EQ(untimed.parent_of("", 0.0, 1), 1);
    EXPECT_EQ(untimed.parent_of("", 0.0, 3), 3);
}

TEST(SpexorAccount, FixedKeysInFixedOrder) {
    ScanAccount account;
    account.ms1_read = 3;
    account.ms1_written = 2;
    account.ms2_read = 7;
    account.ms2_written = 6;
    account.ms2_written_by_activation = {{"HCD", 4}, {"ECD", 2}};
    account.ms2_inferred_activation = 1;
    account.ms2_gate_will_skip = 2;
    account.ms2_not_written_no_peaks = 1;
    account.msn_not_written = 5;
    account.faims_cv_values = {-45.0, -55.0};
    EXPECT_EQ(account_text(account),
              "ms1_read\t3\nms1_written\t2\nms2_read\t7\nms2_written\t6\nms2_written_ECD\t2\n"
              "ms2_written_HCD\t4\nms2_inferred_activation\t1\nms2_gate_will_skip\t2\n"
              "ms2_not_written_no_peaks\t1\nmsn_not_written\t5\nfaims_cv_values\t2\n");
}

// The fast fixed-point writer gives std::to_chars's digits: values around
// rounding ties, huge and tiny values, and a sweep of peak-like numbers.
TEST(SpexorScanText, FixedDigitsAsToChars) {
    auto exact = [](double value, int digits) {
        char buffer[400];
        auto end =
            std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, digits)
                .ptr;
        return std::string(buffer, end);
    };
    std::vector<double> values = {0.0,   -0.0,   0.5,       1.5,   2.5,   0.125,
                                  0.375, 1e-9,   -0.0004,   1e15,  3e20,  1e300,
                                  0.05,  123.45, 914.44066, 2.675, 1.005, 9.9999999995};
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> mz(50.0, 4000.0), intensity(0.0, 1e10);
    for (int i = 0; i < 20000; ++i) {
        values.push_back(mz(random));
        values.push_back(intensity(random));
        values.push_back(std::round(mz(random) * 1e5) / 1e5 + 5e-6);  // ties in decimal
    }
    for (double value : values) {
        for (int digits = 0; digits <= 10; ++digits) {
            std::string fast;
            append_fixed(fast, value, digits);
            ASSERT_EQ(fast, exact(value, digits)) << value << " " << digits;
        }
    }
}

// Values the file does not give are left out rather than invented: no
// precursor, activation or parent scan here. Digits follow the options.
TEST(SpexorScanText, UnknownValuesAreLeftOut) {
    ScanRecord bare;
    bare.number = 7;
    bare.retention_minutes = 1.5;
    bare.instrument_type = "ITMS";
    bare.centroiding = "CwtPeakDetector";
    bare.peaks = {{370.207275390625, 34887.078125}};
    std::string ms2;
    append_ms2_scan(ms2, bare, Options{3, 2, "", ""});
    EXPECT_EQ(ms2,
              "S\t7\t7\nI\tRetTime\t1.500000\nI\tInstrumentType\tITMS\nI\tCentroiding\t"
              "CwtPeakDetector\nI\tActivationCenter\t0.00\n370.21 34887.078\n");
}

// A native id comes from the input file as it stands. Whatever it holds, it
// makes one line that the readers take whole, and no piece of it can pass for
// a peak or another line.
TEST(SpexorScanText, TheNativeIdLineStaysOneLineOfTheReadersBuffer) {
    ScanRecord scan;
    scan.number = 3;
    scan.instrument_type = "FTMS";
    scan.peaks = {{100.0, 1.0}};
    scan.native_id = "id\t1\n500.5 1000\rS\t9\t9\n" + std::string(3000, '7');
    std::string ms1;
    append_ms1_scan(ms1, scan, Options{1, 5, "", ""});
    const std::string prefix = "S\t3\t3\nI\tNativeID\t";
    ASSERT_EQ(ms1.compare(0, prefix.size(), prefix), 0) << ms1;
    const std::string line = ms1.substr(6, ms1.find('\n', 6) + 1 - 6);
    EXPECT_EQ(line.size(), 11 + kMaxNativeIdBytes + 1);
    EXPECT_LE(line.size(), 1023u);
    EXPECT_EQ(line.substr(11, 20), "id 1 500.5 1000 S 9 ");
    EXPECT_EQ(line.find('\t', 11), std::string::npos);
    EXPECT_EQ(line.find('\r'), std::string::npos);
    // Without an id there is no line at all.
    scan.native_id.clear();
    std::string bare;
    append_ms1_scan(bare, scan, Options{1, 5, "", ""});
    EXPECT_EQ(bare.find("NativeID"), std::string::npos);
}

}  // namespace
}  // namespace ksieve::spexor

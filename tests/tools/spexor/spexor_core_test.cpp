#include <gtest/gtest.h>

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
}

TEST(SpexorScanMapping, ScanNumbersInstrumentsActivationsAndCharges) {
    // clang-format off
    const std::pair<const char*, int> ids[] = {
        {"controllerType=0 controllerNumber=1 scan=1764", 1764}, {"scan=12", 12},
        {"spectrum=1011", -1}, {"subscan=3", -1}, {"scan=12a", -1}, {"scan=", -1},
        {"scan=99999999999", -1}};
    for (const auto& [id, number] : ids) {
        EXPECT_EQ(scan_number_from_native_id(id), number) << id;
    }
    // The scan's filter string before the run's analyzers before the scan kind.
    const RunAnalyzers hybrid{true, true}, orbitrap{true, false}, trap{false, true}, none;
    const std::tuple<const char*, RunAnalyzers, int, const char*, const char*> instruments[] = {
        {"ITMS + c NSI d Full ms2", orbitrap, 2, "CID", "ITMS"},
        {"FTMS + p NSI Full ms", none, 1, "", "FTMS"}, {"TOFMS + p", none, 2, "CID", "FTMS"},
        {"", trap, 1, "", "ITMS"}, {"", orbitrap, 2, "CID", "FTMS"}, {"", hybrid, 1, "", "FTMS"},
        {"", hybrid, 2, "HCD", "FTMS"}, {"", none, 2, "CID", "ITMS"}};
    for (const auto& [filter, run, level, activation, type] : instruments) {
        EXPECT_EQ(instrument_type_of(filter, run, level, activation), type)
            << filter << " level " << level << " " << activation;
    }
    const std::tuple<std::vector<std::string>, const char*, const char*> activations[] = {
        {{"HCID"}, "", "HCD"}, {{"CID"}, "", "CID"}, {{"LCID"}, "", "CID"},
        {{"ETD"}, "FTMS + c NSI d Full ms2 600.00@etd25.00 [1-2]", "ETD"},
        {{"ETD"}, "FTMS + c d Full ms2 600.00@etd25.00@hcd20.00 [1]", "ETHCD"},
        {{"ETD"}, "ITMS + c d Full ms2 600.00@etd25.00@cid35.00 [1]", "ETCID"},
        // A later step of an MS3 filter is no supplemental activation.
        {{"ETD"}, "ms3 600.00@etd25.00 300.00@hcd30.00", "ETD"}, {{"ETD", "HCID"}, "", "ETHCD"},
        {{"PQD"}, "", "PQD"}, {{}, "FTMS + c Full ms2 600.00@hcd30.00", ""}};
    // clang-format on
    for (const auto& [methods, filter, word] : activations) {
        EXPECT_EQ(activation_type_of(methods, filter), word) << filter;
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

// Spectra with IDs `<key><number>`, of the given levels and times, in file order.
RunIndex run_of(const std::string& key, const std::vector<int>& numbers,
                const std::vector<int>& levels, const std::vector<double>& times) {
    RunIndex run;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        run.add(key + std::to_string(numbers[i]), levels[i], times[i], 0.0);
    }
    run.finish();
    return run;
}

TEST(SpexorRunIndex, NumbersAndParents) {
    RunIndex thermo = run_of("scan=", {10, 11, 5, 12}, {1, 2, 3, 1}, {1, 2, 3, 4});  // MS3 aside
    EXPECT_EQ(thermo.number(3), 12);
    // Two runs appended: the MS1 numbers fall, so every spectrum counts from 1.
    RunIndex merged = run_of("scan=", {3, 4, 1}, {1, 2, 1}, {1, 2, 3});
    EXPECT_FALSE(merged.uses_native_numbers());
    EXPECT_EQ(merged.number(2), 3);

    // All MS1 spectra stored before all MS2 spectra.
    RunIndex run = run_of("spectrum=", {1, 2, 3, 4, 5, 6, 7}, {1, 1, 1, 2, 2, 2, 2},
                          {10, 20, 30, 5, 20, 29.9, 31});
    EXPECT_EQ(run.parent_of(3, ""), 0);  // nothing before it
    EXPECT_EQ(run.parent_of(4, ""), 2);  // equal time counts as before
    EXPECT_EQ(run.parent_of(6, ""), 3);
    EXPECT_EQ(run.parent_of(6, "spectrum=1"), 1);
    EXPECT_EQ(run.parent_of(5, "spectrum=99"), 2);  // unknown reference
    EXPECT_EQ(run.parent_of(5, "spectrum=4"), 2);   // not a survey scan
    // No retention times at all: file order decides.
    RunIndex no_times = run_of("scan=", {1, 2, 3, 4}, {1, 2, 1, 2}, {0, 0, 0, 0});
    EXPECT_EQ(no_times.parent_of(1, ""), 1);
    EXPECT_EQ(no_times.parent_of(3, ""), 3);
}

// Values the file does not give are left out rather than invented: no
// precursor, activation or parent scan here. Digits follow the options.
TEST(SpexorScanText, UnknownValuesAreLeftOut) {
    ScanRecord bare;
    bare.number = 7;
    bare.retention_minutes = 1.5;
    bare.instrument_type = "ITMS";
    bare.centroiding = "PeakPickerHiRes";
    bare.peaks = {{370.207275390625, 34887.078125}};
    std::string ms2;
    append_ms2_scan(ms2, bare, Options{3, 2, "", ""});
    EXPECT_EQ(ms2,
              "S\t7\t7\nI\tRetTime\t1.500000\nI\tInstrumentType\tITMS\nI\tCentroiding\t"
              "PeakPickerHiRes\nI\tActivationCenter\t0.00\n370.21 34887.078\n");
}

}  // namespace
}  // namespace ksieve::spexor

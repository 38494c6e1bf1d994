#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(SpexorOptions, ReadsTheCommandThatKSieveBuilds) {
    ParsedOptions parsed =
        parse_options({"-ms", "-a", "-i", "3", "-m", "4", "-o", "/out dir", "/data/run one.mzML"});
    ASSERT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.options.intensity_digits, 3);
    EXPECT_EQ(parsed.options.mz_digits, 4);
    EXPECT_EQ(parsed.options.output_dir, "/out dir");
    EXPECT_EQ(parsed.options.input_path, "/data/run one.mzML");

    ParsedOptions defaults = parse_options({"-o", "d", "x.mzXML"});
    ASSERT_EQ(defaults.error, "");
    EXPECT_EQ(defaults.options.intensity_digits, 1);
    EXPECT_EQ(defaults.options.mz_digits, 5);
}

TEST(SpexorOptions, RefusesWhatItCannotDo) {
    EXPECT_NE(parse_options({"-mgf", "-o", "d", "x.mzML"}).error.find("-mgf is not supported"),
              std::string::npos);
    for (const char* digits : {"11", "-1", "2x", ""}) {
        EXPECT_NE(parse_options({"-i", digits, "-o", "d", "x.mzML"}).error, "") << digits;
    }
    EXPECT_NE(parse_options({"-o", "d"}).error, "");
    EXPECT_NE(parse_options({"x.mzML"}).error, "");
    EXPECT_NE(parse_options({"-o", "d", "x.mzML", "y.mzML"}).error, "");
    EXPECT_NE(parse_options({"-x", "-o", "d", "x.mzML"}).error, "");
    EXPECT_NE(parse_options({"-o", "d", "x.mzML", "-m"}).error, "");
}

TEST(SpexorOptions, StemFollowsKSieveNaming) {
    EXPECT_EQ(stem_of("/data/run.1.mzML"), "run.1");
    EXPECT_EQ(stem_of("C:\\data\\run.mzXML"), "run");
    EXPECT_EQ(stem_of("plain"), "plain");
}

TEST(SpexorScanMapping, ScanNumberComesFromTheScanToken) {
    EXPECT_EQ(scan_number_from_native_id("controllerType=0 controllerNumber=1 scan=1764"), 1764);
    EXPECT_EQ(scan_number_from_native_id("scan=12"), 12);
    EXPECT_EQ(scan_number_from_native_id("spectrum=1011"), -1);
    EXPECT_EQ(scan_number_from_native_id("subscan=3"), -1);
    EXPECT_EQ(scan_number_from_native_id("scan=12a"), -1);
    EXPECT_EQ(scan_number_from_native_id("scan="), -1);
    EXPECT_EQ(scan_number_from_native_id("scan=99999999999"), -1);
}

TEST(SpexorScanMapping, InstrumentTypeTrustsTheScanBeforeTheRun) {
    RunAnalyzers hybrid{true, true};
    RunAnalyzers orbitrap_only{true, false};
    RunAnalyzers none;
    EXPECT_EQ(instrument_type_of("ITMS + c NSI d Full ms2", orbitrap_only, 2, "CID"), "ITMS");
    EXPECT_EQ(instrument_type_of("FTMS + p NSI Full ms", none, 1, ""), "FTMS");
    EXPECT_EQ(instrument_type_of("TOFMS + p", none, 2, "CID"), "FTMS");
    EXPECT_EQ(instrument_type_of("", RunAnalyzers{false, true}, 1, ""), "ITMS");
    EXPECT_EQ(instrument_type_of("", orbitrap_only, 2, "CID"), "FTMS");
    EXPECT_EQ(instrument_type_of("", hybrid, 1, ""), "FTMS");
    EXPECT_EQ(instrument_type_of("", hybrid, 2, "HCD"), "FTMS");
    EXPECT_EQ(instrument_type_of("", none, 2, "CID"), "ITMS");
}

TEST(SpexorScanMapping, ActivationWordsForTheGate) {
    EXPECT_EQ(activation_type_of({"HCID"}, ""), "HCD");
    EXPECT_EQ(activation_type_of({"CID"}, ""), "CID");
    EXPECT_EQ(activation_type_of({"LCID"}, ""), "CID");
    EXPECT_EQ(activation_type_of({"ETD"}, "FTMS + c NSI d Full ms2 600.00@etd25.00 [1-2]"), "ETD");
    EXPECT_EQ(activation_type_of({"ETD"}, "FTMS + c d Full ms2 600.00@etd25.00@hcd20.00 [1]"),
              "ETHCD");
    EXPECT_EQ(activation_type_of({"ETD"}, "ITMS + c d Full ms2 600.00@etd25.00@cid35.00 [1]"),
              "ETCID");
    // A later fragmentation step of an MS3 filter is not a supplemental activation.
    EXPECT_EQ(activation_type_of({"ETD"}, "ms3 600.00@etd25.00 300.00@hcd30.00"), "ETD");
    EXPECT_EQ(activation_type_of({"ETD", "HCID"}, ""), "ETHCD");
    EXPECT_EQ(activation_type_of({"PQD"}, ""), "PQD");
    EXPECT_EQ(activation_type_of({}, "FTMS + c Full ms2 600.00@hcd30.00"), "");
}

TEST(SpexorScanMapping, UndeclaredChargeStandsForTwoAndThree) {
    std::vector<DeclaredPrecursor> out;
    append_declared_precursors(out, 500.0, 4, {});
    append_declared_precursors(out, 600.0, 0, {0, 5});
    append_declared_precursors(out, 700.0, 0, {});
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0].charge, 4);
    EXPECT_EQ(out[1].charge, 5);
    EXPECT_DOUBLE_EQ(out[2].mz, 700.0);
    EXPECT_EQ(out[2].charge, 2);
    EXPECT_EQ(out[3].charge, 3);
}

TEST(SpexorRunIndex, NativeNumbersOnlyWhenTheyRiseWithinEachLevel) {
    RunIndex thermo;
    thermo.add("controllerType=0 controllerNumber=1 scan=10", 1, 1.0, 0.0);
    thermo.add("controllerType=0 controllerNumber=1 scan=11", 2, 2.0, 500.0);
    thermo.add("controllerType=0 controllerNumber=1 scan=5", 3, 3.0, 400.0);  // MS3 ignored
    thermo.add("controllerType=0 controllerNumber=1 scan=12", 1, 4.0, 0.0);
    thermo.finish();
    EXPECT_TRUE(thermo.uses_native_numbers());
    EXPECT_EQ(thermo.number(3), 12);
    EXPECT_DOUBLE_EQ(thermo.isolation_target(1), 500.0);
    EXPECT_EQ(thermo.count_of_level(1), 2u);

    RunIndex merged;  // two runs appended: MS1 numbers fall back to 1
    merged.add("scan=3", 1, 1.0, 0.0);
    merged.add("scan=4", 2, 2.0, 0.0);
    merged.add("scan=1", 1, 3.0, 0.0);
    merged.finish();
    EXPECT_FALSE(merged.uses_native_numbers());
    EXPECT_EQ(merged.number(2), 3);
}

TEST(SpexorRunIndex, ParentByReferenceElseByRetentionTime) {
    // All MS1 spectra stored before all MS2 spectra, as in merged files.
    RunIndex run;
    run.add("spectrum=1", 1, 10.0, 0.0);
    run.add("spectrum=2", 1, 20.0, 0.0);
    run.add("spectrum=3", 1, 30.0, 0.0);
    run.add("spectrum=4", 2, 5.0, 0.0);
    run.add("spectrum=5", 2, 20.0, 0.0);
    run.add("spectrum=6", 2, 29.9, 0.0);
    run.add("spectrum=7", 2, 31.0, 0.0);
    run.finish();
    EXPECT_FALSE(run.uses_native_numbers());
    EXPECT_EQ(run.parent_of(3, ""), 0);  // nothing before it
    EXPECT_EQ(run.parent_of(4, ""), 2);  // equal time counts as before
    EXPECT_EQ(run.parent_of(5, ""), 2);
    EXPECT_EQ(run.parent_of(6, ""), 3);
    EXPECT_EQ(run.parent_of(6, "spectrum=1"), 1);
    EXPECT_EQ(run.parent_of(5, "spectrum=99"), 2);  // unknown reference
    EXPECT_EQ(run.parent_of(5, "spectrum=4"), 2);   // not a survey scan

    RunIndex no_times;  // no retention times at all: file order decides
    no_times.add("scan=1", 1, 0.0, 0.0);
    no_times.add("scan=2", 2, 0.0, 0.0);
    no_times.add("scan=3", 1, 0.0, 0.0);
    no_times.add("scan=4", 2, 0.0, 0.0);
    no_times.finish();
    EXPECT_EQ(no_times.parent_of(1, ""), 1);
    EXPECT_EQ(no_times.parent_of(3, ""), 3);
}

// What the .ms1/.ms2 reader makes of an I line, by the single characters it
// tests: the keyword it assumes and the position it reads the value from.
struct ReaderView {
    std::string keyword;
    std::size_t value_at = 0;
};

ReaderView reader_view(const std::string& line) {
    if (line[2] == 'R')
        return {"RetTime", 10};
    if (line.compare(2, 2, "Io") == 0)
        return {"IonInjectionTime", 19};
    if (line.compare(2, 2, "In") == 0)
        return {"InstrumentType", 17};
    if (line[2] == 'A' && line[12] == 'T')
        return {"ActivationType", 17};
    if (line[2] == 'A' && line[12] == 'C')
        return {"ActivationCenter", 19};
    if (line[2] == 'P')
        return {"PrecursorScan", 16};
    return {};
}

TEST(SpexorScanText, Ms2LinesSitWhereTheReaderLooks) {
    ScanRecord scan;
    scan.number = 42;
    scan.retention_minutes = 24.0724533;
    scan.injection_ms = 22.945537;
    scan.instrument_type = "FTMS";
    scan.centroiding = "as stored";
    scan.activation_type = "HCD";
    scan.activation_center = 537.277587890625;
    scan.precursor_scan = 40;
    scan.precursors = {{536.274169921875, 2}, {0.0, 3}};
    scan.peaks = {{101.07059478759766, 4357.7255859375}, {928.4, 6062.04}};
    Options digits;
    std::string text;
    append_ms2_scan(text, scan, digits);
    EXPECT_EQ(lines_of(text),
              (std::vector<std::string>{
                  "S\t42\t42\t536.27417", "I\tRetTime\t24.072453", "I\tIonInjectionTime\t22.9455",
                  "I\tInstrumentType\tFTMS", "I\tCentroiding\tas stored", "I\tActivationType\tHCD",
                  "I\tActivationCenter\t537.27759", "I\tPrecursorScan\t40", "Z\t2\t1071.54106",
                  "Z\t3\t0.00000", "101.07059 4357.7", "928.40000 6062.0"}));
    for (const std::string& line : lines_of(text)) {
        if (line[0] != 'I' || line.compare(2, 11, "Centroiding") == 0) {
            continue;  // the Centroiding note must match no reader rule: checked below
        }
        ReaderView view = reader_view(line);
        ASSERT_NE(view.keyword, "") << line;
        EXPECT_EQ(line.substr(2, view.value_at - 3), view.keyword) << line;
        EXPECT_EQ(line[view.value_at - 1], '\t') << line;
    }
    EXPECT_EQ(reader_view("I\tCentroiding\tas stored").keyword, "");
    // The reader turns the Z mass back into m/z with the same proton mass.
    double mh = std::atof("1071.54106");
    EXPECT_NEAR((mh + kProtonMass) / 2, 536.274169921875, 1e-5);
}

TEST(SpexorScanText, UnknownValuesAreLeftOutAndDigitsFollowTheOptions) {
    ScanRecord scan;
    scan.number = 7;
    scan.retention_minutes = 1.5;
    scan.instrument_type = "ITMS";
    scan.centroiding = "PeakPickerHiRes";
    scan.peaks = {{370.207275390625, 34887.078125}};
    Options digits;
    digits.intensity_digits = 3;
    digits.mz_digits = 2;
    std::string ms1;
    append_ms1_scan(ms1, scan, digits);
    EXPECT_EQ(ms1,
              "S\t7\t7\nI\tRetTime\t1.500000\nI\tInstrumentType\tITMS\n"
              "I\tCentroiding\tPeakPickerHiRes\n370.21 34887.078\n");
    std::string ms2;
    append_ms2_scan(ms2, scan, digits);  // no precursor, no activation, no parent
    EXPECT_EQ(ms2,
              "S\t7\t7\nI\tRetTime\t1.500000\nI\tInstrumentType\tITMS\n"
              "I\tCentroiding\tPeakPickerHiRes\nI\tActivationCenter\t0.00\n"
              "370.21 34887.078\n");
}

TEST(SpexorRawCompanion, ExplainsHowToGetAReadableFile) {
    fs::path err = fs::temp_directory_path() / ("spexor_raw_" + std::to_string(::getpid()));
    std::string command = std::string("\"") + KSIEVE_RUN_DIR +
                          "/spexor_raw.exe\" -ms -a -i 1 -m 5 -o \"/tmp/o\" \"/d/run 1.raw\" 2> " +
                          err.string();
    int status = std::system(command.c_str());
    EXPECT_NE(status, 0);
    std::ifstream stream(err);
    std::string message((std::istreambuf_iterator<char>(stream)), {});
    fs::remove(err);
    EXPECT_NE(message.find("/d/run 1.raw"), std::string::npos) << message;
    EXPECT_NE(message.find("Convert the file to mzML"), std::string::npos) << message;
}

}  // namespace
}  // namespace ksieve::spexor

#include "userparameters.h"

#include <gtest/gtest.h>

#include <iostream>

#include "test_support.h"

namespace ksieve {
namespace {

using test::CaptureStream;
using test::TempDir;
using test::WorkingDirectory;
using test::write_file;

// The message of a failure thrown as `Thrown`; any other outcome is named.
template <typename Thrown, typename F>
std::string failure_of(F&& action) {
    try {
        action();
    } catch (Thrown message) {
        return message;
    } catch (...) {
        return "<thrown as another type>";
    }
    return "<nothing thrown>";
}

ParameterMap parse(const std::string& text) {
    std::FILE* file = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    ParameterMap map;
    try {
        map = read_parameter_map(file);
    } catch (...) {
        std::fclose(file);
        throw;
    }
    std::fclose(file);
    return map;
}

std::vector<std::string> keys_of(const ParameterMap& map) {
    std::vector<std::string> keys;
    for (const auto& row : map) {
        keys.push_back(row.first);
    }
    return keys;
}

// Applying and finalising log to the console and open the log in a scratch
// directory; the console text is kept for the tests that read it.
class Configuration : public ::testing::Test {
  protected:
    TempDir m_dir;
    CaptureStream m_out{std::cout};
    CaptureStream m_err{std::cerr};
    UserParameters m_record;

    // A map naming the scratch directory as its one data path.
    ParameterMap with_path(ParameterMap map) const {
        map.emplace("datapath", m_dir.path().string());
        return map;
    }
};

TEST(OptionTables, DefaultsInByteOrderOfTheirKeys) {
    // g_default_values gains empty rows from the template's and the usage's
    // lookups, so the order is checked on a fresh map.
    ParameterMap defaults;
    parameters_to_map(UserParameters{}, defaults);
    EXPECT_EQ(keys_of(defaults), (std::vector<std::string>{"check_activationcenter",
                                                           "co-elute",
                                                           "cut_similiar_mono",
                                                           "datanum",
                                                           "delete_msn",
                                                           "input_format",
                                                           "intensity",
                                                           "ipv_file",
                                                           "isolation_width",
                                                           "logfilepath",
                                                           "m/z",
                                                           "mars_model",
                                                           "mars_threshold",
                                                           "mstol",
                                                           "mstolppm",
                                                           "output_ks",
                                                           "output_mgf",
                                                           "outputpath",
                                                           "recalibrate_window",
                                                           "rewrite_files"}));
    EXPECT_EQ(g_default_values.at("datanum"), "0");
    EXPECT_EQ(g_default_values.at("mars_threshold"), "-0.340000");
    EXPECT_EQ(g_default_values.at("mstolppm"), "1");
    EXPECT_EQ(format_double(1e20), "100000000000000000000.000000");
    EXPECT_EQ(format_double(-0.0000004), "-0.000000");
}

TEST(OptionTables, EveryPathGetsItsOwnNumberedRow) {
    UserParameters record;
    record.m_datapaths = {"c", "a", "b"};
    ParameterMap map = {{"stale", "x"}};
    parameters_to_map(record, map);
    EXPECT_EQ(map.size(), 23u);
    EXPECT_EQ(map.count("stale"), 0u);
    auto row = map.find("datanum");
    EXPECT_EQ((++row)->second, "c");
    EXPECT_EQ((++row)->first, "datapath2");
    EXPECT_EQ((++row)->second, "b");
}

TEST(ParameterFile, LineFilter) {
    const ParameterMap map = parse(
        "# kSieve.params\n[Basic Options]\n[no closing bracket = 1\n; skipped = 1\n\n"
        "DataNum = 2 \r\n"
        "datapath1 = D:\\data # comment\n"
        "  Datapath2=\"D:\\A Dataset\"\\/\t\r\n"
        "outputpath = a=b#c\n"
        "mstol = 1\nMSTOL = 2\n"
        "rewrite_files =\n");
    EXPECT_EQ(map, (ParameterMap{{"datanum", "2"},
                                 {"datapath1", "D:\\data"},
                                 {"datapath2", "\"D:\\A Dataset\"\\/"},
                                 {"outputpath", "a=b"},
                                 {"mstol", "2"},
                                 {"rewrite_files", ""}}));
    EXPECT_EQ(failure_of<const char*>([] { parse("a = 1\n; fine\nkey\n"); }),
              "Unexpected INI format!");
    // A line longer than 1023 bytes arrives in pieces, each taken as a line.
    EXPECT_EQ(parse("x = " + std::string(1019, 'v') + "w = 2\n"),
              (ParameterMap{{"x", std::string(1019, 'v')}, {"w", "2"}}));
}

TEST(Conversion, LeadingNumberCountsTrailingTextIsIgnored) {
    EXPECT_EQ(to_int(" 12abc", "n"), 12);
    EXPECT_EQ(to_int("-2147483648", "n"), INT32_MIN);
    EXPECT_DOUBLE_EQ(to_double("2.5x", "n"), 2.5);
    EXPECT_DOUBLE_EQ(to_double("\t-1e3", "n"), -1000.0);
    for (const char* bad : {"", "x1", "2147483648", "-2147483649", "99999999999999999999"}) {
        EXPECT_EQ(
            failure_of<const std::string&>([&] { to_int(bad, "User Defined Parameter: m/z"); }),
            std::string("cannot turn param: <name:User Defined Parameter: m/z> <value:") + bad +
                "> into an int.");
    }
    for (const char* bad : {" ", ".", "e5", "1e999", "-1e999"}) {
        EXPECT_EQ(failure_of<const std::string&>([&] { to_double(bad, "t"); }),
                  std::string("cannot turn param: <name:t> <value:") + bad + "> into an double.");
    }
}

TEST_F(Configuration, FlagsAreOffOnlyForZero) {
    apply_parameters(m_record, with_path({{"rewrite_files", "false"},
                                          {"co-elute", "0"},
                                          {"delete_msn", ""},
                                          {"output_ks", "00"},
                                          {"mstolppm", "0"}}));
    EXPECT_TRUE(m_record.m_rewrite_files);
    EXPECT_FALSE(m_record.m_co_elute);
    EXPECT_TRUE(m_record.m_delete_msn);
    EXPECT_TRUE(m_record.m_output_ks);
    EXPECT_FALSE(m_record.m_mstolppm);
    EXPECT_TRUE(m_record.m_cut_similiar_mono);
}

TEST_F(Configuration, FirstBadValueInApplyingOrderIsReported) {
    const auto failure = [&](const ParameterMap& map) {
        return failure_of<const std::string&>([&] { apply_parameters(m_record, with_path(map)); });
    };
    EXPECT_EQ(
        failure({{"mstol", "x"}, {"mars_model", "y"}, {"intensity", "3"}}),
        "cannot turn param: <name:User Defined Parameter: mars_model> <value:y> into an int.");
    EXPECT_EQ(failure({{"mstol", "x"}, {"isolation_width", "2.5x"}}),
              "cannot turn param: <name:User Defined Parameter: mstol> <value:x> into an double.");
    EXPECT_EQ(failure({{"datanum", "2"}, {"datapath1", m_dir.path().string()}}),
              "Unable to find User Defined Parameter: datapath2");
    EXPECT_EQ(failure_of<const char*>([&] {
                  apply_parameters(m_record, {{"datanum ", "1"}});
              }),
              "Unable to find User Defined Parameter: datapath");
}

TEST_F(Configuration, DataPathsAreTrimmedAndInvalidOnesDropped) {
    const std::string dir = m_dir.path().string();
    write_file(m_dir.file("run.raw"), "");
    apply_parameters(m_record, {{"datanum", "4"},
                                {"datapath", "ignored"},
                                {"datapath1", dir + "/run.raw\\/"},
                                {"datapath2", "\"" + dir + "\""},
                                {"datapath3", dir + "//"},
                                {"datapath4", "/"}});
    EXPECT_EQ(m_record.m_datapaths, (std::vector<std::string>{dir + "/run.raw", dir}));
    EXPECT_EQ(m_err.text(), "[kSieve] <WARN> - Datapath: \"" + dir +
                                "\"is not a valid datapath.\n"
                                "[kSieve] <WARN> - Datapath: is not a valid datapath.\n");

    UserParameters none;
    apply_parameters(none, {{"datanum", "0"}, {"datapath", dir}});
    EXPECT_TRUE(none.m_datapaths.empty());
}

TEST_F(Configuration, FinalisingSettlesFormatDirectoriesAndWindows) {
    m_record.m_logfilepath = m_dir.file("logs") + "/\\";
    m_record.m_outputpath = m_dir.file("out/deep") + "\\/";
    m_record.m_mz_digits = 0;
    m_record.m_intensity_digits = 9;
    finalize_parameters(m_record);
    EXPECT_EQ(m_record.m_peak_format, "%.0f %.9f\n");
    EXPECT_EQ(m_record.m_outputpath, m_dir.file("out/deep"));
    EXPECT_FALSE(m_record.m_output_beside_input);
    EXPECT_TRUE(std::filesystem::is_directory(m_record.m_outputpath));
    EXPECT_EQ(m_record.m_logfilepath, m_dir.file("logs"));
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("logs/kSievePlusLog.txt")));
    EXPECT_DOUBLE_EQ(m_record.m_peak_window, 3.0);
    EXPECT_DOUBLE_EQ(m_record.m_search_window, 3.3);

    UserParameters absolute;
    absolute.m_outputpath = m_dir.file("out");
    absolute.m_mstolppm = false;
    absolute.m_mstol = 0.02;
    absolute.m_isolation_width = 7.0;
    finalize_parameters(absolute);
    EXPECT_EQ(absolute.m_logfilepath, m_dir.file("out"));
    EXPECT_DOUBLE_EQ(absolute.m_peak_window, 8.0);
    EXPECT_DOUBLE_EQ(absolute.m_search_window, 8.02);
}

TEST_F(Configuration, LogDirectoryFallsBackToTheFirstInputThenTheWorkingDirectory) {
    UserParameters beside;
    beside.m_datapaths = {m_dir.file("a.raw"), "elsewhere/b.raw"};
    finalize_parameters(beside);
    EXPECT_TRUE(beside.m_output_beside_input);
    EXPECT_EQ(beside.m_logfilepath, m_dir.path().string());

    WorkingDirectory here(m_dir.path());
    UserParameters nothing;
    finalize_parameters(nothing);
    EXPECT_EQ(nothing.m_logfilepath, ".");
}

TEST_F(Configuration, DigitsOutsideZeroToNineStopTheRun) {
    m_record.m_mz_digits = -1;
    m_record.m_intensity_digits = 10;
    EXPECT_EQ(failure_of<const char*>([&] { finalize_parameters(m_record); }),
              "Argument m/z(-z) invalid: m/z should be integer in [0, 9]");
    m_record.m_mz_digits = 9;
    EXPECT_EQ(failure_of<const char*>([&] { finalize_parameters(m_record); }),
              "Argument Intensity(-i) invalid: Intensity should be integer in [0, 9]");
}

TEST_F(Configuration, CommandLine) {
    const auto read = [](std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        return read_command_line(static_cast<int>(argv.size()), argv.data());
    };
    const std::string dir = m_dir.path().string();
    const UserParameters record = read({"kSieve", "-i", "3", "-D", dir, "-t", "-1", "-i", "4"});
    EXPECT_EQ(record.m_intensity_digits, 4);
    EXPECT_DOUBLE_EQ(record.m_mars_threshold, -1.0);
    EXPECT_EQ(record.m_datapaths, std::vector<std::string>{dir});
    EXPECT_EQ(read({"kSieve", dir + "/"}).m_datapaths, std::vector<std::string>{dir});

    const char* const check = "! Please check the options or the *.cfg files.";
    EXPECT_EQ(failure_of<const char*>([&] {
                  read({"kSieve", "-i", "3", "-z"});
              }),
              "Incorrect parameters number! Please check the options or the *.cfg files.");
    EXPECT_EQ(failure_of<const std::string&>([&] {
                  read({"kSieve", "-DD", dir});
              }),
              "Incorrect parameters-DD" + std::string(check));
    EXPECT_EQ(failure_of<const std::string&>([&] {
                  read({"kSieve", "-D", dir, "-x", "1"});
              }),
              "Unknown parameter option!-x" + std::string(check));
    EXPECT_EQ(failure_of<const char*>([&] {
                  read({"kSieve", "-i", "3"});
              }),
              "Unable to find User Defined Parameter: datapath");
}

TEST_F(Configuration, TemplateReadsBackAsTheDefaults) {
    WorkingDirectory here(m_dir.path());
    write_parameter_template();
    std::string name;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.path())) {
        name = entry.path().filename().string();
    }
    ASSERT_EQ(name.rfind("kSieve", 0), 0u);
    const UserParameters record = read_parameter_file(name);
    ParameterMap expected;
    parameters_to_map(UserParameters{}, expected);
    expected["logfilepath"] = ".";
    ParameterMap actual;
    parameters_to_map(record, actual);
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(failure_of<const std::string&>([] { read_parameter_file("missing.ini"); }),
              "Cannot open  File, Path: missing.ini");
}

}  // namespace
}  // namespace ksieve

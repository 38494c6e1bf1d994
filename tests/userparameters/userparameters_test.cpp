#include "userparameters.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

#include "test_support.h"

namespace ksieve {
namespace {

using test::failure_of;

ParameterMap parse(std::string text) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        fmemopen(text.data(), text.size(), "r"), &std::fclose);
    return read_parameter_map(file.get());
}

// Finalising logs to the console and opens the log in a scratch directory.
class Configuration : public ::testing::Test {
  protected:
    test::TempDir m_dir;
    test::CaptureStream m_out{std::cout};
    UserParameters m_record;
};

TEST(ParameterFile, LineFilter) {
    EXPECT_EQ(parse("[no closing bracket = 1\n; skipped = 1\n\nDataNum = 2 \r\n"
                    "  Datapath2=\"D:\\A Dataset\"\\/\t\r\noutputpath = a=b#c\n"),
              (ParameterMap{
                  {"datanum", "2"}, {"datapath2", "\"D:\\A Dataset\"\\/"}, {"outputpath", "a=b"}}));
    // A line longer than 1023 bytes arrives in pieces, each taken as a line.
    EXPECT_EQ(parse("x = " + std::string(1019, 'v') + "w = 2\n"),
              (ParameterMap{{"x", std::string(1019, 'v')}, {"w", "2"}}));
}

TEST(Conversion, OutOfRangeOrNoDigitsFails) {
    EXPECT_EQ(to_int("-2147483648", "n"), INT32_MIN);
    for (const char* bad : {"", "2147483648", "-2147483649", "99999999999999999999"}) {
        EXPECT_EQ(failure_of<const std::string&>([&] { to_int(bad, "m/z"); }),
                  std::string("cannot turn param: <name:m/z> <value:") + bad + "> into an int.");
    }
    for (const char* bad : {" ", ".", "e5", "1e999", "-1e999"}) {
        EXPECT_EQ(failure_of<const std::string&>([&] { to_double(bad, "t"); }),
                  std::string("cannot turn param: <name:t> <value:") + bad + "> into an double.");
    }
}

TEST_F(Configuration, FinalisingSettlesDirectoriesAndWindows) {
    m_record.m_logfilepath = m_dir.file("logs") + "/\\";
    m_record.m_outputpath = m_dir.file("out/deep") + "\\/";
    m_record.m_isolation_width = 2.5;
    finalize_parameters(m_record);
    EXPECT_EQ(m_record.m_outputpath, m_dir.file("out/deep"));
    EXPECT_TRUE(std::filesystem::is_directory(m_record.m_outputpath));
    EXPECT_TRUE(std::filesystem::exists(m_dir.file("logs/kSievePlusLog.txt")));
    EXPECT_DOUBLE_EQ(m_record.m_peak_window, 3.5);
    EXPECT_DOUBLE_EQ(m_record.m_search_window, 3.8);  // 20 ppm at m/z 15000

    UserParameters absolute;
    absolute.m_outputpath = m_dir.file("out");
    absolute.m_mstolppm = false;
    absolute.m_mstol = 0.02;
    finalize_parameters(absolute);
    EXPECT_EQ(absolute.m_logfilepath, m_dir.file("out"));
    EXPECT_DOUBLE_EQ(absolute.m_search_window, 3.02);
}

TEST_F(Configuration, DigitsOutsideZeroToNineStopTheRun) {
    const auto failure = [&](int mz_digits, int intensity_digits) {
        m_record.m_mz_digits = mz_digits;
        m_record.m_intensity_digits = intensity_digits;
        return failure_of<const char*>([&] { finalize_parameters(m_record); });
    };
    m_record.m_outputpath = m_dir.path().string();
    EXPECT_EQ(failure(-1, 10), "Argument m/z(-z) invalid: m/z should be integer in [0, 9]");
    EXPECT_EQ(failure(9, -1),
              "Argument Intensity(-i) invalid: Intensity should be integer in [0, 9]");
    EXPECT_EQ(failure(0, 9), "<nothing thrown>");
    EXPECT_EQ(m_record.m_peak_format, "%.0f %.9f\n");
}

TEST(CommandLine, OptionsAreADashAndOneLetter) {
    const std::string check = "! Please check the options or the *.cfg files.";
    for (std::string bad : {"-DD", "DD"}) {
        std::string name = "kSieve", value = ".";
        char* argv[] = {name.data(), bad.data(), value.data()};
        EXPECT_EQ(failure_of<const std::string&>([&] { read_command_line(3, argv); }),
                  "Incorrect parameters" + bad + check);
    }
}

}  // namespace
}  // namespace ksieve

namespace ksieve {
namespace {

// README's table of options is the one the option table generates; to refresh
// it, paste the text this test prints between the two markers.
TEST(OptionTable, ReadmeListsTheGeneratedTable) {
    const std::string readme = test::read_file(std::string(KSIEVE_SOURCE_DIR) + "/README.md");
    const std::string begin = "<!-- option table: generated -->\n";
    const std::string end = "<!-- end of option table -->";
    const size_t first = readme.find(begin);
    const size_t last = readme.find(end);
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(last, std::string::npos);
    const std::string listed = readme.substr(first + begin.size(), last - first - begin.size());
    EXPECT_EQ(listed, option_table_markdown()) << option_table_markdown();
}

// Values that would stop the run later (a NaN width or tolerance) or spoil it
// without a word (an infinite window, a NaN threshold, a fractional thread
// count) are refused while reading, naming the key.
TEST(OptionTable, BadValuesAreRefusedWithTheKeysName) {
    struct Case {
        const char* m_key;
        const char* m_value;
        const char* m_failure;
    };
    const Case cases[] = {
        {"isolation_width", "nan",
         "Argument isolation_width(-W) invalid: nan; isolation_width should be a number, not NaN"},
        {"recalibrate_window", "-NaN",
         "Argument recalibrate_window(-R) invalid: -NaN; recalibrate_window should be a number, "
         "not NaN"},
        {"mstol", "nan(1)", "Argument mstol invalid: nan(1); mstol should be a number, not NaN"},
        {"memory_ceiling_mib", "-1",
         "Argument memory_ceiling_mib invalid: -1; memory_ceiling_mib should be a number in [0, "
         "1048576]"},
        {"mgf_conventions", "yes",
         "Argument mgf_conventions invalid: yes; mgf_conventions should be 0 or 1"},
        {"threads", "-1", "Argument threads invalid: -1; threads should be a number in [0, 4096]"},
        {"threads", "all",
         "cannot turn param: <name:User Defined Parameter: threads> <value:all> into an int."},
        {"threads", "2.5",
         "cannot turn param: <name:User Defined Parameter: threads> <value:2.5> into an int."},
        {"threads", "1e3",
         "cannot turn param: <name:User Defined Parameter: threads> <value:1e3> into an int."},
        {"mars_threshold", "nan",
         "Argument mars_threshold(-t) invalid: nan; mars_threshold should be a number, not NaN"},
        {"mars_threshold", "-inf",
         "Argument mars_threshold(-t) invalid: -inf; mars_threshold should be a finite number"},
        {"isolation_width", "inf",
         "Argument isolation_width(-W) invalid: inf; isolation_width should be a finite number"},
        {"recalibrate_window", "+INF",
         "Argument recalibrate_window(-R) invalid: +INF; recalibrate_window should be a finite "
         "number"},
        {"mstol", "-Infinity",
         "Argument mstol invalid: -Infinity; mstol should be a finite number"},
        {"isolation_width", "-1", "<nothing thrown>"},
        {"recalibrate_window", "1e300", "<nothing thrown>"},
        {"mars_threshold", "-0.5", "<nothing thrown>"},
        {"memory_ceiling_mib", "0", "<nothing thrown>"},
        {"mgf_conventions", "1", "<nothing thrown>"},
        {"threads", "0", "<nothing thrown>"},
        {"threads", "7", "<nothing thrown>"},
    };
    for (const Case& c : cases) {
        UserParameters record;
        const ParameterMap map{{c.m_key, c.m_value}, {"datanum", "0"}};
        EXPECT_EQ(failure_of<const std::string&>([&] { apply_parameters(record, map); }),
                  c.m_failure)
            << c.m_key << " = " << c.m_value;
    }
}

// A symbolic link that leads nowhere (dangling, or a loop) is refused by name:
// dropping it as a path that names nothing ended such runs with nothing done.
TEST(OptionTable, BrokenLinksAreRefusedByName) {
    test::TempDir dir;
    const std::string dangling = dir.file("gone.mzML"), loop = dir.file("loop.ms1");
    ASSERT_EQ(symlink("nowhere.mzML", dangling.c_str()), 0);
    ASSERT_EQ(symlink("loop.ms1", loop.c_str()), 0);
    for (const std::string& path : {dangling, loop}) {
        UserParameters record;
        EXPECT_EQ(failure_of<const std::string&>([&] {
                      apply_parameters(record, {{"datapath", path}});
                  }),
                  "Cannot open  File, Path: " + path + " is a broken symbolic link")
            << path;
    }
}

// KSIEVE_THREADS stands in for a missing threads key, refused as the key would
// be; the key of the parameter file wins.
TEST(OptionTable, TheThreadsKeyWinsOverTheEnvironment) {
    struct Case {
        const char* m_environment;
        std::optional<std::string> m_key;
        int32_t m_threads;  // -1: refused
        const char* m_failure;
    };
    const Case cases[] = {
        {"3", std::nullopt, 3, "<nothing thrown>"},
        {"3", "5", 5, "<nothing thrown>"},
        {"-2", "1", 1, "<nothing thrown>"},
        {"-2", std::nullopt, -1,
         "Argument threads invalid: -2; threads should be a number in [0, 4096]"},
        {"x", std::nullopt, -1,
         "cannot turn environment variable: <name:KSIEVE_THREADS> <value:x> into an int."},
        {"2.5", std::nullopt, -1,
         "cannot turn environment variable: <name:KSIEVE_THREADS> <value:2.5> into an int."},
        {"abc", "2", 2, "<nothing thrown>"},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(setenv("KSIEVE_THREADS", c.m_environment, 1), 0);
        UserParameters record;
        ParameterMap map{{"datanum", "0"}};
        if (c.m_key) {
            map["threads"] = *c.m_key;
        }
        EXPECT_EQ(failure_of<const std::string&>([&] { apply_parameters(record, map); }),
                  c.m_failure)
            << c.m_environment;
        if (c.m_threads >= 0) {
            EXPECT_EQ(record.m_threads, c.m_threads) << c.m_environment;
        }
    }
    unsetenv("KSIEVE_THREADS");
}

// Only the original keys are echoed; a later key speaks once, after the echo,
// and only when it is set away from its default.
TEST(OptionTable, LaterKeysAreLoggedAfterTheEchoWhenSet) {
    const auto echo = [](const ParameterMap& map) {
        test::CaptureStream out(std::cout);
        UserParameters record;
        apply_parameters(record, map);
        print_parameters(record);
        return out.text();
    };
    const std::string plain = echo({{"datanum", "0"}, {"memory_ceiling_mib", "1024"}});
    EXPECT_EQ(plain.find("memory_ceiling_mib"), std::string::npos);
    EXPECT_EQ(plain.find("mgf_conventions"), std::string::npos);
    const std::string set = echo({{"datanum", "0"}, {"memory_ceiling_mib", "64"}});
    EXPECT_EQ(set, plain + "[kSieve] <INFO> - memory_ceiling_mib = 64\n");
    // The thread count changes no byte of output, so not the log either.
    EXPECT_EQ(echo({{"datanum", "0"}, {"threads", "7"}}), plain);
}

}  // namespace
}  // namespace ksieve

#include "userparameters.h"

#include <gtest/gtest.h>

#include <iostream>
#include <memory>

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

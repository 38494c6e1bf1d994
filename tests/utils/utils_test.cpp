#include "utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>

#include <sys/stat.h>

#include "test_support.h"

namespace ksieve {
namespace {

using Texts = std::vector<std::string>;

const auto message_of = [](auto&& action) { return test::failure_of<const std::string&>(action); };

TEST(TextHelpers, TrimSplitSuffixAndParentWorkOnBytes) {
    EXPECT_EQ(trim("  a b \r\n", kWhiteSpace), "a b");
    EXPECT_EQ(ltrim("\\/x/", kPathSeparators), "x/");
    EXPECT_EQ(trim("\xc3\xa9x\xc3\xa9", "\xc3\xa9"), "x");  // bytes above 127 are members too
    EXPECT_TRUE(ends_with("run.PARAMS \r\n", ".params"));
    EXPECT_FALSE(ends_with("s", ".params"));
    EXPECT_FALSE(ends_with("a.params", ".params "));
    // Whatever follows the last delimiter is dropped.
    EXPECT_EQ(split("a,,b;c", ",;"), (Texts{"a", "", "b"}));
    EXPECT_TRUE(split("abc", ",").empty());
    EXPECT_EQ(parent_directory("D:\\data\\1.raw"), "D:\\data");
    EXPECT_EQ(parent_directory("/x"), "");
    EXPECT_EQ(parent_directory(""), ".");
}

TEST(FileHelpers, ExistenceAndFailureMessages) {
    test::TempDir dir;
    const std::string file = dir.file("f"), missing = dir.file("no/such/file");
    test::write_file(file, "x");
    EXPECT_TRUE(file_exists(file));
    EXPECT_FALSE(file_exists(dir.path().string()));
    EXPECT_FALSE(path_exists(missing));
    EXPECT_EQ(message_of([&] { open_file(missing, "w", "Log Dump"); }),
              "Cannot open Log Dump File, Path: " + missing);
    EXPECT_EQ(message_of([&] { list_files(file, ".raw"); }), "Cannot open File: " + file);
    EXPECT_EQ(message_of([&] { delete_file(missing); }), "<nothing thrown>");
}

// A FIFO would block the run until something writes to it, and a device never
// ends: both are refused by name rather than read, and looking at them does
// not open them.
TEST(FileHelpers, OnlyRegularFilesAreRead) {
    test::TempDir dir;
    const std::string fifo = dir.file("run.ms1");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_TRUE(path_exists(fifo));
    for (const std::string& path : {fifo, std::string("/dev/zero")}) {
        EXPECT_EQ(message_of([&] { open_file(path, "r", ""); }),
                  "Cannot open  File, Path: " + path + " is not a regular file");
    }
    const std::string file = dir.file("f");
    test::write_file(file, "x");
    std::FILE* opened = open_file(file, "r", "");
    EXPECT_EQ(std::fgetc(opened), 'x');
    std::fclose(opened);
}

// Names reach the file system exactly as given, whatever the shell would make
// of them; listings are filtered by extension and sorted in byte order.
TEST(FileHelpers, MakeDirectoryAndListFiles) {
    test::TempDir dir;
    const std::string base = dir.path().string();
    make_directory(" " + base + "/a/b//\t");
    EXPECT_TRUE(directory_exists(base + "/a/b"));
    for (const char* name : {"x$HOME.raw", "y`true`z", "q\"uote", "back\\slash", "-dash", "it's"}) {
        make_directory(dir.file(name));
        EXPECT_TRUE(std::filesystem::is_directory(dir.path() / name)) << name;
    }
    for (const char* name : {"b.raw", "a.RAW", ".c.raw", "d.txt", "C.raw"}) {
        test::write_file(dir.file(name), "x");
    }
    EXPECT_EQ(list_files(base + "/", ".raw"),
              (Texts{base + "/C.raw", base + "/a.RAW", base + "/b.raw", base + "/x$HOME.raw"}));
    EXPECT_EQ(list_files(dir.file("a.RAW"), ".raw"), Texts{dir.file("a.RAW")});
}

// Directories are made by the system call itself, so no program is looked up
// and no byte of a name is interpreted; a failure prints mkdir's own line,
// naming the level that could not be made.
TEST(FileHelpers, MakeDirectoryRunsNoProgram) {
    test::TempDir dir;
    const std::string base = dir.path().string();
    const std::string saved_path = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
    setenv("PATH", "", 1);
    make_directory(base + "/$(touch x)/`y`/\"z\"//");
    setenv("PATH", saved_path.c_str(), 1);
    EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "$(touch x)" / "`y`" / "\"z\""));
    test::write_file(dir.file("f"), "x");
    test::write_file(dir.file("it's\\b\tq"), "x");
    const std::pair<std::string, std::string> cases[] = {
        {base + "/f", "'" + base + "/f': File exists"},
        {base + "/f/sub/deeper", "'" + base + "/f': Not a directory"},
        {base + "/it's\\b\tq", "'" + base + "/it\\'s\\\\b\\tq': File exists"},
    };
    for (const auto& [path, reason] : cases) {
        test::CaptureStream errors(std::cerr);
        EXPECT_EQ(message_of([&] { make_directory(path); }), "Can not make the directory: " + path);
        EXPECT_EQ(errors.text(), "mkdir: cannot create directory " + reason + "\n");
    }
}

TEST(Numbers, WeightedStdDev) {
    EXPECT_DOUBLE_EQ(WeightedStdDev({1.0, 3.0}, {3.0, 1.0}), std::sqrt(0.75));
    EXPECT_EQ(WeightedStdDev({}, {}), 0.0);
    EXPECT_EQ(WeightedStdDev({1.0, 3.0}, {5e-7, 5e-7}), 0.0);  // weight sum exactly 1e-6
}

// The fast readers take the numbers of every spectrum line, so they must agree
// with the C library on every input, junk included: edge cases, then random text.
TEST(Numbers, FastReadersAgreeWithTheCLibrary) {
    const auto check = [](const std::string& text) {
        SCOPED_TRACE('"' + text + '"');
        const double expected = std::strtod(text.c_str(), nullptr);
        const double actual = text_to_double(text.c_str());
        if (std::isnan(expected)) {
            EXPECT_TRUE(std::isnan(actual) && std::signbit(actual) == std::signbit(expected));
        } else {
            EXPECT_EQ(std::memcmp(&actual, &expected, sizeof expected), 0) << actual;
        }
        EXPECT_EQ(text_to_int(text.c_str()),
                  static_cast<int>(std::strtol(text.c_str(), nullptr, 10)));
    };
    std::istringstream edges(
        "| |0|-0|+5|--5|+-5|- 5|12abc|2.5x|.5|5.|.|-.|1e|1e+|1e-5|1E5| \t\n\v\f\r42|0x1A|-0x10|0x|"
        "inf|-Infinity|nan|-nan(1)|1e400|-1e400|1e-400|4.9e-324|2.2250738585072011e-308|"
        "123456789012345678901234567890|2147483647|2147483648|-2147483649|9223372036854775807|"
        "9223372036854775808|-9223372036854775808|99999999999999999999|"
        "0.1000000000000000055511151231257827|12\n34|7 8");
    for (std::string text; std::getline(edges, text, '|');) {
        check(text);
    }
    std::mt19937 engine(20261122);
    const std::string alphabet = "0123456789.eE+- \txXinfaINFAp\n";
    for (int i = 0; i < 20000; ++i) {
        std::string text(engine() % 13, ' ');
        for (char& c : text) {
            c = alphabet[engine() % alphabet.size()];
        }
        check(text);
    }
}

TEST(AssertionDeathTest, PrintsItsTextAndAborts) {
    EXPECT_DEATH(KS_ASSERT(1 + 1 == 3, "1 + 1 == 3"), "Assertion failed: 1 \\+ 1 == 3");
}

}  // namespace
}  // namespace ksieve

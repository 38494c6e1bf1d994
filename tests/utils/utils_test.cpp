#include "utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "test_support.h"

namespace ksieve {
namespace {

using test::TempDir;
using test::write_file;

// A thrown composed message, or "" when nothing was thrown.
template <typename F>
std::string message_of(F&& action) {
    try {
        action();
    } catch (const std::string& message) {
        return message;
    }
    return "";
}

TEST(TextHelpers, TrimWorksOnBytesOfTheSet) {
    EXPECT_EQ(trim("  a b \r\n", kWhiteSpace), "a b");
    EXPECT_EQ(rtrim("/", kPathSeparators), "");
    EXPECT_EQ(ltrim("\\/x/", kPathSeparators), "x/");
    EXPECT_EQ(trim(" \t\n", kWhiteSpace), "");
    EXPECT_EQ(trim("  x  ", ""), "  x  ");
    // Bytes above 127 are ordinary members of a set.
    EXPECT_EQ(trim("\xc3\xa9x\xc3\xa9", "\xc3\xa9"), "x");
}

TEST(TextHelpers, EndsWithTrimsTheTextButNotTheSuffix) {
    EXPECT_TRUE(ends_with("run.PARAMS \r\n", ".params"));
    EXPECT_FALSE(ends_with("s", ".params"));
    EXPECT_TRUE(ends_with("x", ""));
    EXPECT_FALSE(ends_with("a.params", ".params "));
    EXPECT_FALSE(ends_with("a.param", ".params"));
    EXPECT_FALSE(ends_with("a.params.txt", ".params"));
}

TEST(TextHelpers, SplitDropsTheTailAfterTheLastDelimiter) {
    EXPECT_EQ(split("a,,b,", ","), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(split("a b c", " "), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(split(",a", ","), (std::vector<std::string>{""}));
    EXPECT_TRUE(split("abc", ",").empty());
    EXPECT_EQ(split("a.b;c", ".;"), (std::vector<std::string>{"a", "b"}));
}

TEST(PathHelpers, JoinAndParent) {
    EXPECT_EQ(join_path({"out/", "file.txt"}), "out/file.txt");
    EXPECT_EQ(join_path({"", "x"}), "x");
    EXPECT_EQ(join_path({"a", "b", "c"}), "a/b/c");
    EXPECT_EQ(parent_directory("/no/such/dir/1.raw"), "/no/such/dir");
    EXPECT_EQ(parent_directory("D:\\data\\1.raw"), "D:\\data");
    EXPECT_EQ(parent_directory("/x"), "");
    EXPECT_EQ(parent_directory("1.raw"), "1.raw");
    EXPECT_EQ(parent_directory(""), ".");
    TempDir dir;
    EXPECT_EQ(parent_directory(dir.path().string()), dir.path().string());
}

TEST(FileHelpers, ExistenceSeparatesFilesFromDirectories) {
    TempDir dir;
    write_file(dir.file("f.txt"), "x");
    EXPECT_TRUE(file_exists(dir.file("f.txt")));
    EXPECT_FALSE(file_exists(dir.path().string()));
    EXPECT_FALSE(file_exists(dir.file("missing")));
    EXPECT_TRUE(directory_exists(dir.path().string()));
    EXPECT_FALSE(directory_exists(dir.file("f.txt")));
    EXPECT_TRUE(path_exists(dir.file("f.txt")));
    EXPECT_TRUE(path_exists(dir.path().string()));
    EXPECT_FALSE(path_exists(dir.file("missing")));
}

TEST(FileHelpers, FailuresSpeakTheirMessages) {
    TempDir dir;
    const std::string missing = dir.file("no/such/file");
    EXPECT_EQ(message_of([&] { open_file(missing, "r", ""); }),
              "Cannot open  File, Path: " + missing);
    EXPECT_EQ(message_of([&] { open_file(missing, "w", "Log Dump"); }),
              "Cannot open Log Dump File, Path: " + missing);
    write_file(dir.file("plain"), "x");
    EXPECT_EQ(message_of([&] { make_directory(dir.file("plain") + "/"); }),
              "Can not make the directory: " + dir.file("plain"));
    EXPECT_EQ(message_of([&] { list_files(dir.file("plain"), ".raw"); }),
              "Cannot open File: " + dir.file("plain"));
    EXPECT_EQ(message_of([&] { delete_file(missing); }), "");
}

TEST(FileHelpers, MakeDirectoryCreatesParentsAndDeleteRemoves) {
    TempDir dir;
    make_directory(" " + dir.file("a/b/c") + "//\t");
    EXPECT_TRUE(directory_exists(dir.file("a/b/c")));
    make_directory(dir.file("a/b/c"));  // existing: nothing to do, no failure
    // The name reaches the file system exactly as given, whatever the shell
    // would make of it.
    for (const char* name : {"x$HOME", "y`true`z", "q\"uote", "back\\slash", "-dash", "it's"}) {
        const std::filesystem::path wanted = dir.path() / name;
        make_directory(wanted.string());
        EXPECT_TRUE(std::filesystem::is_directory(wanted)) << name;
    }
    write_file(dir.file("a/f"), "x");
    delete_file(dir.file("a/f"));
    EXPECT_FALSE(file_exists(dir.file("a/f")));
}

TEST(FileHelpers, ListFilesFiltersByExtensionInByteOrder) {
    TempDir dir;
    for (const char* name : {"b.raw", "a.RAW", ".c.raw", "d.txt", "C.raw"}) {
        write_file(dir.file(name), "x");
    }
    std::filesystem::create_directory(dir.file("e.raw"));
    const std::string base = dir.path().string();
    EXPECT_EQ(list_files(base, ".raw"),
              (std::vector<std::string>{base + "/C.raw", base + "/a.RAW", base + "/b.raw",
                                        base + "/e.raw"}));
    // A file given by name is the whole result, with its case as given.
    EXPECT_EQ(list_files(dir.file("a.RAW"), ".raw"), (std::vector<std::string>{dir.file("a.RAW")}));
    EXPECT_EQ(list_files(base + "/", ".txt"), (std::vector<std::string>{base + "/d.txt"}));
}

TEST(FileHelpers, RewindReturnsToTheStart) {
    TempDir dir;
    write_file(dir.file("f"), "abc");
    std::FILE* file = open_file(dir.file("f"), "r", "");
    std::fgetc(file);
    std::fgetc(file);
    rewind_file(dir.file("f"), file);
    EXPECT_EQ(std::fgetc(file), 'a');
    std::fclose(file);
}

TEST(Numbers, WeightedStdDev) {
    EXPECT_DOUBLE_EQ(WeightedStdDev({1.0, 3.0}, {1.0, 1.0}), 1.0);
    EXPECT_DOUBLE_EQ(WeightedStdDev({1.0, 3.0}, {3.0, 1.0}), std::sqrt(0.75));
    EXPECT_EQ(WeightedStdDev({}, {}), 0.0);
    EXPECT_EQ(WeightedStdDev({5.0}, {1e-7}), 0.0);
}

// The fast readers must agree with the C library on every input, junk included:
// they read the numbers of every spectrum line.
std::vector<std::string> number_like_texts() {
    std::vector<std::string> texts = {"",
                                      " ",
                                      "0",
                                      "-0",
                                      "+5",
                                      "--5",
                                      "+-5",
                                      "- 5",
                                      "12abc",
                                      "2.5x",
                                      ".5",
                                      "5.",
                                      ".",
                                      "-.",
                                      "1e",
                                      "1e+",
                                      "1e-5",
                                      "1E5",
                                      " \t\n\v\f\r42",
                                      "0x1A",
                                      "-0x10",
                                      "0x",
                                      "inf",
                                      "-Infinity",
                                      "nan",
                                      "nan(1)",
                                      "1e400",
                                      "-1e400",
                                      "1e-400",
                                      "4.9e-324",
                                      "2.2250738585072011e-308",
                                      "123456789012345678901234567890",
                                      "2147483647",
                                      "2147483648",
                                      "-2147483649",
                                      "9223372036854775807",
                                      "9223372036854775808",
                                      "-9223372036854775808",
                                      "99999999999999999999",
                                      "0.1000000000000000055511151231257827",
                                      "12\n34",
                                      "7 8"};
    std::mt19937 engine(20261122);
    const std::string alphabet = "0123456789.eE+- \txXinfaINFAp\n";
    std::uniform_int_distribution<size_t> length(0, 12);
    std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
    for (int i = 0; i < 20000; ++i) {
        std::string text(length(engine), ' ');
        for (char& c : text) {
            c = alphabet[pick(engine)];
        }
        texts.push_back(text);
    }
    return texts;
}

TEST(Numbers, FastReadersAgreeWithTheCLibrary) {
    for (const std::string& text : number_like_texts()) {
        const double expected = std::strtod(text.c_str(), nullptr);
        const double actual = text_to_double(text.c_str());
        if (std::isnan(expected)) {
            EXPECT_TRUE(std::isnan(actual)) << '"' << text << '"';
            EXPECT_EQ(std::signbit(actual), std::signbit(expected)) << '"' << text << '"';
        } else {
            EXPECT_EQ(std::memcmp(&actual, &expected, sizeof expected), 0)
                << '"' << text << "\": " << actual << " instead of " << expected;
        }
        EXPECT_EQ(text_to_int(text.c_str()),
                  static_cast<int>(std::strtol(text.c_str(), nullptr, 10)))
            << '"' << text << '"';
    }
}

TEST(AssertionDeathTest, PrintsItsTextAndAborts) {
    EXPECT_DEATH(KS_ASSERT(1 + 1 == 3, "1 + 1 == 3"), "Assertion failed: 1 \\+ 1 == 3");
}

}  // namespace
}  // namespace ksieve

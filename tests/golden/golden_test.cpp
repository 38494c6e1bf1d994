// Golden-file cases: each directory under cases/ is one run of the real kSieve
// executable in a fresh working directory, compared byte for byte with what the
// case expects. README.md in this folder describes the layout of a case.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
// g++ 12 with the sanitizers sees a false use of uninitialised memory in <regex>.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

namespace ksieve {
namespace {

namespace fs = std::filesystem;

// A run's whole outcome, laid out as in expected/: "exit_code", "stdout",
// "stderr", "removed" (only when the run deleted something) and "files/<path>".
using FileSet = std::map<std::string, std::string>;

// Replaces what differs from one run to the next, and nothing else: the local
// time that opens each run's log, the template's timestamped name and the
// elapsed seconds. Masking a masked text changes nothing, so expected files are
// stored masked.
std::string mask(std::string text) {
    static const std::pair<std::regex, const char*> kRules[] = {
        {std::regex("(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|"
                    "Dec) [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}"),
         "Www Mmm DD hh:mm:ss YYYY"},
        {std::regex("kSieve[0-9]+\\.params"), "kSieveTIMESTAMP.params"},
        {std::regex("Time elapsed: [0-9]+"), "Time elapsed: N"}};
    for (const auto& [pattern, replacement] : kRules) {
        text = std::regex_replace(text, pattern, replacement);
    }
    return text;
}

// Names and contents masked; two names that mask alike fail the case.
FileSet masked(const FileSet& files) {
    FileSet result;
    for (const auto& [name, content] : files) {
        EXPECT_TRUE(result.emplace(mask(name), mask(content)).second)
            << "two files mask to " << mask(name);
    }
    return result;
}

// One entry per line; a missing file gives none.
std::vector<std::string> read_lines(const fs::path& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

FileSet files_under(const fs::path& root) {
    FileSet files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[fs::relative(entry.path(), root)] = test::read_file(entry.path());
        }
    }
    return files;
}

// Where two texts first differ: the line number and both lines.
std::string first_difference(const std::string& expected, const std::string& actual) {
    size_t line = 1, from = 0;
    for (size_t i = 0; i < expected.size() && i < actual.size() && expected[i] == actual[i]; ++i) {
        line += expected[i] == '\n';
        from = expected[i] == '\n' ? i + 1 : from;
    }
    const auto line_at = [from](const std::string& text) {
        return text.substr(from, std::min<size_t>(text.find('\n', from) - from, 200));
    };
    return "first difference in line " + std::to_string(line) +
           "\n  expected: " + line_at(expected) + "\n  actual:   " + line_at(actual);
}

// Runs kSieve in `work` as "./kSieve", with LC_ALL=C and no input, and collects
// its exit, its console streams and what it changed in `work`.
FileSet run_case(std::vector<std::string> args, const fs::path& work, const fs::path& scratch) {
    args.insert(args.begin(), "./kSieve");
    const FileSet before = files_under(work);
    // kSieve looks beside its own executable for the files that ship with it. It
    // runs from a directory of its own (a link to it, or else a copy), so that it
    // finds only what the case gives.
    const fs::path program = scratch / "program" / "kSieve";
    fs::create_directory(program.parent_path());
    std::error_code no_link;
    fs::create_hard_link(KSIEVE_EXECUTABLE, program, no_link);
    if (no_link) {
        fs::copy_file(KSIEVE_EXECUTABLE, program);
    }
    const pid_t child =
        test::start_program(program, std::move(args), work, scratch / "stdout", scratch / "stderr");
    FileSet outcome = {{"exit_code", test::wait_for_program(child)},
                       {"stdout", test::read_file(scratch / "stdout")},
                       {"stderr", test::read_file(scratch / "stderr")}};
    for (const auto& [name, content] : files_under(work)) {
        const auto old = before.find(name);
        if (old == before.end() || old->second != content) {
            outcome["files/" + name] = content;
        }
    }
    for (const auto& [name, content] : before) {
        if (!fs::exists(work / name)) {
            outcome["removed"] += name + "\n";
        }
    }
    return outcome;
}

class GoldenCase : public ::testing::TestWithParam<std::string> {};

TEST_P(GoldenCase, MatchesExpectedOutput) {
    const fs::path case_dir = fs::path(KSIEVE_GOLDEN_CASES_DIR) / GetParam();
    test::TempDir scratch;
    const fs::path work = scratch.path() / "work";
    fs::create_directory(work);
    if (fs::is_directory(case_dir / "input")) {
        fs::copy(case_dir / "input", work, fs::copy_options::recursive);
    }
    for (const std::string& name : read_lines(case_dir / "run_files")) {
        if (!fs::exists(fs::path(KSIEVE_RUN_DIR) / name)) {
            GTEST_SKIP() << "needs " << name << ", which this build does not produce";
        }
        fs::copy_file(fs::path(KSIEVE_RUN_DIR) / name, work / name);
    }
    const FileSet actual = masked(run_case(read_lines(case_dir / "args"), work, scratch.path()));
    const fs::path expected_dir = case_dir / "expected";
    if (const char* update = std::getenv("KSIEVE_GOLDEN_UPDATE");
        update != nullptr && std::string(update) == "1") {
        fs::remove_all(expected_dir);
        for (const auto& [name, content] : actual) {
            fs::create_directories((expected_dir / name).parent_path());
            test::write_file(expected_dir / name, content);
        }
        std::cout << "updated " << expected_dir << "\n";
        return;
    }
    const FileSet expected = masked(files_under(expected_dir));
    for (const auto& [name, content] : expected) {
        const auto produced = actual.find(name);
        EXPECT_TRUE(produced != actual.end()) << "expected " << name << " was not produced";
        EXPECT_TRUE(produced == actual.end() || content == produced->second)
            << name << " differs; " << first_difference(content, produced->second);
    }
    for (const auto& [name, content] : actual) {
        EXPECT_EQ(expected.count(name), 1u) << "the run produced unexpected " << name;
    }
}

// A case name that gtest does not admit (letters, digits and '_' only) fails
// the whole executable.
std::set<std::string> case_names() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(KSIEVE_GOLDEN_CASES_DIR)) {
        if (entry.is_directory()) {
            names.insert(entry.path().filename().string());
        }
    }
    return names;
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldenCase, ::testing::ValuesIn(case_names()),
                         [](const auto& param) { return param.param; });

}  // namespace
}  // namespace ksieve

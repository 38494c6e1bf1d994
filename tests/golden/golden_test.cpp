// Golden-file cases: each directory under cases/ is one run of the real kSieve
// executable in a fresh working directory, compared byte for byte with what the
// case expects (exit code, both console streams, and every file the run created
// or changed). README.md in this folder describes the layout of a case.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"

extern char** environ;

namespace ksieve {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::TempDir;
using test::write_file;

using FileSet = std::map<std::string, std::string>;  // relative path -> content

struct Outcome {
    std::string exit_code;
    std::string out;
    std::string err;
    FileSet files;                     // created or changed by the run
    std::vector<std::string> removed;  // copied in, gone afterwards
};

const fs::path kCasesDir = KSIEVE_GOLDEN_CASES_DIR;

// ---- masking ----------------------------------------------------------------

bool digit_at(const std::string& text, size_t i) {
    return i < text.size() && text[i] >= '0' && text[i] <= '9';
}

size_t digits_from(const std::string& text, size_t i) {
    size_t end = i;
    while (digit_at(text, end)) {
        ++end;
    }
    return end - i;
}

bool word_in(const std::string& text, size_t i, const char* const* words, size_t count) {
    return std::any_of(words, words + count,
                       [&](const char* word) { return text.compare(i, 3, word) == 0; });
}

// "Sun Nov 22 03:12:14 2026": the local time that opens each run's log.
bool is_asctime_at(const std::string& text, size_t i) {
    static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (i + 24 > text.size() || !word_in(text, i, kDays, 7) || text[i + 3] != ' ' ||
        !word_in(text, i + 4, kMonths, 12) || text[i + 7] != ' ') {
        return false;
    }
    const char* const shape = "_d dd:dd:dd dddd";  // '_': a blank or a digit
    for (size_t k = 0; k < 16; ++k) {
        const char c = text[i + 8 + k];
        const bool digit = c >= '0' && c <= '9';
        const bool ok = shape[k] == 'd'   ? digit
                        : shape[k] == '_' ? digit || c == ' '
                                          : c == shape[k];
        if (!ok) {
            return false;
        }
    }
    return true;
}

// Replaces what differs from one run to the next, and nothing else: the asctime
// line, the template's timestamped name and the elapsed seconds. Masking a
// masked text changes nothing, so expected files are stored masked.
std::string mask(const std::string& text) {
    static const std::string kElapsed = "Time elapsed: ";
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (is_asctime_at(text, i)) {
            result += "Www Mmm DD hh:mm:ss YYYY";
            i += 24;
        } else if (text.compare(i, 6, "kSieve") == 0 && digits_from(text, i + 6) > 0 &&
                   text.compare(i + 6 + digits_from(text, i + 6), 7, ".params") == 0) {
            result += "kSieveTIMESTAMP.params";
            i += 6 + digits_from(text, i + 6) + 7;
        } else if (text.compare(i, kElapsed.size(), kElapsed) == 0 &&
                   digits_from(text, i + kElapsed.size()) > 0) {
            result += kElapsed + "N";
            i += kElapsed.size() + digits_from(text, i + kElapsed.size());
        } else {
            result += text[i++];
        }
    }
    return result;
}

// ---- case files -------------------------------------------------------------

// One entry per line; a missing file gives none.
std::vector<std::string> read_lines(const fs::path& path) {
    std::vector<std::string> lines;
    if (!fs::exists(path)) {
        return lines;
    }
    const std::string text = read_file(path);
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        lines.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

FileSet files_under(const fs::path& root) {
    FileSet files;
    if (!fs::is_directory(root)) {
        return files;
    }
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[fs::relative(entry.path(), root).generic_string()] = read_file(entry.path());
        }
    }
    return files;
}

FileSet masked(const FileSet& files) {
    FileSet result;
    for (const auto& [name, content] : files) {
        const std::string masked_name = mask(name);
        EXPECT_EQ(result.count(masked_name), 0u) << "two files mask to " << masked_name;
        result[masked_name] = mask(content);
    }
    return result;
}

// ---- running ----------------------------------------------------------------

std::string exit_text(int status) {
    if (WIFEXITED(status)) {
        return std::to_string(WEXITSTATUS(status)) + "\n";
    }
    return "signal " + std::to_string(WTERMSIG(status)) + "\n";
}

// Runs kSieve in `work` with the given arguments, LC_ALL=C and no input; the
// console streams land in `out` and `err`.
std::string run_program(const fs::path& work, std::vector<std::string> args, const fs::path& out,
                        const fs::path& err) {
    args.insert(args.begin(), "./kSieve");  // the name that the log records
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    std::vector<std::string> environment = {"LC_ALL=C"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "LC_ALL=", 7) != 0) {
            environment.emplace_back(*entry);
        }
    }
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        const int in_fd = open("/dev/null", O_RDONLY);
        const int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (chdir(work.c_str()) != 0 || in_fd < 0 || out_fd < 0 || err_fd < 0 ||
            dup2(in_fd, 0) < 0 || dup2(out_fd, 1) < 0 || dup2(err_fd, 2) < 0) {
            _exit(127);
        }
        execve(KSIEVE_EXECUTABLE, argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return "could not run " KSIEVE_EXECUTABLE "\n";
    }
    return exit_text(status);
}

Outcome expected_outcome(const fs::path& expected) {
    Outcome outcome;
    outcome.exit_code = read_file(expected / "exit_code");
    outcome.out = read_file(expected / "stdout");
    outcome.err = read_file(expected / "stderr");
    outcome.files = files_under(expected / "files");
    outcome.removed = read_lines(expected / "removed");
    return outcome;
}

void store_outcome(const fs::path& expected, const Outcome& outcome) {
    fs::create_directories(expected);
    write_file(expected / "exit_code", outcome.exit_code);
    write_file(expected / "stdout", mask(outcome.out));
    write_file(expected / "stderr", mask(outcome.err));
    fs::remove_all(expected / "files");
    for (const auto& [name, content] : masked(outcome.files)) {
        fs::create_directories((expected / "files" / name).parent_path());
        write_file(expected / "files" / name, content);
    }
    fs::remove(expected / "removed");
    if (!outcome.removed.empty()) {
        std::string text;
        for (const std::string& name : outcome.removed) {
            text += name + "\n";
        }
        write_file(expected / "removed", text);
    }
}

// Where two texts first differ: the line number and both lines.
std::string first_difference(const std::string& expected, const std::string& actual) {
    const auto mismatch =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    const size_t at = static_cast<size_t>(mismatch.first - expected.begin());
    const size_t line_start = expected.rfind('\n', at == 0 ? 0 : at - 1);
    const size_t from = line_start == std::string::npos || at == 0 ? 0 : line_start + 1;
    const auto line_of = [from](const std::string& text) {
        return text.substr(from, std::min<size_t>(text.find('\n', from) - from, 200));
    };
    return "first difference in line " +
           std::to_string(std::count(expected.begin(), expected.begin() + at, '\n') + 1) +
           "\n  expected: " + line_of(expected) + "\n  actual:   " + line_of(actual);
}

void compare(const std::string& what, const std::string& expected, const std::string& actual) {
    const std::string e = mask(expected);
    const std::string a = mask(actual);
    EXPECT_TRUE(e == a) << what << " differs; " << first_difference(e, a);
}

class GoldenCase : public ::testing::TestWithParam<std::string> {};

TEST_P(GoldenCase, MatchesExpectedOutput) {
    const fs::path case_dir = kCasesDir / GetParam();
    TempDir scratch;
    const fs::path work = scratch.path() / "work";
    fs::create_directory(work);
    if (fs::is_directory(case_dir / "input")) {
        fs::copy(case_dir / "input", work, fs::copy_options::recursive);
    }
    for (const std::string& name : read_lines(case_dir / "run_files")) {
        const fs::path source = fs::path(KSIEVE_RUN_DIR) / name;
        if (!fs::exists(source)) {
            GTEST_SKIP() << "needs " << source << ", which this build does not produce";
        }
        fs::copy_file(source, work / name);
    }
    const FileSet before = files_under(work);

    Outcome actual;
    actual.exit_code = run_program(work, read_lines(case_dir / "args"), scratch.path() / "stdout",
                                   scratch.path() / "stderr");
    actual.out = read_file(scratch.path() / "stdout");
    actual.err = read_file(scratch.path() / "stderr");
    for (const auto& [name, content] : files_under(work)) {
        const auto old = before.find(name);
        if (old == before.end() || old->second != content) {
            actual.files[name] = content;
        }
    }
    for (const auto& [name, content] : before) {
        if (!fs::exists(work / name)) {
            actual.removed.push_back(name);
        }
    }

    const char* update = std::getenv("KSIEVE_GOLDEN_UPDATE");
    if (update != nullptr && std::string(update) == "1") {
        store_outcome(case_dir / "expected", actual);
        std::cout << "updated " << (case_dir / "expected") << "\n";
        return;
    }
    const Outcome expected = expected_outcome(case_dir / "expected");
    compare("exit code", expected.exit_code, actual.exit_code);
    compare("standard output", expected.out, actual.out);
    compare("standard error", expected.err, actual.err);
    EXPECT_EQ(expected.removed, actual.removed) << "files removed by the run";
    const FileSet expected_files = masked(expected.files);
    const FileSet actual_files = masked(actual.files);
    for (const auto& [name, content] : expected_files) {
        const auto produced = actual_files.find(name);
        if (produced == actual_files.end()) {
            ADD_FAILURE() << "expected file " << name << " was not produced";
        } else {
            compare("file " + name, content, produced->second);
        }
    }
    for (const auto& [name, content] : actual_files) {
        EXPECT_EQ(expected_files.count(name), 1u) << "the run produced unexpected file " << name;
    }
}

std::vector<std::string> case_names() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kCasesDir)) {
        if (entry.is_directory()) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// gtest names admit letters, digits and '_' only.
std::string test_name(const ::testing::TestParamInfo<std::string>& param) {
    std::string name = param.param;
    std::replace_if(
        name.begin(), name.end(),
        [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Cases, GoldenCase, ::testing::ValuesIn(case_names()), test_name);

}  // namespace
}  // namespace ksieve

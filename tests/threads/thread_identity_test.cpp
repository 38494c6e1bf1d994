// The thread count changes nothing a user can see: every output file, both
// console streams and the log are the same at 1, 2 and 7 threads, with only the
// local time that opens the log and the elapsed seconds masked.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace ksieve {
namespace {

namespace fs = std::filesystem;

// Exit code, console streams and every file of the run directory, by name.
using Outcome = std::map<std::string, std::string>;

constexpr std::size_t kWindowScans = 5000;  // FT scans the MS1 window holds
constexpr std::size_t kScansBehindParent = 5;

std::string mask(std::string text) {
    static const std::pair<std::regex, const char*> kRules[] = {
        {std::regex("(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|"
                    "Dec) [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}"),
         "Www Mmm DD hh:mm:ss YYYY"},
        {std::regex("Time elapsed: [0-9]+"), "Time elapsed: N"}};
    for (const auto& [pattern, replacement] : kRules) {
        text = std::regex_replace(text, pattern, replacement);
    }
    return text;
}

// kSieve on <inputs>/<stem>.ms1 with `threads`, in a fresh directory of its own
// under `scratch`; every run sees the same paths, so its log may be compared.
Outcome run_ksieve(const fs::path& inputs, const std::string& stem, int threads,
                   const fs::path& scratch) {
    const fs::path work = scratch / ("threads_" + std::to_string(threads));
    fs::create_directories(work / "data");
    for (const char* suffix : {".ms1", ".ms2"}) {
        fs::create_symlink(inputs / (stem + suffix), work / "data" / (stem + suffix));
    }
    test::write_file(work / "run.params", "datapath = data/" + stem +
                                              ".ms1\ninput_format = ms1\noutputpath = out\n"
                                              "threads = " +
                                              std::to_string(threads) + "\n");
    const pid_t child = test::start_program(KSIEVE_EXECUTABLE, {"./kSieve", "run.params"}, work,
                                            scratch / "stdout", scratch / "stderr");
    Outcome outcome = {{"exit_code", test::wait_for_program(child)},
                       {"stdout", mask(test::read_file(scratch / "stdout"))},
                       {"stderr", mask(test::read_file(scratch / "stderr"))}};
    for (const auto& entry : fs::recursive_directory_iterator(work / "out")) {
        if (entry.is_regular_file()) {
            const std::string name = fs::relative(entry.path(), work).string();
            const std::string content = test::read_file(entry.path());
            outcome[name] = name == "out/kSievePlusLog.txt" ? mask(content) : content;
        }
    }
    fs::remove_all(work);
    return outcome;
}

// Compares the runs at 2 and 7 threads with the run at 1, file by file.
void expect_same_at_every_thread_count(const fs::path& inputs, const std::string& stem,
                                       const Outcome& one, const fs::path& scratch) {
    ASSERT_EQ(one.at("exit_code"), "0\n") << one.at("stderr");
    for (const int threads : {2, 7}) {
        const Outcome many = run_ksieve(inputs, stem, threads, scratch);
        std::vector<std::string> names_one, names_many;
        for (const auto& entry : one) {
            names_one.push_back(entry.first);
        }
        for (const auto& entry : many) {
            names_many.push_back(entry.first);
        }
        ASSERT_EQ(names_one, names_many) << threads << " threads";
        for (const auto& [name, content] : one) {
            // Not EXPECT_EQ: a difference in a file of megabytes would be printed whole.
            EXPECT_TRUE(content == many.at(name))
                << name << " differs at " << threads << " threads";
        }
    }
}

TEST(ThreadIdentity, TheBundledSampleIsTheSameAtEveryThreadCount) {
    const test::TempDir scratch;
    const fs::path inputs = fs::path(KSIEVE_TEST_DATA_DIR) / "threads";
    const Outcome one = run_ksieve(inputs, "bsa_demo", 1, scratch.path());
    EXPECT_GT(
        std::count(one.at("out/bsa_demo.csv").begin(), one.at("out/bsa_demo.csv").end(), '\n'),
        100);
    expect_same_at_every_thread_count(inputs, "bsa_demo", one, scratch.path());
}

// ---- a simulated run with parents at the edge of the MS1 window -------------

// The FT scan numbers of a `.ms1` file, in file order.
std::vector<int64_t> ft_scans(const std::string& ms1) {
    std::vector<int64_t> scans;
    std::istringstream in(ms1);
    int64_t scan = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("S\t", 0) == 0) {
            scan = std::stoll(line.substr(2));
        } else if (line == "I\tInstrumentType\tFTMS") {
            scans.push_back(scan);
        }
    }
    return scans;
}

// How many scans were given a parent at the window's oldest record, and how
// many one record older still, which the window no longer holds.
struct EdgeScans {
    int m_at_edge = 0;
    int m_beyond = 0;
};

// One MS2 scan of the file: its lines, and which of them names the parent.
struct Ms2Block {
    std::vector<std::string> m_lines;
    std::size_t m_parent_line = 0;
    int64_t m_parent = 0;
    int32_t m_first_charge = 0;
};

std::vector<Ms2Block> ms2_blocks(const std::string& ms2, std::string& header) {
    std::vector<Ms2Block> blocks;
    std::istringstream in(ms2);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("S\t", 0) == 0) {
            blocks.emplace_back();
        }
        if (blocks.empty()) {
            header += line + "\n";
            continue;
        }
        Ms2Block& block = blocks.back();
        if (line.rfind("I\tPrecursorScan\t", 0) == 0) {
            block.m_parent_line = block.m_lines.size();
            block.m_parent = std::stoll(line.substr(16));
        } else if (line.rfind("Z\t", 0) == 0 && block.m_first_charge == 0) {
            block.m_first_charge = std::stoi(line.substr(2));
        }
        block.m_lines.push_back(line);
    }
    return blocks;
}

// Every 97th MS2 scan, and the first after each progress line, that goes to
// detection and whose window is full gets, in turn, the window's oldest FT scan
// or the one before it as its parent. The window reaches five FT scans past the
// newest parent so far, and holds kWindowScans of them.
EdgeScans move_parents_to_the_edge(const fs::path& ms2_path, const std::vector<int64_t>& ft) {
    std::string moved;
    std::vector<Ms2Block> blocks = ms2_blocks(test::read_file(ms2_path), moved);
    std::size_t newest = 0;  // index in `ft` of the newest parent so far
    EdgeScans edges;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        Ms2Block& block = blocks[i];
        // A parent moved back leaves the window where the scans before put it.
        const std::size_t back = std::min(newest + kScansBehindParent, ft.size() - 1);
        if ((i % 97 == 96 || i % 1000 == 0) && back >= kWindowScans && block.m_first_charge >= 1 &&
            block.m_parent_line > 0) {
            const bool beyond = (edges.m_at_edge + edges.m_beyond) % 2 == 1;
            const std::size_t edge = back + 1 - kWindowScans - (beyond ? 1 : 0);
            block.m_lines[block.m_parent_line] = "I\tPrecursorScan\t" + std::to_string(ft[edge]);
            ++(beyond ? edges.m_beyond : edges.m_at_edge);
        } else {
            const auto found = std::lower_bound(ft.begin(), ft.end(), block.m_parent);
            newest = std::max(newest, static_cast<std::size_t>(found - ft.begin()));
        }
        for (const std::string& line : block.m_lines) {
            moved += line + "\n";
        }
    }
    test::write_file(ms2_path, moved);
    return edges;
}

std::size_t count_of(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

// Simulates <stem>.ms1/.ms2 into <scratch>/inputs with the options after the
// FASTA, output directory and stem; its exit code, and its error stream with it.
std::string simulate(const fs::path& scratch, const std::string& stem,
                     const std::vector<std::string>& options) {
    const fs::path inputs = scratch / "inputs";
    fs::create_directories(inputs);
    std::vector<std::string> args = {
        "ksieve_simulate", "--fasta", KSIEVE_DEMO_FASTA, "--out-dir", inputs.string(),
        "--stem",          stem};
    args.insert(args.end(), options.begin(), options.end());
    const pid_t simulator = test::start_program(KSIEVE_SIMULATOR, args, scratch,
                                                scratch / "sim_out", scratch / "sim_err");
    const std::string exit_code = test::wait_for_program(simulator);
    return exit_code + test::read_file(scratch / "sim_err");
}

TEST(ThreadIdentity, ASimulatedRunWithParentsAtTheWindowEdgeIsTheSameAtEveryThreadCount) {
    const test::TempDir scratch;
    const fs::path inputs = scratch.path() / "inputs";
    ASSERT_EQ(simulate(scratch.path(), "sim",
                       {"--ms2-scans", "20000", "--top-n", "3", "--seed", "13", "--noise-peaks",
                        "20", "--ms2-noise-peaks", "10", "--feature-rate", "3"}),
              "0\n");
    const std::vector<int64_t> ft = ft_scans(test::read_file(inputs / "sim.ms1"));
    ASSERT_GT(ft.size(), kWindowScans + 1000);
    const EdgeScans edges = move_parents_to_the_edge(inputs / "sim.ms2", ft);
    ASSERT_GE(edges.m_at_edge, 5);
    ASSERT_GE(edges.m_beyond, 5);

    const Outcome one = run_ksieve(inputs, "sim", 1, scratch.path());
    EXPECT_EQ(count_of(one.at("out/sim.csv"), "\n"), 20001u);
    // Exactly the parents beyond the edge are missing: the edge lies where it should.
    EXPECT_EQ(count_of(one.at("stdout"), "Cannot found the precurosr scan of MS2"),
              static_cast<std::size_t>(edges.m_beyond));
    expect_same_at_every_thread_count(inputs, "sim", one, scratch.path());
}

// Three compensation voltages in turn: every MS2 scan is judged against the
// survey scans of its own voltage, three windows side by side.
TEST(ThreadIdentity, ASimulatedFaimsRunIsTheSameAtEveryThreadCount) {
    const test::TempDir scratch;
    const fs::path inputs = scratch.path() / "inputs";
    ASSERT_EQ(simulate(scratch.path(), "faims",
                       {"--ms2-scans", "3000", "--top-n", "5", "--seed", "7", "--faims-cvs", "3"}),
              "0\n");
    const std::string ms1 = test::read_file(inputs / "faims.ms1");
    for (const char* voltage : {"-45", "-55", "-65"}) {
        ASSERT_GT(count_of(ms1, std::string("I\tCompensationVoltage\t") + voltage + "\n"), 100u);
    }
    const Outcome one = run_ksieve(inputs, "faims", 1, scratch.path());
    EXPECT_EQ(count_of(one.at("out/faims.csv"), "\n"), 3001u);
    expect_same_at_every_thread_count(inputs, "faims", one, scratch.path());
}

}  // namespace
}  // namespace ksieve

// Whole runs of the real kSieve executable where the golden cases cannot reach:
// a disk that fills up, two runs on one input at once, and kSieve started from
// a directory that holds none of its companion files.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace ksieve {
namespace {

namespace fs = std::filesystem;

// One finished run: exit ("0\n", "255\n"), standard output and standard error.
struct Outcome {
    std::string exit;
    std::string out;
    std::string err;
};

// A run of `program` in `work` that has been started and not yet waited for.
struct Started {
    pid_t pid = -1;
    fs::path out;
    fs::path err;
};

Started start(const fs::path& work, const std::string& name, std::vector<std::string> args,
              long file_size_limit = -1, const std::string& program = KSIEVE_EXECUTABLE) {
    args.insert(args.begin(), program);
    const Started run{-1, work / (name + ".out"), work / (name + ".err")};
    return {test::start_program(program, std::move(args), work, run.out, run.err, file_size_limit),
            run.out, run.err};
}

Outcome finish(const Started& run) {
    const std::string exit = test::wait_for_program(run.pid);
    return {exit, test::read_file(run.out), test::read_file(run.err)};
}

// What a program has written to `path` so far; nothing before it opened it.
std::string text_so_far(const fs::path& path) {
    return fs::exists(path) ? test::read_file(path) : "";
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Waits until `ready` holds; a generous bound keeps a broken build from hanging.
template <typename Ready>
bool eventually(Ready ready) {
    for (int i = 0; i < 6000; ++i) {
        if (ready()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void write_script(const fs::path& path, const std::string& body) {
    test::write_file(path, "#!/bin/sh\n" + body);
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);
}

// A pair of `ms1_scans` FT scans of `peaks` peaks each and `ms2_scans` HCD scans.
// The MS2 scans declare a negative charge, so detection leaves them alone and
// every one of them is written as it stands: the outputs grow with the counts.
void write_pair(const fs::path& stem, int ms1_scans, int ms2_scans, int peaks) {
    std::ofstream ms1(stem.string() + ".ms1");
    for (int scan = 1; scan <= ms1_scans; ++scan) {
        ms1 << "S\t" << scan << '\t' << scan << "\nI\tRetTime\t" << scan * 0.01
            << "\nI\tInstrumentType\tFTMS\n";
        for (int peak = 0; peak < peaks; ++peak) {
            ms1 << 300 + peak * 0.5 << ' ' << 1000 + peak << '\n';
        }
    }
    std::ofstream ms2(stem.string() + ".ms2");
    for (int scan = 1; scan <= ms2_scans; ++scan) {
        ms2 << "S\t" << 100000 + scan << '\t' << 100000 + scan
            << "\t600.3\nI\tActivationType\tHCD\nI\tActivationCenter\t600.3\n"
               "I\tPrecursorScan\t1\nI\tInstrumentType\tFTMS\nI\tRetTime\t0.5\nZ\t-2\t0\n";
        for (int peak = 0; peak < peaks; ++peak) {
            ms2 << 200 + peak * 0.25 << ' ' << 50 + peak << '\n';
        }
    }
}

// The outputs that the per-file pipeline may leave in `dir`, by name.
std::vector<std::string> outputs_in(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        for (const char* kind : {".ks1", ".ks2", ".mgf", ".csv", ".mzML"}) {
            if (contains(name, kind)) {
                names.push_back(name);
            }
        }
    }
    return names;
}

struct WriteFailureCase {
    const char* name;
    int ms1_scans;
    int ms2_scans;
    std::vector<std::string> options;
    const char* failing_file;  // the output that reaches the limit first
    const char* params = "";   // keys of a parameter file, which then replaces the options
};

// A full disk (here a file-size limit) ends the run with an ERROR that names the
// file, exit status 255, and none of this input's outputs left behind; a rerun
// with room to write then finishes the file. The mzML is written a mebibyte at
// a time, on a thread of its own when kSieve has more than one: a write that
// fails there must end the run all the same.
TEST(WriteFailures, EndTheRunAndLeaveNoPartialOutput) {
    const char* mzml_only =
        "datapath = data/run.ms1\noutput_mzml = 1\noutput_ks = 0\n"
        "output_mgf = 0\n";
    const std::vector<WriteFailureCase> cases = {
        {"ks1", 400, 1, {}, "run.ks1"},
        {"ks2", 10, 2500, {"-m", "0"}, "run_HCDFT.ks2"},
        {"mgf", 10, 2500, {"-p", "0"}, "run_HCDFT.mgf"},
        {"table", 10, 2500, {"-p", "0", "-m", "0"}, "run.csv_unfinished"},
        {"mzml, every core", 10, 2500, {}, "run.ksieve.mzML_unfinished", "threads = 0\n"},
        {"mzml, one thread", 10, 2500, {}, "run.ksieve.mzML_unfinished", "threads = 1\n"},
    };
    for (const WriteFailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        test::TempDir work;
        fs::copy_file(fs::path(KSIEVE_RUN_DIR) / "IPV.txt", work.path() / "IPV.txt");
        fs::create_directory(work.path() / "data");
        write_pair(work.path() / "data" / "run", c.ms1_scans, c.ms2_scans, 40);
        std::vector<std::string> args = {"-D", "data/run.ms1"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        if (*c.params != '\0') {
            test::write_file(work.path() / "run.params", std::string(mzml_only) + c.params);
            args = {"run.params"};
        }
        const Outcome full = finish(start(work.path(), "full", args, 96 * 1024));
        EXPECT_EQ(full.exit, "255\n");
        EXPECT_TRUE(contains(full.err, "[kSieve] <ERROR> - Cannot write file: data/" +
                                           std::string(c.failing_file) + ": File too large\n"))
            << full.err;
        EXPECT_EQ(outputs_in(work.path() / "data"), std::vector<std::string>{});

        const Outcome rerun = finish(start(work.path(), "rerun", args));
        EXPECT_EQ(rerun.exit, "0\n") << rerun.err;
        EXPECT_TRUE(fs::exists(work.path() / "data" / "run.csv"));
    }
}

// A log that cannot be written is said on standard error, and the run fails.
TEST(WriteFailures, AnUnwritableLogEndsTheRun) {
    test::TempDir work;
    fs::create_directory(work.path() / "logs");
    fs::create_symlink("/dev/full", work.path() / "logs" / "kSievePlusLog.txt");
    const Outcome run = finish(start(work.path(), "run", {"-D", "nothing", "-L", "logs"}));
    EXPECT_EQ(run.exit, "255\n");
    EXPECT_TRUE(contains(run.err,
                         "[kSieve] <ERROR> - Cannot write file: logs/kSievePlusLog.txt: "
                         "No space left on device\n"))
        << run.err;
}

// An existing log directory that may not be written to: the system says why.
// Permissions do not hold root back, so root gets a directory of /sys instead.
TEST(WriteFailures, AReadOnlyLogDirectoryIsNamedWithTheReason) {
    test::TempDir work;
    const fs::path read_only = work.path() / "read only";
    fs::create_directory(read_only);
    fs::permissions(read_only, fs::perms::owner_read | fs::perms::owner_exec);
    const std::string logs = geteuid() == 0 ? "/sys" : read_only.string();
    const Outcome run = finish(start(work.path(), "run", {"-D", "nothing", "-L", logs}));
    fs::permissions(read_only, fs::perms::owner_all);
    EXPECT_EQ(run.exit, "255\n");
    EXPECT_TRUE(contains(run.err, "[kSieve] <ERROR> - Cannot open Log Dump File, Path: " + logs +
                                      "/kSievePlusLog.txt: Permission denied\n"))
        << run.err;
}

// A stand-in companion that records each call and, for the stem "slow", holds
// the extraction until the test creates the file "release".
void write_blocking_companion(const fs::path& work) {
    test::write_file(work / "pair.ms1", "S\t1\t1\nI\tInstrumentType\tFTMS\n300 10\n");
    test::write_file(work / "pair.ms2",
                     "S\t2\t2\t600.3\nI\tActivationType\tHCD\nI\tInstrumentType\tFTMS\n"
                     "I\tPrecursorScan\t1\nZ\t-2\t0\n200 5\n");
    write_script(work / "spexor_raw.exe",
                 "out=\"$8\"; name=$(basename \"$9\"); stem=${name%.*}\n"
                 "echo \"$stem\" >> calls\n"
                 "if [ \"$stem\" = slow ]; then\n"
                 "  touch started\n"
                 "  while [ ! -e release ]; do sleep 0.01; done\n"
                 "fi\n"
                 "cp pair.ms1 \"$out/$stem.ms1\"; cp pair.ms2 \"$out/$stem.ms2\"\n"
                 "echo extracted > \"$out/$stem.spexor\"\n");
}

// A second run on an input that another run holds waits for it, then finds the
// work done; a run on another input in the same directory does not wait.
TEST(Locking, ASecondRunOnOneInputWaitsThenSkipsIt) {
    test::TempDir dir;
    const fs::path& work = dir.path();
    fs::copy_file(fs::path(KSIEVE_RUN_DIR) / "IPV.txt", work / "IPV.txt");
    write_blocking_companion(work);
    fs::create_directory(work / "data");
    test::write_file(work / "data" / "slow.raw", "instrument data stand-in\n");
    test::write_file(work / "data" / "quick.raw", "instrument data stand-in\n");

    const Started first = start(work, "first", {"-D", "data/slow.raw"});
    ASSERT_TRUE(eventually([&] { return fs::exists(work / "started"); }));
    const Started second = start(work, "second", {"-D", "data/slow.raw"});
    EXPECT_TRUE(eventually([&] {
        return contains(text_so_far(second.out),
                        "[kSieve] <INFO> - waiting for another kSieve run on slow\n");
    }));
    // Another input goes ahead while the first run still holds its own.
    const Outcome other = finish(start(work, "other", {"-D", "data/quick.raw"}));
    EXPECT_EQ(other.exit, "0\n");
    EXPECT_TRUE(fs::exists(work / "data" / "quick.csv"));
    EXPECT_FALSE(fs::exists(work / "data" / "slow.csv"));

    test::write_file(work / "release", "");
    const Outcome one = finish(first), two = finish(second);
    EXPECT_EQ(one.exit, "0\n");
    EXPECT_EQ(two.exit, "0\n");
    EXPECT_TRUE(contains(two.out, "data/slow.raw has existed results, skipping...\n")) << two.out;
    EXPECT_EQ(test::read_file(work / "calls"), "slow\nquick\n");
    // The lock is on the input itself: no lock file appears beside it.
    EXPECT_EQ(fs::file_size(work / "data" / "slow.raw"), 25u);
    EXPECT_EQ(two.out.find("waiting for another"), two.out.rfind("waiting for another"));
    EXPECT_FALSE(contains(one.out + other.out, "waiting for another"));
}

// Two inputs of one stem written into one output directory by two runs at once
// (run.mzML beside run.mzML.gz, or two folders with one -O): they write the same
// files, so the second waits for the first, then finds its results, as a second
// input of one stem does within one batch. Nothing appears among the outputs.
TEST(Locking, TwoInputsOfOneStemInOneOutputDirectoryTakeTurns) {
    test::TempDir dir;
    const fs::path& work = dir.path();
    fs::copy_file(fs::path(KSIEVE_RUN_DIR) / "IPV.txt", work / "IPV.txt");
    write_blocking_companion(work);
    for (const char* folder : {"data", "other", "out"}) {
        fs::create_directory(work / folder);
    }
    test::write_file(work / "data" / "slow.raw", "instrument data stand-in\n");
    test::write_file(work / "other" / "slow.raw", "another stand-in\n");

    const Started first = start(work, "first", {"-D", "data/slow.raw", "-O", "out"});
    ASSERT_TRUE(eventually([&] { return fs::exists(work / "started"); }));
    const Started second = start(work, "second", {"-D", "other/slow.raw", "-O", "out"});
    EXPECT_TRUE(eventually([&] {
        return contains(text_so_far(second.out),
                        "[kSieve] <INFO> - waiting for another kSieve run on slow\n");
    }));
    test::write_file(work / "release", "");
    const Outcome one = finish(first), two = finish(second);
    EXPECT_EQ(one.exit, "0\n");
    EXPECT_EQ(two.exit, "0\n");
    EXPECT_TRUE(contains(two.out, "other/slow.raw has existed results, skipping...\n")) << two.out;
    EXPECT_EQ(test::read_file(work / "calls"), "slow\n");
    std::vector<std::string> outputs;
    for (const auto& entry : fs::directory_iterator(work / "out")) {
        outputs.push_back(entry.path().filename().string());
    }
    std::sort(outputs.begin(), outputs.end());
    EXPECT_EQ(outputs,
              (std::vector<std::string>{"kSievePlusLog.txt", "slow.csv", "slow.ks1", "slow.ks1idx",
                                        "slow.ms1", "slow.ms2", "slow.spexor"}));
}

// kSieve finds IPV.txt and its companions beside its own executable when the
// working directory lacks them, and names the companion it ran by its path.
TEST(RunFromAnyDirectory, CompanionAndIsotopeTableBesideTheExecutable) {
    test::TempDir dir;
    const fs::path install = dir.path() / "install", work = dir.path() / "work";
    fs::create_directories(install);
    fs::create_directories(work / "data");
    fs::copy_file(KSIEVE_EXECUTABLE, install / "kSieve");
    fs::copy_file(fs::path(KSIEVE_RUN_DIR) / "IPV.txt", install / "IPV.txt");
    write_blocking_companion(install);
    test::write_file(install / "spexor_raw.exe", test::read_file(install / "spexor_raw.exe") +
                                                     "echo \"stand-in beside the executable\"\n");
    // The stand-in copies its pair from the working directory.
    fs::copy_file(install / "pair.ms1", work / "pair.ms1");
    fs::copy_file(install / "pair.ms2", work / "pair.ms2");
    test::write_file(work / "data" / "run.raw", "instrument data stand-in\n");

    const std::string program = (install / "kSieve").string();
    const Outcome run = finish(start(work, "run", {"-D", "data/run.raw"}, -1, program));
    EXPECT_EQ(run.exit, "0\n") << run.err;
    EXPECT_TRUE(contains(run.out, "[kSieve] <INFO> - " + (install / "spexor_raw.exe").string() +
                                      " -ms -a -i 1 -m 5 -o \"data\" \"data/run.raw\"\n"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "stand-in beside the executable\n"));
    EXPECT_TRUE(fs::exists(work / "data" / "run.csv"));
}

}  // namespace
}  // namespace ksieve

// Scaling benchmark: how the cost of a run grows with its size.
//
// Simulates data-dependent runs of several sizes (tools/simulator, fixed seed)
// and measures on each, every configuration in a child process of its own so
// that its peak resident memory is its own:
//   read      both text files read to their end with the spectrum readers;
//   pipeline  the per-file pipeline with a detector that finds nothing, so
//             every output is written but no precursor is detected;
//   kSieve    the program itself on the .ms1 file: isotope table, detection
//             and all outputs.
// It reports wall and CPU time, MS2 scans per second, input megabytes per
// second and peak memory, then the time per MS2 scan at each size and the
// exponent of the growth between neighbouring sizes (1 is linear). All of
// this runs on one thread.
//
// With --threads it measures instead, on the first size only, the program at
// 1, 2, ... threads up to the cores this process may use, and the stages that
// bound it: reading, writing (the pipeline without detection on one thread,
// less reading), detection (the program on one thread, less the pipeline) and
// the reading thread's own part (the pipeline without detection with every
// core, where workers format). From these it projects the time on more cores.
//
// Usage: scaling_bench [--sizes N,N,...] [--repeats N] [--dir PATH] [--keep] [--threads]
//   --sizes    MS2 scans of the simulated runs (default 2000,20000,100000;
//              with --threads the first, default 20000)
//   --repeats  runs of each configuration; the median wall time is shown (3)
//   --dir      scratch directory (default <temp>/ksieve_scaling_bench)
//   --keep     leave the simulated runs behind
//   --threads  the thread sweep described above
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "basicprocesslogic.h"
#include "simulator.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace {

namespace fs = std::filesystem;

constexpr uint64_t kSeed = 1;
constexpr const char* kConfigurations[] = {"read", "pipeline", "kSieve"};

struct Options {
    std::vector<int64_t> sizes = {2000, 20000, 100000};
    int repeats = 3;
    fs::path dir = fs::temp_directory_path() / "ksieve_scaling_bench";
    bool keep = false;
    bool threads = false;
    int64_t sweep_size = 20000;  // the first of --sizes when given
};

// One simulated run and where its outputs go.
struct Run {
    std::string stem;
    int64_t ms2_scans = 0;
    int64_t ms1_scans = 0;
    fs::path ms1;
    fs::path ms2;
    fs::path output;
    double megabytes = 0.0;
};

struct Measurement {
    double wall_seconds = 0.0;
    double cpu_seconds = 0.0;
    double peak_megabytes = 0.0;
};

// ---- children ---------------------------------------------------------------

template <typename Scan>
void read_to_end(const std::string& path, bool (*read)(ksieve::LineFile&, Scan&)) {
    ksieve::LineFile file;
    ksieve::open_spectrum_file(file.m_head, path, "r");
    Scan scan;
    while (read(file, scan)) {
        scan = Scan{};
    }
    ksieve::finish_spectrum_file(file.m_head);
    ksieve::release_spectrum_file(file.m_head);
}

// The configurations that run inside this program: "read <ms1> <ms2>" and
// "pipeline <ms1> <output dir>".
int run_child(const std::string& what, const std::string& first, const std::string& second) {
    if (what == "read") {
        read_to_end<ksieve::MS1Spectrum>(first, ksieve::ReadMs1Scan);
        read_to_end<ksieve::MS2Spectrum>(second, ksieve::ReadMs2Scan);
        return 0;
    }
    ksieve::UserParameters params;
    params.m_outputpath = second;
    params.m_threads = std::atoi(std::getenv("KSIEVE_THREADS"));
    ksieve::process_ms_files(
        params, ksieve::file_context(params, first, "ms1", nullptr),
        [](const ksieve::Ms1Slices&, const ksieve::MS2Spectrum&, ksieve::DetectionScratch&) {
            return std::vector<ksieve::Precursor>{};
        });
    return 0;
}

// ---- the parent -------------------------------------------------------------

std::vector<std::string> command_of(const std::string& configuration, const Run& run) {
    if (configuration == "kSieve") {
        return {KSIEVE_PROGRAM,      "-D", run.ms1.string(), "-F", "ms1", "-O",
                run.output.string(), "-I", KSIEVE_IPV_FILE};
    }
    const std::string second = configuration == "read" ? run.ms2.string() : run.output.string();
    return {fs::read_symlink("/proc/self/exe").string(), "--child", configuration, run.ms1.string(),
            second};
}

// Runs the command in a child with its console output discarded (the program
// logs every file it opens) and `threads` as KSIEVE_THREADS, and measures it
// with wait4.
Measurement measure(const std::vector<std::string>& command, const fs::path& workdir, int threads) {
    std::vector<char*> argv;
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        if (chdir(workdir.c_str()) == 0 &&
            setenv("KSIEVE_THREADS", std::to_string(threads).c_str(), 1) == 0) {
            execv(argv[0], argv.data());
        }
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "scaling_bench: '%s' failed\n", command[0].c_str());
        std::exit(1);
    }
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return {wall, cpu, static_cast<double>(usage.ru_maxrss) / 1024.0};
}

// The median wall time of the repeats, the CPU time of that same run, and the
// largest peak memory of any.
Measurement measure_repeated(const std::string& configuration, const Run& run, int repeats,
                             int threads = 1) {
    std::vector<Measurement> runs;
    for (int i = 0; i < repeats; ++i) {
        fs::remove_all(run.output);
        fs::create_directories(run.output);
        runs.push_back(measure(command_of(configuration, run), run.output, threads));
        // A run that skipped its input would measure nothing: the table is the
        // last output written.
        if (configuration != std::string("read") && !fs::exists(run.output / (run.stem + ".csv"))) {
            std::fprintf(stderr, "scaling_bench: %s wrote no precursor table\n",
                         configuration.c_str());
            std::exit(1);
        }
    }
    std::sort(runs.begin(), runs.end(), [](const Measurement& a, const Measurement& b) {
        return a.wall_seconds < b.wall_seconds;
    });
    Measurement median = runs[runs.size() / 2];
    for (const Measurement& each : runs) {
        median.peak_megabytes = std::max(median.peak_megabytes, each.peak_megabytes);
    }
    return median;
}

Run simulate(int64_t ms2_scans, const fs::path& dir) {
    ksieve::sim::SimulatorOptions options;
    options.m_fasta_path = KSIEVE_FASTA;
    options.m_out_dir = dir.string();
    options.m_stem = "sim" + std::to_string(ms2_scans);
    options.m_seed = kSeed;
    options.m_ms2_scans = ms2_scans;
    fs::create_directories(dir);
    const ksieve::sim::SimulationSummary summary = ksieve::sim::run_simulation(options);
    Run run;
    run.stem = options.m_stem;
    run.ms2_scans = summary.m_ms2_scans;
    run.ms1_scans = summary.m_ms1_scans;
    run.ms1 = dir / (options.m_stem + ".ms1");
    run.ms2 = dir / (options.m_stem + ".ms2");
    run.output = dir / "output";
    run.megabytes =
        static_cast<double>(fs::file_size(run.ms1) + fs::file_size(run.ms2)) / (1024.0 * 1024.0);
    return run;
}

// ---- report -----------------------------------------------------------------

std::string first_line_value(const char* path, const std::string& key) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key, 0) == 0) {
            const size_t value = line.find_first_not_of(" \t", line.find(':') + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "unknown";
}

void print_machine() {
    std::printf("machine: %ld cores online, %s, memory %s\n", sysconf(_SC_NPROCESSORS_ONLN),
                first_line_value("/proc/cpuinfo", "model name").c_str(),
                first_line_value("/proc/meminfo", "MemTotal").c_str());
}

void print_table(const std::vector<Run>& runs,
                 const std::vector<std::vector<Measurement>>& measured) {
    std::printf(
        "\n| MS2 scans | MS1 scans | input MB | configuration | wall s | CPU s "
        "| MS2 scans/s | MB/s | peak MB |\n|--:|--:|--:|---|--:|--:|--:|--:|--:|\n");
    for (size_t i = 0; i < runs.size(); ++i) {
        for (size_t c = 0; c < std::size(kConfigurations); ++c) {
            const Measurement& m = measured[i][c];
            std::printf("| %lld | %lld | %.1f | %s | %.2f | %.2f | %.0f | %.1f | %.1f |\n",
                        static_cast<long long>(runs[i].ms2_scans),
                        static_cast<long long>(runs[i].ms1_scans), runs[i].megabytes,
                        kConfigurations[c], m.wall_seconds, m.cpu_seconds,
                        static_cast<double>(runs[i].ms2_scans) / m.wall_seconds,
                        runs[i].megabytes / m.wall_seconds, m.peak_megabytes);
        }
    }
}

// The exponent b of time ~ size^b between neighbouring sizes, for the wall or
// the CPU time.
std::string exponents(const std::vector<Run>& runs,
                      const std::vector<std::vector<Measurement>>& measured, size_t c,
                      double Measurement::*time) {
    std::string text;
    for (size_t i = 1; i < runs.size(); ++i) {
        const double exponent =
            std::log(measured[i][c].*time / measured[i - 1][c].*time) /
            std::log(static_cast<double>(runs[i].ms2_scans) / runs[i - 1].ms2_scans);
        char value[32];
        std::snprintf(value, sizeof value, "%s%.2f", i == 1 ? "" : " / ", exponent);
        text += value;
    }
    return text;
}

// Microseconds of wall time per MS2 scan at each size, and the growth exponents.
void print_growth(const std::vector<Run>& runs,
                  const std::vector<std::vector<Measurement>>& measured) {
    std::printf(
        "\n| configuration | us per MS2 scan (wall), by size | growth exponent, wall "
        "| growth exponent, CPU |\n|---|---|---|---|\n");
    for (size_t c = 0; c < std::size(kConfigurations); ++c) {
        std::string per_scan;
        for (size_t i = 0; i < runs.size(); ++i) {
            char value[32];
            std::snprintf(
                value, sizeof value, "%s%.1f", i == 0 ? "" : " / ",
                1e6 * measured[i][c].wall_seconds / static_cast<double>(runs[i].ms2_scans));
            per_scan += value;
        }
        std::printf("| %s | %s | %s | %s |\n", kConfigurations[c], per_scan.c_str(),
                    exponents(runs, measured, c, &Measurement::wall_seconds).c_str(),
                    exponents(runs, measured, c, &Measurement::cpu_seconds).c_str());
    }
}

// ---- threads ----------------------------------------------------------------

// The program at 1 .. `cores` threads, then the stages on which the projection
// rests. The projection takes the reading thread's part as serial and spreads
// the rest of the one-thread time evenly: max(serial, one thread / cores).
void sweep_threads(const Run& run, int repeats) {
    const int cores = static_cast<int>(ksieve::usable_cores());
    std::printf("\n%lld MS2 scans, %lld MS1 scans, %.1f MB of input\n\n",
                static_cast<long long>(run.ms2_scans), static_cast<long long>(run.ms1_scans),
                run.megabytes);
    std::printf(
        "| threads | wall s | CPU s | MB/s | peak MB | time / time at 1 thread |\n"
        "|--:|--:|--:|--:|--:|--:|\n");
    std::vector<Measurement> program;
    for (int threads = 1; threads <= cores; ++threads) {
        const Measurement& m =
            program.emplace_back(measure_repeated("kSieve", run, repeats, threads));
        std::printf("| %d | %.2f | %.2f | %.1f | %.1f | %.2f |\n", threads, m.wall_seconds,
                    m.cpu_seconds, run.megabytes / m.wall_seconds, m.peak_megabytes,
                    m.wall_seconds / program.front().wall_seconds);
    }
    const double one = program.front().wall_seconds;
    const double reading = measure_repeated("read", run, repeats).wall_seconds;
    const double pipeline = measure_repeated("pipeline", run, repeats).wall_seconds;
    const double serial = measure_repeated("pipeline", run, repeats, cores).wall_seconds;
    std::printf("\n| stage | wall s | share of one thread |\n|---|--:|--:|\n");
    const std::pair<const char*, double> stages[] = {
        {"reading", reading},
        {"writing (pipeline without detection, less reading)", pipeline - reading},
        {"detection (whole program, less the pipeline)", one - pipeline},
        {"reading thread's own part (pipeline without detection, all cores)", serial}};
    for (const auto& [name, seconds] : stages) {
        std::printf("| %s | %.2f | %.0f %% |\n", name, seconds, 100.0 * seconds / one);
    }
    std::printf(
        "\n| cores | projected wall s | projected MB/s | time / time at 1 thread |\n"
        "|--:|--:|--:|--:|\n");
    for (const int projected : {cores, 8, 32}) {
        const double wall = std::max(serial, one / projected);
        std::printf("| %d%s | %.2f | %.1f | %.2f |\n", projected,
                    projected == cores ? " (measured machine)" : "", wall, run.megabytes / wall,
                    wall / one);
    }
}

Options parse_options(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--sizes" && i + 1 < argc) {
            options.sizes.clear();
            for (char* text = argv[++i]; *text != '\0';) {
                options.sizes.push_back(std::strtoll(text, &text, 10));
                text += *text == ',' ? 1 : 0;
            }
            options.sweep_size = options.sizes.empty() ? 0 : options.sizes.front();
        } else if (arg == "--repeats" && i + 1 < argc) {
            options.repeats = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--dir" && i + 1 < argc) {
            // Absolute, since the children work in their output directory.
            options.dir = fs::absolute(argv[++i]);
        } else if (arg == "--keep") {
            options.keep = true;
        } else if (arg == "--threads") {
            options.threads = true;
        } else {
            std::fprintf(stderr,
                         "usage: scaling_bench [--sizes N,N,...] [--repeats N] [--dir PATH] "
                         "[--keep] [--threads]\n");
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--child") {
        return run_child(argv[2], argv[3], argv[4]);
    }
    const Options options = parse_options(argc, argv);
    print_machine();
    if (options.threads) {
        const Run run = simulate(options.sweep_size, options.dir / "threads");
        sweep_threads(run, options.repeats);
        if (!options.keep) {
            fs::remove_all(options.dir);
        }
        return 0;
    }
    std::vector<Run> runs;
    std::vector<std::vector<Measurement>> measured;
    for (const int64_t size : options.sizes) {
        runs.push_back(simulate(size, options.dir / ("ms2_" + std::to_string(size))));
        std::vector<Measurement>& row = measured.emplace_back();
        for (const char* configuration : kConfigurations) {
            row.push_back(measure_repeated(configuration, runs.back(), options.repeats));
        }
        std::fprintf(stderr, "measured %lld MS2 scans\n", static_cast<long long>(size));
        if (!options.keep) {
            fs::remove_all(options.dir / ("ms2_" + std::to_string(size)));
        }
    }
    std::error_code not_empty;
    fs::remove(options.dir, not_empty);  // only when nothing else is in it
    print_table(runs, measured);
    print_growth(runs, measured);
    return 0;
}

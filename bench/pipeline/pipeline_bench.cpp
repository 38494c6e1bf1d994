// Macro benchmark of the per-file pipeline.
//
// Generates a deterministic `.ms1`/`.ms2` pair of a given size in a scratch
// directory, then times in one run:
//   (a) reading both files with the readers alone, and
//   (b) the whole pipeline with a detector that finds nothing, writing every
//       output (KS1, KS2, MGF, precursor table), and once more without MGF,
// and prints the input throughput of each and the ratio of (b) to (a).
//
// Usage: pipeline_bench [--mb N] [--dir PATH] [--keep] [--reuse]
//   --mb    total size of the generated pair in MB (default 512)
//   --dir   scratch directory (default: <temp>/ksieve_pipeline_bench)
//   --keep  leave the generated pair and the outputs behind
//   --reuse time the pair left in --dir by an earlier --keep run as it is
//           (for profiling the timed part alone)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "basicprocesslogic.h"
#include "spectrumfiles.h"

namespace {

namespace fs = std::filesystem;

// A fixed linear congruential generator: the same pair on every machine.
class Lcg {
  public:
    double next_unit() {
        m_state = m_state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(m_state >> 11) / 9007199254740992.0;
    }

  private:
    unsigned long long m_state = 20240601ULL;
};

// One cycle of a data-dependent run: a survey scan, then ten fragment scans of
// precursors picked from it.
constexpr int kMs1Peaks = 1000;
constexpr int kMs2PerCycle = 10;
constexpr int kMs2Peaks = 150;

// Centroids in ascending m/z, as an extractor writes them.
void write_peaks(std::FILE* file, Lcg& random, int count, double low, double high) {
    const double mean_step = (high - low) / count;
    double mz = low;
    for (int i = 0; i < count; ++i) {
        mz += 2.0 * mean_step * random.next_unit();
        const double intensity = 1000.0 + 1.0e6 * random.next_unit();
        std::fprintf(file, "%.5f %.1f\n", mz, intensity);
    }
}

void write_cycle(std::FILE* ms1, std::FILE* ms2, Lcg& random, int cycle) {
    const int survey = cycle * (kMs2PerCycle + 1) + 1;
    const double rt = 0.01 * cycle;
    std::fprintf(ms1, "S\t%d\t%d\nI\tRetTime\t%.4f\nI\tIonInjectionTime\t12.5\n", survey, survey,
                 rt);
    std::fprintf(ms1, "I\tInstrumentType\tFTMS\n");
    write_peaks(ms1, random, kMs1Peaks, 350.0, 1600.0);
    for (int k = 1; k <= kMs2PerCycle; ++k) {
        const int scan = survey + k;
        const double target = 400.0 + 800.0 * random.next_unit();
        const int charge = 2 + static_cast<int>(3.0 * random.next_unit());
        std::fprintf(ms2, "S\t%d\t%d\t%.5f\nI\tActivationType\tHCD\n", scan, scan, target);
        std::fprintf(ms2, "I\tActivationCenter\t%.2f\nI\tPrecursorScan\t%d\n", target, survey);
        std::fprintf(ms2, "I\tInstrumentType\tFTMS\nI\tRetTime\t%.4f\n", rt);
        std::fprintf(ms2, "Z\t%d\t%.5f\n", charge, target * charge - (charge - 1) * 1.007276);
        write_peaks(ms2, random, kMs2Peaks, 100.0, 2000.0);
    }
}

// Returns the size of the pair in bytes.
uint64_t generate_pair(const fs::path& ms1_path, const fs::path& ms2_path, uint64_t target) {
    std::FILE* ms1 = std::fopen(ms1_path.c_str(), "w");
    std::FILE* ms2 = std::fopen(ms2_path.c_str(), "w");
    if (ms1 == nullptr || ms2 == nullptr) {
        std::fprintf(stderr, "cannot create the pair in %s\n", ms1_path.parent_path().c_str());
        std::exit(1);
    }
    std::fputs("H\tCreationDate\tbenchmark\n", ms1);
    std::fputs("H\tCreationDate\tbenchmark\n", ms2);
    Lcg random;
    for (int cycle = 0; static_cast<uint64_t>(std::ftell(ms1) + std::ftell(ms2)) < target;
         ++cycle) {
        write_cycle(ms1, ms2, random, cycle);
    }
    std::fclose(ms1);
    std::fclose(ms2);
    return fs::file_size(ms1_path) + fs::file_size(ms2_path);
}

template <typename Scan>
int read_all(const fs::path& path, bool (*read)(ksieve::LineFile&, Scan&)) {
    ksieve::LineFile file;
    ksieve::open_spectrum_file(file.m_head, path.string(), "r");
    Scan scan;
    while (read(file, scan)) {
        scan = Scan{};
    }
    const int count = file.m_head.m_scan_count;
    ksieve::finish_spectrum_file(file.m_head);
    ksieve::release_spectrum_file(file.m_head);
    return count;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The whole pipeline on the pair named in `params`, with a detector that finds
// nothing, so every scan keeps its declared precursors.
double time_pipeline(const ksieve::UserParameters& params, const ksieve::FileContext& file) {
    const auto start = std::chrono::steady_clock::now();
    ksieve::process_ms_files(
        params, file,
        [](const ksieve::Ms1Slices&, const ksieve::MS2Spectrum&, ksieve::DetectionScratch&) {
            return std::vector<ksieve::Precursor>{};
        });
    return seconds_since(start);
}

struct Options {
    uint64_t megabytes = 512;
    fs::path dir = fs::temp_directory_path() / "ksieve_pipeline_bench";
    bool keep = false;
    bool reuse = false;
};

Options parse_options(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--mb" && i + 1 < argc) {
            options.megabytes = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--dir" && i + 1 < argc) {
            options.dir = argv[++i];
        } else if (arg == "--keep") {
            options.keep = true;
        } else if (arg == "--reuse") {
            options.reuse = true;
        } else {
            std::fprintf(stderr,
                         "usage: pipeline_bench [--mb N] [--dir PATH] [--keep] [--reuse]\n");
            std::exit(2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse_options(argc, argv);
    const fs::path input_dir = options.dir / "input";
    const fs::path output_dir = options.dir / "output";
    fs::create_directories(input_dir);
    fs::remove_all(output_dir);
    fs::create_directories(output_dir);
    const fs::path ms1 = input_dir / "bench.ms1";
    const fs::path ms2 = input_dir / "bench.ms2";
    const uint64_t bytes = options.reuse ? fs::file_size(ms1) + fs::file_size(ms2)
                                         : generate_pair(ms1, ms2, options.megabytes << 20);
    const double megabytes = static_cast<double>(bytes) / (1 << 20);

    auto start = std::chrono::steady_clock::now();
    const int ms1_scans = read_all<ksieve::MS1Spectrum>(ms1, ksieve::ReadMs1Scan);
    const int ms2_scans = read_all<ksieve::MS2Spectrum>(ms2, ksieve::ReadMs2Scan);
    const double read_seconds = seconds_since(start);

    ksieve::UserParameters params;
    params.m_outputpath = output_dir.string();
    params.m_threads = 1;
    const ksieve::FileContext file = ksieve::file_context(params, ms1.string(), "ms1", nullptr);
    const double pipeline_seconds = time_pipeline(params, file);
    // The same again without the MGF files, to show what the text output costs.
    params.m_rewrite_files = true;
    params.m_output_mgf = false;
    const double no_mgf_seconds = time_pipeline(params, file);

    const double read_rate = megabytes / read_seconds;
    const double pipeline_rate = megabytes / pipeline_seconds;
    std::printf("\ninput: %.1f MB, %d MS1 scans, %d MS2 scans\n", megabytes, ms1_scans, ms2_scans);
    std::printf("%-36s %10s %10s\n", "measurement", "seconds", "MB/s");
    std::printf("%-36s %10.2f %10.1f\n", "(a) readers only", read_seconds, read_rate);
    std::printf("%-36s %10.2f %10.1f\n", "(b) pipeline, detector finds none", pipeline_seconds,
                pipeline_rate);
    std::printf("%-36s %10.2f %10.1f\n", "    the same without MGF output", no_mgf_seconds,
                megabytes / no_mgf_seconds);
    std::printf("ratio (b)/(a): %.2f\n", pipeline_rate / read_rate);
    if (!options.keep) {
        fs::remove_all(options.dir);
    }
    return 0;
}

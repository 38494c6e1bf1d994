// Benchmark of precursor detection inside the per-file pipeline.
//
// Generates a deterministic `.ms1`/`.ms2` pair of a data-dependent run: peptide
// isotope clusters of charges 2 to 4 with averagine isotope patterns, eluting over
// a dozen survey scans, often two or more in one isolation window, over a floor of
// noise peaks; ten fragment scans per survey scan, each isolating the strongest
// isotope of an eluting peptide (declared with the wrong charge one time in four).
// Then runs the whole pipeline three times, each time in a child process of its own:
//   (a) with a detector that finds nothing (reading and writing alone),
//   (b) with precursor detection, and
//   (c) with detection and precursor validation (validate_precursors = 1),
// and reports MS2 scans per second and the peak resident memory of each child,
// and the validation stage's time as a share of detection's: (c - b) / (b - a).
//
// Usage: detection_bench [--ms2 N] [--dir PATH] [--keep]
//   --ms2  number of MS2 scans (default 20000)
//   --dir  scratch directory (default: <temp>/ksieve_detection_bench)
//   --keep leave the generated pair and the outputs behind
//        detection_bench --golden DIR
//   writes the small pair of the detection golden case into DIR and exits.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "basicprocesslogic.h"
#include "chemistry.h"
#include "detection.h"
#include "userparameters.h"

namespace {

namespace fs = std::filesystem;
namespace chem = ksieve::chem;

// A fixed linear congruential generator: the same pair on every machine.
class Lcg {
  public:
    double unit() {
        m_state = m_state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(m_state >> 11) / 9007199254740992.0;
    }

  private:
    unsigned long long m_state = 20240611ULL;
};

// One peptide ion eluting over the run.
struct Peptide {
    int charge = 2;
    double apex = 0.0;                   // survey cycle of the elution apex
    double sigma = 2.0;                  // elution width in survey cycles
    double height = 0.0;                 // intensity of the strongest isotope at the apex
    std::vector<ksieve::Peak> isotopes;  // m/z and abundance relative to the strongest
};

Peptide make_peptide(double neutral_mass, int charge, double apex, double sigma, double height) {
    Peptide peptide{charge, apex, sigma, height, {}};
    const std::vector<chem::IsotopePeak> pattern =
        chem::isotope_pattern(chem::averagine(neutral_mass), 6);
    double strongest = 0.0;
    for (const chem::IsotopePeak& peak : pattern) {
        strongest = std::max(strongest, peak.m_abundance);
    }
    for (const chem::IsotopePeak& peak : pattern) {
        if (peak.m_abundance > 0.0) {
            peptide.isotopes.push_back(
                {chem::mz_from_neutral(peak.m_mass, charge), peak.m_abundance / strongest});
        }
    }
    return peptide;
}

// What the instrument isolates: a target m/z and the charge it declares.
struct Target {
    double center = 0.0;
    int declared_charge = 2;
};

// A peptide as seen in one survey scan: its intensity there.
struct Seen {
    const Peptide* peptide;
    double intensity;
};

using TargetPicker = std::function<std::vector<Target>(int cycle, std::vector<Seen>& seen)>;

struct RunShape {
    int cycles = 0;
    int noise_peaks = 0;     // per survey scan, m/z 350-1600
    int fragment_peaks = 0;  // per fragment scan
};

void write_survey(std::FILE* ms1, int scan, int cycle, std::vector<ksieve::Peak>& peaks) {
    std::sort(peaks.begin(), peaks.end(), ksieve::peak_less);
    std::fprintf(ms1, "S\t%d\t%d\nI\tRetTime\t%.4f\nI\tIonInjectionTime\t10.0\n", scan, scan,
                 0.05 * cycle);
    std::fputs("I\tInstrumentType\tFTMS\n", ms1);
    for (const ksieve::Peak& peak : peaks) {
        std::fprintf(ms1, "%.5f %.1f\n", peak.m_mz, peak.m_intensity);
    }
}

void write_fragment_scan(std::FILE* ms2, int scan, int survey, int cycle, const Target& target,
                         int peak_count, Lcg& random) {
    const int z = target.declared_charge;
    std::fprintf(ms2, "S\t%d\t%d\t%.5f\nI\tActivationType\tHCD\n", scan, scan, target.center);
    std::fprintf(ms2, "I\tActivationCenter\t%.5f\nI\tPrecursorScan\t%d\n", target.center, survey);
    std::fprintf(ms2, "I\tInstrumentType\tFTMS\nI\tRetTime\t%.4f\n", 0.05 * cycle);
    std::fprintf(ms2, "Z\t%d\t%.5f\n", z,
                 (target.center - ksieve::kExactProtonMass) * z + ksieve::kExactProtonMass);
    for (int i = 0; i < peak_count; ++i) {
        std::fprintf(ms2, "%.5f %.1f\n", 150.0 + 1850.0 * random.unit(),
                     100.0 + 1.0e5 * random.unit());
    }
}

// Writes the run: per cycle one survey scan, then the fragment scans of its targets.
void write_run(const fs::path& stem, const std::vector<Peptide>& peptides, const RunShape& shape,
               const TargetPicker& pick) {
    std::FILE* ms1 = std::fopen((stem.string() + ".ms1").c_str(), "w");
    std::FILE* ms2 = std::fopen((stem.string() + ".ms2").c_str(), "w");
    if (ms1 == nullptr || ms2 == nullptr) {
        std::fprintf(stderr, "cannot write %s.ms1/.ms2\n", stem.c_str());
        std::exit(1);
    }
    std::fputs("H\tCreationDate\tdetection benchmark\n", ms1);
    std::fputs("H\tCreationDate\tdetection benchmark\n", ms2);
    Lcg random;
    std::vector<ksieve::Peak> peaks;
    std::vector<Seen> seen;
    int scan = 1;
    for (int cycle = 0; cycle < shape.cycles; ++cycle) {
        peaks.clear();
        seen.clear();
        for (const Peptide& p : peptides) {
            const double d = (cycle - p.apex) / p.sigma;
            if (std::fabs(d) > 4.0) {
                continue;
            }
            const double intensity = p.height * std::exp(-0.5 * d * d);
            seen.push_back({&p, intensity});
            for (const ksieve::Peak& isotope : p.isotopes) {
                if (intensity * isotope.m_intensity >= 50.0) {
                    peaks.push_back({isotope.m_mz, intensity * isotope.m_intensity});
                }
            }
        }
        for (int i = 0; i < shape.noise_peaks; ++i) {
            peaks.push_back({350.0 + 1250.0 * random.unit(), 200.0 + 3000.0 * random.unit()});
        }
        const int survey = scan++;
        write_survey(ms1, survey, cycle, peaks);
        for (const Target& target : pick(cycle, seen)) {
            write_fragment_scan(ms2, scan++, survey, cycle, target, shape.fragment_peaks, random);
        }
    }
    std::fclose(ms1);
    std::fclose(ms2);
}

// The instrument's view of a peptide: its strongest isotope, and a charge that is
// wrong one time in four.
Target target_of(const Peptide& peptide, Lcg& random) {
    const auto strongest = std::max_element(
        peptide.isotopes.begin(), peptide.isotopes.end(),
        [](const ksieve::Peak& a, const ksieve::Peak& b) { return a.m_intensity < b.m_intensity; });
    const int charge = random.unit() < 0.25 ? peptide.charge + 1 : peptide.charge;
    return {strongest->m_mz, charge};
}

// The benchmark run: a few hundred peptides visible in every survey scan, ten
// fragment scans per survey scan on random peptides among them.
void write_benchmark_run(const fs::path& stem, int ms2_scans) {
    constexpr int kPerCycle = 10;
    const int cycles = ms2_scans / kPerCycle;
    Lcg random;
    std::vector<Peptide> peptides;
    for (int i = 0; i < 14 * cycles; ++i) {
        const int charge = 2 + (random.unit() < 0.55 ? 0 : random.unit() < 0.75 ? 1 : 2);
        const double mass = 700.0 + 3300.0 * random.unit();
        if (chem::mz_from_neutral(mass, charge) > 380.0) {
            peptides.push_back(make_peptide(mass, charge, cycles * random.unit(),
                                            1.5 + 2.0 * random.unit(),
                                            2.0e4 * std::pow(500.0, random.unit())));
        }
    }
    Lcg picks;
    write_run(stem, peptides, {cycles, 600, 150}, [&](int, std::vector<Seen>& seen) {
        std::vector<Target> targets;
        for (int k = 0; k < kPerCycle; ++k) {
            if (seen.empty()) {
                targets.push_back({400.0 + 800.0 * picks.unit(), 2});
            } else {
                const Seen& chosen = seen[static_cast<size_t>(picks.unit() * seen.size())];
                targets.push_back(target_of(*chosen.peptide, picks));
            }
        }
        return targets;
    });
}

// The golden pair: three peptides co-eluting near m/z 600 and 710, one alone at
// 800, over eleven survey scans; four fragment scans after the sixth survey scan.
void write_golden_run(const fs::path& stem) {
    const double mono_a = 1198.58;  // 2+ at 600.297
    const std::vector<Peptide> peptides = {
        make_peptide(1796.52, 3, 5.0, 2.0, 4.0e5),  // 3+ at 599.847, shares the window of a
        make_peptide(mono_a, 2, 5.0, 2.0, 1.0e6),
        make_peptide(2835.97, 4, 5.0, 2.0, 8.0e5),  // 4+ at 709.999
        make_peptide(1598.80, 2, 5.0, 2.0, 6.0e5),  // 2+ at 800.407
    };
    write_run(stem, peptides, {11, 12, 4}, [&](int cycle, std::vector<Seen>&) {
        if (cycle != 5) {
            return std::vector<Target>{};
        }
        const double a = chem::mz_from_neutral(mono_a, 2);
        return std::vector<Target>{{a + 1.00335 / 2, 2}, {710.25, 3}, {800.41, 2}, {950.5, 2}};
    });
}

// Runs the pipeline on `ms1` in a child process and returns its wall time; the
// child's peak resident memory in kB lands in `max_rss_kb`, its CPU seconds (user
// and system) in `cpu_seconds`, which other load on the machine disturbs less.
enum class Stages { kNone, kDetect, kDetectAndValidate };

double run_child(const fs::path& ms1, const fs::path& output, Stages stages, long& max_rss_kb,
                 double& cpu_seconds) {
    fs::remove_all(output);
    fs::create_directories(output);
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        ksieve::UserParameters params;
        params.m_outputpath = output.string();
        params.m_threads = 1;
        params.m_validate_precursors = stages == Stages::kDetectAndValidate;
        ksieve::finalize_parameters(params);
        const ksieve::IsotopeTable ipv = ksieve::read_ipv_file(KSIEVE_IPV_FILE);
        const ksieve::FileContext file = ksieve::file_context(params, ms1.string(), "ms1", &ipv);
        if (stages != Stages::kNone) {
            ksieve::process_ms_files(params, file);
        } else {
            ksieve::process_ms_files(
                params, file,
                [](const ksieve::Ms1Slices&, const ksieve::MS2Spectrum&,
                   ksieve::DetectionScratch&) { return std::vector<ksieve::Precursor>{}; });
        }
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "the pipeline child failed\n");
        std::exit(1);
    }
    max_rss_kb = usage.ru_maxrss;
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    cpu_seconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    int ms2_scans = 20000;
    fs::path dir = fs::temp_directory_path() / "ksieve_detection_bench";
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--golden" && i + 1 < argc) {
            fs::create_directories(argv[i + 1]);
            write_golden_run(fs::path(argv[i + 1]) / "coeluting");
            return 0;
        }
        if (arg == "--ms2" && i + 1 < argc) {
            ms2_scans = std::atoi(argv[++i]);
        } else if (arg == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (arg == "--keep") {
            keep = true;
        } else {
            std::fprintf(stderr,
                         "usage: detection_bench [--ms2 N] [--dir PATH] [--keep]\n"
                         "       detection_bench --golden DIR\n");
            return 2;
        }
    }
    fs::create_directories(dir / "input");
    write_benchmark_run(dir / "input" / "bench", ms2_scans);
    const fs::path ms1 = dir / "input" / "bench.ms1";
    const double megabytes =
        static_cast<double>(fs::file_size(ms1) + fs::file_size(dir / "input" / "bench.ms2")) /
        (1 << 20);

    long none_rss = 0;
    long detect_rss = 0;
    long validate_rss = 0;
    double none_cpu = 0.0;
    double detect_cpu = 0.0;
    double validate_cpu = 0.0;
    const double none_seconds = run_child(ms1, dir / "none", Stages::kNone, none_rss, none_cpu);
    const double detect_seconds =
        run_child(ms1, dir / "detect", Stages::kDetect, detect_rss, detect_cpu);
    const double validate_seconds =
        run_child(ms1, dir / "validate", Stages::kDetectAndValidate, validate_rss, validate_cpu);
    std::printf("\ninput: %.1f MB, %d MS2 scans\n", megabytes, ms2_scans);
    std::printf("%-32s %9s %14s %12s\n", "pipeline", "seconds", "MS2 scans/s", "max RSS MB");
    std::printf("%-32s %9.2f %14.0f %12.1f\n", "(a) detector that finds nothing", none_seconds,
                ms2_scans / none_seconds, none_rss / 1024.0);
    std::printf("%-32s %9.2f %14.0f %12.1f\n", "(b) with detection", detect_seconds,
                ms2_scans / detect_seconds, detect_rss / 1024.0);
    std::printf("%-32s %9.2f %14.0f %12.1f\n", "(c) with detection and validation",
                validate_seconds, ms2_scans / validate_seconds, validate_rss / 1024.0);
    std::printf("detection's share of (b): %.0f%%\n",
                100.0 * (detect_seconds - none_seconds) / detect_seconds);
    std::printf(
        "validation's time over detection's, (c - b) / (b - a): %.0f%% wall, %.0f%% CPU "
        "(CPU seconds %.2f, %.2f, %.2f)\n",
        100.0 * (validate_seconds - detect_seconds) / (detect_seconds - none_seconds),
        100.0 * (validate_cpu - detect_cpu) / (detect_cpu - none_cpu), none_cpu, detect_cpu,
        validate_cpu);
    if (!keep) {
        fs::remove_all(dir);
    }
    return 0;
}

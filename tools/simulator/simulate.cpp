#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "physics.h"
#include "run_model.h"

namespace ksieve::sim {

namespace {

// Scan durations: an Orbitrap survey scan and a fast fragment scan.
constexpr double kMs1Seconds = 0.25;
constexpr double kMs2Seconds = 0.07;
// A run that selects nothing for this long cannot reach its scan count.
constexpr double kIdleLimitSeconds = 600.0;

// Large stdio buffers: a long run writes gigabytes of peak lines.
constexpr size_t kWriteBufferSize = size_t{1} << 20;

class OutputFile {
  public:
    explicit OutputFile(const std::string& path) : m_path(path) {
        m_file = std::fopen(path.c_str(), "w");
        if (m_file == nullptr) {
            throw std::runtime_error("cannot write " + path);
        }
        std::setvbuf(m_file, nullptr, _IOFBF, kWriteBufferSize);
    }
    ~OutputFile() {
        if (m_file != nullptr) {
            std::fclose(m_file);
        }
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::FILE* get() { return m_file; }
    // Closes, and fails when any write was lost.
    void close() {
        const bool failed = std::ferror(m_file) != 0;
        const bool closed = std::fclose(m_file) == 0;
        m_file = nullptr;
        if (failed || !closed) {
            throw std::runtime_error("cannot write " + m_path);
        }
    }

  private:
    std::string m_path;
    std::FILE* m_file = nullptr;
};

const char* activation_name(Activation activation) {
    return activation == Activation::kHcd ? "HCD" : "CID";
}

std::string base_name(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void write_header(std::FILE* out, const SimulatorOptions& options) {
    const std::string faims =
        options.m_faims_cvs == 0 ? "" : " faims_cvs=" + std::to_string(options.m_faims_cvs);
    std::fprintf(out, "H\tExtractor\tkSieve run simulator\n");
    std::fprintf(out, "H\tFASTA\t%s\n", base_name(options.m_fasta_path).c_str());
    std::fprintf(out,
                 "H\tOptions\tseed=%" PRIu64
                 " top_n=%d isolation_width=%g activation=%s "
                 "missed_cleavages=%d feature_rate=%g ppm_error=%g noise_level=%g "
                 "noise_peaks=%d ms2_noise_peaks=%d min_precursor_intensity=%g exclusion=%g%s\n",
                 options.m_seed, options.m_top_n, options.m_isolation_width,
                 activation_name(options.m_activation), options.m_missed_cleavages,
                 options.m_feature_rate, options.m_ppm_error, options.m_noise_level,
                 options.m_noise_peaks, options.m_ms2_noise_peaks,
                 options.m_min_precursor_intensity, options.m_exclusion_seconds, faims.c_str());
}

// Retention time in minutes, injection time in milliseconds, the voltage in V
// with FAIMS (`voltage` is nullptr without).
void write_scan_head(std::FILE* out, double seconds, double injection_ms, const double* voltage) {
    std::fprintf(out, "I\tRetTime\t%.4f\n", seconds / 60.0);
    std::fprintf(out, "I\tIonInjectionTime\t%.3f\n", injection_ms);
    std::fprintf(out, "I\tInstrumentType\tFTMS\n");
    if (voltage != nullptr) {
        std::fprintf(out, "I\tCompensationVoltage\t%g\n", *voltage);
    }
}

void write_peaks(std::FILE* out, const std::vector<Centroid>& peaks) {
    for (const Centroid& peak : peaks) {
        std::fprintf(out, "%.5f %.1f\n", peak.m_mz, peak.m_intensity);
    }
}

void write_ms1(std::FILE* out, int64_t scan, const Ms1Scan& ms1, const double* voltage) {
    std::fprintf(out, "S\t%" PRId64 "\t%" PRId64 "\n", scan, scan);
    write_scan_head(out, ms1.m_seconds, ms1.m_injection_ms, voltage);
    write_peaks(out, ms1.m_centroids);
}

void write_ms2(std::FILE* out, int64_t scan, int64_t parent, const Ms2Scan& ms2,
               Activation activation, const double* voltage) {
    std::fprintf(out, "S\t%" PRId64 "\t%" PRId64 "\t%.5f\n", scan, scan, ms2.m_center);
    write_scan_head(out, ms2.m_seconds, ms2.m_injection_ms, voltage);
    std::fprintf(out, "I\tActivationType\t%s\n", activation_name(activation));
    std::fprintf(out, "I\tActivationCenter\t%.5f\n", ms2.m_center);
    std::fprintf(out, "I\tPrecursorScan\t%" PRId64 "\n", parent);
    for (const Declared& declared : ms2.m_declared) {
        const double singly_protonated =
            declared.m_charge * declared.m_mz - (declared.m_charge - 1) * kProtonMass;
        std::fprintf(out, "Z\t%d\t%.5f\n", declared.m_charge, singly_protonated);
    }
    write_peaks(out, ms2.m_peaks);
}

void write_truth(std::FILE* out, int64_t scan, int64_t parent, const Ms2Scan& ms2,
                 const ElutionModel& model) {
    for (const CoIsolated& entry : ms2.m_isolated) {
        const Feature& feature = model.active()[entry.m_feature];
        std::fprintf(out, "%" PRId64 ",%" PRId64 ",%.5f,%s,%d,%.6f,%.6f,%d\n", scan, parent,
                     ms2.m_center, model.sequence(feature).c_str(), feature.m_charge,
                     feature.mono_mz(), entry.m_share, entry.m_feature == ms2.m_target ? 1 : 0);
    }
}

}  // namespace

SimulationSummary run_simulation(const SimulatorOptions& options) {
    SimulationSummary summary;
    std::vector<Peptide> peptides =
        digest_proteome(read_fasta(options.m_fasta_path), options.m_missed_cleavages);
    summary.m_peptides = static_cast<int64_t>(peptides.size());
    Rng rng(options.m_seed);
    ElutionModel model(std::move(peptides), options, rng);

    const std::string stem = options.m_out_dir + "/" + options.m_stem;
    OutputFile ms1_file(stem + ".ms1");
    OutputFile ms2_file(stem + ".ms2");
    OutputFile truth_file(stem + "_truth.csv");
    write_header(ms1_file.get(), options);
    write_header(ms2_file.get(), options);
    std::fprintf(truth_file.get(),
                 "ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,"
                 "window_share,selected\n");

    Ms1Scan survey;
    Ms2Scan fragment_scan;
    int64_t scan = 0;
    double seconds = 0.0;
    double last_selection = 0.0;
    for (int cv = 0; summary.m_ms2_scans < options.m_ms2_scans;
         cv = options.m_faims_cvs == 0 ? 0 : (cv + 1) % options.m_faims_cvs) {
        const double voltage =
            options.m_faims_cvs == 0 ? 0.0 : faims_voltage(options.m_faims_cvs, cv);
        const double* label = options.m_faims_cvs == 0 ? nullptr : &voltage;
        model.advance(seconds);
        build_ms1_scan(model.active(), seconds, cv, options, rng, survey);
        const int64_t parent = ++scan;
        write_ms1(ms1_file.get(), parent, survey, label);
        ++summary.m_ms1_scans;
        seconds += kMs1Seconds;
        const std::vector<int32_t> selected =
            select_precursors(model.active(), survey, seconds, options);
        for (size_t i = 0; i < selected.size() && summary.m_ms2_scans < options.m_ms2_scans; ++i) {
            build_ms2_scan(model.active(), selected[i], survey, options, rng, fragment_scan);
            fragment_scan.m_seconds = seconds;
            write_ms2(ms2_file.get(), ++scan, parent, fragment_scan, options.m_activation, label);
            write_truth(truth_file.get(), scan, parent, fragment_scan, model);
            ++summary.m_ms2_scans;
            summary.m_truth_rows += static_cast<int64_t>(fragment_scan.m_isolated.size());
            seconds += kMs2Seconds;
            last_selection = seconds;
        }
        if (seconds - last_selection > kIdleLimitSeconds) {
            throw std::runtime_error("no precursor could be selected for " +
                                     std::to_string(static_cast<int>(kIdleLimitSeconds)) +
                                     " s of run time; lower --min-precursor-intensity");
        }
    }
    ms1_file.close();
    ms2_file.close();
    truth_file.close();
    return summary;
}

}  // namespace ksieve::sim

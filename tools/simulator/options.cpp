#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>

#include "simulator.h"

namespace ksieve::sim {

namespace {

bool parse_int(const std::string& text, int64_t low, int64_t high, int64_t& value) {
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool parse_double(const std::string& text, double low, double high, double& value) {
    char* end = nullptr;
    errno = 0;
    const double parsed = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !(parsed >= low && parsed <= high)) {
        return false;
    }
    value = parsed;
    return true;
}

using Setter = std::function<bool(const std::string&, SimulatorOptions&)>;

Setter integer(int64_t low, int64_t high, std::function<void(SimulatorOptions&, int64_t)> set) {
    return [=](const std::string& text, SimulatorOptions& options) {
        int64_t value = 0;
        if (!parse_int(text, low, high, value)) {
            return false;
        }
        set(options, value);
        return true;
    };
}

Setter real(double low, double high, double SimulatorOptions::*field) {
    return [=](const std::string& text, SimulatorOptions& options) {
        return parse_double(text, low, high, options.*field);
    };
}

Setter text(std::string SimulatorOptions::*field) {
    return [=](const std::string& value, SimulatorOptions& options) {
        options.*field = value;
        return !value.empty();
    };
}

const std::map<std::string, Setter>& setters() {
    static const std::map<std::string, Setter> table = {
        {"--fasta", text(&SimulatorOptions::m_fasta_path)},
        {"--out-dir", text(&SimulatorOptions::m_out_dir)},
        {"--stem", text(&SimulatorOptions::m_stem)},
        {"--seed",
         integer(0, INT64_MAX, [](SimulatorOptions& o, int64_t v) { o.m_seed = uint64_t(v); })},
        {"--ms2-scans",
         integer(1, INT64_MAX, [](SimulatorOptions& o, int64_t v) { o.m_ms2_scans = v; })},
        {"--top-n", integer(1, 100, [](SimulatorOptions& o, int64_t v) { o.m_top_n = int(v); })},
        {"--isolation-width", real(0.1, 50.0, &SimulatorOptions::m_isolation_width)},
        {"--activation",
         [](const std::string& value, SimulatorOptions& options) {
             options.m_activation = value == "CID" ? Activation::kCid : Activation::kHcd;
             return value == "CID" || value == "HCD";
         }},
        {"--missed-cleavages",
         integer(0, 3, [](SimulatorOptions& o, int64_t v) { o.m_missed_cleavages = int(v); })},
        {"--feature-rate", real(1e-3, 1e3, &SimulatorOptions::m_feature_rate)},
        {"--ppm-error", real(0.0, 100.0, &SimulatorOptions::m_ppm_error)},
        {"--ms1-resolution", real(1000.0, 1e7, &SimulatorOptions::m_ms1_resolution)},
        {"--noise-level", real(1.0, 1e9, &SimulatorOptions::m_noise_level)},
        {"--noise-peaks",
         integer(1, 100000, [](SimulatorOptions& o, int64_t v) { o.m_noise_peaks = int(v); })},
        {"--ms2-noise-peaks",
         integer(1, 100000, [](SimulatorOptions& o, int64_t v) { o.m_ms2_noise_peaks = int(v); })},
        {"--min-precursor-intensity",
         real(0.0, 1e30, &SimulatorOptions::m_min_precursor_intensity)},
        {"--exclusion", real(0.0, 1e6, &SimulatorOptions::m_exclusion_seconds)},
        {"--faims-cvs",
         [](const std::string& value, SimulatorOptions& options) {
             options.m_faims_cvs = value == "2" ? 2 : value == "3" ? 3 : 0;
             return value == "0" || value == "2" || value == "3";
         }},
    };
    return table;
}

}  // namespace

std::string usage_text() {
    return "usage: ksieve_simulate --fasta FILE [options]\n"
           "  --fasta FILE                  proteins to digest (required)\n"
           "  --out-dir DIR                 existing output directory (.)\n"
           "  --stem NAME                   writes NAME.ms1, NAME.ms2, NAME_truth.csv (simulated)\n"
           "  --seed N                      random seed (1)\n"
           "  --ms2-scans N                 MS2 scans to write (1000)\n"
           "  --top-n N                     MS2 scans per cycle at most (10)\n"
           "  --isolation-width MZ          isolation window width (2.0)\n"
           "  --activation HCD|CID          activation type written (HCD)\n"
           "  --missed-cleavages N          0 to 3 (1)\n"
           "  --feature-rate R              peptide elutions starting per second (8)\n"
           "  --ppm-error PPM               MS1 m/z error, standard deviation (2)\n"
           "  --ms1-resolution R            MS1 resolving power at m/z 400 (60000)\n"
           "  --noise-level I               median MS1 noise peak (1000)\n"
           "  --noise-peaks N               noise peaks per MS1 scan, at least 1 (150)\n"
           "  --ms2-noise-peaks N           noise peaks per MS2 scan, at least 1 (30)\n"
           "  --min-precursor-intensity I   weakest selectable peak (10000)\n"
           "  --exclusion S                 dynamic exclusion in seconds (20)\n"
           "  --faims-cvs 0|2|3             FAIMS compensation voltages in turn (0: none)\n";
}

std::optional<SimulatorOptions> parse_options(const std::vector<std::string>& args,
                                              std::string& error) {
    SimulatorOptions options;
    for (size_t i = 0; i < args.size(); i += 2) {
        const auto setter = setters().find(args[i]);
        if (setter == setters().end()) {
            error = "unknown option " + args[i];
            return std::nullopt;
        }
        if (i + 1 == args.size()) {
            error = args[i] + " needs a value";
            return std::nullopt;
        }
        if (!setter->second(args[i + 1], options)) {
            error = "bad value for " + args[i] + ": " + args[i + 1];
            return std::nullopt;
        }
    }
    if (options.m_fasta_path.empty()) {
        error = "--fasta is required";
        return std::nullopt;
    }
    return options;
}

}  // namespace ksieve::sim

#include <algorithm>

#include "run_model.h"

namespace ksieve::sim {

namespace {

// How often the instrument's precursor report goes wrong. The mono-isotopic
// peak is missed (the next one reported) or not looked for (the selected peak
// reported); the charge is off by one or not determined at all.
constexpr double kMissedMonoRate = 0.10;
constexpr double kSelectedPeakRate = 0.05;
constexpr double kWrongChargeRate = 0.04;
constexpr double kMissingChargeRate = 0.04;

// Automatic gain control: ions are gathered until the target is reached or the
// injection time runs out, so weak precursors give weaker fragment scans.
constexpr double kMaxInjectionMs = 100.0;
constexpr double kFillRate = 5e6;        // window intensity times ms that fills the trap
constexpr double kFullScanSignal = 1e6;  // summed fragment intensity of a full trap
constexpr double kMs2NoiseLevel = 200.0;
constexpr double kMs2PpmError = 3.0;
constexpr double kFragmentScatter = 0.15;

// The peptides with MS1 intensity inside the isolation window, by share.
// Returns the window's whole intensity, noise included.
double collect_isolated(const Ms1Scan& survey, double low, double high,
                        std::vector<CoIsolated>& isolated) {
    auto first = std::lower_bound(survey.m_raw.begin(), survey.m_raw.end(), low,
                                  [](const RawPeak& peak, double mz) { return peak.m_mz < mz; });
    double total = 0.0;
    for (auto raw = first; raw != survey.m_raw.end() && raw->m_mz <= high; ++raw) {
        total += raw->m_intensity;
        if (raw->m_owner < 0) {
            continue;
        }
        auto known = std::find_if(isolated.begin(), isolated.end(), [&](const CoIsolated& entry) {
            return entry.m_feature == raw->m_owner;
        });
        if (known == isolated.end()) {
            isolated.push_back({raw->m_owner, raw->m_intensity});
        } else {
            known->m_share += raw->m_intensity;
        }
    }
    for (CoIsolated& entry : isolated) {
        entry.m_share /= total;
    }
    std::sort(isolated.begin(), isolated.end(), [](const CoIsolated& a, const CoIsolated& b) {
        return a.m_share > b.m_share || (a.m_share == b.m_share && a.m_feature < b.m_feature);
    });
    return total;
}

// What the instrument reports for the selected cluster: the observed m/z of the
// peak it takes for mono-isotopic, and a charge, or for an undetermined charge
// the usual guesses 2+ and 3+ at the isolation target.
void declare(const Feature& target, const Ms1Scan& survey, double center, Rng& rng,
             std::vector<Declared>& declared) {
    int lowest = 0;
    while (target.m_scan_intensity[lowest] <= 0.0) {
        ++lowest;
    }
    int reported = lowest;
    const double isotope_draw = rng.uniform();
    if (isotope_draw < kMissedMonoRate) {
        if (lowest + 1 < target.m_peak_count && target.m_scan_intensity[lowest + 1] > 0.0) {
            reported = lowest + 1;
        }
    } else if (isotope_draw < kMissedMonoRate + kSelectedPeakRate) {
        reported = target.strongest_peak();
    }
    const double mz = survey.m_raw[target.m_scan_peak[reported]].m_mz;
    const double charge_draw = rng.uniform();
    if (charge_draw < kWrongChargeRate) {
        const int off_by_one = target.m_charge + (rng.chance(0.5) ? 1 : -1);
        declared.push_back({off_by_one, mz});
    } else if (charge_draw < kWrongChargeRate + kMissingChargeRate) {
        declared.push_back({2, center});
        declared.push_back({3, center});
    } else {
        declared.push_back({target.m_charge, mz});
    }
}

void add_fragment_peaks(const std::vector<Feature>& features, double signal, Rng& rng,
                        Ms2Scan& scan) {
    const double floor = 0.5 * kMs2NoiseLevel;
    for (const CoIsolated& entry : scan.m_isolated) {
        for (const Fragment& fragment : features[entry.m_feature].m_fragments) {
            const double intensity = signal * entry.m_share * fragment.m_weight *
                                     (1.0 + kFragmentScatter * rng.normal());
            if (intensity >= floor) {
                const double mz = fragment.m_mz * (1.0 + kMs2PpmError * 1e-6 * rng.normal());
                scan.m_peaks.push_back({mz, intensity});
            }
        }
    }
}

// Never below the floor, like the survey scan's noise.
void add_ms2_noise(const SimulatorOptions& options, Rng& rng, Ms2Scan& scan) {
    for (int i = 0; i < options.m_ms2_noise_peaks; ++i) {
        const double mz = rng.uniform(kMs2LowMz, kMs2HighMz);
        const double intensity = rng.lognormal(kMs2NoiseLevel, 0.5);
        scan.m_peaks.push_back({mz, std::max(intensity, 0.5 * kMs2NoiseLevel)});
    }
}

}  // namespace

void build_ms2_scan(const std::vector<Feature>& features, int32_t target, const Ms1Scan& survey,
                    const SimulatorOptions& options, Rng& rng, Ms2Scan& scan) {
    const Feature& selected = features[target];
    scan.m_target = target;
    scan.m_declared.clear();
    scan.m_isolated.clear();
    scan.m_peaks.clear();
    const RawPeak& strongest = survey.m_raw[selected.m_scan_peak[selected.strongest_peak()]];
    scan.m_center = survey.m_centroids[strongest.m_centroid].m_mz;
    const double half_width = 0.5 * options.m_isolation_width;
    const double window = collect_isolated(survey, scan.m_center - half_width,
                                           scan.m_center + half_width, scan.m_isolated);
    scan.m_injection_ms = std::min(kMaxInjectionMs, kFillRate / window);
    const double signal = kFullScanSignal * scan.m_injection_ms * window / kFillRate;
    declare(selected, survey, scan.m_center, rng, scan.m_declared);
    add_fragment_peaks(features, signal, rng, scan);
    add_ms2_noise(options, rng, scan);
    std::sort(scan.m_peaks.begin(), scan.m_peaks.end(), [](const Centroid& a, const Centroid& b) {
        return a.m_mz < b.m_mz || (a.m_mz == b.m_mz && a.m_intensity < b.m_intensity);
    });
}

}  // namespace ksieve::sim

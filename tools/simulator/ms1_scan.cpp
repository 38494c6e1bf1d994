#include <algorithm>

#include "run_model.h"

namespace ksieve::sim {

namespace {

constexpr double kProfileSigmas = 4.0;

// Orbitrap resolving power: `resolution` at m/z 400 (60,000 by default), falling
// with the square root of m/z. Two centroids closer than one peak width (m/z over
// resolving power) are seen as one.
double peak_width(double mz, double resolution) {
    return mz / (resolution * std::sqrt(400.0 / mz));
}

// Relative scatter of a cluster's total from scan to scan (spray and injection),
// and of each isotope peak around its share (counting statistics).
constexpr double kScanScatter = 0.08;
constexpr double kPeakScatter = 0.05;

void add_feature_peaks(std::vector<Feature>& features, const SimulatorOptions& options, Rng& rng,
                       double seconds, int cv, double offset_ppm, Ms1Scan& scan) {
    const double floor = 0.5 * options.m_noise_level;
    for (size_t f = 0; f < features.size(); ++f) {
        Feature& feature = features[f];
        feature.m_scan_intensity.fill(0.0);
        feature.m_scan_peak.fill(-1);
        const double distance = (seconds - feature.m_apex) / feature.m_sigma;
        const double passing = faims_transmission(feature, cv, options);
        if (std::abs(distance) >= kProfileSigmas || passing == 0.0) {
            continue;
        }
        const double cluster = passing * feature.m_abundance *
                               std::exp(-0.5 * distance * distance) *
                               std::max(0.0, 1.0 + kScanScatter * rng.normal());
        for (int k = 0; k < feature.m_peak_count; ++k) {
            // Signal scatter plus the additive noise of the detector.
            const double intensity =
                cluster * feature.m_share[k] * (1.0 + kPeakScatter * rng.normal()) +
                0.2 * options.m_noise_level * rng.normal();
            const double error_ppm = offset_ppm + options.m_ppm_error * rng.normal();
            const double mz = feature.m_mz[k] * (1.0 + error_ppm * 1e-6);
            if (intensity < floor || mz < kMs1LowMz || mz > kMs1HighMz) {
                continue;
            }
            feature.m_scan_intensity[k] = intensity;
            scan.m_raw.push_back({mz, intensity, static_cast<int32_t>(f), k, 0});
        }
    }
}

// Noise peaks are never below the floor, so that every scan has peaks: a scan
// without any would be invisible to the reader.
void add_noise_peaks(const SimulatorOptions& options, Rng& rng, Ms1Scan& scan) {
    const double floor = 0.5 * options.m_noise_level;
    for (int i = 0; i < options.m_noise_peaks; ++i) {
        const double mz = rng.uniform(kMs1LowMz, kMs1HighMz);
        const double intensity = std::max(floor, rng.lognormal(options.m_noise_level, 0.5));
        scan.m_raw.push_back({mz, intensity, -1, 0, 0});
    }
}

// Merges neighbours that the resolution cannot separate into intensity-weighted
// centroids, and links every raw peak to its centroid and its feature.
void centroid(std::vector<Feature>& features, double resolution, Ms1Scan& scan) {
    std::sort(scan.m_raw.begin(), scan.m_raw.end(), [](const RawPeak& a, const RawPeak& b) {
        return a.m_mz < b.m_mz || (a.m_mz == b.m_mz && a.m_intensity < b.m_intensity);
    });
    double weighted_mz = 0.0;
    for (size_t i = 0; i < scan.m_raw.size(); ++i) {
        RawPeak& raw = scan.m_raw[i];
        const bool joins =
            i > 0 && raw.m_mz - scan.m_raw[i - 1].m_mz < peak_width(raw.m_mz, resolution);
        if (!joins) {
            scan.m_centroids.push_back({0.0, 0.0});
            weighted_mz = 0.0;
        }
        Centroid& merged = scan.m_centroids.back();
        merged.m_intensity += raw.m_intensity;
        weighted_mz += raw.m_mz * raw.m_intensity;
        merged.m_mz = weighted_mz / merged.m_intensity;
        raw.m_centroid = static_cast<int32_t>(scan.m_centroids.size() - 1);
        if (raw.m_owner >= 0) {
            features[raw.m_owner].m_scan_peak[raw.m_isotope] = static_cast<int32_t>(i);
        }
    }
}

}  // namespace

double faims_transmission(const Feature& feature, int cv, const SimulatorOptions& options) {
    if (options.m_faims_cvs == 0 || feature.m_cv == cv) {
        return 1.0;
    }
    return std::abs(feature.m_cv - cv) == 1 ? kFaimsLeak : 0.0;
}

void build_ms1_scan(std::vector<Feature>& features, double seconds, int cv,
                    const SimulatorOptions& options, Rng& rng, Ms1Scan& scan) {
    scan.m_seconds = seconds;
    scan.m_injection_ms = std::clamp(rng.lognormal(5.0, 0.6), 0.5, 50.0);
    scan.m_raw.clear();
    scan.m_centroids.clear();
    // The calibration of the whole scan drifts a little around the true masses.
    const double offset_ppm = 0.5 * options.m_ppm_error * rng.normal();
    add_feature_peaks(features, options, rng, seconds, cv, offset_ppm, scan);
    add_noise_peaks(options, rng, scan);
    centroid(features, options.m_ms1_resolution, scan);
}

std::vector<int32_t> select_precursors(std::vector<Feature>& features, const Ms1Scan& scan,
                                       double seconds, const SimulatorOptions& options) {
    struct Candidate {
        double m_intensity;
        int64_t m_id;
        int32_t m_index;
    };
    std::vector<Candidate> candidates;
    for (size_t f = 0; f < features.size(); ++f) {
        const Feature& feature = features[f];
        const int strongest = feature.strongest_peak();
        if (strongest < 0 || seconds < feature.m_excluded_until) {
            continue;
        }
        // The instrument ranks by the centroid it sees, overlaps included.
        const RawPeak& raw = scan.m_raw[feature.m_scan_peak[strongest]];
        const double intensity = scan.m_centroids[raw.m_centroid].m_intensity;
        if (intensity >= options.m_min_precursor_intensity) {
            candidates.push_back({intensity, feature.m_id, static_cast<int32_t>(f)});
        }
    }
    const size_t count = std::min(candidates.size(), static_cast<size_t>(options.m_top_n));
    std::partial_sort(candidates.begin(), candidates.begin() + static_cast<std::ptrdiff_t>(count),
                      candidates.end(), [](const Candidate& a, const Candidate& b) {
                          return a.m_intensity > b.m_intensity ||
                                 (a.m_intensity == b.m_intensity && a.m_id < b.m_id);
                      });
    std::vector<int32_t> selected;
    for (size_t i = 0; i < count; ++i) {
        selected.push_back(candidates[i].m_index);
        features[candidates[i].m_index].m_excluded_until = seconds + options.m_exclusion_seconds;
    }
    return selected;
}

}  // namespace ksieve::sim

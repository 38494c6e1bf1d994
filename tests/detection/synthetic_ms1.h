// Synthetic MS1 signal for the detection tests: averagine-like isotope clusters
// eluting over ten survey scans with low noise, and an isotope table of the same
// model, so that a true precursor correlates with theory.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "featuresextractor.h"
#include "records.h"
#include "userparameters.h"

namespace ksieve {

inline bool operator==(const Peak& a, const Peak& b) {
    return a.m_mz == b.m_mz && a.m_intensity == b.m_intensity;
}

namespace test {

// Share of isotope peak k at singly protonated mass `mh`: a Poisson law with about
// one heavy atom per 1700 Da.
inline double IsotopeShare(double mh, int k) {
    const double lambda = mh * 0.00058;
    double share = std::exp(-lambda);
    for (int i = 1; i <= k; ++i) {
        share *= lambda / i;
    }
    return share;
}

inline void InstallIsotopeTable() {
    std::vector<std::array<double, 5>> rows(15000);
    for (std::size_t m = 0; m < rows.size(); ++m) {
        for (int k = 0; k < 5; ++k) {
            rows[m][k] = IsotopeShare(m + 0.5, k);
        }
    }
    FeaturesExtractor::InstallIpvMatrix(std::move(rows));
}

struct Peptide {
    double m_mono_mz = 0.0;
    int32_t m_charge = 2;
    double m_apex = 1.0e6;  // first isotope at the elution apex, the fifth scan
};

// `defaults` default records (scan 0), then ten FT survey scans numbered from 101
// with the clusters of `peptides` eluting over them, and noise within 6 m/z of
// `center` at under half a percent of the strongest cluster.
inline Ms1Store MakeStore(std::size_t defaults, const std::vector<Peptide>& peptides,
                          double center) {
    Ms1Store store(defaults);
    uint64_t state = 7;
    auto unit = [&state] {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<double>(state >> 11) / 9007199254740992.0;
    };
    for (int32_t s = 0; s < 10; ++s) {
        MS1Spectrum& scan = store.emplace_back(MS1Spectrum{101 + s, 0.0, 0.0, "FT", {}});
        const double elution = std::exp(-0.5 * (s - 4) * (s - 4) / 2.25);
        for (const Peptide& p : peptides) {
            const double mh = p.m_charge * (p.m_mono_mz - 1.007276) + 1.007276;
            for (int k = 0; k < 6; ++k) {
                scan.m_peaks.push_back(
                    {p.m_mono_mz + k * 1.003 / p.m_charge,
                     p.m_apex * elution * IsotopeShare(mh, k) / IsotopeShare(mh, 0)});
            }
        }
        for (int i = 0; i < 40; ++i) {
            scan.m_peaks.push_back({center - 6.0 + 12.0 * unit(), 4000.0 * unit()});
        }
        std::sort(scan.m_peaks.begin(), scan.m_peaks.end(), peak_less);
    }
    return store;
}

inline MS2Spectrum FragmentScan(int32_t parent, double center) {
    MS2Spectrum ms2;
    ms2.m_precursor_scan = parent;
    ms2.m_activation_center = center;
    return ms2;
}

// The windows as finalising derives them from the isolation width and tolerance.
inline UserParameters Finalised(UserParameters params = {}) {
    params.m_peak_window = params.m_isolation_width + 1.0;
    params.m_search_window =
        params.m_peak_window + (params.m_mstolppm ? params.m_mstol * 0.015 : params.m_mstol);
    return params;
}

}  // namespace test
}  // namespace ksieve

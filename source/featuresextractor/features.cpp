#include <algorithm>
#include <cmath>
#include <span>

#include "featuresextractor.h"
#include "spectrumutils.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr double kZeroGuard = 1e-6;
constexpr int32_t kIpvColumns = 5;

// Pearson correlation of the theory with `n` observed cells; 0 when either side
// has no spread.
double pearson(const double* theory, const double* observed, int32_t n) {
    double st = 0.0;
    double sp = 0.0;
    double stt = 0.0;
    double spp = 0.0;
    double stp = 0.0;
    for (int32_t k = 0; k < n; ++k) {
        st += theory[k];
        sp += observed[k];
        stt += theory[k] * theory[k];
        spp += observed[k] * observed[k];
        stp += theory[k] * observed[k];
    }
    const double d = std::sqrt((st * st / n - stt) * (sp * sp / n - spp));
    if (d <= kZeroGuard) {
        return 0.0;
    }
    return (stp - st * sp / n) / d;
}

}  // namespace

FeaturesExtractor::FeaturesExtractor(const UserParameters& params, const IsotopeTable& ipv,
                                     const Ms1Slices& scan_peaks, const PeakList& merged_peaks,
                                     const IntensityGrid& grid, const MS2Spectrum& ms2,
                                     Precursor precursor, FeatureCache known)
    : m_params(&params),
      m_ipv(&ipv),
      m_scan_peaks(&scan_peaks),
      m_merged_peaks(&merged_peaks),
      m_grid(&grid),
      m_ms2(&ms2),
      m_precursor(precursor),
      m_cache(known) {}

const IsoPattern& FeaturesExtractor::GetPattern() {
    if (!m_pattern) {
        m_pattern.emplace(m_ms2->m_activation_center, m_params->m_mstol, m_params->m_mstolppm,
                          m_precursor, *m_merged_peaks, *m_grid);
    }
    return *m_pattern;
}

double FeaturesExtractor::GetIpvCorrelation(int32_t shift) {
    KS_ASSERT(-IsoPattern::m_mono_col <= shift && shift <= 0,
              "-IsoPattern::m_mono_col <= shift && shift <= 0");
    const std::array<double, kIpvColumns>& ipv = GetIpvRow();
    const IsoPattern& pattern = GetPattern();
    // Zeros stand in front of the theory under the columns below the mono-isotopic
    // peak, so observed signal there counts against the candidate.
    const int32_t n = kIpvColumns - shift;
    std::array<double, kIpvColumns + IsoPattern::m_mono_col> theory{};
    std::copy(ipv.begin(), ipv.end(), theory.begin() - shift);
    double best = -1.0;
    for (int32_t r = 0; r < IsoPattern::m_r_num; ++r) {
        const double value =
            pearson(theory.data(), pattern.m_matrix[r].data() + IsoPattern::m_mono_col + shift, n);
        if (value > best) {
            best = value;
        }
    }
    return best;
}

double FeaturesExtractor::GetElutionCosine(int32_t a, int32_t b) {
    const IsoPattern& pattern = GetPattern();
    const auto u = pattern.GetElutionColumn(a);
    const auto v = pattern.GetElutionColumn(b);
    double suu = 0.0;
    double svv = 0.0;
    double suv = 0.0;
    for (std::size_t k = 0; k < u.size(); ++k) {
        suu += u[k] * u[k];
        svv += v[k] * v[k];
        suv += u[k] * v[k];
    }
    const double d = std::sqrt(suu * svv);
    if (d <= kZeroGuard) {
        return 0.0;
    }
    return suv / d;
}

double FeaturesExtractor::GetClusterFraction() {
    if (m_cache.m_cluster_fraction) {
        return *m_cache.m_cluster_fraction;
    }
    const IsoPattern& pattern = GetPattern();
    if (pattern.m_total < kZeroGuard) {
        return 1.0;
    }
    double kept = 0.0;
    for (int32_t r = 1; r < IsoPattern::m_r_num; ++r) {
        for (int32_t c = IsoPattern::m_mono_col; c < IsoPattern::m_c_num; ++c) {
            kept += pattern.m_matrix[r][c];
        }
    }
    m_cache.m_cluster_fraction = kept / pattern.m_total;
    return *m_cache.m_cluster_fraction;
}

int32_t FeaturesExtractor::GetIsotopeRun() {
    if (m_cache.m_isotope_run) {
        return *m_cache.m_isotope_run;
    }
    int32_t longest = 0;
    for (const IsoPattern::Row& row : GetPattern().m_matrix) {
        int32_t run = 0;
        while (IsoPattern::m_mono_col + run < IsoPattern::m_c_num &&
               row[IsoPattern::m_mono_col + run] > 0.0) {
            ++run;
        }
        longest = std::max(longest, run);
    }
    m_cache.m_isotope_run = longest;
    return *m_cache.m_isotope_run;
}

int32_t FeaturesExtractor::GetIsotopesInWindow() {
    if (m_cache.m_isotopes_in_window) {
        return *m_cache.m_isotopes_in_window;
    }
    const int32_t n = GetIsotopeRun();
    const double h = m_params->m_isolation_width * 0.5 + 0.05;
    int32_t count = 0;
    for (int32_t i = 0; i < n; ++i) {
        if (h > std::fabs(IsotopePosition(m_precursor, i) - m_ms2->m_activation_center)) {
            ++count;
        }
    }
    m_cache.m_isotopes_in_window = count;
    return *m_cache.m_isotopes_in_window;
}

double FeaturesExtractor::GetWindowShare() {
    if (m_cache.m_window_share) {
        return *m_cache.m_window_share;
    }
    const double center = m_ms2->m_activation_center;
    const double width = m_params->m_isolation_width;
    const std::span<const Peak> window = PeaksInWindow(*m_merged_peaks, center, width * 0.5, false);
    double in_window = 0.0;
    for (const Peak& peak : window) {
        in_window += peak.m_intensity;
    }
    const int32_t n = GetIsotopeRun();
    // Scaled at the activation centre, like the grid, not at the candidate.
    const double tol = MzTolerance{m_params->m_mstol, m_params->m_mstolppm}.at(center);
    double explained = 0.0;
    for (int32_t i = 0; i < n; ++i) {
        for (const Peak& peak :
             PeaksInWindow(window, IsotopePosition(m_precursor, i), tol, false)) {
            explained += peak.m_intensity;
        }
    }
    if (in_window <= kZeroGuard) {
        return 0.0;
    }
    // Half the isolation width scales the share: 1 at the usual width of 2.0.
    m_cache.m_window_share = explained * width / in_window * 0.5;
    return *m_cache.m_window_share;
}

double FeaturesExtractor::GetMzSpreadPpm() {
    if (m_cache.m_mz_spread_ppm) {
        return *m_cache.m_mz_spread_ppm;
    }
    std::vector<double> values;
    std::vector<double> weights;
    values.reserve(100);
    weights.reserve(100);
    for (const PeakList& slice : *m_scan_peaks) {
        for (const Peak& peak :
             PeaksInWindow(slice, m_precursor.m_mz, m_params->m_mstol, m_params->m_mstolppm)) {
            values.push_back(peak.m_mz);
            weights.push_back(peak.m_intensity);
        }
    }
    m_cache.m_mz_spread_ppm = WeightedStdDev(values, std::move(weights)) * 1e6 / m_precursor.m_mz;
    return *m_cache.m_mz_spread_ppm;
}

double FeaturesExtractor::corr_0() {
    if (!m_cache.m_corr_0) {
        m_cache.m_corr_0 = GetIpvCorrelation(0);
    }
    return *m_cache.m_corr_0;
}

double FeaturesExtractor::corr_m1() {
    if (!m_cache.m_corr_m1) {
        m_cache.m_corr_m1 = GetIpvCorrelation(-1);
    }
    return *m_cache.m_corr_m1;
}

double FeaturesExtractor::corr_m2() {
    if (!m_cache.m_corr_m2) {
        m_cache.m_corr_m2 = GetIpvCorrelation(-2);
    }
    return *m_cache.m_corr_m2;
}

double FeaturesExtractor::cos_0_1() {
    if (!m_cache.m_cos_0_1) {
        m_cache.m_cos_0_1 = GetElutionCosine(0, 1);
    }
    return *m_cache.m_cos_0_1;
}

double FeaturesExtractor::cos_m1_0() {
    if (!m_cache.m_cos_m1_0) {
        m_cache.m_cos_m1_0 = GetElutionCosine(-1, 0);
    }
    return *m_cache.m_cos_m1_0;
}

double FeaturesExtractor::mass_z() const {
    return m_precursor.m_charge * m_precursor.m_mz;
}

int32_t FeaturesExtractor::charge() const {
    return m_precursor.m_charge;
}

const Precursor& FeaturesExtractor::precursor() const {
    return m_precursor;
}

const MS2Spectrum& FeaturesExtractor::ms2() const {
    return *m_ms2;
}

const UserParameters& FeaturesExtractor::params() const {
    return *m_params;
}

const Ms1Slices& FeaturesExtractor::scan_peaks() const {
    return *m_scan_peaks;
}

const FeatureCache& FeaturesExtractor::cache() const {
    return m_cache;
}

}  // namespace ksieve

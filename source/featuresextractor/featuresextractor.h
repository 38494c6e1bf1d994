// The evaluator of one candidate precursor, and the table of theoretical
// isotope patterns it compares observations with.
//
// A FeaturesExtractor answers every feature of one (m/z, charge) candidate of one
// MS2 scan. Each feature is computed on first demand and cached, because the
// filters, the rank step and the models ask for the same features again. All of
// them derive from the candidate's IsoPattern (built once, on first demand), the
// isotope table and the peak lists the evaluator points to. No feature reports an
// error: a zero denominator (at most 1e-6) gives a fixed result.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "isopattern.h"
#include "records.h"
#include "userparameters.h"

namespace ksieve {

// The features an evaluator has computed so far; a feature without a value has
// not been asked for yet (or gave one of its fixed, uncached results).
struct FeatureCache {
    std::optional<double> m_corr_0;
    std::optional<double> m_corr_m1;
    std::optional<double> m_corr_m2;
    std::optional<double> m_cos_0_1;
    std::optional<double> m_cos_m1_0;
    std::optional<double> m_cluster_fraction;
    std::optional<double> m_window_share;
    std::optional<double> m_mz_spread_ppm;
    std::optional<int32_t> m_isotope_run;
    std::optional<int32_t> m_isotopes_in_window;
};

class FeaturesExtractor {
  public:
    // All references must outlive the evaluator; it owns none of them.
    // `scan_peaks` are the ten raw MS1 slices, `merged_peaks` the candidate peak list
    // of the central scans (in peak order; must not be empty once a pattern-based
    // feature is asked for), `grid` the scan's intensity grid. `known` holds
    // features already known, which are then never computed.
    FeaturesExtractor(const UserParameters& params, const IsotopeTable& ipv,
                      const Ms1Slices& scan_peaks, const PeakList& merged_peaks,
                      const IntensityGrid& grid, const MS2Spectrum& ms2, Precursor precursor,
                      FeatureCache known = {});

    // The candidate's pattern, built on first use and kept for the evaluator's life.
    const IsoPattern& GetPattern();

    // The isotope-table row of the candidate's singly protonated mass
    // z * m/z - z * kProtonMass + kProtonMass, truncated toward zero. Asserts
    // "m_h_is_IPV_inited && (int)mz < m_h_IPV_Matrix.size()": it fails for an
    // empty table, for a mass beyond the table and for a negative index.
    const std::array<double, 5>& GetIpvRow() const;
    // Whether the table has a row for the candidate's mass; a candidate without
    // one is dropped before any feature asks for the row.
    bool HasIpvRow() const;

    // Best Pearson correlation, over the 11 pattern rows, of the table row with the
    // observed cells from isotope offset `shift` (0, -1 or -2) to +4; at a negative
    // shift zeros stand in front of the theory, so signal below the mono-isotopic
    // peak lowers the score. -1 .. 1; a row without spread counts 0.
    double GetIpvCorrelation(int32_t shift);
    // Cosine about the origin of the elution profiles at isotope offsets a and b;
    // 0 .. 1, 0.0 when either profile is empty.
    double GetElutionCosine(int32_t a, int32_t b);
    // Scan intensity at offsets 0 .. +4 after the cut over the total at -1 .. +4
    // before it. 1.0, uncached, when the total is below 1e-6.
    double GetClusterFraction();
    // Longest run of positive cells from the mono-isotopic column, over all rows.
    int32_t GetIsotopeRun();
    // Of the first isotope_run isotopes, how many lie strictly within half the
    // isolation width plus 0.05 of the activation centre.
    int32_t GetIsotopesInWindow();
    // Intensity of the merged peaks at the first isotope_run positions within the
    // isolation window, over the window's intensity, times half the isolation
    // width. 0.0, uncached, when the window holds at most 1e-6.
    double GetWindowShare();
    // Intensity-weighted standard deviation, in ppm of the candidate's m/z, of the
    // m/z of the raw-slice peaks within the mass tolerance of the candidate.
    double GetMzSpreadPpm();

    // The cached features of the models.
    double corr_0();    // GetIpvCorrelation(0)
    double corr_m1();   // GetIpvCorrelation(-1)
    double corr_m2();   // GetIpvCorrelation(-2)
    double cos_0_1();   // GetElutionCosine(0, 1)
    double cos_m1_0();  // GetElutionCosine(-1, 0)

    // Charge times m/z; no proton is taken off.
    double mass_z() const;
    int32_t charge() const;
    const Precursor& precursor() const;
    const MS2Spectrum& ms2() const;
    const UserParameters& params() const;
    const Ms1Slices& scan_peaks() const;
    // What has been computed so far.
    const FeatureCache& cache() const;

  private:
    const UserParameters* m_params;
    const IsotopeTable* m_ipv;
    const Ms1Slices* m_scan_peaks;
    const PeakList* m_merged_peaks;
    const IntensityGrid* m_grid;
    const MS2Spectrum* m_ms2;
    Precursor m_precursor;
    std::optional<IsoPattern> m_pattern;
    FeatureCache m_cache;
};

}  // namespace ksieve

// The evaluator of one candidate precursor, and the process-wide table of
// theoretical isotope patterns it compares observations with.
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

class FeaturesExtractor {
  public:
    // The isotope table: row m holds the relative intensities of the first five
    // isotope peaks of a molecule of singly protonated integer mass m. Written
    // once, before any evaluator exists; read-only afterwards.
    static bool m_h_is_IPV_inited;
    static std::vector<std::array<double, 5>> m_h_IPV_Matrix;

    // Installs a loaded table and marks the store as loaded.
    static void InstallIpvMatrix(std::vector<std::array<double, 5>> rows);

    // All references must outlive the evaluator; it owns none of them.
    // `scan_peaks` are the ten raw MS1 slices, `merged_peaks` the candidate peak list
    // of the central scans (in peak order; must not be empty once a pattern-based
    // feature is asked for), `grid` the scan's intensity grid.
    FeaturesExtractor(const UserParameters& params, const Ms1Slices& scan_peaks,
                      const PeakList& merged_peaks, const IntensityGrid& grid,
                      const MS2Spectrum& ms2, Precursor precursor);

    // The candidate's pattern, built on first use and kept for the evaluator's life.
    const IsoPattern& GetPattern();

    // The isotope-table row of the candidate's singly protonated mass
    // z * m/z - z * 1.007276 + 1.007276, truncated toward zero. Asserts
    // "m_h_is_IPV_inited && (int)mz < m_h_IPV_Matrix.size()": it fails before the
    // table is loaded, for a mass of 15000 or more, and for a negative index.
    const std::array<double, 5>& GetIpvRow() const;
    // Whether the loaded table has a row for the candidate's mass; a candidate
    // without one is dropped before any feature asks for the row.
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

    const UserParameters* m_params;
    const Ms1Slices* m_scan_peaks;
    const PeakList* m_merged_peaks;
    const IntensityGrid* m_grid;
    std::optional<IsoPattern> m_pattern;
    bool m_has_corr_0 = false;
    double m_corr_0 = -1.0;
    bool m_has_mz_spread_ppm = false;
    double m_mz_spread_ppm = -1.0;
    bool m_has_cos_0_1 = false;
    double m_cos_0_1 = -1.0;
    bool m_has_cluster_fraction = false;
    double m_cluster_fraction = -1.0;
    bool m_has_cos_m1_0 = false;
    double m_cos_m1_0 = -1.0;
    bool m_has_isotopes_in_window = false;
    int32_t m_isotopes_in_window = -1;
    bool m_has_isotope_run = false;
    int32_t m_isotope_run = -1;
    bool m_has_window_share = false;
    double m_window_share = -1.0;
    bool m_has_corr_m1 = false;
    double m_corr_m1 = -1.0;
    bool m_has_corr_m2 = false;
    double m_corr_m2 = -1.0;
    int32_t m_best_row_m2 = -1;  // pattern row that gave the best correlation at shift -2
    // The m/z recalibrated over the ten slices; detection computes and keeps it here.
    bool m_has_recalibrated_mz = false;
    double m_recalibrated_mz = -1.0;
    const MS2Spectrum* m_ms2;
    Precursor m_precursor;
};

}  // namespace ksieve

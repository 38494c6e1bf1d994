// The parts of the run simulator that its source files share: the random
// source, the eluting peptide clusters, and one cycle's MS1 and MS2 scans.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "simulator.h"

namespace ksieve::sim {

// xoshiro256** seeded through splitmix64: the same seed gives the same numbers
// on every platform, and the distributions below are written out here for the
// same reason (the standard library's are not specified bit for bit).
class Rng {
  public:
    explicit Rng(uint64_t seed);
    uint64_t next();
    // Uniform in [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double low, double high) { return low + (high - low) * uniform(); }
    bool chance(double probability) { return uniform() < probability; }
    // Standard normal, by the Box-Muller transform.
    double normal();
    // Log-normal with the given median and standard deviation of the log.
    double lognormal(double median, double sigma) { return median * std::exp(sigma * normal()); }
    double exponential(double mean) { return -mean * std::log(1.0 - uniform()); }

  private:
    std::array<uint64_t, 4> m_state{};
};

// Instrument constants of the simulated run.
inline constexpr double kMs1LowMz = 350.0;  // survey scan range
inline constexpr double kMs1HighMz = 1800.0;
inline constexpr double kMs2LowMz = 100.0;  // fragment scan range
inline constexpr double kMs2HighMz = 2000.0;
inline constexpr int kMinCharge = 2;
inline constexpr int kMaxCharge = 5;
inline constexpr int kClusterPeaks = 8;  // isotope peaks computed per cluster

// FAIMS compensation voltages (V) of a run with two or three of them, and the
// share of a peptide's ions that pass at a voltage next to its own.
inline constexpr double kFaimsVoltages[2][3] = {{-45.0, -65.0, 0.0}, {-45.0, -55.0, -65.0}};
inline constexpr double kFaimsLeak = 0.05;
// The voltage of step `cv` of a run with `cvs` voltages.
inline double faims_voltage(int cvs, int cv) {
    return kFaimsVoltages[cvs - 2][cv];
}

// A digested peptide and the charges it can carry in the survey range.
struct Peptide {
    std::string m_sequence;
    std::vector<int> m_charges;
};

// Peptides of all proteins, distinct, in byte order of their sequences, that
// have at least one charge from 2 to 5 within the survey range. A charge needs a
// basic site: the N-terminus, K, R or H.
std::vector<Peptide> digest_proteome(const std::vector<std::string>& proteins,
                                     int missed_cleavages);

struct Fragment {
    double m_mz = 0.0;
    double m_weight = 0.0;  // share of the peptide's fragment signal
};

// One elution of one peptide at one charge: an isotope cluster with a Gaussian
// profile in time. The m_scan_ fields describe it in the current MS1 scan.
struct Feature {
    int64_t m_id = 0;
    int32_t m_peptide = 0;  // index into the digest
    int m_charge = 0;
    double m_apex = 0.0;       // seconds
    double m_sigma = 0.0;      // seconds
    double m_abundance = 0.0;  // summed cluster intensity at the apex
    int m_peak_count = 0;
    std::array<double, kClusterPeaks> m_mz{};     // isotope peaks, theoretical
    std::array<double, kClusterPeaks> m_share{};  // of the cluster's intensity
    std::vector<Fragment> m_fragments;
    double m_excluded_until = -1e300;  // seconds; dynamic exclusion after selection
    int m_cv = 0;                      // FAIMS: the voltage step it passes best at

    // 0 when the isotope peak was not observed, else its raw intensity.
    std::array<double, kClusterPeaks> m_scan_intensity{};
    // Index of the observed peak in Ms1Scan::m_raw, -1 when not observed.
    std::array<int32_t, kClusterPeaks> m_scan_peak{};

    double mono_mz() const { return m_mz[0]; }
    // The strongest observed isotope peak, -1 when none was observed.
    int strongest_peak() const;
};

// The peptides eluting around the current time. Features are drawn in order of
// apex by a Poisson process, each from a reshuffled walk through the digest, so
// the density of the run does not depend on the size of the FASTA, and only the
// features of the current stretch of time are held.
class ElutionModel {
  public:
    ElutionModel(std::vector<Peptide> peptides, const SimulatorOptions& options, Rng& rng);
    // Creates the features whose profile may have begun by `seconds` and drops
    // those whose profile has ended. Feature indices change only here.
    void advance(double seconds);
    std::vector<Feature>& active() { return m_active; }
    const std::vector<Feature>& active() const { return m_active; }
    const std::string& sequence(const Feature& feature) const {
        return m_peptides[feature.m_peptide].m_sequence;
    }
    size_t peptide_count() const { return m_peptides.size(); }

  private:
    Feature make_feature(double apex);
    const Peptide& next_peptide();

    std::vector<Peptide> m_peptides;
    const SimulatorOptions& m_options;
    Rng& m_rng;
    std::vector<int32_t> m_order;  // the walk through the digest
    size_t m_cursor = 0;
    double m_next_apex = 0.0;
    int64_t m_next_id = 1;
    std::vector<Feature> m_active;
};

struct Centroid {
    double m_mz = 0.0;
    double m_intensity = 0.0;
};

// A generated MS1 peak before centroiding, with the feature that made it.
struct RawPeak {
    double m_mz = 0.0;
    double m_intensity = 0.0;
    int32_t m_owner = -1;    // index into the active features; -1 for noise
    int32_t m_isotope = 0;   // isotope peak of the owner
    int32_t m_centroid = 0;  // index into Ms1Scan::m_centroids
};

// One survey scan. Buffers are kept from scan to scan.
struct Ms1Scan {
    double m_seconds = 0.0;
    double m_injection_ms = 0.0;
    std::vector<RawPeak> m_raw;         // by m/z
    std::vector<Centroid> m_centroids;  // by m/z, as written
};

// The share of a feature's ions that pass the FAIMS interface at voltage step
// `cv`: all without FAIMS or at its own step, kFaimsLeak at a neighbouring step.
double faims_transmission(const Feature& feature, int cv, const SimulatorOptions& options);

// Fills `scan` at time `seconds` and voltage step `cv` (0 without FAIMS) from the
// active features (updating their m_scan_ fields) and noise.
void build_ms1_scan(std::vector<Feature>& features, double seconds, int cv,
                    const SimulatorOptions& options, Rng& rng, Ms1Scan& scan);

// The top-N features of the scan by their strongest observed peak, strongest
// first, above the selection threshold and out of exclusion; each chosen one is
// excluded from `seconds` on.
std::vector<int32_t> select_precursors(std::vector<Feature>& features, const Ms1Scan& scan,
                                       double seconds, const SimulatorOptions& options);

struct Declared {
    int m_charge = 0;
    double m_mz = 0.0;
};

struct CoIsolated {
    int32_t m_feature = 0;
    double m_share = 0.0;  // of all MS1 intensity in the isolation window
};

// One fragment scan and its truth.
struct Ms2Scan {
    double m_seconds = 0.0;
    double m_injection_ms = 0.0;
    double m_center = 0.0;               // isolation target m/z
    int32_t m_target = 0;                // the selected feature
    std::vector<Declared> m_declared;    // as the instrument reports them
    std::vector<CoIsolated> m_isolated;  // largest share first
    std::vector<Centroid> m_peaks;       // by m/z
};

// Builds the MS2 scan of `target`, selected in the survey scan `survey`.
void build_ms2_scan(const std::vector<Feature>& features, int32_t target, const Ms1Scan& survey,
                    const SimulatorOptions& options, Rng& rng, Ms2Scan& scan);

}  // namespace ksieve::sim

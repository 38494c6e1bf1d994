// A seeded simulator of data-dependent LC-MS/MS runs with ground truth, for
// testing and benchmarking kSieve on data whose true precursors are known.
//
// Peptides come from a tryptic digest of a FASTA file. They elute in Gaussian
// profiles over retention time as isotope clusters computed from their elemental
// composition. Every cycle is one Orbitrap-like MS1 scan (ppm-level mass errors,
// centroids merged where the resolution cannot separate them, noise peaks) and up
// to top-N MS2 scans, each isolating 2 m/z around the most intense isotope peak
// of a selected cluster. An MS2 scan holds the fragments of every peptide in its
// window; its declared precursor is what an instrument would report, sometimes
// the wrong isotope peak and sometimes a wrong or missing charge.
//
// With FAIMS, each peptide passes the interface at one compensation voltage
// (and leaks weakly into the neighbouring ones); a cycle takes the voltages in
// turn, and every scan is labelled with its voltage.
//
// The run is written as <stem>.ms1 and <stem>.ms2 in the text format that kSieve
// reads, and <stem>_truth.csv with one row per co-isolated peptide of every MS2
// scan. Output is streamed: memory stays bounded by the peptides eluting at one
// time, whatever the number of scans. The same options and seed give the same
// bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ksieve::sim {

enum class Activation { kHcd, kCid };

struct SimulatorOptions {
    std::string m_fasta_path;
    std::string m_out_dir = ".";
    std::string m_stem = "simulated";
    uint64_t m_seed = 1;
    int64_t m_ms2_scans = 1000;      // exactly this many MS2 scans are written
    int m_top_n = 10;                // MS2 scans per cycle at most
    double m_isolation_width = 2.0;  // m/z, centred on the selected peak
    Activation m_activation = Activation::kHcd;
    int m_missed_cleavages = 1;              // tryptic peptides with up to this many
    double m_feature_rate = 8.0;             // peptide elutions starting per second
    double m_ppm_error = 2.0;                // standard deviation of MS1 peak m/z error
    double m_ms1_resolution = 60000.0;       // MS1 resolving power at m/z 400
    double m_noise_level = 1000.0;           // median noise peak; half of it is the floor
    int m_noise_peaks = 150;                 // noise peaks per MS1 scan
    int m_ms2_noise_peaks = 30;              // noise peaks per MS2 scan
    double m_min_precursor_intensity = 1e4;  // weaker clusters are never selected
    double m_exclusion_seconds = 20.0;       // a selected cluster rests this long
    // FAIMS: 0 for none, else 2 or 3 compensation voltages taken in turn, one
    // survey scan and its fragment scans at each.
    int m_faims_cvs = 0;
};

// Parses "--name value" pairs (see usage_text). Returns the options, or sets
// `error` and returns nothing.
std::optional<SimulatorOptions> parse_options(const std::vector<std::string>& args,
                                              std::string& error);
std::string usage_text();

// Protein sequences of a FASTA file, in file order: the lines after each '>'
// header joined, upper-cased, white space dropped. Throws std::runtime_error when
// the file cannot be read.
std::vector<std::string> read_fasta(const std::string& path);

// Tryptic peptides of one protein: cleavage after K or R unless P follows, up to
// `missed_cleavages` sites skipped, lengths `min_length` to `max_length`; peptides
// with a letter that is not a standard amino acid are left out. In order of
// position, then length.
std::vector<std::string> tryptic_peptides(const std::string& protein, int missed_cleavages,
                                          int min_length, int max_length);

struct SimulationSummary {
    int64_t m_ms1_scans = 0;
    int64_t m_ms2_scans = 0;
    int64_t m_truth_rows = 0;
    int64_t m_peptides = 0;  // distinct peptides of the digest
};

// Runs the simulation and writes the three files into m_out_dir, which must
// exist. Throws std::runtime_error when the FASTA gives no usable peptide, a file
// cannot be written, or no precursor can be selected for a long stretch of time.
SimulationSummary run_simulation(const SimulatorOptions& options);

}  // namespace ksieve::sim

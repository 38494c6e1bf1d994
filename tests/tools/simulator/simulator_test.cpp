#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

#include "chemistry.h"
#include "run_model.h"
#include "simulator.h"
#include "spectrumfiles.h"
#include "test_support.h"

namespace ksieve::sim {
namespace {

using Strings = std::vector<std::string>;

const std::string kFasta = std::string(KSIEVE_SOURCE_DIR) + "/data/sim_proteins.fasta";

// A peptide inside the isolation window of an MS2 scan, from the truth table.
struct TruthRow {
    int m_parent = 0, m_charge = 0, m_selected = 0;
    double m_center = 0.0, m_mono_mz = 0.0, m_share = 0.0;
    std::string m_sequence;
};

template <typename Scan, typename Reader>
std::vector<Scan> read_scans(const std::string& path, Reader reader) {
    test::CaptureStream quiet(std::cout);  // the readers log the file they open
    LineFile file;
    open_spectrum_file(file.m_head, path, "r");
    std::vector<Scan> scans;
    for (Scan scan; reader(file, scan); scan = Scan{}) {
        scans.push_back(std::move(scan));
    }
    finish_spectrum_file(file.m_head);
    release_spectrum_file(file.m_head);
    return scans;
}

SimulatorOptions options_in(const test::TempDir& dir, uint64_t seed, int64_t ms2_scans) {
    SimulatorOptions options;
    options.m_fasta_path = kFasta;
    options.m_out_dir = dir.path().string();
    options.m_seed = seed;
    options.m_ms2_scans = ms2_scans;
    return options;
}

bool within_ppm(double mz, double reference, double ppm) {
    return std::abs(mz - reference) < ppm * 1e-6 * reference;
}

bool cluster_matches(const std::vector<Peak>& survey, const TruthRow& target) {
    std::vector<double> expected, observed;
    for (const chem::IsotopePeak& peak :
         chem::isotope_pattern(chem::peptide_formula(target.m_sequence), 5)) {
        const double mz = chem::mz_from_neutral(peak.m_mass, target.m_charge);
        expected.push_back(peak.m_abundance);
        observed.push_back(0.0);
        for (const Peak& p : survey) {
            observed.back() = within_ppm(p.m_mz, mz, 10) ? p.m_intensity : observed.back();
        }
    }
    const double e_max = *std::max_element(expected.begin(), expected.end());
    const double o_max = *std::max_element(observed.begin(), observed.end());
    for (size_t k = 0; k < expected.size(); ++k) {
        if (expected[k] >= 0.25 * e_max &&
            (observed[k] == 0 || std::abs(observed[k] / o_max - expected[k] / e_max) >= 0.2)) {
            return false;
        }
    }
    return true;
}

TEST(Digest, FastaTrypsinAndCharges) {
    test::TempDir dir;
    test::write_file(dir.file("p.fasta"), "stray\n>sp|P1|A\r\nmkaaa\r\nLLK R\n\n>sp|P2|B\nGGG");
    EXPECT_EQ(read_fasta(dir.file("p.fasta")), (Strings{"MKAAALLKR", "GGG"}));
    EXPECT_THROW(read_fasta(dir.file("missing.fasta")), std::runtime_error);
    // Pieces: AAAAAAKPGGGGGR (no cleavage before P), LLLLLLK, VVVVVV.
    const std::string protein = "AAAAAAKPGGGGGRLLLLLLKVVVVVV";
    EXPECT_EQ(
        tryptic_peptides(protein, 1, 6, 40),
        (Strings{"AAAAAAKPGGGGGR", "AAAAAAKPGGGGGRLLLLLLK", "LLLLLLK", "LLLLLLKVVVVVV", "VVVVVV"}));
    EXPECT_EQ(tryptic_peptides(protein, 2, 7, 14),
              (Strings{"AAAAAAKPGGGGGR", "LLLLLLK", "LLLLLLKVVVVVV"}));
    // Neighbouring sites give a one-residue piece; a piece with a letter that is
    // no standard amino acid is left out, and so is every peptide holding it.
    EXPECT_EQ(tryptic_peptides("AAAAAARRLLXLLLKWWWWWW", 1, 1, 40),
              (Strings{"AAAAAAR", "AAAAAARR", "R", "WWWWWW"}));
    // A charge needs a basic site, and the mono-isotopic m/z must lie in the
    // survey range of 350 to 1800.
    const std::vector<Peptide> peptides =
        digest_proteome({"GGGGGGK"                     // 1+ only by mass: m/z of 2+ is below 350
                         "VVVVVVVVVVVVVVVVVVVVVVVVK"   // one K plus the N-terminus: 2+ at most
                         "HHLLHHLLHHLLHHLLHHLLHHLR"    // many sites, heavy: 2+ to 5+
                         "WWWWWWWWW",                  // C-terminal, no basic residue: no charge
                         "HHLLHHLLHHLLHHLLHHLLHHLR"},  // the same peptide in a second protein
                        0);
    ASSERT_EQ(peptides.size(), 2u);
    EXPECT_EQ(peptides[0].m_sequence, "HHLLHHLLHHLLHHLLHHLLHHLR");
    EXPECT_EQ(peptides[0].m_charges, (std::vector<int>{2, 3, 4, 5}));
    EXPECT_EQ(peptides[1].m_sequence, "VVVVVVVVVVVVVVVVVVVVVVVVK");
    EXPECT_EQ(peptides[1].m_charges, (std::vector<int>{2}));
}

// A run of 600 MS2 scans read back through kSieve's own readers. One numbering
// over both files, ascending in each; an MS2 scan's parent is the last MS1 scan
// written before it. Declared precursors are mostly right, and wrong only in the
// ways of an instrument: a later isotope peak taken for mono-isotopic, a charge
// off by one, or no charge (2+ and 3+ at the isolation target). A peptide alone
// in its window shows its isotope pattern in the survey scan: each strong peak
// within 10 ppm, in the pattern's proportions up to the detector's scatter.
TEST(SimulatedRun, ScansTruthAndChemistryDescribeOneRun) {
    test::TempDir dir;
    const SimulationSummary written = run_simulation(options_in(dir, 7, 600));
    const auto ms1 = read_scans<MS1Spectrum>(dir.file("simulated.ms1"), ReadMs1Scan);
    const auto ms2 = read_scans<MS2Spectrum>(dir.file("simulated.ms2"), ReadMs2Scan);
    std::istringstream lines(test::read_file(dir.file("simulated_truth.csv")));
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line,
              "ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,window_share,"
              "selected");
    std::map<int, TruthRow> targets;  // the selected peptide of each MS2 scan
    std::map<int, int> isolated;      // peptides with 5 % of the window or more
    for (TruthRow row; std::getline(lines, line); row = TruthRow{}) {
        char sequence[64] = {};
        int scan = 0;
        ASSERT_EQ(std::sscanf(line.c_str(), "%d,%d,%lf,%63[A-Z],%d,%lf,%lf,%d", &scan,
                              &row.m_parent, &row.m_center, sequence, &row.m_charge, &row.m_mono_mz,
                              &row.m_share, &row.m_selected),
                  8)
            << line;
        row.m_sequence = sequence;
        isolated[scan] += row.m_share >= 0.05;
        if (row.m_selected) {
            EXPECT_EQ(targets.count(scan), 0u) << scan;
            targets[scan] = row;
        }
    }
    ASSERT_EQ(ms2.size(), 600u);
    ASSERT_EQ(int64_t(ms1.size()), written.m_ms1_scans);
    ASSERT_EQ(targets.size(), ms2.size());
    std::map<int, const MS1Spectrum*> surveys;
    for (const MS1Spectrum& scan : ms1) {
        EXPECT_TRUE(surveys.empty() || scan.m_scan > surveys.rbegin()->first);
        surveys[scan.m_scan] = &scan;
    }
    int previous = 0, co_isolated = 0, clean = 0, clusters = 0, right = 0, no_charge = 0;
    for (const MS2Spectrum& scan : ms2) {
        SCOPED_TRACE(scan.m_scan);
        EXPECT_GT(scan.m_scan, std::exchange(previous, scan.m_scan));
        EXPECT_EQ(scan.m_precursor_scan, std::prev(surveys.lower_bound(scan.m_scan))->first);
        EXPECT_EQ(scan.m_instrument_type + scan.m_activation_type, "FTHCD");
        ASSERT_FALSE(scan.m_precursors.empty());
        EXPECT_EQ(scan.m_precursors.size(), scan.m_instrument_precursors.size()) << "invalid Z";
        co_isolated += isolated[scan.m_scan] > 1;
        const TruthRow& target = targets.at(scan.m_scan);
        const Precursor& first = scan.m_precursors[0];
        if (scan.m_precursors.size() == 2) {
            no_charge += first.m_charge == 2 && scan.m_precursors[1].m_charge == 3 &&
                         within_ppm(first.m_mz, scan.m_activation_center, 0.2);
        } else {
            const double spacing = 1.00335 / target.m_charge;
            int isotope = 0;
            while (isotope < 8 &&
                   !within_ppm(first.m_mz, target.m_mono_mz + isotope * spacing, 15)) {
                ++isotope;
            }
            EXPECT_TRUE(isotope < 8 && std::abs(first.m_charge - target.m_charge) <= 1);
            right += isotope == 0 && first.m_charge == target.m_charge;
        }
        if (target.m_share >= 0.95) {
            ++clean;
            clusters += cluster_matches(surveys.at(target.m_parent)->m_peaks, target);
        }
    }
    EXPECT_TRUE(right > 0.6 * 600 && right < 0.95 * 600) << right;
    EXPECT_GT(no_charge, 0);
    EXPECT_GT(co_isolated, 0.15 * 600);  // co-elution is common in 2 m/z
    ASSERT_GT(clean, 100);
    EXPECT_GT(clusters, 0.95 * clean) << clusters << " of " << clean;
}

// Strong peaks (above 1e5) of `a` that `b` also has, within 10 ppm.
int shared_strong_peaks(const MS1Spectrum& a, const MS1Spectrum& b) {
    int shared = 0;
    for (const Peak& peak : a.m_peaks) {
        shared += peak.m_intensity > 1e5 &&
                  std::any_of(b.m_peaks.begin(), b.m_peaks.end(), [&](const Peak& other) {
                      return within_ppm(other.m_mz, peak.m_mz, 10);
                  });
    }
    return shared;
}

// Three voltages in turn, every scan labelled with its own and every MS2 scan
// with its parent's; the ions of -45 V and -65 V are different sets (neither
// leaks into the other), so those survey scans share far fewer strong peaks
// than two -45 V scans a cycle apart.
TEST(SimulatedRun, FaimsVoltagesTakeTurnsAndLetDifferentIonsThrough) {
    test::TempDir dir;
    SimulatorOptions options = options_in(dir, 5, 900);
    options.m_faims_cvs = 3;
    run_simulation(options);
    const auto ms1 = read_scans<MS1Spectrum>(dir.file("simulated.ms1"), ReadMs1Scan);
    const auto ms2 = read_scans<MS2Spectrum>(dir.file("simulated.ms2"), ReadMs2Scan);
    std::map<int, double> voltages;
    for (std::size_t i = 0; i < ms1.size(); ++i) {
        ASSERT_TRUE(ms1[i].m_compensation_voltage.has_value());
        EXPECT_EQ(*ms1[i].m_compensation_voltage, -45.0 - 10.0 * static_cast<double>(i % 3));
        voltages[ms1[i].m_scan] = *ms1[i].m_compensation_voltage;
    }
    for (const MS2Spectrum& scan : ms2) {
        EXPECT_EQ(scan.m_compensation_voltage, voltages.at(scan.m_precursor_scan)) << scan.m_scan;
    }
    int same_voltage = 0, far_voltage = 0;
    for (std::size_t i = 0; i + 3 < ms1.size(); i += 3) {
        same_voltage += shared_strong_peaks(ms1[i], ms1[i + 3]);
        far_voltage += shared_strong_peaks(ms1[i], ms1[i + 2]);
    }
    EXPECT_GT(same_voltage, 100);
    EXPECT_LT(5 * far_voltage, same_voltage) << far_voltage << " against " << same_voltage;
}

// The same seed gives the same bytes, another seed another run; a run that can
// select no precursor stops with an error rather than spinning forever.
TEST(SimulatorRuns, SeedDecidesEveryByteAndAnIdleRunFails) {
    const auto files = [](uint64_t seed) {
        test::TempDir dir;
        run_simulation(options_in(dir, seed, 150));
        return std::vector<std::string>{test::read_file(dir.file("simulated.ms1")),
                                        test::read_file(dir.file("simulated.ms2")),
                                        test::read_file(dir.file("simulated_truth.csv"))};
    };
    const std::vector<std::string> first = files(11), other = files(12);
    EXPECT_TRUE(first == files(11));
    for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_NE(first[i], other[i]) << i;
    }
    test::TempDir dir;
    SimulatorOptions idle = options_in(dir, 1, 1000);
    idle.m_min_precursor_intensity = 1e30;
    idle.m_feature_rate = 0.01;
    idle.m_noise_peaks = 1;
    EXPECT_THROW(run_simulation(idle), std::runtime_error);
}

}  // namespace
}  // namespace ksieve::sim

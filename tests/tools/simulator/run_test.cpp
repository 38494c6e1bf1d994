#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "chemistry.h"
#include "simulator.h"
#include "spectrumfiles.h"
#include "test_support.h"

namespace ksieve::sim {
namespace {

const std::string kFasta = std::string(KSIEVE_SOURCE_DIR) + "/data/sim_proteins.fasta";

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> fields;
    std::istringstream in(text);
    for (std::string field; std::getline(in, field, separator);) {
        fields.push_back(field);
    }
    return fields;
}

bool is_number(const std::string& text) {
    char* end = nullptr;
    std::strtod(text.c_str(), &end);
    return !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) && *end == '\0';
}

// A peptide inside the isolation window of an MS2 scan, from the truth table.
struct TruthRow {
    int m_parent = 0;
    double m_center = 0.0;
    std::string m_sequence;
    int m_charge = 0;
    double m_mono_mz = 0.0;
    double m_share = 0.0;
    bool m_selected = false;
};

// The three files of a run, read back; the spectra through kSieve's own readers.
struct RunFiles {
    SimulationSummary m_summary;
    std::string m_stem;
    std::vector<MS1Spectrum> m_ms1;
    std::vector<MS2Spectrum> m_ms2;
    std::map<int, std::vector<TruthRow>> m_truth;  // by MS2 scan

    const TruthRow& target(int scan) const {
        const std::vector<TruthRow>& rows = m_truth.at(scan);
        return *std::find_if(rows.begin(), rows.end(),
                             [](const TruthRow& r) { return r.m_selected; });
    }
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

RunFiles simulate(const test::TempDir& dir, SimulatorOptions options) {
    options.m_fasta_path = kFasta;
    options.m_out_dir = dir.path().string();
    RunFiles run{run_simulation(options), dir.file(options.m_stem), {}, {}, {}};
    run.m_ms1 = read_scans<MS1Spectrum>(run.m_stem + ".ms1", ReadMs1Scan);
    run.m_ms2 = read_scans<MS2Spectrum>(run.m_stem + ".ms2", ReadMs2Scan);
    std::istringstream lines(test::read_file(run.m_stem + "_truth.csv"));
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line,
              "ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,"
              "window_share,selected");
    while (std::getline(lines, line)) {
        const std::vector<std::string> f = split(line, ',');
        EXPECT_EQ(f.size(), 8u) << line;
        run.m_truth[std::atoi(f.at(0).c_str())].push_back(
            {std::atoi(f.at(1).c_str()), std::atof(f.at(2).c_str()), f.at(3),
             std::atoi(f.at(4).c_str()), std::atof(f.at(5).c_str()), std::atof(f.at(6).c_str()),
             f.at(7) == "1"});
    }
    return run;
}

// Every line is one that the readers expect, in the shape an extractor writes:
// tab-separated H, S, I and Z lines and "m/z intensity" peak lines.
void expect_well_formed(const std::string& path, bool ms2) {
    std::set<std::string> keywords{"RetTime", "IonInjectionTime", "InstrumentType"};
    if (ms2) {
        keywords.insert({"ActivationType", "ActivationCenter", "PrecursorScan"});
    }
    std::istringstream lines(test::read_file(path));
    int bad = 0;
    for (std::string line; std::getline(lines, line) && bad < 5;) {
        const std::vector<std::string> tabs = split(line, '\t');
        const std::vector<std::string> blanks = split(line, ' ');
        const char kind = line.empty() ? '\0' : line[0];
        const bool good =
            kind == 'H'   ? tabs.size() >= 2 && tabs[0] == "H"
            : kind == 'S' ? tabs.size() == (ms2 ? 4u : 3u) && tabs[1] == tabs[2] &&
                                std::all_of(tabs.begin() + 1, tabs.end(), is_number)
            : kind == 'I' ? tabs.size() == 3 && keywords.count(tabs[1]) == 1 && !tabs[2].empty()
            : kind == 'Z' ? ms2 && tabs.size() == 3 && is_number(tabs[1]) && is_number(tabs[2])
                          : blanks.size() == 2 && is_number(blanks[0]) && is_number(blanks[1]);
        if (!good) {
            ++bad;
            ADD_FAILURE() << path << ": " << line;
        }
    }
}

// A default run of 600 MS2 scans, simulated once for the suite.
class SimulatedRun : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_dir = new test::TempDir();
        SimulatorOptions options;
        options.m_ms2_scans = 600;
        options.m_seed = 7;
        s_run = new RunFiles(simulate(*s_dir, options));
    }
    static void TearDownTestSuite() {
        delete s_run;
        delete s_dir;
    }
    static inline test::TempDir* s_dir = nullptr;
    static inline RunFiles* s_run = nullptr;
};

TEST_F(SimulatedRun, FilesReadAsTheFormatRequires) {
    const RunFiles& run = *s_run;
    expect_well_formed(run.m_stem + ".ms1", false);
    expect_well_formed(run.m_stem + ".ms2", true);
    ASSERT_EQ(run.m_ms2.size(), 600u);
    ASSERT_EQ(int64_t(run.m_ms1.size()), run.m_summary.m_ms1_scans);
    // One numbering over both files, ascending in each; an MS2 scan's parent is
    // the last MS1 scan written before it.
    std::map<int, double> survey_time;
    for (const MS1Spectrum& scan : run.m_ms1) {
        EXPECT_TRUE(survey_time.empty() || scan.m_scan > survey_time.rbegin()->first);
        EXPECT_EQ(scan.m_instrument_type, "FT");
        survey_time[scan.m_scan] = scan.m_retention_time;
    }
    int previous = 0;
    for (const MS2Spectrum& scan : run.m_ms2) {
        EXPECT_GT(scan.m_scan, previous);
        previous = scan.m_scan;
        const auto parent = std::prev(survey_time.lower_bound(scan.m_scan));
        EXPECT_EQ(survey_time.count(scan.m_scan), 0u) << scan.m_scan;
        EXPECT_EQ(scan.m_precursor_scan, parent->first) << scan.m_scan;
        EXPECT_GE(scan.m_retention_time, parent->second);
        EXPECT_EQ(scan.m_instrument_type, "FT");
        EXPECT_EQ(scan.m_activation_type, "HCD");
        EXPECT_EQ(scan.m_precursors.size(), scan.m_instrument_precursors.size()) << "invalid Z";
        EXPECT_FALSE(scan.m_precursors.empty()) << scan.m_scan;
    }
}

TEST_F(SimulatedRun, TruthDescribesEachWindowWithItsPeptides) {
    const RunFiles& run = *s_run;
    ASSERT_EQ(run.m_truth.size(), run.m_ms2.size());
    for (const MS2Spectrum& scan : run.m_ms2) {
        double total = 0.0;
        int selected = 0;
        for (const TruthRow& row : run.m_truth.at(scan.m_scan)) {
            EXPECT_EQ(row.m_parent, scan.m_precursor_scan);
            EXPECT_NEAR(row.m_center, scan.m_activation_center, 1e-5);
            EXPECT_GT(row.m_share, 0.0);
            total += row.m_share;
            selected += row.m_selected;
            const double mass = chem::monoisotopic_mass(chem::peptide_formula(row.m_sequence));
            EXPECT_NEAR(row.m_mono_mz, chem::mz_from_neutral(mass, row.m_charge), 2e-6);
            // One of its isotope peaks lies in the 2 m/z window.
            const double offset = row.m_mono_mz - scan.m_activation_center;
            EXPECT_TRUE(offset < 1.001 && offset + 8 * 1.0034 / row.m_charge > -1.001);
        }
        EXPECT_EQ(selected, 1) << scan.m_scan;
        EXPECT_LE(total, 1.0 + 1e-5) << scan.m_scan;
    }
}

// The survey scan shows a selected peptide's cluster where chemistry puts it:
// each strong isotope peak within 10 ppm, with the pattern's intensity ratios up
// to the scatter of the detector. Clusters alone in their window are judged.
TEST_F(SimulatedRun, SurveyClustersFollowThePeptideChemistry) {
    std::map<int, const MS1Spectrum*> surveys;
    for (const MS1Spectrum& scan : s_run->m_ms1) {
        surveys[scan.m_scan] = &scan;
    }
    int clusters = 0;
    int matching = 0;
    for (const MS2Spectrum& scan : s_run->m_ms2) {
        const TruthRow& target = s_run->target(scan.m_scan);
        if (target.m_share < 0.95) {
            continue;
        }
        const std::vector<chem::IsotopePeak> pattern =
            chem::isotope_pattern(chem::peptide_formula(target.m_sequence), 5);
        double strongest = 0.0;
        for (const chem::IsotopePeak& peak : pattern) {
            strongest = std::max(strongest, peak.m_abundance);
        }
        const std::vector<Peak>& peaks = surveys.at(target.m_parent)->m_peaks;
        std::vector<std::pair<double, double>> expected_observed;
        for (const chem::IsotopePeak& peak : pattern) {
            const double mz = chem::mz_from_neutral(peak.m_mass, target.m_charge);
            const auto near = std::find_if(peaks.begin(), peaks.end(), [&](const Peak& p) {
                return std::abs(p.m_mz - mz) < 10e-6 * mz;
            });
            if (peak.m_abundance >= 0.25 * strongest) {
                expected_observed.emplace_back(peak.m_abundance / strongest,
                                               near == peaks.end() ? 0.0 : near->m_intensity);
            }
        }
        double top = 0.0;
        for (const auto& [expected, observed] : expected_observed) {
            top = std::max(top, observed);
        }
        ++clusters;
        matching += std::all_of(
            expected_observed.begin(), expected_observed.end(), [top](const auto& pair) {
                return pair.second > 0 && std::abs(pair.second / top - pair.first) < 0.2;
            });
    }
    ASSERT_GT(clusters, 100);
    EXPECT_GT(matching, 0.95 * clusters) << matching << " of " << clusters;
}

// Declared precursors are mostly right, and wrong only in the ways of an
// instrument: a later isotope peak taken for mono-isotopic, a charge off by one,
// or no charge (2+ and 3+ at the isolation target).
TEST_F(SimulatedRun, DeclaredPrecursorsAreRightOrWrongLikeAnInstrument) {
    std::map<std::string, int> kinds;
    int co_isolated = 0;
    for (const MS2Spectrum& scan : s_run->m_ms2) {
        const std::vector<TruthRow>& window = s_run->m_truth.at(scan.m_scan);
        co_isolated += std::count_if(window.begin(), window.end(),
                                     [](const TruthRow& row) { return row.m_share >= 0.05; }) > 1;
        const TruthRow& target = s_run->target(scan.m_scan);
        const std::vector<Precursor>& declared = scan.m_precursors;
        const auto at_center = [&](const Precursor& p) {
            return std::abs(p.m_mz - scan.m_activation_center) < 1e-4;
        };
        if (declared.size() == 2) {
            const bool guesses = declared[0].m_charge == 2 && declared[1].m_charge == 3 &&
                                 at_center(declared[0]) && at_center(declared[1]);
            ++kinds[guesses ? "no charge" : "unexpected"];
            continue;
        }
        int isotope = -1;
        for (int k = 0; k < 8 && isotope < 0; ++k) {
            const double mz = target.m_mono_mz + k * 1.00335 / target.m_charge;
            isotope = std::abs(declared.at(0).m_mz - mz) < 15e-6 * mz ? k : -1;
        }
        const int charge_error = std::abs(declared[0].m_charge - target.m_charge);
        ++kinds[declared.size() != 1 || isotope < 0 || charge_error > 1 ? "unexpected"
                : charge_error == 1                                     ? "wrong charge"
                : isotope > 0                                           ? "later isotope"
                                                                        : "right"];
    }
    const double scans = double(s_run->m_ms2.size());
    EXPECT_EQ(kinds["unexpected"], 0);
    EXPECT_GT(kinds["right"], 0.6 * scans);
    EXPECT_LT(kinds["right"], 0.95 * scans);
    EXPECT_GT(kinds["later isotope"], 0);
    EXPECT_GT(kinds["wrong charge"], 0);
    EXPECT_GT(kinds["no charge"], 0);
    EXPECT_GT(co_isolated, 0.15 * scans);  // co-elution is common in 2 m/z
}

TEST(SimulatorRuns, SameSeedSameBytesOtherSeedOtherRun) {
    const auto files = [](uint64_t seed, Activation activation) {
        test::TempDir dir;
        SimulatorOptions options;
        options.m_fasta_path = kFasta;
        options.m_out_dir = dir.path().string();
        options.m_seed = seed;
        options.m_ms2_scans = 150;
        options.m_activation = activation;
        run_simulation(options);
        return std::vector<std::string>{test::read_file(dir.file("simulated.ms1")),
                                        test::read_file(dir.file("simulated.ms2")),
                                        test::read_file(dir.file("simulated_truth.csv"))};
    };
    const std::vector<std::string> first = files(11, Activation::kHcd);
    EXPECT_TRUE(first == files(11, Activation::kHcd));
    const std::vector<std::string> other = files(12, Activation::kHcd);
    for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_NE(first[i], other[i]) << i;
    }
    const std::string cid = files(11, Activation::kCid)[1];
    EXPECT_NE(cid.find("I\tActivationType\tCID\n"), std::string::npos);
    EXPECT_EQ(cid.find("\tHCD\n"), std::string::npos);
}

TEST(SimulatorRuns, NoPeptideOrNoSelectableClusterIsAnError) {
    test::TempDir dir;
    test::write_file(dir.file("tiny.fasta"), ">only a C-terminal piece\nWWWWWWWW\n");
    SimulatorOptions options;
    options.m_fasta_path = dir.file("tiny.fasta");
    options.m_out_dir = dir.path().string();
    EXPECT_THROW(run_simulation(options), std::runtime_error);
    options.m_fasta_path = kFasta;
    options.m_min_precursor_intensity = 1e30;
    options.m_feature_rate = 0.01;
    options.m_noise_peaks = 1;
    EXPECT_THROW(run_simulation(options), std::runtime_error);
}

}  // namespace
}  // namespace ksieve::sim

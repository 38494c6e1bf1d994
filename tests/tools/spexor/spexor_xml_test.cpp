// spexor_xml.exe run on small real mzML and mzXML files, its text pair checked
// line by line against values read off the input files themselves (decoded peak
// arrays, cvParams and attributes), as noted at each expectation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::string read_text(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(stream)), {});
}

Lines read_lines(const fs::path& path) {
    Lines lines;
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

int scan_of(const std::string& s_line) {
    return std::atoi(s_line.c_str() + 2);
}

std::vector<int> scan_numbers(const Lines& lines) {
    std::vector<int> numbers;
    for (const std::string& line : lines) {
        if (line[0] == 'S') {
            numbers.push_back(scan_of(line));
        }
    }
    return numbers;
}

// One scan of a pair file: its S, I and Z lines, and its peak lines.
struct Scan {
    Lines head;
    Lines peaks;
};

Scan scan_block(const Lines& lines, int number) {
    Scan scan;
    auto it = std::find_if(lines.begin(), lines.end(), [number](const std::string& line) {
        return line[0] == 'S' && scan_of(line) == number;
    });
    EXPECT_NE(it, lines.end()) << "no scan " << number;
    for (bool first = true; it != lines.end() && (first || (*it)[0] != 'S'); ++it, first = false) {
        (std::isdigit(static_cast<unsigned char>((*it)[0])) ? scan.peaks : scan.head)
            .push_back(*it);
    }
    return scan;
}

std::string value_of(const Scan& scan, const std::string& prefix) {
    for (const std::string& line : scan.head) {
        if (line.rfind(prefix, 0) == 0) {
            return line.substr(prefix.size());
        }
    }
    return "";
}

class SpexorXml : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() /
               ("spexor_xml_test_" + std::to_string(::getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        out_ = dir_ / "out dir";
    }
    void TearDown() override { fs::remove_all(dir_); }

    // Runs the companion with `args`; returns its exit code, keeps its streams.
    int run(const std::string& args) {
        std::string command = std::string("\"") + KSIEVE_RUN_DIR + "/spexor_xml.exe\" " + args +
                              " > \"" + (dir_ / "stdout").string() + "\" 2> \"" +
                              (dir_ / "stderr").string() + "\"";
        int status = std::system(command.c_str());
        stdout_ = read_text(dir_ / "stdout");
        stderr_ = read_text(dir_ / "stderr");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int convert(const std::string& input, const std::string& digits = "-i 1 -m 5") {
        return run("-ms -a " + digits + " -o \"" + out_.string() + "\" \"" + input + "\"");
    }
    static std::string sample(const std::string& name) {
        return std::string(KSIEVE_TEST_DATA_DIR) + "/spexor/" + name;
    }
    // A failed conversion: message on standard error, no marker, no pair.
    void expect_failure_without_marker(int exit_code, const std::string& stem) {
        EXPECT_NE(exit_code, 0);
        EXPECT_NE(stderr_.find("spexor_xml.exe: "), std::string::npos) << stderr_;
        EXPECT_FALSE(fs::exists(out_ / (stem + ".spexor")));
        EXPECT_FALSE(fs::exists(out_ / (stem + ".ms1.part")));
        EXPECT_FALSE(fs::exists(out_ / (stem + ".ms2")));
    }

    fs::path dir_;
    fs::path out_;
    std::string stdout_;
    std::string stderr_;
};

TEST_F(SpexorXml, MzXmlRunInFileOrderWithNativeScanNumbers) {
    ASSERT_EQ(convert(sample("BSA_min_21.mzXML")), 0) << stderr_;
    EXPECT_TRUE(fs::exists(out_ / "BSA_min_21.spexor"));
    EXPECT_NE(stdout_.find("MS2 scans written: 82"), std::string::npos) << stdout_;
    Lines ms1 = read_lines(out_ / "BSA_min_21.ms1");
    Lines ms2 = read_lines(out_ / "BSA_min_21.ms2");
    EXPECT_NE(std::find(ms1.begin(), ms1.end(), "H\tScanNumbers\tnative IDs (scan=N)"), ms1.end());

    // The file's MS1 scans (msLevel="1"); every other scan is an MS2 scan.
    const std::vector<int> survey = {1,  7,  13, 19, 25, 31, 37, 43, 48,
                                     54, 60, 66, 72, 78, 84, 89, 93, 99};
    EXPECT_EQ(scan_numbers(ms1), survey);
    std::vector<int> fragments = scan_numbers(ms2);
    EXPECT_EQ(fragments.size(), 82u);
    EXPECT_TRUE(std::is_sorted(fragments.begin(), fragments.end()));
    for (int number : fragments) {
        // The file's precursorScanNum is the survey scan just before each MS2
        // scan; the companion finds it by retention time.
        Scan scan = scan_block(ms2, number);
        int parent = *(std::lower_bound(survey.begin(), survey.end(), number) - 1);
        EXPECT_EQ(value_of(scan, "I\tPrecursorScan\t"), std::to_string(parent)) << number;
        EXPECT_EQ(std::count_if(scan.head.begin(), scan.head.end(),
                                [](const std::string& line) { return line[0] == 'Z'; }),
                  1);
    }

    // Scan 1: retentionTime PT0.2912S, 704 peaks, zlib, 32-bit network order.
    Scan first = scan_block(ms1, 1);
    EXPECT_EQ(first.head, (Lines{"S\t1\t1", "I\tRetTime\t0.004853", "I\tInstrumentType\tFTMS",
                                 "I\tCentroiding\tas stored"}));
    ASSERT_EQ(first.peaks.size(), 704u);
    EXPECT_EQ(first.peaks.front(), "370.20728 34887.1");
    EXPECT_EQ(first.peaks.back(), "1609.84827 25391.4");

    // Scan 2: PT0.7326S, precursorMz 722.8173828125, charge 2, CID, 420 peaks.
    Scan second = scan_block(ms2, 2);
    EXPECT_EQ(second.head,
              (Lines{"S\t2\t2\t722.81738", "I\tRetTime\t0.012210", "I\tInstrumentType\tITMS",
                     "I\tCentroiding\tas stored", "I\tActivationType\tCID",
                     "I\tActivationCenter\t722.81738", "I\tPrecursorScan\t1", "Z\t2\t1444.62749"}));
    ASSERT_EQ(second.peaks.size(), 420u);
    EXPECT_EQ(second.peaks.front(), "203.60666 3.8");
    EXPECT_EQ(scan_block(ms2, 14).peaks.size(), 4u);
}

TEST_F(SpexorXml, DigitsFollowTheOptions) {
    ASSERT_EQ(convert(sample("BSA_min_21.mzXML"), "-i 3 -m 2"), 0) << stderr_;
    Scan first = scan_block(read_lines(out_ / "BSA_min_21.ms1"), 1);
    ASSERT_FALSE(first.peaks.empty());
    EXPECT_EQ(first.peaks.front(), "370.21 34887.078");
}

TEST_F(SpexorXml, MzMlWithSpectrumReferencesAndInjectionTimes) {
    ASSERT_EQ(convert(sample("yeast_hcd_crop.mzML")), 0) << stderr_;
    Lines ms1 = read_lines(out_ / "yeast_hcd_crop.ms1");
    Lines ms2 = read_lines(out_ / "yeast_hcd_crop.ms2");
    EXPECT_EQ(scan_numbers(ms1), (std::vector<int>{6}));
    EXPECT_EQ(scan_numbers(ms2), (std::vector<int>{5, 7, 8, 9, 10, 11, 12}));

    // Scan 6 is stored centroided with 10105 points, 2032 of them non-zero.
    Scan survey = scan_block(ms1, 6);
    EXPECT_EQ(survey.head, (Lines{"S\t6\t6", "I\tRetTime\t24.078337", "I\tIonInjectionTime\t0.8767",
                                  "I\tInstrumentType\tFTMS", "I\tCentroiding\tas stored"}));
    ASSERT_EQ(survey.peaks.size(), 2032u);
    EXPECT_EQ(survey.peaks.front(), "300.16701 68405.1");
    EXPECT_EQ(survey.peaks.back(), "1498.75518 49814.0");

    // Scan 5: isolation target 537.277587890625, selected ion 536.274169921875
    // (charge 2); its spectrumRef, scan 1, was cropped away and no MS1 precedes it.
    Scan orphan = scan_block(ms2, 5);
    EXPECT_EQ(orphan.head, (Lines{"S\t5\t5\t536.27417", "I\tRetTime\t24.072453",
                                  "I\tIonInjectionTime\t22.9455", "I\tInstrumentType\tFTMS",
                                  "I\tCentroiding\tas stored", "I\tActivationType\tHCD",
                                  "I\tActivationCenter\t537.27759", "Z\t2\t1071.54106"}));
    EXPECT_EQ(orphan.peaks.size(), 141u);
    EXPECT_EQ(orphan.peaks.front(), "101.07059 4357.7");

    Scan referenced = scan_block(ms2, 7);  // spectrumRef scan=6, 385.186279296875, z 2
    EXPECT_EQ(value_of(referenced, "I\tPrecursorScan\t"), "6");
    EXPECT_EQ(value_of(referenced, "Z\t"), "2\t769.36528");
    EXPECT_EQ(referenced.peaks.size(), 167u);
}

TEST_F(SpexorXml, ProfileSurveyScansAreCentroidedFromNumpressArrays) {
    ASSERT_EQ(convert(sample("ltqft_profile_crop.mzML")), 0) << stderr_;
    EXPECT_NE(stdout_.find("Spectra centroided with PeakPickerHiRes: 2"), std::string::npos);
    Lines ms1 = read_lines(out_ / "ltqft_profile_crop.ms1");
    Lines ms2 = read_lines(out_ / "ltqft_profile_crop.ms2");
    EXPECT_EQ(scan_numbers(ms2), (std::vector<int>{3, 4, 5, 6, 7}));

    // Scan 1 is FT-ICR profile (19914 points, 10739 non-zero, base peak m/z
    // 810.415283203125); scan 2 a profile ion-trap full scan (base 810.545532).
    struct Expected {
        int scan;
        const char* type;
        double base_mz;
        double tolerance;
    };
    for (Expected expected : {Expected{1, "FTMS", 810.415283203125, 0.005},
                              Expected{2, "ITMS", 810.545532226563, 0.05}}) {
        Scan survey = scan_block(ms1, expected.scan);
        EXPECT_EQ(value_of(survey, "I\tInstrumentType\t"), expected.type);
        EXPECT_EQ(value_of(survey, "I\tCentroiding\t"), "PeakPickerHiRes");
        ASSERT_GT(survey.peaks.size(), 100u);
        EXPECT_LT(survey.peaks.size(), 10739u / 3);
        double base_mz = 0.0;
        double base_intensity = 0.0;
        double last_mz = 0.0;
        for (const std::string& peak : survey.peaks) {
            double mz = std::atof(peak.c_str());
            double intensity = std::atof(peak.c_str() + peak.find(' '));
            EXPECT_GE(mz, last_mz);
            EXPECT_TRUE(mz > 200.0 && mz < 2000.1) << peak;  // scan window 200-2000
            last_mz = mz;
            if (intensity > base_intensity) {
                base_intensity = intensity;
                base_mz = mz;
            }
        }
        EXPECT_NEAR(base_mz, expected.base_mz, expected.tolerance) << expected.scan;
    }

    // Scan 3: no charge state, isolation target = selected ion 810.789428710938,
    // spectrumRef the ion-trap scan 2; 485 centroids, the first 231.3888397216797
    // with 26.545 counts (decoded from the original zlib arrays).
    Scan fragment = scan_block(ms2, 3);
    EXPECT_EQ(fragment.head,
              (Lines{"S\t3\t3\t810.78943", "I\tRetTime\t0.011218", "I\tIonInjectionTime\t7.9930",
                     "I\tInstrumentType\tITMS", "I\tCentroiding\tas stored",
                     "I\tActivationType\tCID", "I\tActivationCenter\t810.78943",
                     "I\tPrecursorScan\t2", "Z\t2\t1620.57158", "Z\t3\t2430.35373"}));
    ASSERT_EQ(fragment.peaks.size(), 485u);
    EXPECT_EQ(fragment.peaks.front(), "231.38884 26.5");
    EXPECT_EQ(fragment.peaks.back(), "1560.71985 23.0");
}

TEST_F(SpexorXml, SurveyScansStoredFirstArePairedByRetentionTime) {
    ASSERT_EQ(convert(sample("bsa_split_crop.mzML")), 0) << stderr_;
    Lines ms1 = read_lines(out_ / "bsa_split_crop.ms1");
    Lines ms2 = read_lines(out_ / "bsa_split_crop.ms2");
    EXPECT_NE(
        std::find(ms1.begin(), ms1.end(), "H\tScanNumbers\tspectrum position in the file + 1"),
        ms1.end());
    EXPECT_EQ(scan_numbers(ms1), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
    // MS1 at 1501.41, 1503.03, 1504.32, 1506.10, 1507.69, 1509.39, 1510.74 s;
    // MS2 at 1503.96, 1508.64, 1509.02, 1510.40 s.
    const std::vector<std::pair<int, std::string>> parents = {
        {8, "2"}, {9, "5"}, {10, "5"}, {11, "6"}};
    EXPECT_EQ(scan_numbers(ms2), (std::vector<int>{8, 9, 10, 11}));
    for (const auto& [number, parent] : parents) {
        Scan scan = scan_block(ms2, number);
        EXPECT_EQ(value_of(scan, "I\tPrecursorScan\t"), parent) << number;
        EXPECT_EQ(value_of(scan, "I\tInstrumentType\t"), "ITMS") << number;
    }
    EXPECT_EQ(value_of(scan_block(ms1, 1), "I\tInstrumentType\t"), "FTMS");
}

TEST_F(SpexorXml, FailuresLeaveNoMarker) {
    EXPECT_EQ(run("-mgf -a -i 1 -m 5 -o \"" + out_.string() + "\" \"" +
                  sample("yeast_hcd_crop.mzML") + "\""),
              2);
    EXPECT_NE(stderr_.find("-mgf is not supported"), std::string::npos) << stderr_;

    expect_failure_without_marker(convert(sample("yeast_ms2_only.mzML")), "yeast_ms2_only");
    EXPECT_NE(stderr_.find("no MS1 scan"), std::string::npos) << stderr_;

    expect_failure_without_marker(convert((dir_ / "missing.mzML").string()), "missing");

    // A file cut short, with the marker of an earlier extraction beside it.
    std::string whole = read_text(sample("yeast_hcd_crop.mzML"));
    std::ofstream((dir_ / "cut.mzML").string(), std::ios::binary)
        << whole.substr(0, whole.size() / 2);
    fs::create_directories(out_);
    std::ofstream((out_ / "cut.spexor").string()) << "earlier run\n";
    expect_failure_without_marker(convert((dir_ / "cut.mzML").string()), "cut");
    EXPECT_NE(stderr_.find("not readable as mzML"), std::string::npos) << stderr_;
}

}  // namespace

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
    ASSERT_EQ(convert(sample("velos_cid_crop.mzXML")), 0) << stderr_;
    EXPECT_TRUE(fs::exists(out_ / "velos_cid_crop.spexor"));
    EXPECT_NE(stdout_.find("MS2 scans written: 15"), std::string::npos) << stdout_;
    Lines ms1 = read_lines(out_ / "velos_cid_crop.ms1");
    Lines ms2 = read_lines(out_ / "velos_cid_crop.ms2");
    EXPECT_NE(std::find(ms1.begin(), ms1.end(), "H\tScanNumbers\tnative IDs (scan=N)"), ms1.end());

    // The file's MS1 scans (msLevel="1"); every other scan is an MS2 scan.
    const std::vector<int> survey = {1, 4, 6, 9, 11, 14, 16, 19, 22, 25};
    EXPECT_EQ(scan_numbers(ms1), survey);
    std::vector<int> fragments = scan_numbers(ms2);
    EXPECT_EQ(fragments.size(), 15u);
    EXPECT_TRUE(std::is_sorted(fragments.begin(), fragments.end()));
    for (int number : fragments) {
        // The file has no precursorScanNum; its retention times rise in file
        // order, so the parent is the survey scan just before each MS2 scan.
        Scan scan = scan_block(ms2, number);
        int parent = *(std::lower_bound(survey.begin(), survey.end(), number) - 1);
        EXPECT_EQ(value_of(scan, "I\tPrecursorScan\t"), std::to_string(parent)) << number;
        EXPECT_EQ(std::count_if(scan.head.begin(), scan.head.end(),
                                [](const std::string& line) { return line[0] == 'Z'; }),
                  1);
    }

    // Scan 1: retentionTime PT3775.53940000002S, 118 peaks, uncompressed
    // 32-bit network order, filterLine "FTMS + p NSI Full ms".
    Scan first = scan_block(ms1, 1);
    EXPECT_EQ(first.head, (Lines{"S\t1\t1", "I\tRetTime\t62.925657", "I\tInstrumentType\tFTMS",
                                 "I\tCentroiding\tas stored"}));
    ASSERT_EQ(first.peaks.size(), 118u);
    EXPECT_EQ(first.peaks.front(), "712.36798 2406.6");
    EXPECT_EQ(first.peaks.back(), "780.39307 4390.0");

    // Scan 2: PT3778.13740000002S, precursorMz 738.369689941406, charge 3,
    // CID, filterLine "ITMS + c NSI d w Full ms2", 1063 peaks.
    Scan second = scan_block(ms2, 2);
    EXPECT_EQ(second.head,
              (Lines{"S\t2\t2\t738.36969", "I\tRetTime\t62.968957", "I\tInstrumentType\tITMS",
                     "I\tCentroiding\tas stored", "I\tActivationType\tCID",
                     "I\tActivationCenter\t738.36969", "I\tPrecursorScan\t1", "Z\t3\t2213.09452"}));
    ASSERT_EQ(second.peaks.size(), 1063u);
    EXPECT_EQ(second.peaks.front(), "209.20711 2.1");
    // Scan 18: precursorMz 756.385864257813 with charge 4.
    EXPECT_EQ(value_of(scan_block(ms2, 18), "Z\t"), "4\t3022.52163");
}

TEST_F(SpexorXml, DigitsFollowTheOptions) {
    ASSERT_EQ(convert(sample("velos_cid_crop.mzXML"), "-i 3 -m 2"), 0) << stderr_;
    Scan first = scan_block(read_lines(out_ / "velos_cid_crop.ms1"), 1);
    ASSERT_FALSE(first.peaks.empty());
    EXPECT_EQ(first.peaks.front(), "712.37 2406.553");
}

TEST_F(SpexorXml, MzMlWithSpectrumReferencesAndInjectionTimes) {
    ASSERT_EQ(convert(sample("hcd_crop.mzML")), 0) << stderr_;
    Lines ms1 = read_lines(out_ / "hcd_crop.ms1");
    Lines ms2 = read_lines(out_ / "hcd_crop.ms2");
    EXPECT_EQ(scan_numbers(ms1), (std::vector<int>{1674, 1687, 1700}));
    EXPECT_EQ(scan_numbers(ms2), (std::vector<int>{1662, 1663, 1688, 1701, 1702}));

    // Scan 1674 is stored centroided with 4060 points, 665 of them non-zero.
    Scan survey = scan_block(ms1, 1674);
    EXPECT_EQ(survey.head,
              (Lines{"S\t1674\t1674", "I\tRetTime\t2.289855", "I\tIonInjectionTime\t3.2052",
                     "I\tInstrumentType\tFTMS", "I\tCentroiding\tas stored"}));
    ASSERT_EQ(survey.peaks.size(), 665u);
    EXPECT_EQ(survey.peaks.front(), "375.52272 77743.6");
    EXPECT_EQ(survey.peaks.back(), "1490.15542 31972.0");

    // Scan 1662: isolation target 473.2353515625, selected ion 473.23536583124
    // (charge 2); its spectrumRef, scan 1661, was cropped away and no MS1
    // precedes it.
    Scan orphan = scan_block(ms2, 1662);
    EXPECT_EQ(orphan.head, (Lines{"S\t1662\t1662\t473.23537", "I\tRetTime\t2.274419",
                                  "I\tIonInjectionTime\t70.0000", "I\tInstrumentType\tFTMS",
                                  "I\tCentroiding\tas stored", "I\tActivationType\tHCD",
                                  "I\tActivationCenter\t473.23535", "Z\t2\t945.46346"}));
    EXPECT_EQ(orphan.peaks.size(), 378u);
    EXPECT_EQ(orphan.peaks.front(), "101.07088 4172.2");

    // spectrumRef scan=1700, target 574.296875, selected ion 574.296767258095, z 2.
    Scan referenced = scan_block(ms2, 1701);
    EXPECT_EQ(value_of(referenced, "I\tPrecursorScan\t"), "1700");
    EXPECT_EQ(value_of(referenced, "I\tActivationCenter\t"), "574.29688");
    EXPECT_EQ(value_of(referenced, "Z\t"), "2\t1147.58626");
    EXPECT_EQ(referenced.peaks.size(), 76u);
}

TEST_F(SpexorXml, ProfileSurveyScansAreCentroidedFromNumpressArrays) {
    ASSERT_EQ(convert(sample("profile_crop.mzML")), 0) << stderr_;
    EXPECT_NE(stdout_.find("Spectra centroided with PeakPickerHiRes: 3"), std::string::npos);
    Lines ms1 = read_lines(out_ / "profile_crop.ms1");
    Lines ms2 = read_lines(out_ / "profile_crop.ms2");
    EXPECT_EQ(scan_numbers(ms1), (std::vector<int>{559, 560, 562}));
    EXPECT_EQ(scan_numbers(ms2), (std::vector<int>{561, 563}));

    // Orbitrap profile scans, points 0.0101 m/z apart near their base peak at
    // m/z 1122, observed from 693.0233 to 2525.2391. The base peak's centroid
    // lies between its highest point and the taller neighbour (the higher m/z).
    struct Expected {
        int scan;
        std::size_t nonzero_points;
        double highest_point_mz;
    };
    for (Expected expected :
         {Expected{559, 4653, 1121.9946590419515}, Expected{560, 4468, 1121.9955478031882},
          Expected{562, 4963, 1121.9964414051722}}) {
        Scan survey = scan_block(ms1, expected.scan);
        EXPECT_EQ(value_of(survey, "I\tInstrumentType\t"), "FTMS");
        EXPECT_EQ(value_of(survey, "I\tCentroiding\t"), "PeakPickerHiRes");
        ASSERT_GT(survey.peaks.size(), 100u);
        EXPECT_LT(survey.peaks.size(), expected.nonzero_points / 3);
        double base_mz = 0.0;
        double base_intensity = 0.0;
        double last_mz = 0.0;
        for (const std::string& peak : survey.peaks) {
            double mz = std::atof(peak.c_str());
            double intensity = std::atof(peak.c_str() + peak.find(' '));
            EXPECT_GE(mz, last_mz);
            EXPECT_TRUE(mz > 693.0233 && mz < 2525.2391) << peak;
            last_mz = mz;
            if (intensity > base_intensity) {
                base_intensity = intensity;
                base_mz = mz;
            }
        }
        EXPECT_GE(base_mz, expected.highest_point_mz) << expected.scan;
        EXPECT_LE(base_mz, expected.highest_point_mz + 0.0101) << expected.scan;
    }

    // Scan 561: ETD, charge 12, isolation target = selected ion
    // 1225.61157226562, spectrumRef scan 560; 25 centroids, the first
    // 121.48599246025434 with 553.8757813514017 counts (decoded from the
    // Numpress arrays).
    Scan fragment = scan_block(ms2, 561);
    EXPECT_EQ(
        fragment.head,
        (Lines{"S\t561\t561\t1225.61157", "I\tRetTime\t4.199762", "I\tIonInjectionTime\t100.0000",
               "I\tInstrumentType\tFTMS", "I\tCentroiding\tas stored", "I\tActivationType\tETD",
               "I\tActivationCenter\t1225.61157", "I\tPrecursorScan\t560", "Z\t12\t14696.25883"}));
    ASSERT_EQ(fragment.peaks.size(), 25u);
    EXPECT_EQ(fragment.peaks.front(), "121.48599 553.9");
    EXPECT_EQ(fragment.peaks.back(), "1225.45935 1821.2");
}

TEST_F(SpexorXml, PrecursorsWithoutChargeGetChargesTwoAndThree) {
    ASSERT_EQ(convert(sample("no_charge_crop.mzML")), 0) << stderr_;
    Lines ms1 = read_lines(out_ / "no_charge_crop.ms1");
    Lines ms2 = read_lines(out_ / "no_charge_crop.ms2");
    EXPECT_EQ(scan_numbers(ms1), (std::vector<int>{20, 21}));
    std::vector<int> fragments = scan_numbers(ms2);
    EXPECT_EQ(fragments, (std::vector<int>{22, 23, 24, 25, 26, 27, 28, 29, 30}));
    // Every MS2 scan names scan 21 in its spectrumRef and gives no charge state.
    for (int number : fragments) {
        Scan scan = scan_block(ms2, number);
        EXPECT_EQ(value_of(scan, "I\tPrecursorScan\t"), "21") << number;
        EXPECT_EQ(std::count_if(scan.head.begin(), scan.head.end(),
                                [](const std::string& line) { return line[0] == 'Z'; }),
                  2)
            << number;
    }

    // Scan 22: selected ion = isolation target 324.21, injection time
    // 1014.999985694885 ms, 183 peaks.
    Scan fragment = scan_block(ms2, 22);
    EXPECT_EQ(fragment.head, (Lines{"S\t22\t22\t324.21000", "I\tRetTime\t0.377548",
                                    "I\tIonInjectionTime\t1015.0000", "I\tInstrumentType\tFTMS",
                                    "I\tCentroiding\tas stored", "I\tActivationType\tHCD",
                                    "I\tActivationCenter\t324.21000", "I\tPrecursorScan\t21",
                                    "Z\t2\t647.41272", "Z\t3\t970.61545"}));
    ASSERT_EQ(fragment.peaks.size(), 183u);
    EXPECT_EQ(fragment.peaks.front(), "52.09899 64.7");
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
    EXPECT_EQ(
        run("-mgf -a -i 1 -m 5 -o \"" + out_.string() + "\" \"" + sample("hcd_crop.mzML") + "\""),
        2);
    EXPECT_NE(stderr_.find("-mgf is not supported"), std::string::npos) << stderr_;

    expect_failure_without_marker(convert(sample("ms2_only.mzML")), "ms2_only");
    EXPECT_NE(stderr_.find("no MS1 scan"), std::string::npos) << stderr_;

    expect_failure_without_marker(convert((dir_ / "missing.mzML").string()), "missing");

    // A file cut short, with the marker of an earlier extraction beside it.
    std::string whole = read_text(sample("hcd_crop.mzML"));
    std::ofstream((dir_ / "cut.mzML").string(), std::ios::binary)
        << whole.substr(0, whole.size() / 2);
    fs::create_directories(out_);
    std::ofstream((out_ / "cut.spexor").string()) << "earlier run\n";
    expect_failure_without_marker(convert((dir_ / "cut.mzML").string()), "cut");
    EXPECT_NE(stderr_.find("not readable as mzML"), std::string::npos) << stderr_;
}

}  // namespace

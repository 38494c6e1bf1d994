// spexor_xml.exe run on small real mzML and mzXML files. Every expectation was
// read off the input files themselves (decoded peak arrays with zero points
// dropped, cvParams and attributes), independently of the extractor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sys/wait.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using ksieve::test::read_file;

struct Scan {
    int number = 0;
    std::string head;  // S, I and Z lines, each ending in '\n'
    std::vector<std::string> peaks;
};

std::vector<Scan> scans_of(const fs::path& path) {
    std::vector<Scan> scans;
    std::istringstream stream(read_file(path));
    for (std::string line; std::getline(stream, line);) {
        if (line[0] == 'S') {
            scans.push_back({std::atoi(line.c_str() + 2), "", {}});
        }
        if (!scans.empty() && line[0] >= '0' && line[0] <= '9') {
            scans.back().peaks.push_back(line);
        } else if (!scans.empty()) {  // not a header line
            scans.back().head += line + '\n';
        }
    }
    return scans;
}

// The scans of a file in order: each number, then "<parent" for a PrecursorScan
// line and a 'z' for each Z line.
std::string outline_of(const std::vector<Scan>& scans) {
    std::string outline;
    for (const Scan& scan : scans) {
        outline += (outline.empty() ? "" : " ") + std::to_string(scan.number);
        std::size_t at = scan.head.find("\nI\tPrecursorScan\t");
        if (at != std::string::npos) {
            outline += "<" + std::to_string(std::atoi(scan.head.c_str() + at + 16));
        }
        for (at = scan.head.find("\nZ\t"); at != std::string::npos;
             at = scan.head.find("\nZ\t", at + 1)) {
            outline += 'z';
        }
    }
    return outline;
}

// Converts `input` into the folder "out dir", keeping the companion's error
// stream; returns its exit code.
struct Companion {
    ksieve::test::TempDir dir;
    fs::path out = dir.path() / "out dir";
    std::string stderr_text;

    int convert(const std::string& input, const std::string& digits = "-i 1 -m 5") {
        std::string command = std::string("\"") + KSIEVE_RUN_DIR + "/spexor_xml.exe\" -ms -a " +
                              digits + " -o \"" + out.string() + "\" \"" + input +
                              "\" >/dev/null 2> \"" + dir.file("stderr") + "\"";
        int status = std::system(command.c_str());
        stderr_text = read_file(dir.file("stderr"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

std::string sample(const std::string& name) {
    return std::string(KSIEVE_TEST_DATA_DIR) + "/spexor/" + name;
}

struct ScanCheck {
    int number;
    const char* head;
    std::size_t peaks;
    const char* first_peak;
    const char* last_peak;
};

struct Sample {
    const char* file;
    const char* digits;
    const char* ms1;  // outlines
    const char* ms2;
    std::vector<ScanCheck> scans;
    // Profile survey scans centroided here: number, points with signal, and the
    // m/z of the highest point of the base peak.
    std::vector<std::tuple<int, std::size_t, double>> profiles;
};

// clang-format off
const Sample kSamples[] = {
    // No precursorScanNum: parents are the survey scans before, by retention time.
    {"velos_cid_crop.mzXML", "-i 1 -m 5", "1 4 6 9 11 14 16 19 22 25",
     "2<1z 3<1z 5<4z 7<6z 8<6z 10<9z 12<11z 13<11z 15<14z 17<16z 18<16z 20<19z 21<19z 23<22z "
     "24<22z",
     {{18, "S\t18\t18\t756.38586\n"
         "I\tNativeID\tscan=18\nI\tRetTime\t63.357455\nI\tInstrumentType\tITMS\n"
           "I\tCentroiding\tas stored\nI\tActivationType\tCID\nI\tActivationCenter\t756.38586\n"
           "I\tPrecursorScan\t16\nZ\t4\t3022.52163\n", 827, "215.15858 3.5", "1697.90332 8.5"}}, {}},
    // Isolation targets differ from the selected ions; the survey scan that the
    // first two MS2 scans reference was cropped away. 4060 points, 665 non-zero.
    {"hcd_crop.mzML", "-i 1 -m 5", "1674 1687 1700", "1662z 1663z 1688<1687z 1701<1700z 1702<1700z",
     {{1674, "S\t1674\t1674\n"
         "I\tNativeID\tcontrollerType=0 controllerNumber=1 scan=1674\nI\tRetTime\t2.289855\nI\tIonInjectionTime\t3.2052\n"
             "I\tInstrumentType\tFTMS\nI\tCentroiding\tas stored\n"
             "I\tCompensationVoltage\t-65\n",
       665, "375.52272 77743.6", "1490.15542 31972.0"},
      {1662, "S\t1662\t1662\t473.23537\n"
         "I\tNativeID\tcontrollerType=0 controllerNumber=1 scan=1662\nI\tRetTime\t2.274419\nI\tIonInjectionTime\t70.0000\n"
             "I\tInstrumentType\tFTMS\nI\tCentroiding\tas stored\n"
             "I\tCompensationVoltage\t-55\nI\tActivationType\tHCD\n"
             "I\tActivationCenter\t473.23535\nZ\t2\t945.46346\n", 378, "101.07088 4172.2",
       "971.32092 1838.4"}}, {}},
    // Orbitrap profile survey scans, points 0.0101 m/z apart near the base peak;
    // ETD fragments stored with MS-Numpress.
    {"profile_crop.mzML", "-i 1 -m 5", "559 560 562", "561<560z 563<562z",
     {{561, "S\t561\t561\t1225.61157\n"
         "I\tNativeID\tcontrollerType=0 controllerNumber=1 scan=561\nI\tRetTime\t4.199762\nI\tIonInjectionTime\t100.0000\n"
            "I\tInstrumentType\tFTMS\nI\tCentroiding\tas stored\nI\tActivationType\tETD\n"
            "I\tActivationCenter\t1225.61157\nI\tPrecursorScan\t560\nZ\t12\t14696.25883\n",
       25, "121.48599 553.9", "1225.45935 1821.2"}},
     {{559, 4653, 1121.9946590419515}, {560, 4468, 1121.9955478031882},
      {562, 4963, 1121.9964414051722}}},
    // No charge states: each MS2 scan stands for charges 2 and 3.
    {"no_charge_crop.mzML", "-i 3 -m 2", "20 21",
     "22<21zz 23<21zz 24<21zz 25<21zz 26<21zz 27<21zz 28<21zz 29<21zz 30<21zz",
     {{22, "S\t22\t22\t324.21\n"
         "I\tNativeID\tcontrollerType=0 controllerNumber=1 scan=22\nI\tRetTime\t0.377548\nI\tIonInjectionTime\t1015.0000\n"
           "I\tInstrumentType\tFTMS\nI\tCentroiding\tas stored\nI\tActivationType\tHCD\n"
           "I\tActivationCenter\t324.21\nI\tPrecursorScan\t21\nZ\t2\t647.41\nZ\t3\t970.62\n",
       183, "52.10 64.739", "342.99 1293.541"}}, {}},
};
// clang-format on

TEST(SpexorXml, SamplesConvertToTheExpectedLines) {
    for (const Sample& expected : kSamples) {
        SCOPED_TRACE(expected.file);
        Companion companion;
        ASSERT_EQ(companion.convert(sample(expected.file), expected.digits), 0)
            << companion.stderr_text;
        const std::string stem = (companion.out / fs::path(expected.file).stem()).string();
        EXPECT_TRUE(fs::exists(stem + ".spexor"));
        const std::vector<Scan> ms1 = scans_of(stem + ".ms1"), ms2 = scans_of(stem + ".ms2");
        EXPECT_EQ(outline_of(ms1), expected.ms1);
        EXPECT_EQ(outline_of(ms2), expected.ms2);
        std::vector<Scan> all = ms1;
        all.insert(all.end(), ms2.begin(), ms2.end());
        for (const ScanCheck& check : expected.scans) {
            SCOPED_TRACE(check.number);
            const auto scan = std::find_if(all.begin(), all.end(),
                                           [&](const Scan& s) { return s.number == check.number; });
            ASSERT_NE(scan, all.end());
            EXPECT_EQ(scan->head, check.head);
            ASSERT_EQ(scan->peaks.size(), check.peaks);
            EXPECT_EQ(scan->peaks.front(), check.first_peak);
            EXPECT_EQ(scan->peaks.back(), check.last_peak);
        }
        // Far fewer centroids than profile points; the base peak's centroid lies
        // within one point spacing of its highest point.
        for (std::size_t i = 0; i < expected.profiles.size(); ++i) {
            const auto [number, points, highest_point_mz] = expected.profiles[i];
            const Scan& scan = ms1.at(i);
            ASSERT_EQ(scan.number, number);
            EXPECT_NE(scan.head.find("\nI\tCentroiding\tCwtPeakDetector\n"), std::string::npos);
            EXPECT_TRUE(scan.peaks.size() > 100 && scan.peaks.size() < points / 3);
            const auto intensity = [](const std::string& peak) {
                return std::atof(peak.c_str() + peak.find(' '));
            };
            const double base_mz =
                std::atof(std::max_element(scan.peaks.begin(), scan.peaks.end(),
                                           [&](const auto& a, const auto& b) {
                                               return intensity(a) < intensity(b);
                                           })
                              ->c_str());
            EXPECT_LT(std::abs(base_mz - highest_point_mz), 0.0101) << base_mz;
        }
    }
}

TEST(SpexorXml, FailuresLeaveNoMarker) {
    Companion companion;
    // A file cut short, with the marker of an earlier extraction beside it.
    std::string whole = read_file(sample("hcd_crop.mzML"));
    ksieve::test::write_file(companion.dir.file("cut.mzML"), whole.substr(0, whole.size() / 2));
    fs::create_directories(companion.out);
    ksieve::test::write_file(companion.out / "cut.spexor", "earlier run\n");
    const std::pair<std::string, std::string> failures[] = {
        {companion.dir.file("missing.mzML"), "cannot open"},
        {companion.dir.file("cut.mzML"), "not well-formed XML"}};
    for (const auto& [input, message] : failures) {
        SCOPED_TRACE(input);
        EXPECT_NE(companion.convert(input), 0);
        EXPECT_NE(companion.stderr_text.find("spexor_xml.exe: "), std::string::npos);
        EXPECT_NE(companion.stderr_text.find(message), std::string::npos) << companion.stderr_text;
        const std::string stem = (companion.out / fs::path(input).stem()).string();
        for (const char* suffix : {".spexor", ".ms1.part", ".ms2"}) {
            EXPECT_FALSE(fs::exists(stem + suffix)) << suffix;
        }
    }
}

}  // namespace

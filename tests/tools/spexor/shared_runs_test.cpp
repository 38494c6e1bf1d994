// kSieve and the companion on the public runs beside the project
// (../shared/data), when they are there: a FAIMS run, and the BSA and yeast runs
// with their declared precursors taken away in a copy. Skipped without them.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using ksieve::test::read_file;
using ksieve::test::write_file;

fs::path shared_data() {
    return fs::path(KSIEVE_SOURCE_DIR) / ".." / "shared" / "data";
}

std::string gunzipped(const fs::path& path) {
    gzFile file = gzopen(path.c_str(), "rb");
    std::string text;
    char buffer[1 << 16];
    for (int n = 0; file != nullptr && (n = gzread(file, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    if (file != nullptr) {
        gzclose(file);
    }
    return text;
}

// kSieve with `parameters` (data path and output added) on `input` copied into
// a fresh directory; the exit code, and the precursor table by MS2 scan.
struct KsieveRun {
    std::string exit_code;
    std::string log;
    std::map<long, std::vector<std::string>> rows;  // the fields of each row
};

KsieveRun run_ksieve(const std::string& input_text, const std::string& name,
                     const std::string& parameters) {
    const ksieve::test::TempDir dir;
    write_file(dir.file(name), input_text);
    write_file(dir.file("run.params"), "datapath = " + name +
                                           "\ninput_format = mzml\nipv_file = " + KSIEVE_RUN_DIR +
                                           "/IPV.txt\noutputpath = out\n" + parameters);
    const pid_t child = ksieve::test::start_program(std::string(KSIEVE_RUN_DIR) + "/kSieve",
                                                    {"kSieve", "run.params"}, dir.path(),
                                                    dir.file("stdout"), dir.file("stderr"));
    KsieveRun run{ksieve::test::wait_for_program(child), read_file(dir.file("stdout")), {}};
    const fs::path table = dir.path() / "out" / (fs::path(name).stem().string() + ".csv");
    std::istringstream lines(fs::exists(table) ? read_file(table) : "");
    std::string line;
    std::getline(lines, line);  // the header
    while (std::getline(lines, line)) {
        std::vector<std::string> fields;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');) {
            fields.push_back(cell.substr(cell.find_first_not_of(' ') == std::string::npos
                                             ? 0
                                             : cell.find_first_not_of(' ')));
        }
        run.rows[std::stol(fields.at(2))] = fields;
    }
    return run;
}

TEST(SharedRuns, AFaimsRunIsJudgedVoltageByVoltage) {
    const fs::path path = shared_data() / "openms_edgecases" / "IM_FAIMS_test.mzML";
    if (!fs::exists(path)) {
        GTEST_SKIP() << "needs " << path;
    }
    const std::string text = read_file(path);
    const KsieveRun by_voltage = run_ksieve(text, "faims.mzML", "");
    const KsieveRun all = run_ksieve(text, "faims.mzML", "faims_windows = 0\n");
    ASSERT_EQ(by_voltage.exit_code, "0\n") << by_voltage.log;
    ASSERT_EQ(all.exit_code, "0\n") << all.log;
    EXPECT_NE(by_voltage.log.find("faims_cv_values\t3"), std::string::npos) << by_voltage.log;
    // Every MS2 scan is written, whichever survey scans judged it.
    EXPECT_EQ(by_voltage.rows.size(), 10u);
    EXPECT_EQ(all.rows.size(), 10u);
    // Survey scans of the other voltages, in which the precursors cannot
    // appear, change what one window of all voltages finds.
    EXPECT_NE(by_voltage.rows, all.rows);
}

// Every `<selectedIonList` element of the file: the even ones emptied, the odd
// ones left with a selected ion that has neither m/z nor charge.
std::string without_declared_precursors(const std::string& text) {
    std::string edited;
    const std::string open = "<selectedIonList", close = "</selectedIonList>";
    std::size_t done = 0;
    for (int i = 0;; ++i) {
        const std::size_t from = text.find(open, done);
        if (from == std::string::npos) {
            break;
        }
        const std::size_t to = text.find(close, from) + close.size();
        edited += text.substr(done, from - done);
        edited +=
            i % 2 == 0
                ? R"(<selectedIonList count="0"></selectedIonList>)"
                : R"(<selectedIonList count="1"><selectedIon></selectedIon></selectedIonList>)";
        done = to;
    }
    return edited + text.substr(done);
}

// Where the run with declared precursors detected a dominant precursor (its
// first is not the declared one), the run without them finds the same: charge
// equal, m/z within 10 ppm, on at least 95 % of those scans.
void expect_same_dominant_precursors(const std::string& text, const std::string& name) {
    const std::string stripped = without_declared_precursors(text);
    ASSERT_NE(stripped, text);
    const KsieveRun declared = run_ksieve(text, name, "");
    const KsieveRun target_only = run_ksieve(stripped, name, "");
    ASSERT_EQ(declared.exit_code, "0\n") << declared.log;
    ASSERT_EQ(target_only.exit_code, "0\n") << target_only.log;
    EXPECT_NE(target_only.log.find("ms2_isolation_target_only"), std::string::npos);
    std::size_t detected = 0, same = 0;
    for (const auto& [scan, row] : declared.rows) {
        if (row.at(7) == row.at(3) && row.at(8) == row.at(4)) {
            continue;  // nothing detected: the declared precursor stands
        }
        ++detected;
        const auto other = target_only.rows.find(scan);
        if (other == target_only.rows.end()) {
            continue;
        }
        const double mz = std::stod(row.at(7));
        const double other_mz = std::stod(other->second.at(7));
        same += row.at(8) == other->second.at(8) && std::fabs(other_mz - mz) <= mz * 10e-6 ? 1 : 0;
    }
    ASSERT_GT(detected, 50u);
    EXPECT_GE(static_cast<double>(same), 0.95 * static_cast<double>(detected))
        << same << " of " << detected;
}

TEST(SharedRuns, DetectionFromTheIsolationTargetAloneFindsTheSameDominantPrecursors) {
    const fs::path bsa = shared_data() / "openms_bsa" / "BSA1.mzML.gz";
    const fs::path yeast =
        shared_data() / "metamorpheus_yeast_velos" / "SmallCalibratible_Yeast.mzML";
    if (!fs::exists(bsa) || !fs::exists(yeast)) {
        GTEST_SKIP() << "needs " << bsa << " and " << yeast;
    }
    {
        SCOPED_TRACE("BSA1");
        expect_same_dominant_precursors(gunzipped(bsa), "bsa.mzML");
    }
    {
        SCOPED_TRACE("yeast");
        expect_same_dominant_precursors(read_file(yeast), "yeast.mzML");
    }
}

}  // namespace

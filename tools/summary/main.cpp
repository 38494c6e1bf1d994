// ksieve_summary: what kSieve did with one input, read back from its outputs.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "summary.h"

namespace {

namespace fs = std::filesystem;

// The same ion for the comparison with the declared precursor: kSieve's own
// default MS1 tolerance.
constexpr double kSameIonPpm = 20.0;

constexpr const char* kUsage =
    "usage: ksieve_summary OUTPUT_DIR STEM [LOG_FILE]\n"
    "  reads OUTPUT_DIR/STEM.csv and the log (default OUTPUT_DIR/kSievePlusLog.txt)\n";

std::string read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The files of this input in the output directory, and the log, by name.
std::vector<ksieve::eval::OutputFile> list_outputs(const fs::path& directory,
                                                   const std::string& stem, const fs::path& log) {
    std::vector<ksieve::eval::OutputFile> outputs;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        const bool ours = name.rfind(stem + ".", 0) == 0 || name.rfind(stem + "_", 0) == 0;
        if (entry.is_regular_file() && (ours || entry.path() == log)) {
            outputs.push_back({name, entry.file_size()});
        }
    }
    std::sort(outputs.begin(), outputs.end(),
              [](const auto& a, const auto& b) { return a.m_name < b.m_name; });
    return outputs;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const fs::path directory = argv[1];
    const std::string stem = argv[2];
    const fs::path log = argc == 4 ? fs::path(argv[3]) : directory / "kSievePlusLog.txt";
    try {
        const std::vector<ksieve::eval::TableRow> rows =
            ksieve::eval::read_precursor_table((directory / (stem + ".csv")).string());
        const std::string log_text = read_text(log);
        ksieve::eval::RunSummary summary = ksieve::eval::summarise(
            rows, ksieve::eval::read_scan_counts(log_text, stem), kSameIonPpm);
        summary.m_validation = ksieve::eval::read_validation_tally(log_text, stem);
        std::fputs(ksieve::eval::format_summary(stem, summary, kSameIonPpm, directory.string(),
                                                list_outputs(directory, stem, log))
                       .c_str(),
                   stdout);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "ksieve_summary: %s\n", failure.what());
        return 1;
    }
    return 0;
}

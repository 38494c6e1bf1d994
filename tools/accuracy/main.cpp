// ksieve_accuracy: precision and recall of kSieve's precursor tables against the
// truth of a simulated run, as a Markdown table.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "accuracy.h"

namespace {

constexpr const char* kUsage =
    "usage: ksieve_accuracy --truth FILE [--ppm X] [--min-share S] LABEL=TABLE...\n"
    "  --truth FILE      the simulator's <stem>_truth.csv\n"
    "  --ppm X           m/z tolerance of a match, ppm of the true m/z (10)\n"
    "  --min-share S     smallest share of the window that a co-eluted ion must\n"
    "                    be found for, 0 to 1 (0.05)\n"
    "  LABEL=TABLE       a kSieve precursor table <stem>.csv, shown as LABEL\n";

struct Arguments {
    std::string m_truth;
    ksieve::eval::MatchRules m_rules;
    std::vector<std::pair<std::string, std::string>> m_tables;  // label, path
};

bool parse_number(const char* text, double low, double high, double& value) {
    char* end = nullptr;
    const double parsed = std::strtod(text, &end);
    if (*text == '\0' || *end != '\0' || !(parsed >= low && parsed <= high)) {
        return false;
    }
    value = parsed;
    return true;
}

bool parse_arguments(int argc, char** argv, Arguments& arguments) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--truth" && has_value) {
            arguments.m_truth = argv[++i];
        } else if (arg == "--ppm" && has_value) {
            if (!parse_number(argv[++i], 0.0, 1e6, arguments.m_rules.m_ppm)) {
                return false;
            }
        } else if (arg == "--min-share" && has_value) {
            if (!parse_number(argv[++i], 0.0, 1.0, arguments.m_rules.m_min_share)) {
                return false;
            }
        } else if (const size_t equals = arg.find('='); equals != std::string::npos && equals > 0) {
            arguments.m_tables.emplace_back(arg.substr(0, equals), arg.substr(equals + 1));
        } else {
            return false;
        }
    }
    return !arguments.m_truth.empty() && !arguments.m_tables.empty();
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    if (!parse_arguments(argc, argv, arguments)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        const ksieve::eval::TruthTable truth = ksieve::eval::read_truth_table(arguments.m_truth);
        std::vector<ksieve::eval::LabelledCounts> runs;
        for (const auto& [label, path] : arguments.m_tables) {
            runs.push_back({label, ksieve::eval::evaluate(ksieve::eval::read_precursor_table(path),
                                                          truth, arguments.m_rules)});
        }
        std::fputs(ksieve::eval::format_report(runs, arguments.m_rules).c_str(), stdout);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "ksieve_accuracy: %s\n", failure.what());
        return 1;
    }
    return 0;
}

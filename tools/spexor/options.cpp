// Command line of spexor_xml.exe, as kSieve builds it:
//   ./spexor_xml.exe -ms -a -i <intensity digits> -m <m/z digits> -o "<dir>" "<file>"
#include <string>
#include <vector>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

constexpr int kMaxDigits = 10;

// A digit count: only decimal digits, 0 to kMaxDigits. -1 when unusable.
int parse_digits(const std::string& text) {
    if (text.empty() || text.size() > 2) {
        return -1;
    }
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
    }
    return value <= kMaxDigits ? value : -1;
}

}  // namespace

std::string usage_text() {
    return "usage: spexor_xml.exe [-ms] [-a] [-i <intensity digits>] [-m <m/z digits>] "
           "-o <output directory> <input.mzML|input.mzXML>[.gz]\n"
           "  -ms  write <stem>.ms1 and <stem>.ms2 (the only output mode)\n"
           "  -a   all MS1 and MS2 scans (the only scan selection)\n"
           "  -i   decimals of peak intensities, 0 to 10 (default 1)\n"
           "  -m   decimals of m/z values, 0 to 10 (default 5)\n"
           "  -o   directory for <stem>.ms1, <stem>.ms2 and the marker <stem>.spexor\n";
}

ParsedOptions parse_options(const std::vector<std::string>& args) {
    ParsedOptions result;
    Options& options = result.options;
    auto fail = [&result](std::string message) {
        result.error = std::move(message);
        return result;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "-ms" || arg == "-a") {
            continue;
        }
        if (arg == "-mgf") {
            return fail(
                "-mgf is not supported: this extractor writes only the .ms1/.ms2 pair "
                "(-ms)");
        }
        if (arg == "-i" || arg == "-m" || arg == "-o") {
            if (i + 1 >= args.size()) {
                return fail("option " + arg + " needs a value");
            }
            const std::string& value = args[++i];
            if (arg == "-o") {
                options.output_dir = value;
                continue;
            }
            int digits = parse_digits(value);
            if (digits < 0) {
                return fail("option " + arg + " needs a number of decimals from 0 to " +
                            std::to_string(kMaxDigits) + ", not \"" + value + "\"");
            }
            (arg == "-i" ? options.intensity_digits : options.mz_digits) = digits;
            continue;
        }
        if (arg.size() > 1 && arg[0] == '-') {
            return fail("unknown option " + arg);
        }
        if (!options.input_path.empty()) {
            return fail("more than one input file: \"" + options.input_path + "\" and \"" + arg +
                        "\"");
        }
        options.input_path = arg;
    }
    if (options.input_path.empty()) {
        return fail("no input file given");
    }
    if (options.output_dir.empty()) {
        return fail("no output directory given (-o)");
    }
    return result;
}

std::string stem_of(std::string_view path) {
    // The same split as kSieve's own: at the last separator of either kind.
    std::size_t slash = path.find_last_of("\\/");
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    // A compressed run is named by what it holds: run.mzML.gz gives "run".
    constexpr std::string_view kGzip = ".gz";
    if (name.size() > kGzip.size() + 1) {
        std::string_view tail = name.substr(name.size() - kGzip.size());
        if ((tail[1] == 'g' || tail[1] == 'G') && (tail[2] == 'z' || tail[2] == 'Z') &&
            tail[0] == '.') {
            name.remove_suffix(kGzip.size());
        }
    }
    std::size_t dot = name.find_last_of('.');
    return std::string(dot == std::string_view::npos ? name : name.substr(0, dot));
}

}  // namespace ksieve::spexor

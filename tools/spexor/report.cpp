// The end of a companion run as kSieve sees it: progress lines and the account
// on standard output, or one line on standard error and exit code 1.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "spexor.h"

namespace ksieve::spexor {

int convert_and_report(const char* program, const Options& options,
                       const std::string& source_name) {
    auto progress = [](const std::string& line) {
        std::fprintf(stdout, "%s\n", line.c_str());
        std::fflush(stdout);
    };
    try {
        ScanAccount account = extract_run(options, source_name, progress);
        std::string text = account_text(account);
        if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
            // The account did not reach kSieve: the run does not count as done.
            std::filesystem::path marker =
                std::filesystem::path(options.output_dir) / (stem_of(source_name) + ".spexor");
            std::remove(marker.c_str());
            std::fprintf(stderr,
                         "%s: cannot convert %s: cannot write the account on standard output\n",
                         program, source_name.c_str());
            return 1;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: cannot convert %s: %s\n", program, source_name.c_str(),
                     error.what());
        return 1;
    }
    return 0;
}

}  // namespace ksieve::spexor

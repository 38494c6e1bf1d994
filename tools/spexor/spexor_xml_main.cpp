// spexor_xml.exe: the companion that kSieve starts for each mzML or mzXML file.
// Progress goes to standard output, which kSieve copies into its log; a failure
// is one message on standard error and a non-zero exit, with no marker written.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "spexor.h"

int main(int argc, char** argv) {
    using namespace ksieve::spexor;
    std::vector<std::string> args(argv + 1, argv + argc);
    ParsedOptions parsed = parse_options(args);
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "spexor_xml.exe: %s\n%s", parsed.error.c_str(), usage_text().c_str());
        return 2;
    }
    auto progress = [](const std::string& line) {
        std::fprintf(stdout, "%s\n", line.c_str());
        std::fflush(stdout);
    };
    try {
        extract_run(parsed.options, progress);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "spexor_xml.exe: cannot convert %s: %s\n",
                     parsed.options.input_path.c_str(), error.what());
        return 1;
    }
    return 0;
}

// spexor_xml.exe: the companion that kSieve starts for each mzML or mzXML file,
// plain or gzip-compressed. Progress and the closing account go to standard
// output, which kSieve copies into its log; a failure is one message on
// standard error and a non-zero exit, with no marker written.
#include <cstdio>
#include <string>
#include <vector>

#include "spexor.h"

int main(int argc, char** argv) {
    using namespace ksieve::spexor;
    ParsedOptions parsed = parse_options(std::vector<std::string>(argv + 1, argv + argc));
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "spexor_xml.exe: %s\n%s", parsed.error.c_str(), usage_text().c_str());
        return 2;
    }
    return convert_and_report("spexor_xml.exe", parsed.options, parsed.options.input_path);
}

// spexor_raw.exe: kSieve starts it for vendor .raw files. Those can only be read
// with the vendor's own library, which does not exist for this platform, so
// this companion says how to get a file that kSieve can read, and fails.
#include <cstdio>
#include <string>
#include <vector>

#include "spexor.h"

int main(int argc, char** argv) {
    using namespace ksieve::spexor;
    ParsedOptions parsed = parse_options(std::vector<std::string>(argv + 1, argv + argc));
    std::string input =
        parsed.options.input_path.empty() ? "the .raw file" : parsed.options.input_path;
    std::fprintf(stderr,
                 "spexor_raw.exe: cannot read %s: Thermo .raw files need the vendor's library, "
                 "which is not available on this platform. Convert the file to mzML first, "
                 "with a converter such as ThermoRawFileParser or msconvert, then give kSieve "
                 "the mzML file.\n",
                 input.c_str());
    return 1;
}

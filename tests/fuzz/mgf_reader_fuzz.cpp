// Any bytes as an MGF file: the reader must end, never read outside its line
// buffer or its title pieces, and return only scans with sorted peaks and valid
// precursors. A title it cannot parse is the one failure it may throw.
#include <cstring>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    using namespace ksieve;
    try {
        fuzz::read_to_end(data, size, ReadMgfScan, fuzz::check_ms2_scan);
    } catch (const char* message) {
        KS_FUZZ_CHECK(std::strcmp(message, kMgfTitleFailure) == 0);
    }
    return 0;
}

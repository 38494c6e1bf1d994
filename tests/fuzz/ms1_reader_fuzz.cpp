// Any bytes as an .ms1 file: the reader must end, never read outside its line
// buffer, and return only scans with peaks in peak order.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    ksieve::fuzz::read_to_end(data, size, ksieve::ReadMs1Scan, [](const ksieve::MS1Spectrum& scan) {
        ksieve::fuzz::check_peaks(scan.m_peaks);
        const std::string& type = scan.m_instrument_type;
        KS_FUZZ_CHECK(type == "FT" || type == "IT" || type == "Unknown" || type.empty());
    });
    return 0;
}

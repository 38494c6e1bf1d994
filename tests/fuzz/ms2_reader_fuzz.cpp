// Any bytes as an .ms2 file: the reader must end, never read outside its line
// buffer, and return only scans with sorted peaks and valid precursors.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    using namespace ksieve;
    fuzz::read_to_end(data, size, ReadMs2Scan, [](const MS2Spectrum& scan) {
        fuzz::check_ms2_scan(scan);
        KS_FUZZ_CHECK(scan.m_activation_type == trim(scan.m_activation_type, kWhiteSpace));
    });
    return 0;
}

// Any bytes as an .ms1 file: the reader must end, never read outside its line
// buffer, and return only scans with peaks in peak order.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    using namespace ksieve;
    fuzz::silence_log();
    LineFile file;
    fuzz::open_input(file.m_head, data, size);
    fuzz::read_to_end(file, ReadMs1Scan, [](const MS1Spectrum& scan) {
        KS_FUZZ_CHECK(!scan.m_peaks.empty());
        fuzz::check_peak_order(scan.m_peaks);
        KS_FUZZ_CHECK(scan.m_instrument_type == "FT" || scan.m_instrument_type == "IT" ||
                      scan.m_instrument_type == "Unknown" || scan.m_instrument_type.empty());
    });
    return 0;
}

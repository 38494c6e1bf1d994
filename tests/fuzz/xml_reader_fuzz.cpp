// Any bytes as an mzML or mzXML run, plain or gzip-compressed: the companion's
// reader must end with its spectra or a refusal, and every peak array it
// decodes must match its partner, however the arrays are packed. A compressed
// array is inflated no further than its declared length allows, so a zlib or
// MS-Numpress bomb costs no more memory than an honest array.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "xml_reader.h"

namespace {

#define KS_XML_FUZZ_CHECK(condition) \
    do {                             \
        if (!(condition)) {          \
            __builtin_trap();        \
        }                            \
    } while (false)

struct DecodingSink : ksieve::spexor::SpectrumSink {
    ksieve::spexor::PeakDecoder decoder;
    void spectrum(ksieve::spexor::RawSpectrum& spectrum) override {
        decoder.decode(spectrum);
        KS_XML_FUZZ_CHECK(spectrum.mz.size() == spectrum.intensity.size());
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // The reader takes a path; an anonymous in-memory file gives it one.
    const int fd = memfd_create("run", 0);
    KS_XML_FUZZ_CHECK(fd >= 0);
    KS_XML_FUZZ_CHECK(write(fd, data, size) == static_cast<ssize_t>(size));
    DecodingSink sink;
    ksieve::spexor::XmlReader reader;
    try {
        reader.read("/proc/self/fd/" + std::to_string(fd), sink);
    } catch (const std::exception&) {
        // A refusal is a fine end for hostile bytes.
    }
    close(fd);
    return 0;
}

// The reading side of the companion: one mzML or mzXML run, plain or
// gzip-compressed, streamed once and handed on spectrum by spectrum.
//
// Units: retention time in seconds, injection time in milliseconds, m/z in Th,
// compensation voltage in volts. Peak arrays are handed on encoded and decoded
// by `PeakDecoder` (base64, zlib, MS-Numpress, 32/64-bit floats and integers,
// either byte order), which may run on another thread than the parse.
// Bad input: a document type declaration (which could define entities), XML
// that is not well formed or ends early, a gzip stream cut before its trailer,
// bad base64, bad compression, a peak array whose length differs from the
// declared one (a compressed array is inflated no further than its declared
// length allows, and MS-Numpress bytes are measured against it before they are
// decoded; these refusals name the spectrum and the array), or an unreadable number
// stops the read with an exception whose message says what is wrong; no
// entity is ever resolved.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "spexor.h"

namespace ksieve::spexor {

// What the run's instrument configurations say, known before its spectra.
struct RunDescription {
    RunAnalyzers analyzers;               // all configurations together
    bool several_configurations = false;  // hybrids list one per readout
};

// A peak array as the file stores it, decoded later by `PeakDecoder`.
struct EncodedArray {
    enum Kind { kMz, kIntensity, kPairs } kind = kMz;  // kPairs: mzXML m/z-intensity pairs
    int bytes = 8;                                     // 4 or 8 per number
    bool integer = false;
    bool zlib = false;
    bool big_endian = false;  // mzXML's network order
    char numpress = 0;        // 'l'inear, 'p'ic, 's'lof, or 0
    long long length = -1;    // declared count of values, -1 for the spectrum's
    std::string text;         // base64
};

// One spectrum as the file gives it; everything of the first precursor only,
// except the selected ions, which come from every precursor.
struct RawSpectrum {
    std::string id;    // native ID; "scan=<num>" for mzXML
    int ms_level = 0;  // 0 when the file does not say
    bool profile = false;
    double rt_seconds = 0.0;
    std::optional<double> injection_ms;
    std::optional<double> faims_cv;
    std::string filter;             // Thermo filter string, "" when none
    RunAnalyzers config_analyzers;  // of the scan's instrument configuration
    RunDescription run;
    bool has_precursor = false;
    std::string precursor_ref;      // native ID of the precursor's spectrum
    double isolation_target = 0.0;  // 0 when not given
    ActivationTerms activation;
    struct Ion {
        double mz = 0.0;
        int charge = 0;
        std::vector<int> possible_charges;
    };
    std::vector<Ion> ions;
    long long declared_length = 0;
    // The first `array_count` arrays as read; the rest are spare buffers that
    // spectra passed from hand to hand keep, so that none is allocated anew.
    std::vector<EncodedArray> arrays;
    std::size_t array_count = 0;
    std::vector<double> mz, intensity;  // after decoding: equal lengths, as stored
};

// Decodes the arrays of spectra, reusing its buffers from one to the next.
class PeakDecoder {
  public:
    // Fills `mz` and `intensity` from `arrays`. Throws on bad base64, bad
    // compression, or arrays whose lengths differ from the declared ones.
    void decode(RawSpectrum& spectrum);

  private:
    std::vector<unsigned char> m_bytes, m_inflated;
    std::vector<double> m_values;
};

class SpectrumSink {
  public:
    virtual ~SpectrumSink() = default;
    // Called for every spectrum in file order; may throw to stop the read. The
    // sink may take the spectrum's contents.
    virtual void spectrum(RawSpectrum& spectrum) = 0;
};

class XmlReader {
  public:
    XmlReader();
    ~XmlReader();
    // Reads the whole file at `path` (any bytes in the name), passing each
    // spectrum to `sink`. Throws on any fault described above.
    void read(const std::string& path, SpectrumSink& sink);

    struct State;

  private:
    std::unique_ptr<State> m_state;
};

}  // namespace ksieve::spexor

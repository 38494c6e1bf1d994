// The reading side of the companion: one mzML or mzXML run, plain or
// gzip-compressed, streamed once and handed on spectrum by spectrum.
//
// Units: retention time in seconds, injection time in milliseconds, m/z in Th,
// compensation voltage in volts. Peak arrays are decoded (base64, zlib,
// MS-Numpress, 32/64-bit floats and integers, either byte order).
// Bad input: a document type declaration (which could define entities), XML
// that is not well formed or ends early, bad base64, bad compression, a peak
// array whose length differs from the declared one, or an unreadable number
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
    std::vector<double> mz, intensity;  // equal lengths, as stored
};

class SpectrumSink {
  public:
    virtual ~SpectrumSink() = default;
    // Called for every spectrum in file order; may throw to stop the read.
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

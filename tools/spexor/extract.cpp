// One run from the reader to the text pair: numbers, parents, instrument and
// activation words, centroids for profile spectra, the lines of each scan and
// the account, written as the spectra arrive.
#include <expat.h>
#include <zlib.h>

#include <pwiz/analysis/common/CwtPeakDetector.hpp>
#include <pwiz/data/msdata/Version.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "pipe.h"
#include "spexor.h"
#include "xml_reader.h"

namespace ksieve::spexor {
namespace {

constexpr const char* kPickerName = "CwtPeakDetector";
constexpr std::size_t kFlushBytes = 1 << 20;
constexpr std::size_t kProgressEvery = 1000;

// The picker's settings as the common converters use them by default: a
// signal-to-noise ratio of 1, peaks at least 0.1 m/z apart.
constexpr double kPickerMinSnr = 1.0;
constexpr double kPickerPeakSpace = 0.1;

// Thrown when native scan numbers break part-way; the run starts over.
struct NumberingBroken : std::exception {};

bool has_analyzers(RunAnalyzers analyzers) {
    return analyzers.fourier_transform || analyzers.time_of_flight || analyzers.ion_trap;
}

// The reading thread hands each spectrum over; the pipe's thread decodes,
// converts, formats and writes it.
class Converter : public SpectrumSink {
  public:
    Converter(const Options& options, OutputPair& output, bool native_numbers,
              const std::function<void(const std::string&)>& progress)
        : m_options(options),
          m_output(output),
          m_numbering(native_numbers),
          m_progress(progress),
          m_picker(kPickerMinSnr, 0, kPickerPeakSpace),
          m_pipe([this](RawSpectrum& spectrum) { convert(spectrum); }) {}

    void spectrum(RawSpectrum& spectrum) override { m_pipe.put(spectrum); }
    ScanAccount finish();

  private:
    void convert(RawSpectrum& spectrum);
    void fill_precursor(const RawSpectrum& spectrum);
    void fill_words(const RawSpectrum& spectrum, int level);
    void fill_peaks(RawSpectrum& spectrum, int level);
    void write(int level);

    const Options& m_options;
    OutputPair& m_output;
    ScanNumbering m_numbering;
    const std::function<void(const std::string&)>& m_progress;
    pwiz::analysis::CwtPeakDetector m_picker;
    std::string m_run_activation;  // the last activation word an MS2 scan named
    SurveyScans m_surveys;
    ScanAccount m_account;
    ScanRecord m_record;
    bool m_inferred = false;
    bool m_target_only = false;  // the isolation target stands for the precursor
    std::size_t m_position = 0;
    std::vector<double> m_picked_mz, m_picked_intensity;
    PeakDecoder m_decoder;
    std::string m_ms1_text, m_ms2_text;
    Pipe<RawSpectrum> m_pipe;  // last: its thread stops before the rest goes
};

void Converter::convert(RawSpectrum& spectrum) {
    const std::size_t position = m_position++;
    if ((position + 1) % kProgressEvery == 0) {
        m_progress("Converted " + std::to_string(position + 1) + " spectra");
    }
    int level = spectrum.ms_level > 0 ? spectrum.ms_level : (spectrum.has_precursor ? 2 : 1);
    const int number = m_numbering.number(spectrum.id, level, position);
    if (number < 0) {
        throw NumberingBroken{};
    }
    if (level > 2) {
        ++m_account.msn_not_written;
        return;
    }
    ++(level == 1 ? m_account.ms1_read : m_account.ms2_read);
    m_record.number = number;
    m_record.retention_minutes = spectrum.rt_seconds / 60.0;
    m_record.injection_ms = spectrum.injection_ms;
    m_record.faims_cv = spectrum.faims_cv;
    m_record.native_id = spectrum.id;
    if (spectrum.faims_cv) {
        m_account.faims_cv_values.insert(*spectrum.faims_cv);
    }
    m_record.activation_type.clear();
    m_record.activation_center = 0.0;
    m_record.precursor_scan = 0;
    m_record.precursors.clear();
    m_target_only = false;
    if (level == 1) {
        m_surveys.add(spectrum.id, number, spectrum.rt_seconds, position);
    } else {
        fill_precursor(spectrum);
    }
    fill_words(spectrum, level);
    m_decoder.decode(spectrum);
    fill_peaks(spectrum, level);
    if (m_record.peaks.empty()) {
        // A scan without peaks cannot stand in the pair: the reader would pass
        // its precursors on to the next scan.
        m_account.ms2_not_written_no_peaks += level == 2 ? 1 : 0;
        return;
    }
    write(level);
}

void Converter::fill_precursor(const RawSpectrum& spectrum) {
    if (!spectrum.has_precursor) {
        return;
    }
    m_record.activation_type = activation_type_of(spectrum.activation, spectrum.filter);
    if (!m_record.activation_type.empty()) {
        m_run_activation = m_record.activation_type;
    }
    for (const RawSpectrum::Ion& ion : spectrum.ions) {
        append_declared_precursors(m_record.precursors, ion.mz, ion.charge, ion.possible_charges);
    }
    const double selected = spectrum.ions.empty() ? 0.0 : spectrum.ions.front().mz;
    m_record.activation_center =
        spectrum.isolation_target > 0.0 ? spectrum.isolation_target : selected;
    // No selected ion (timsTOF converters, some pipelines): the isolation target
    // stands for the precursor as it does for a selected ion without m/z.
    if (m_record.precursors.empty() && m_record.activation_center > 0.0) {
        append_declared_precursors(m_record.precursors, 0.0, 0, {});
        m_target_only = true;
    }
    m_record.precursor_scan =
        m_surveys.parent_of(spectrum.precursor_ref, spectrum.rt_seconds, m_position - 1);
}

void Converter::fill_words(const RawSpectrum& spectrum, int level) {
    // A scan's own configuration tells its readout only where the run has one
    // configuration per readout.
    const RunAnalyzers own =
        spectrum.run.several_configurations ? spectrum.config_analyzers : RunAnalyzers{};
    m_inferred = false;
    if (spectrum.has_precursor && m_record.activation_type.empty()) {
        m_record.activation_type = inferred_activation_type(
            m_run_activation, spectrum.filter, has_analyzers(own) ? own : spectrum.run.analyzers);
        m_inferred = true;
    }
    m_record.instrument_type = instrument_type_of(spectrum.filter, own, spectrum.run.analyzers,
                                                  level, m_record.activation_type);
}

void Converter::fill_peaks(RawSpectrum& spectrum, int level) {
    const std::vector<double>* mz = &spectrum.mz;
    const std::vector<double>* intensity = &spectrum.intensity;
    m_record.centroiding = "as stored";
    if (spectrum.profile && looks_like_profile(spectrum.mz)) {
        m_picker.detect(spectrum.mz, spectrum.intensity, m_picked_mz, m_picked_intensity);
        bool had_signal = std::any_of(spectrum.intensity.begin(), spectrum.intensity.end(),
                                      [](double value) { return value > 0.0; });
        if (level == 1 && had_signal && m_picked_mz.empty()) {
            throw std::runtime_error("profile MS1 scan " + std::to_string(m_record.number) +
                                     " gives no centroid with " + kPickerName);
        }
        mz = &m_picked_mz;
        intensity = &m_picked_intensity;
        m_record.centroiding = kPickerName;
    }
    m_record.peaks.clear();
    for (std::size_t i = 0; i < mz->size(); ++i) {
        double x = (*mz)[i];
        double y = (*intensity)[i];
        if (y > 0.0 && std::isfinite(x) && std::isfinite(y)) {
            m_record.peaks.push_back({x, y});
        }
    }
    auto by_mz = [](const PeakPoint& a, const PeakPoint& b) {
        return a.mz < b.mz || (a.mz == b.mz && a.intensity < b.intensity);
    };
    if (!std::is_sorted(m_record.peaks.begin(), m_record.peaks.end(), by_mz)) {
        std::sort(m_record.peaks.begin(), m_record.peaks.end(), by_mz);
    }
}

void Converter::write(int level) {
    if (level == 1) {
        append_ms1_scan(m_ms1_text, m_record, m_options);
        ++m_account.ms1_written;
    } else {
        append_ms2_scan(m_ms2_text, m_record, m_options);
        ++m_account.ms2_written;
        ++m_account.ms2_written_by_activation[m_record.activation_type];
        m_account.ms2_isolation_target_only += m_target_only ? 1 : 0;
        m_account.ms2_no_precursor += m_record.precursors.empty() ? 1 : 0;
        m_account.ms2_inferred_activation += m_inferred ? 1 : 0;
        if (!gate_processes(m_record.activation_type, m_record.instrument_type)) {
            ++m_account.ms2_gate_will_skip;
        }
    }
    if (m_ms1_text.size() >= kFlushBytes) {
        m_output.write_ms1(m_ms1_text);
    }
    if (m_ms2_text.size() >= kFlushBytes) {
        m_output.write_ms2(m_ms2_text);
    }
}

ScanAccount Converter::finish() {
    m_pipe.finish();
    m_output.write_ms1(m_ms1_text);
    m_output.write_ms2(m_ms2_text);
    return m_account;
}

std::string header_text(const std::string& source_name, bool native_numbers) {
    std::string text;
    append_header_line(text, "Extractor", "spexor_xml.exe");
    append_header_line(text, "ExtractorVersion", KSIEVE_VERSION_TEXT);
    append_header_line(text, "Library",
                       std::string(XML_ExpatVersion()) + ", zlib " + zlibVersion() +
                           ", ProteoWizard " + pwiz::msdata::Version::str() +
                           " (vocabulary, MS-Numpress, peak picker)");
    // The file name alone: the reader takes lines in pieces of 1023 characters,
    // and the piece of a long path could start with a digit, like a peak line.
    append_header_line(text, "SourceFile", source_name.substr(source_name.find_last_of('/') + 1));
    append_header_line(
        text, "ScanNumbers",
        native_numbers ? "native IDs (scan=N)" : "spectrum position in the file + 1");
    append_header_line(text, "Centroiding",
                       std::string("centroided spectra as stored; profile spectra centroided "
                                   "with ") +
                           kPickerName + " (see each scan's Centroiding line)");
    return text;
}

void check_format(const std::string& path) {
    std::string lower = path.substr(path.find_last_of('/') + 1);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* suffix : {".mzml", ".mzxml", ".mzml.gz", ".mzxml.gz"}) {
        std::string_view s(suffix);
        if (lower.size() >= s.size() && lower.compare(lower.size() - s.size(), s.size(), s) == 0) {
            return;
        }
    }
    throw std::runtime_error("not an mzML or mzXML file (by its extension): " + path);
}

// One conversion with the given numbering; false when native numbers broke.
bool convert_once(const Options& options, const std::string& source_name, bool native_numbers,
                  const std::function<void(const std::string&)>& progress, ScanAccount& account) {
    // Opening the pair removes the marker of any earlier run first, so that no
    // failure below leaves a marker beside outputs that are not this run's.
    OutputPair output(options.output_dir, stem_of(source_name));
    std::string header = header_text(source_name, native_numbers);
    std::string header_copy = header;
    output.write_ms1(header);
    output.write_ms2(header_copy);
    Converter converter(options, output, native_numbers, progress);
    XmlReader reader;
    try {
        reader.read(options.input_path, converter);
        account = converter.finish();
    } catch (const NumberingBroken&) {
        return false;
    }
    output.commit(account_text(account));
    return true;
}

}  // namespace

ScanAccount extract_run(const Options& options, const std::string& source_name,
                        const std::function<void(const std::string&)>& progress) {
    check_format(options.input_path);
    ScanAccount account;
    if (!convert_once(options, source_name, true, progress, account)) {
        convert_once(options, source_name, false, progress, account);
    }
    return account;
}

}  // namespace ksieve::spexor

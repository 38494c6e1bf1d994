// Reading an mzML or mzXML run with OpenMS and writing it out as the text pair.
//
// The file is streamed twice through the library's consumer interface, so that
// memory stays bounded whatever the length of the run:
//   1. metadata only (no peak arrays decoded): levels, native IDs, retention
//      times and isolation targets, from which the scan numbers and the parent
//      survey scans are settled before anything is written;
//   2. with the peaks: each spectrum is centroided if it is in profile mode,
//      formatted and written at once.
// This is the only translation unit that includes OpenMS headers.
#include <OpenMS/CONCEPT/Exception.h>
#include <OpenMS/CONCEPT/VersionInfo.h>
#include <OpenMS/FORMAT/MzMLFile.h>
#include <OpenMS/FORMAT/MzXMLFile.h>
#include <OpenMS/INTERFACES/IMSDataConsumer.h>
#include <OpenMS/KERNEL/MSChromatogram.h>
#include <OpenMS/KERNEL/MSSpectrum.h>
#include <OpenMS/METADATA/ExperimentalSettings.h>
#include <OpenMS/TRANSFORMATIONS/RAW2PEAK/PeakPickerHiRes.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

using OpenMS::MSSpectrum;
using OpenMS::Interfaces::IMSDataConsumer;

constexpr const char* kPickerName = "PeakPickerHiRes";
constexpr std::size_t kFlushBytes = 1 << 20;
constexpr std::size_t kProgressEvery = 1000;

enum class InputFormat { kMzML, kMzXML };

InputFormat format_of(const std::string& path) {
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto ends_with = [&lower](const std::string& suffix) {
        return lower.size() >= suffix.size() &&
               lower.compare(lower.size() - suffix.size(), suffix.size(), suffix) == 0;
    };
    if (ends_with(".mzml")) {
        return InputFormat::kMzML;
    }
    if (ends_with(".mzxml")) {
        return InputFormat::kMzXML;
    }
    throw std::runtime_error("not an mzML or mzXML file (by its extension): " + path);
}

void require_readable(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw std::runtime_error("cannot open " + path);
    }
    std::fclose(file);
}

// One streaming pass. Without peak data the library reports the isolation
// target as the precursor m/z; with it, the selected ion, which the Z lines need.
// Only the metadata pass reads the run-level settings (the instruments).
void stream_run(const std::string& path, InputFormat format, IMSDataConsumer& consumer,
                bool with_peaks) {
    try {
        if (format == InputFormat::kMzML) {
            OpenMS::MzMLFile file;
            file.getOptions().setFillData(with_peaks);
            file.getOptions().setPrecursorMZSelectedIon(with_peaks);
            // Without peaks no base64 text is decoded, so its checks are moot.
            file.getOptions().setSkipXMLChecks(!with_peaks);
            file.transform(path, &consumer, /*skip_full_count=*/true,
                           /*skip_first_pass=*/with_peaks);
        } else {
            OpenMS::MzXMLFile file;
            file.getOptions().setFillData(with_peaks);
            file.transform(path, &consumer, /*skip_full_count=*/true);
        }
    } catch (const OpenMS::Exception::BaseException& error) {
        // Some of the library's messages only name its own source line; the
        // reader's own account of the fault is then on standard error already.
        std::string detail = error.getMessage();
        if (detail.rfind("- due to", 0) == 0) {
            detail = "see the message above";
        }
        throw std::runtime_error(std::string("not readable as ") +
                                 (format == InputFormat::kMzML ? "mzML" : "mzXML") + " (" +
                                 error.getName() + "): " + detail);
    }
}

RunAnalyzers analyzers_of(const OpenMS::ExperimentalSettings& settings) {
    using OpenMS::MassAnalyzer;
    RunAnalyzers analyzers;
    for (const MassAnalyzer& analyzer : settings.getInstrument().getMassAnalyzers()) {
        switch (analyzer.getType()) {
            case MassAnalyzer::ORBITRAP:
            case MassAnalyzer::FOURIERTRANSFORM:
            case MassAnalyzer::TOF:
                analyzers.fourier_transform = true;
                break;
            case MassAnalyzer::PAULIONTRAP:
            case MassAnalyzer::RADIALEJECTIONLINEARIONTRAP:
            case MassAnalyzer::AXIALEJECTIONLINEARIONTRAP:
            case MassAnalyzer::IT:
            case MassAnalyzer::LIT:
                analyzers.ion_trap = true;
                break;
            default:
                break;
        }
    }
    return analyzers;
}

// Pass 1: the run index and the instruments.
class IndexConsumer : public IMSDataConsumer {
  public:
    explicit IndexConsumer(RunIndex& index) : m_index(index) {}

    void consumeSpectrum(SpectrumType& spectrum) override {
        const auto& precursors = spectrum.getPrecursors();
        m_index.add(spectrum.getNativeID(), static_cast<int>(spectrum.getMSLevel()),
                    spectrum.getRT(), precursors.empty() ? 0.0 : precursors.front().getMZ());
    }
    void consumeChromatogram(ChromatogramType&) override {}
    void setExpectedSize(std::size_t, std::size_t) override {}
    void setExperimentalSettings(const OpenMS::ExperimentalSettings& settings) override {
        m_analyzers = analyzers_of(settings);
    }

    RunAnalyzers analyzers() const { return m_analyzers; }

  private:
    RunIndex& m_index;
    RunAnalyzers m_analyzers;
};

std::string meta_text(const OpenMS::MetaInfoInterface& holder, const char* key) {
    return holder.metaValueExists(key) ? std::string(holder.getMetaValue(key).toString())
                                       : std::string();
}

// The ion injection time (MS:1000927) of the scan, in ms, when the file has it.
std::optional<double> injection_time_of(const MSSpectrum& spectrum) {
    for (const auto& acquisition : spectrum.getAcquisitionInfo()) {
        if (acquisition.metaValueExists("MS:1000927")) {
            return static_cast<double>(acquisition.getMetaValue("MS:1000927"));
        }
    }
    return std::nullopt;
}

bool has_signal(const MSSpectrum& spectrum) {
    return std::any_of(spectrum.begin(), spectrum.end(),
                       [](const OpenMS::Peak1D& peak) { return peak.getIntensity() > 0; });
}

// Pass 2: every MS1 and MS2 spectrum to its file.
class ConvertConsumer : public IMSDataConsumer {
  public:
    ConvertConsumer(const Options& options, const RunIndex& index, RunAnalyzers analyzers,
                    OutputPair& output, const std::function<void(const std::string&)>& progress)
        : m_options(options),
          m_index(index),
          m_analyzers(analyzers),
          m_output(output),
          m_progress(progress) {}

    void consumeSpectrum(SpectrumType& spectrum) override;
    void consumeChromatogram(ChromatogramType&) override {}
    void setExpectedSize(std::size_t, std::size_t) override {}
    void setExperimentalSettings(const OpenMS::ExperimentalSettings&) override {}

    // Writes what is still buffered; checks that both passes saw the same run.
    ExtractSummary finish();

  private:
    void fill_record(MSSpectrum& spectrum, std::size_t index);
    void fill_precursor_fields(const MSSpectrum& spectrum, std::size_t index,
                               const std::string& filter);
    void fill_peaks(MSSpectrum& spectrum, int ms_level);

    const Options& m_options;
    const RunIndex& m_index;
    RunAnalyzers m_analyzers;
    OutputPair& m_output;
    const std::function<void(const std::string&)>& m_progress;
    OpenMS::PeakPickerHiRes m_picker;
    MSSpectrum m_picked;
    ScanRecord m_record;
    std::vector<std::string> m_method_names;
    std::string m_ms1_text;
    std::string m_ms2_text;
    std::size_t m_next = 0;
    ExtractSummary m_summary;
};

void ConvertConsumer::consumeSpectrum(SpectrumType& spectrum) {
    const std::size_t index = m_next++;
    const int level = static_cast<int>(spectrum.getMSLevel());
    if (index >= m_index.size() || m_index.ms_level(index) != level) {
        throw std::runtime_error("the file changed while it was being read");
    }
    if ((index + 1) % kProgressEvery == 0) {
        m_progress("Converted " + std::to_string(index + 1) + " of " +
                   std::to_string(m_index.size()) + " spectra");
    }
    if (level != 1 && level != 2) {
        ++m_summary.skipped_levels;
        return;
    }
    fill_record(spectrum, index);
    if (m_record.peaks.empty()) {
        // A scan without peaks cannot stand in the pair: the reader would pass
        // its precursors on to the next scan.
        ++m_summary.skipped_empty;
        return;
    }
    if (level == 1) {
        append_ms1_scan(m_ms1_text, m_record, m_options);
        ++m_summary.ms1_written;
    } else {
        append_ms2_scan(m_ms2_text, m_record, m_options);
        ++m_summary.ms2_written;
    }
    if (m_ms1_text.size() >= kFlushBytes) {
        m_output.write_ms1(m_ms1_text);
    }
    if (m_ms2_text.size() >= kFlushBytes) {
        m_output.write_ms2(m_ms2_text);
    }
}

void ConvertConsumer::fill_record(MSSpectrum& spectrum, std::size_t index) {
    const int level = static_cast<int>(spectrum.getMSLevel());
    const std::string filter = meta_text(spectrum, "filter string");
    m_record.number = m_index.number(index);
    m_record.retention_minutes = spectrum.getRT() / 60.0;
    m_record.injection_ms = injection_time_of(spectrum);
    m_record.activation_type.clear();
    m_record.activation_center = 0.0;
    m_record.precursor_scan = 0;
    m_record.precursors.clear();
    if (level == 2) {
        fill_precursor_fields(spectrum, index, filter);
    }
    m_record.instrument_type =
        instrument_type_of(filter, m_analyzers, level, m_record.activation_type);
    fill_peaks(spectrum, level);
}

void ConvertConsumer::fill_precursor_fields(const MSSpectrum& spectrum, std::size_t index,
                                            const std::string& filter) {
    const auto& precursors = spectrum.getPrecursors();
    if (precursors.empty()) {
        return;
    }
    const OpenMS::Precursor& first = precursors.front();
    m_method_names.clear();
    for (auto method : first.getActivationMethods()) {
        m_method_names.push_back(OpenMS::Precursor::NamesOfActivationMethodShort[method]);
    }
    m_record.activation_type = activation_type_of(m_method_names, filter);
    double target = m_index.isolation_target(index);
    m_record.activation_center = target > 0.0 ? target : first.getMZ();
    m_record.precursor_scan = m_index.parent_of(index, meta_text(first, "spectrum_ref"));
    for (const OpenMS::Precursor& precursor : precursors) {
        append_declared_precursors(m_record.precursors, precursor.getMZ(), precursor.getCharge(),
                                   precursor.getPossibleChargeStates());
    }
}

void ConvertConsumer::fill_peaks(MSSpectrum& spectrum, int ms_level) {
    const MSSpectrum* source = &spectrum;
    m_record.centroiding = "as stored";
    if (spectrum.getType(true) == OpenMS::SpectrumSettings::PROFILE) {
        if (!spectrum.isSorted()) {
            spectrum.sortByPosition();
        }
        m_picker.pick(spectrum, m_picked);
        if (ms_level == 1 && has_signal(spectrum) && !has_signal(m_picked)) {
            throw std::runtime_error("profile MS1 scan " + std::to_string(m_record.number) +
                                     " gives no centroid with " + kPickerName);
        }
        source = &m_picked;
        m_record.centroiding = kPickerName;
        ++m_summary.centroided_here;
    }
    m_record.peaks.clear();
    for (const OpenMS::Peak1D& peak : *source) {
        double mz = peak.getMZ();
        double intensity = peak.getIntensity();
        if (intensity > 0.0 && std::isfinite(mz) && std::isfinite(intensity)) {
            m_record.peaks.push_back({mz, intensity});
        }
    }
    auto by_mz = [](const PeakPoint& a, const PeakPoint& b) {
        return a.mz < b.mz || (a.mz == b.mz && a.intensity < b.intensity);
    };
    if (!std::is_sorted(m_record.peaks.begin(), m_record.peaks.end(), by_mz)) {
        std::sort(m_record.peaks.begin(), m_record.peaks.end(), by_mz);
    }
}

ExtractSummary ConvertConsumer::finish() {
    if (m_next != m_index.size()) {
        throw std::runtime_error("the file changed while it was being read");
    }
    m_output.write_ms1(m_ms1_text);
    m_output.write_ms2(m_ms2_text);
    m_summary.native_numbers = m_index.uses_native_numbers();
    return m_summary;
}

std::string header_text(const Options& options, const RunIndex& index) {
    std::string text;
    append_header_line(text, "Extractor", "spexor_xml.exe");
    append_header_line(text, "ExtractorVersion", KSIEVE_VERSION_TEXT);
    append_header_line(text, "Library", "OpenMS " + OpenMS::VersionInfo::getVersion());
    // The file name alone: the reader takes lines in pieces of 1023 characters,
    // and the piece of a long path could start with a digit, like a peak line.
    const std::string& path = options.input_path;
    append_header_line(text, "SourceFile", path.substr(path.find_last_of('/') + 1));
    append_header_line(
        text, "ScanNumbers",
        index.uses_native_numbers() ? "native IDs (scan=N)" : "spectrum position in the file + 1");
    append_header_line(text, "Centroiding",
                       std::string("centroided spectra as stored; profile spectra centroided "
                                   "with ") +
                           kPickerName + " (see each scan's Centroiding line)");
    return text;
}

std::string summary_text(const ExtractSummary& summary) {
    return "MS1 scans written: " + std::to_string(summary.ms1_written) +
           "\nMS2 scans written: " + std::to_string(summary.ms2_written) +
           "\nSpectra centroided with " + kPickerName + ": " +
           std::to_string(summary.centroided_here) +
           "\nSpectra of MS level 3 and above skipped: " + std::to_string(summary.skipped_levels) +
           "\nSpectra without peaks skipped: " + std::to_string(summary.skipped_empty) + "\n";
}

}  // namespace

ExtractSummary extract_run(const Options& options,
                           const std::function<void(const std::string&)>& progress) {
    const std::string& path = options.input_path;
    InputFormat format = format_of(path);
    // Opening the pair removes the marker of any earlier run first, so that no
    // failure below leaves a marker beside outputs that are not this run's.
    OutputPair output(options.output_dir, stem_of(path));
    require_readable(path);
    progress("Indexing " + path);
    RunIndex index;
    IndexConsumer indexer(index);
    stream_run(path, format, indexer, false);
    index.finish();
    const std::size_t ms1 = index.count_of_level(1);
    const std::size_t ms2 = index.count_of_level(2);
    progress("Found " + std::to_string(index.size()) + " spectra: " + std::to_string(ms1) +
             " MS1, " + std::to_string(ms2) + " MS2, " + std::to_string(index.size() - ms1 - ms2) +
             " of other levels");
    if (ms1 == 0) {
        throw std::runtime_error(
            "the file holds no MS1 scan, and kSieve finds precursors in the survey scans");
    }
    std::string header = header_text(options, index);
    std::string header_copy = header;
    output.write_ms1(header);
    output.write_ms2(header_copy);
    ConvertConsumer converter(options, index, indexer.analyzers(), output, progress);
    stream_run(path, format, converter, true);
    ExtractSummary summary = converter.finish();
    std::string marker = summary_text(summary);
    output.commit(marker);
    progress("Wrote " + output.ms1_path() + " and " + output.ms2_path());
    for (std::size_t begin = 0, end; begin < marker.size(); begin = end + 1) {
        end = marker.find('\n', begin);
        progress(marker.substr(begin, end - begin));
    }
    return summary;
}

}  // namespace ksieve::spexor

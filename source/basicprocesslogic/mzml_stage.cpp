// The mzML output of the per-file pipeline: records turned into mzML spectra,
// the MS1 scans merged in from their own stream by scan number.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "basicprocesslogic.h"
#include "ksieve_config.h"
#include "ms1_window.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr double kSecondsPerMinute = 60.0;

// The keys in force, as the echo writes them; those that cannot change a byte
// of output (the thread count) are left out, so that the file does not either.
std::vector<std::pair<std::string, std::string>> keys_in_force(const UserParameters& params) {
    std::vector<std::pair<std::string, std::string>> keys;
    for (const OptionRow& row : option_rows()) {
        if (row.m_logged && !std::holds_alternative<std::monostate>(row.m_field)) {
            keys.emplace_back(row.m_key, field_text(params, row.m_field));
        }
    }
    return keys;
}

// A spectrum's id as the file names it: ids of one form throughout the file.
const std::string& own_id(const MzmlOptions& options, const std::string& native_id) {
    static const std::string kScanNumberForm;
    return options.m_native_ids ? native_id : kScanNumberForm;
}

MzmlEvidence mzml_evidence(const PrecursorEvidence& evidence) {
    MzmlEvidence out;
    if (evidence.m_declared_mz > 0.0) {
        out.m_declared_mz = evidence.m_declared_mz;
    }
    out.m_origin = precursor_origin_name(evidence.m_origin);
    if (evidence.m_scored) {
        out.m_score = evidence.m_score;
    }
    out.m_purity = evidence.m_purity;
    return out;
}

void read_next_ms1(MzmlStage& stage) {
    std::vector<Peak> peaks = std::move(stage.m_next_ms1.m_peaks);
    peaks.clear();
    stage.m_next_ms1 = MS1Spectrum{};
    stage.m_next_ms1.m_peaks = std::move(peaks);
    stage.m_has_next_ms1 = ReadMs1Scan(stage.m_ms1, stage.m_next_ms1);
}

void write_ms1_before(MzmlStage& stage, int64_t scan_limit) {
    while (stage.m_has_next_ms1 && stage.m_next_ms1.m_scan < scan_limit) {
        const MS1Spectrum& scan = stage.m_next_ms1;
        const MzmlOptions& options = stage.m_file.m_options;
        MzmlSpectrum spectrum;
        spectrum.m_native_id = own_id(options, scan.m_native_id);
        spectrum.m_scan = scan.m_scan;
        spectrum.m_retention_seconds = scan.m_retention_time * kSecondsPerMinute;
        spectrum.m_ion_injection_ms = scan.m_ion_injection_time;
        spectrum.m_peaks = scan.m_peaks;
        spectrum.m_faims_cv = scan.m_compensation_voltage;
        format_mzml_spectrum(stage.m_text, spectrum, options, stage.m_file.m_scratch);
        write_mzml_spectrum(stage.m_file, mzml_spectrum_id(spectrum.m_native_id, scan.m_scan),
                            stage.m_text);
        read_next_ms1(stage);
    }
}

}  // namespace

MzmlOptions mzml_options(const UserParameters& params) {
    return MzmlOptions{params.m_mzml_compression, params.m_mzml_monoisotopic_term};
}

void open_mzml_stage(MzmlStage& stage, const UserParameters& params, const FileContext& file) {
    MzmlRunInfo info;
    info.m_run_id = file.m_stem;
    info.m_software_version = KSIEVE_VERSION;
    for (const std::string& path : {file.m_path, sibling_path(file, ".ms2")}) {
        info.m_sources.push_back({path, file_sha1(path)});
    }
    info.m_keys = keys_in_force(params);
    info.m_options = mzml_options(params);
    // A second reader on the `.ms1` file, quiet: the pipeline's own reader
    // logs the file's opening and closing.
    SpectrumFile& head = stage.m_ms1.m_head;
    head.m_path = file.m_path;
    head.m_mode = "r";
    head.m_stream = open_file(head.m_path, head.m_mode, "");
    head.m_read_buffer = std::make_unique_for_overwrite<char[]>(kReadBufferSize);
    std::setvbuf(head.m_stream, head.m_read_buffer.get(), _IOFBF, kReadBufferSize);
    read_next_ms1(stage);
    // The first survey scan tells whether the companion carried the
    // instrument's ids through; the file then uses them throughout.
    const std::string& first_id = stage.m_has_next_ms1 ? stage.m_next_ms1.m_native_id : "";
    info.m_options.m_native_ids = !first_id.empty();
    info.m_native_id_format = native_id_format(first_id);
    open_mzml_file(stage.m_file, output_path(file, kMzmlSuffix), info);
}

std::string parent_native_id(const Ms1Window& window, int32_t parent) {
    // The parent is nearly always among the newest records.
    for (auto it = window.store().rbegin(); it != window.store().rend(); ++it) {
        if (it->m_scan == parent) {
            return it->m_native_id;
        }
    }
    return {};
}

MzmlSpectrum mzml_ms2_spectrum(const MS2Spectrum& scan, const UserParameters& params,
                               const std::string& parent_id, const MzmlOptions& options) {
    MzmlSpectrum spectrum;
    spectrum.m_native_id = own_id(options, scan.m_native_id);
    spectrum.m_scan = scan.m_scan;
    spectrum.m_faims_cv = scan.m_compensation_voltage;
    spectrum.m_retention_seconds = scan.m_retention_time * kSecondsPerMinute;
    spectrum.m_ion_injection_ms = scan.m_ion_injection_time;
    spectrum.m_ms_level = 2;
    spectrum.m_peaks = scan.m_peaks;
    spectrum.m_parent_native_id = own_id(options, parent_id);
    // With native ids a parent the window no longer holds cannot be named.
    spectrum.m_parent_scan = options.m_native_ids && parent_id.empty() ? 0 : scan.m_precursor_scan;
    spectrum.m_activation = scan.m_activation_type;
    spectrum.m_isolation_target = scan.m_activation_center;
    spectrum.m_isolation_lower = params.m_isolation_width / 2.0;
    spectrum.m_isolation_upper = params.m_isolation_width / 2.0;
    for (const Precursor& precursor : scan.m_precursors) {
        const PrecursorEvidence& evidence = precursor.m_evidence;
        std::optional<double> intensity;
        if (evidence.m_intensity > 0.0) {
            intensity = evidence.m_intensity;
        }
        spectrum.m_precursors.push_back(
            {precursor.m_mz, precursor.m_charge, intensity, mzml_evidence(evidence)});
    }
    return spectrum;
}

void write_mzml_ms2(MzmlStage& stage, const MS2Spectrum& scan, const std::string& text) {
    write_ms1_before(stage, scan.m_scan);
    write_mzml_spectrum(
        stage.m_file,
        mzml_spectrum_id(own_id(stage.m_file.m_options, scan.m_native_id), scan.m_scan), text);
}

void close_mzml_stage(MzmlStage& stage) {
    write_ms1_before(stage, INT64_MAX);
    finish_mzml_file(stage.m_file);
}

}  // namespace ksieve

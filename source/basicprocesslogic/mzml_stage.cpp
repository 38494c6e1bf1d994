// The mzML output of the per-file pipeline: records turned into mzML spectra,
// and MS1 scans held back until the MS2 scans before them are written, so that
// the file follows the input's scan order although MS1 is read ahead.
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "basicprocesslogic.h"
#include "ksieve_config.h"
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

void write_pending(MzmlStage& stage, int64_t before_scan) {
    while (!stage.m_pending.empty() && stage.m_pending.front().m_scan < before_scan) {
        PendingSpectrum& front = stage.m_pending.front();
        write_mzml_spectrum(stage.m_file, front.m_id, front.m_text);
        stage.m_spare.push_back(std::move(front.m_text));
        stage.m_pending.pop_front();
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
    open_mzml_file(stage.m_file, output_path(file, kMzmlSuffix), info);
}

MzmlSpectrum mzml_ms2_spectrum(const MS2Spectrum& scan, const UserParameters& params) {
    MzmlSpectrum spectrum;
    spectrum.m_scan = scan.m_scan;
    spectrum.m_retention_seconds = scan.m_retention_time * kSecondsPerMinute;
    spectrum.m_ion_injection_ms = scan.m_ion_injection_time;
    spectrum.m_ms_level = 2;
    spectrum.m_peaks = scan.m_peaks;
    spectrum.m_parent_scan = scan.m_precursor_scan;
    spectrum.m_activation = scan.m_activation_type;
    spectrum.m_isolation_target = scan.m_activation_center;
    spectrum.m_isolation_lower = params.m_isolation_width / 2.0;
    spectrum.m_isolation_upper = params.m_isolation_width / 2.0;
    for (const Precursor& precursor : scan.m_precursors) {
        spectrum.m_precursors.push_back({precursor.m_mz, precursor.m_charge, {}, {}});
    }
    return spectrum;
}

void add_mzml_ms1(MzmlStage& stage, const MS1Spectrum& scan) {
    MzmlSpectrum spectrum;
    spectrum.m_scan = scan.m_scan;
    spectrum.m_retention_seconds = scan.m_retention_time * kSecondsPerMinute;
    spectrum.m_ion_injection_ms = scan.m_ion_injection_time;
    spectrum.m_peaks = scan.m_peaks;
    PendingSpectrum pending{scan.m_scan, mzml_spectrum_id("", scan.m_scan), {}};
    if (!stage.m_spare.empty()) {
        pending.m_text = std::move(stage.m_spare.back());
        stage.m_spare.pop_back();
    }
    format_mzml_spectrum(pending.m_text, spectrum, stage.m_file.m_options, stage.m_file.m_scratch);
    stage.m_pending.push_back(std::move(pending));
}

void write_mzml_ms2(MzmlStage& stage, const MS2Spectrum& scan, const std::string& text) {
    write_pending(stage, scan.m_scan);
    write_mzml_spectrum(stage.m_file, mzml_spectrum_id("", scan.m_scan), text);
}

void close_mzml_stage(MzmlStage& stage) {
    write_pending(stage, INT64_MAX);
    finish_mzml_file(stage.m_file);
}

}  // namespace ksieve

// The mzML output of the per-file pipeline: records turned into mzML spectra,
// the MS1 scans merged in from their own stream by scan number.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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

// Encoded MS1 scans wait for the MS2 scans to pass them up to this many bytes,
// or the memory ceiling when that is lower.
constexpr std::size_t kWaitingCeiling = std::size_t{32} << 20;

// What a waiting scan holds: its peaks, and text of about as many bytes once
// it is encoded (a peak's twelve bytes come out as some sixteen characters).
std::size_t held_bytes(const MzmlMs1Text& text) {
    return 2 * text.m_peaks.size() * sizeof(Peak);
}

// Copies what the text needs of the scan into a waiting entry, reusing the
// buffers of one written before.
void keep_waiting(MzmlStage& stage, const MS1Spectrum& scan) {
    MzmlMs1Text text;
    if (!stage.m_spare.empty()) {
        text = std::move(stage.m_spare.back());
        stage.m_spare.pop_back();
    }
    const MzmlOptions& options = stage.m_file.m_options;
    text.m_scan = scan.m_scan;
    text.m_peaks.assign(scan.m_peaks.begin(), scan.m_peaks.end());
    MzmlSpectrum& spectrum = text.m_spectrum;
    spectrum.m_native_id = own_id(options, scan.m_native_id);
    spectrum.m_scan = scan.m_scan;
    spectrum.m_retention_seconds = scan.m_retention_time * kSecondsPerMinute;
    spectrum.m_ion_injection_ms = scan.m_ion_injection_time;
    spectrum.m_peaks = text.m_peaks;
    spectrum.m_faims_cv = scan.m_compensation_voltage;
    text.m_id = mzml_spectrum_id(spectrum.m_native_id, scan.m_scan);
    text.m_done = false;
    text.m_error = nullptr;
    stage.m_waiting_bytes += held_bytes(text);
    ++stage.m_taken;
    if (!stage.m_helper) {
        format_mzml_spectrum(text.m_text, spectrum, options, stage.m_scratch);
        text.m_done = true;
        stage.m_waiting.push_back(std::move(text));
        return;
    }
    const std::lock_guard lock(stage.m_helper->m_mutex);
    stage.m_waiting.push_back(std::move(text));
    stage.m_helper->m_changed.notify_all();
}

// The helper thread: encodes the waiting scans in order until told to stop.
void encode_waiting(MzmlStage& stage) {
    MzmlHelper& helper = *stage.m_helper;
    const MzmlOptions options = stage.m_file.m_options;
    std::unique_lock lock(helper.m_mutex);
    while (true) {
        helper.m_changed.wait(
            lock, [&] { return helper.m_stop || helper.m_next < stage.m_waiting.size(); });
        if (helper.m_stop) {
            return;
        }
        MzmlMs1Text& text = stage.m_waiting[helper.m_next];
        lock.unlock();
        try {
            format_mzml_spectrum(text.m_text, text.m_spectrum, options, helper.m_scratch);
        } catch (...) {
            text.m_error = std::current_exception();
        }
        lock.lock();
        text.m_done = true;
        ++helper.m_next;
        helper.m_changed.notify_all();
    }
}

// Keeps the buffers of a written scan for the next; a few are enough, as
// scans wait in a queue that the helper empties as fast as it fills.
constexpr std::size_t kSpareScans = 8;

void write_first_waiting(MzmlStage& stage) {
    MzmlMs1Text& first = stage.m_waiting.front();
    if (stage.m_helper) {
        std::unique_lock lock(stage.m_helper->m_mutex);
        stage.m_helper->m_changed.wait(lock, [&first] { return first.m_done; });
    }
    if (first.m_error) {
        std::rethrow_exception(first.m_error);
    }
    write_mzml_spectrum(stage.m_file, first.m_id, first.m_text);
    stage.m_waiting_bytes -= held_bytes(first);
    if (stage.m_spare.size() < kSpareScans) {
        stage.m_spare.push_back(std::move(first));
    }
    if (!stage.m_helper) {
        stage.m_waiting.pop_front();
        return;
    }
    const std::lock_guard lock(stage.m_helper->m_mutex);
    stage.m_waiting.pop_front();
    --stage.m_helper->m_next;
}

// The own stream's next scan, encoded and waiting; false at the end of the file.
bool read_own(MzmlStage& stage) {
    reset_keeping_buffer(stage.m_scan);
    if (stage.m_own_at_end || !ReadMs1Scan(stage.m_own, stage.m_scan)) {
        stage.m_own_at_end = true;
        return false;
    }
    ++stage.m_own_next;
    return true;
}

void seek_own(MzmlStage& stage, int64_t offset, int64_t scan_index) {
    const std::string& path = stage.m_own.m_head.m_path;
    if (fseeko(stage.m_own.m_head.m_stream, static_cast<off_t>(offset), SEEK_SET) != 0) {
        throw "Cannot relocate to " + std::to_string(offset) + " in " + path;
    }
    stage.m_own.m_line[0] = '\0';
    stage.m_own_next = scan_index;
    stage.m_own_at_end = false;
}

// Puts the own stream before the scan the stage takes next: where the pipeline
// stands when it has not read that far, else where the first scan it offered in
// vain begins; from the start of the file when neither place is known.
void place_own(MzmlStage& stage) {
    if (stage.m_own_next == stage.m_taken) {
        return;
    }
    const int64_t offset =
        stage.m_taken == stage.m_delivered ? stage.m_next_offset : stage.m_gap_offset;
    if (offset >= 0) {
        seek_own(stage, offset, stage.m_taken);
        return;
    }
    seek_own(stage, 0, 0);
    while (stage.m_own_next < stage.m_taken && read_own(stage)) {
    }
}

// The next MS1 scan in file order is waiting, encoded; false when none is left.
bool next_waiting(MzmlStage& stage) {
    if (!stage.m_waiting.empty()) {
        return true;
    }
    place_own(stage);
    if (!read_own(stage)) {
        return false;
    }
    keep_waiting(stage, stage.m_scan);
    return true;
}

void write_ms1_before(MzmlStage& stage, int64_t scan_limit) {
    while (next_waiting(stage) && stage.m_waiting.front().m_scan < scan_limit) {
        write_first_waiting(stage);
    }
}

}  // namespace

MzmlHelper::~MzmlHelper() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

MzmlOptions mzml_options(const UserParameters& params) {
    return MzmlOptions{params.m_mzml_compression, params.m_mzml_monoisotopic_term};
}

void open_mzml_stage(MzmlStage& stage, const UserParameters& params, const FileContext& file) {
    MzmlRunInfo info;
    info.m_run_id = file.m_stem;
    info.m_software_version = KSIEVE_VERSION;
    const std::string ms2_path = sibling_path(file, ".ms2");
    // Every survey scan is written, and nearly always every MS2 scan: the
    // writer foretells the count from the pair as it digests it.
    info.m_sources = {{file.m_path, ""}, {ms2_path, ""}};
    info.m_digest_sources = true;
    info.m_keys = keys_in_force(params);
    info.m_options = mzml_options(params);
    // The stage's own stream on the `.ms1` file, quiet: the pipeline's reader
    // logs the file's opening and closing.
    SpectrumFile& head = stage.m_own.m_head;
    head.m_path = file.m_path;
    head.m_mode = "r";
    head.m_stream = open_file(head.m_path, head.m_mode, "");
    head.m_read_buffer = std::make_unique_for_overwrite<char[]>(kReadBufferSize);
    std::setvbuf(head.m_stream, head.m_read_buffer.get(), _IOFBF, kReadBufferSize);
    stage.m_own_next = 0;
    stage.m_waiting_ceiling = std::min(ms1_ceiling_bytes(params), kWaitingCeiling);
    const bool any = read_own(stage);
    // The first survey scan tells whether the companion carried the
    // instrument's ids through; the file then uses them throughout.
    const std::string& first_id = any ? stage.m_scan.m_native_id : "";
    info.m_options.m_native_ids = !first_id.empty();
    info.m_native_id_format = native_id_format(first_id);
    open_mzml_file(stage.m_file, output_path(file, kMzmlSuffix), info);
    if (detection_threads(params) > 1) {
        stage.m_helper = std::make_unique<MzmlHelper>();
        stage.m_helper->m_thread = std::thread(encode_waiting, std::ref(stage));
    }
    if (any) {
        keep_waiting(stage, stage.m_scan);
    }
}

void offer_mzml_ms1(MzmlStage& stage, const MS1Spectrum& scan, const LineFile& reader) {
    const int64_t index = stage.m_delivered++;
    // The pipeline's reader holds the line that opens its next scan.
    const off_t after = ftello(reader.m_head.m_stream);
    stage.m_next_offset =
        after < 0 ? -1
                  : static_cast<int64_t>(after) - static_cast<int64_t>(std::strlen(reader.m_line));
    if (index != stage.m_taken) {
        return;  // taken by the own stream already, or behind a scan offered in vain
    }
    if (stage.m_waiting_bytes > stage.m_waiting_ceiling && !stage.m_ms2_done) {
        stage.m_gap_offset = scan.m_source_offset;
        return;
    }
    keep_waiting(stage, scan);
    if (stage.m_ms2_done) {
        write_first_waiting(stage);
    }
}

void end_mzml_ms2(MzmlStage& stage) {
    stage.m_ms2_done = true;
    while (!stage.m_waiting.empty()) {
        write_first_waiting(stage);
    }
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

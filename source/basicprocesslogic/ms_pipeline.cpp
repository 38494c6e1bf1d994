// The per-file pipeline: one `.ms1`/`.ms2` pair read in step, the precursors of
// every MS2 scan determined from the MS1 window around it, and the results
// written as KS, MGF and the precursor table.
//
// Memory stays bounded whatever the length of the run: the MS1 side is a window
// of kMs1StoreSize FT scans (one per FAIMS voltage) under a ceiling on its peak
// lists, the MS2 side a fixed number of scans in flight per thread.
//
// Threads: this thread reads, cuts each scan's slices out of the window, writes
// and logs; the scans go round the ordered ring, where workers detect and
// format them. Workers touch nothing else but the read-only parameters, the
// isotope table and their own scratch.
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "basicprocesslogic.h"
#include "detection.h"
#include "logger.h"
#include "ms1_window.h"
#include "ordered_ring.h"
#include "scangate.h"
#include "spectrumfiles.h"
#include "utils.h"
#include "validation.h"

namespace ksieve {

namespace {

// Read-ahead stops once this many FT scans stand behind the parent scan, and
// never runs on a window of kMinWindow records or fewer; detection needs at
// least kMinWindow records to cut its ten slices from.
constexpr std::size_t kScansBehindParent = 5;
constexpr std::size_t kMinWindow = 10;
constexpr int32_t kProgressStep = 1000;
// Scans in flight per thread: enough that a slow scan holds no thread up, few
// enough that memory grows with the threads and not with the run.
constexpr std::size_t kScansPerThread = 16;

// Everything one pipeline call owns. The members are opened in the order of
// declaration; close_pipeline releases them in its own fixed order.
struct MsPipeline {
    LineFile ms1;
    LineFile ms2;
    CsvFile table;
    std::optional<KsFile> ks1;
    std::optional<KsFileSet> ks2;
    std::optional<MgfFileSet> mgf;
    SurveyWindows windows;
    std::optional<CsvFile> evidence;
    std::optional<MzmlStage> mzml;
    std::set<std::string> keys;            // activation-and-instrument keys that had output
    std::map<std::string, int64_t> gated;  // scans the gate skipped, by activation word
    ValidationCounts validation;
    EvidenceCounts evidence_counts;
};

// One MS2 scan on its way from the reader to the writer.
struct ScanWork {
    MS2Spectrum scan;
    bool passes = false;  // through the gate
    bool detect = false;  // detection runs on `raw`
    Ms1Slices raw;
    std::optional<SliceTimes> times;  // of the parent and the next MS1 scan
    HeldLines told;                   // what reading and detecting the scan had to say, in order
    std::string ks2;
    std::string mgf;
    std::string csv;
    std::string evidence;
    std::string mzml;
    std::string parent_id;        // the parent's native id, for the mzML
    ValidationCounts validation;  // what the second look removed and corrected
};

// What the workers read and never change.
struct ScanFormat {
    const PrecursorDetector* detect = nullptr;
    const UserParameters* params = nullptr;
    const IsotopeTable* ipv = nullptr;
    bool validate = false;
    bool ks = false;
    bool mgf = false;
    bool keep_declared = false;
    bool fill_evidence = false;  // intensity and purity, for the table or PEPMASS
    bool evidence_table = false;
    bool mzml = false;
    MgfLayout layout;
    MzmlOptions mzml_options;
};

// A worker's own reusable buffers.
struct WorkerScratch {
    DetectionScratch detection;
    std::string peak_text;
    MzmlScratch mzml;
};

// Advances the MS1 stream by one scan. Every scan goes to the KS1 file; an FT
// scan also enters the window of its voltage, pushing out the oldest record,
// whose buffers come back in `scan` for reuse (the caller resets it before the
// next pull). False at the end of the stream.
bool pull_ms1_scan(MS1Spectrum& scan, SurveyWindows& windows, LineFile& reader, KsFile* ks1,
                   MzmlStage* mzml, HeldLines* told) {
    if (!ReadMs1Scan(reader, scan)) {
        return false;
    }
    if (mzml != nullptr) {
        offer_mzml_ms1(*mzml, scan, reader);
    }
    if (ks1 != nullptr) {
        write_ks1_record(*ks1, scan);
    }
    if (scan.m_instrument_type == "FT") {
        push_survey_scan(windows, scan);
    }
    const int32_t count = reader.m_head.m_scan_count;
    if (count % kProgressStep == 0) {
        log_or_hold(told, "INFO", "Extracting MS1, Scan Num = " + std::to_string(count));
    }
    return true;
}

// Pulls MS1 scans until five FT scans of the parent's window stand behind the
// parent of `ms2`, and returns that window. At the end of the MS1 file the
// window loses its front record instead. A scan with no parent (0) pulls
// nothing.
Ms1Window& read_ahead(MsPipeline& p, MS1Spectrum& ms1, const MS2Spectrum& ms2, HeldLines& told) {
    KsFile* ks1 = p.ks1 ? &*p.ks1 : nullptr;
    MzmlStage* mzml = p.mzml ? &*p.mzml : nullptr;
    reset_keeping_buffer(ms1);
    while (true) {
        // The parent, once read, may stand in another voltage's window.
        Ms1Window& window = parent_window(p.windows, ms2);
        const Ms1Store& store = window.store();
        if (store.size() <= kMinWindow ||
            store[store.size() - 1 - kScansBehindParent].m_scan >= ms2.m_precursor_scan) {
            return window;
        }
        if (!pull_ms1_scan(ms1, p.windows, p.ms1, ks1, mzml, &told)) {
            window.pop();
            return window;
        }
        reset_keeping_buffer(ms1);
    }
}

double tolerance_ppm(const UserParameters& params, const MS2Spectrum& scan) {
    return params.m_mstolppm ? params.m_mstol : params.m_mstol / scan.m_activation_center * 1e6;
}

// The second look at what detection found, on the same ten MS1 slices.
void validate_precursors(const ScanFormat& format, ScanWork& work) {
    MS2Spectrum& scan = work.scan;
    const ValidationInput input{&scan.m_precursors, &work.raw, format.ipv,
                                tolerance_ppm(*format.params, scan)};
    ValidationResult result = ValidatePrecursors(input, kFittedValidationModel);
    scan.m_precursors = std::move(result.m_precursors);
    work.validation = result.m_counts;
}

// Detection runs only for a scan with a positive declared charge and a window
// large enough to slice. Its slices are cut here, while the window still holds
// the parent; a parent not in the window leaves the declared precursors.
void prepare_detection(const UserParameters& params, Ms1Window& window, ScanWork& work) {
    MS2Spectrum& scan = work.scan;
    if (scan.m_precursors.empty() || scan.m_precursors.front().m_charge < 1 ||
        window.store().size() < kMinWindow) {
        return;
    }
    const auto held = window.hold(scan);
    if (window.first_window_over_ceiling(held)) {
        work.told.push_back(
            {"WARN", "The memory ceiling of " + std::to_string(params.m_memory_ceiling_mib) +
                         " MiB cannot hold the MS1 window of scan " + std::to_string(scan.m_scan) +
                         ": every scan reads its MS1 slices again from " + window.path() +
                         ", which takes far longer"});
    }
    work.raw = CollectMs1Slices(params.m_search_window, window.store(), scan);
    work.times = FindSliceTimes(window.store(), scan);
    window.release(held);
    if (work.raw.size() < 5) {
        work.told.push_back({"INFO", "Cannot found the precurosr scan of MS2: " +
                                         std::to_string(scan.m_precursor_scan)});
        scan.m_precursors = scan.m_instrument_precursors;
        return;
    }
    work.detect = true;
}

// Reads the next MS2 scan into `work`, with the MS1 scans it needs. False at
// the end of the MS2 file, with what the last read had to say left in `told`.
bool read_work(MsPipeline& p, const UserParameters& params, MS1Spectrum& ms1, ScanWork& work) {
    reset_keeping_buffer(work.scan);
    work.told.clear();
    work.passes = work.detect = false;
    work.times.reset();
    p.ms2.m_head.m_held_lines = &work.told;
    const bool read = ReadMs2Scan(p.ms2, work.scan);
    p.ms2.m_head.m_held_lines = nullptr;
    if (!read) {
        return false;
    }
    Ms1Window& window = read_ahead(p, ms1, work.scan, work.told);
    if (p.mzml) {
        work.parent_id = parent_native_id(window, work.scan.m_precursor_scan);
    }
    // Scans outside the known activation and instrument types leave no trace
    // in the output; the file's count of them is told at its end.
    work.passes = gate_passes(work.scan.m_activation_type, work.scan.m_instrument_type);
    if (!work.passes) {
        ++p.gated[work.scan.m_activation_type];
        return true;
    }
    const int32_t count = p.ms2.m_head.m_scan_count;
    if (count % kProgressStep == 0) {
        work.told.push_back({"INFO", "Extracting MS2, Scan Num = " + std::to_string(count)});
    }
    prepare_detection(params, window, work);
    return true;
}

// Drops what no writer may print: an m/z below 1e-6 or a charge of 0. Walked
// from the back, so one scan's messages come last entry first.
void remove_invalid_precursors(MS2Spectrum& scan, HeldLines& told) {
    for (size_t i = scan.m_precursors.size(); i-- > 0;) {
        if (!is_valid(scan.m_precursors[i])) {
            scan.m_precursors.erase(scan.m_precursors.begin() + static_cast<std::ptrdiff_t>(i));
            told.push_back({"WARN", "Scan " + std::to_string(scan.m_scan) +
                                        " has incorrect precursor infomation, skipping..."});
        }
    }
}

// Detection and formatting of one scan: everything a worker does. When nothing
// is found the declared precursors stand.
void process_work(const ScanFormat& format, WorkerScratch& scratch, ScanWork& work) {
    MS2Spectrum& scan = work.scan;
    work.ks2.clear();
    work.mgf.clear();
    work.csv.clear();
    work.evidence.clear();
    work.mzml.clear();
    work.validation = ValidationCounts{};
    if (!work.passes) {
        return;
    }
    if (work.detect) {
        scan.m_precursors = (*format.detect)(work.raw, scan, scratch.detection);
        if (format.validate && !scan.m_precursors.empty()) {
            validate_precursors(format, work);
        }
        if (scan.m_precursors.empty()) {
            scan.m_precursors = scan.m_instrument_precursors;
        } else if (format.keep_declared) {
            AppendUnconfirmedDeclared(scan.m_precursors, scan.m_instrument_precursors,
                                      tolerance_ppm(*format.params, scan));
        }
    }
    remove_invalid_precursors(scan, work.told);
    if (scan.m_precursors.empty()) {
        return;
    }
    if (format.fill_evidence) {
        FillEvidence(scan, {work.detect ? &work.raw : nullptr, work.times,
                            tolerance_ppm(*format.params, scan), format.params->m_isolation_width});
    }
    if (format.ks) {
        format_ks2_record(work.ks2, scan);
    }
    if (format.mgf) {
        format_mgf_blocks(work.mgf, scratch.peak_text, format.layout, scan);
    }
    format_csv_row(work.csv, scan);
    if (format.evidence_table) {
        format_evidence_rows(work.evidence, format.layout.m_title, scan);
    }
    if (format.mzml) {
        format_mzml_spectrum(
            work.mzml, mzml_ms2_spectrum(scan, *format.params, work.parent_id, format.mzml_options),
            format.mzml_options, scratch.mzml);
    }
}

// Output, in file order: the scan's messages, then its KS2 record, MGF blocks
// and table row.
void write_work(MsPipeline& p, ScanWork& work) {
    log_held(work.told);
    add_counts(p.validation, work.validation);
    const MS2Spectrum& scan = work.scan;
    if (!work.passes || scan.m_precursors.empty()) {
        return;
    }
    p.keys.insert(scan.m_activation_type + scan.m_instrument_type);
    if (p.ks2) {
        write_ks_record_bytes(file_for(*p.ks2, scan), scan.m_scan, work.ks2);
    }
    if (p.mgf) {
        MgfFile& mgf = file_for(*p.mgf, scan);
        ++mgf.m_head.m_scan_count;  // scans, not blocks
        write_mgf_text(mgf, work.mgf);
    }
    write_csv_text(p.table, work.csv);
    if (p.evidence) {
        write_csv_text(*p.evidence, work.evidence);
        count_written_scan(p.evidence_counts, scan);
    }
    if (p.mzml) {
        write_mzml_ms2(*p.mzml, scan, work.mzml);
    }
}

void open_pipeline(MsPipeline& p, const UserParameters& params, const FileContext& file) {
    open_spectrum_file(p.ms1.m_head, file.m_path, "r");
    open_spectrum_file(p.ms2.m_head, sibling_path(file, ".ms2"), "r");
    open_csv_file(p.table, output_path(file, ".csv"), "w+");
    const std::string& title = file.m_stem;
    if (params.m_output_ks) {
        p.ks1.emplace();
        open_ks_file(*p.ks1, output_path(file, ".ks1"), "wb+", title);
        p.ks2.emplace(KsFileSet{4, output_path(file, "_.ks2"), "wb+", title, {}});
    }
    if (params.m_output_mgf) {
        p.mgf.emplace(MgfFileSet{4, output_path(file, "_.mgf"), "w+", title, {}});
    }
    if (params.m_precursor_table) {
        p.evidence.emplace();
        open_evidence_table(*p.evidence, output_path(file, ".precursors.tsv"), "w+");
    }
    if (params.m_output_mzml) {
        open_mzml_stage(p.mzml.emplace(), params, file);
    }
    start_survey_windows(p.windows, params, file.m_path);
}

// One "WARN" line for a file without MS2 scans, and one for the scans that the
// gate skipped (activation or instrument type not handled), by activation word.
void report_unused_scans(const SpectrumFile& ms2, const std::map<std::string, int64_t>& gated) {
    if (ms2.m_scan_count == 0) {
        log("WARN", ms2.m_path + " holds no MS2 scan");
    }
    if (gated.empty()) {
        return;
    }
    int64_t total = 0;
    std::string words;
    for (const auto& [word, count] : gated) {
        total += count;
        words += (words.empty() ? "" : ", ") + (word.empty() ? "none" : word) + " " +
                 std::to_string(count);
    }
    log("WARN", "Skipped " + std::to_string(total) + " MS2 scans of " + ms2.m_path +
                    " whose activation or instrument type kSieve does not handle: " + words);
}

// The precursor table is renamed last: a <stem>.csv on disk means that every
// other output of the file is complete, which the resume check relies on.
void close_pipeline(MsPipeline& p) {
    report_dropped_values(p.ms1.m_head.m_path, p.ms1.m_dropped);
    report_dropped_values(p.ms2.m_head.m_path, p.ms2.m_dropped);
    report_unused_scans(p.ms2.m_head, p.gated);
    finish_spectrum_file(p.ms1.m_head);
    release_spectrum_file(p.ms1.m_head);
    if (p.ks1) {
        finalize_ks_file(*p.ks1);
        finish_spectrum_file(p.ks1->m_head);
        release_spectrum_file(p.ks1->m_head);
    }
    finish_spectrum_file(p.ms2.m_head);
    release_spectrum_file(p.ms2.m_head);
    if (p.ks2) {
        close_file_set(*p.ks2);
    }
    if (p.mgf) {
        close_file_set(*p.mgf);
    }
    if (p.evidence) {
        finish_csv_file(*p.evidence);
        release_spectrum_file(p.evidence->m_head);
    }
    if (p.mzml) {
        close_mzml_stage(*p.mzml);
    }
    finish_csv_file(p.table);
    release_spectrum_file(p.table.m_head);
    p.windows.m_windows.clear();
}

// After a failed write nothing of this input may look usable: its KS files, MGF
// files and unfinished table go, so that the next run does it again.
void remove_outputs(const MsPipeline& p, const FileContext& file) {
    for (const char* suffix : {".ks1", ".ks1idx", ".csv_unfinished", ".precursors.tsv_unfinished",
                               ".summary.json_unfinished", ".summary.json"}) {
        discard_file(output_path(file, suffix));
    }
    if (p.mzml) {
        discard_file(p.mzml->m_file.m_unfinished_path);
    }
    for (const std::string& key : p.keys) {
        if (p.ks2) {
            discard_file(member_path(*p.ks2, key));
            discard_file(member_path(*p.ks2, key) + "idx");
        }
        if (p.mgf) {
            discard_file(member_path(*p.mgf, key));
        }
    }
}

// Reads up to a full ring ahead, then writes the oldest scan once it is done.
// With one thread the ring has one slot and every scan is read, detected and
// written before the next is read.
void run_scans(MsPipeline& p, const UserParameters& params, const ScanFormat& format,
               std::size_t threads) {
    std::vector<ScanWork> works(threads == 1 ? 1 : threads * kScansPerThread);
    std::vector<WorkerScratch> scratch(threads);
    MS1Spectrum ms1;
    HeldLines last_read;
    RingSteps steps;
    steps.read = [&](std::size_t slot) {
        if (read_work(p, params, ms1, works[slot])) {
            return true;
        }
        last_read = std::move(works[slot].told);
        return false;
    };
    steps.work = [&](std::size_t slot, std::size_t worker) {
        process_work(format, scratch[worker], works[slot]);
    };
    steps.write = [&](std::size_t slot) { write_work(p, works[slot]); };
    run_ordered_ring(threads, works.size(), steps);
    log_held(last_read);
    // Every MS1 scan reaches the KS1 file, however far the MS2 side needed it.
    MzmlStage* mzml = p.mzml ? &*p.mzml : nullptr;
    if (mzml != nullptr) {
        end_mzml_ms2(*mzml);
    }
    reset_keeping_buffer(ms1);
    while (pull_ms1_scan(ms1, p.windows, p.ms1, p.ks1 ? &*p.ks1 : nullptr, mzml, nullptr)) {
        reset_keeping_buffer(ms1);
    }
}

Ms1WindowCounts run_pipeline(MsPipeline& p, const UserParameters& params, const FileContext& file,
                             const PrecursorDetector& detect) {
    open_pipeline(p, params, file);
    ScanFormat format;
    format.detect = &detect;
    format.params = &params;
    format.ipv = file.m_ipv;
    format.validate = params.m_validate_precursors;
    format.ks = params.m_output_ks;
    format.mgf = params.m_output_mgf;
    format.keep_declared = params.m_keep_declared;
    format.evidence_table = params.m_precursor_table;
    format.fill_evidence =
        params.m_precursor_table || params.m_mgf_conventions || params.m_output_mzml;
    format.mzml = params.m_output_mzml;
    format.mzml_options = p.mzml ? p.mzml->m_file.m_options : mzml_options(params);
    format.layout = MgfLayout{file.m_stem, params.m_peak_format, params.m_mgf_conventions};
    run_scans(p, params, format, detection_threads(params));
    // A pair given directly is read as it stands; one the companion made from
    // an instrument file without survey scans says why nothing was detected.
    if (!file.m_instrument_file.empty() && p.ms1.m_head.m_scan_count == 0 &&
        p.ms2.m_head.m_scan_count > 0) {
        log("WARN", "No MS1 scan in " + file.m_instrument_file +
                        ": no precursor detection was possible, the declared precursors stand");
    }
    if (params.m_validate_precursors) {
        // One line per input, which the workflow and ksieve_summary read back.
        log_info(ValidationCountsLine(file.m_path, p.validation));
    }
    if (params.m_precursor_table) {
        write_run_summary_json(params, file, p.evidence_counts,
                               params.m_validate_precursors ? &p.validation : nullptr);
    }
    const Ms1WindowCounts counts = survey_window_counts(p.windows);
    close_pipeline(p);
    return counts;
}

}  // namespace

std::size_t detection_threads(const UserParameters& params) {
    if (params.m_threads > 0) {
        return static_cast<std::size_t>(params.m_threads);
    }
    return usable_cores();
}

void process_ms_files(const UserParameters& params, const FileContext& file) {
    const IsotopeTable& ipv = *file.m_ipv;
    process_ms_files(
        params, file,
        [&params, &ipv](const Ms1Slices& raw, const MS2Spectrum& ms2, DetectionScratch& scratch) {
            return DetectPrecursors(params, ipv, raw, ms2, scratch);
        });
}

Ms1WindowCounts process_ms_files(const UserParameters& params, const FileContext& file,
                                 const PrecursorDetector& detect) {
    if (has_existing_result(params, file, ".csv", "...")) {
        return {};
    }
    MsPipeline p;
    try {
        return run_pipeline(p, params, file, detect);
    } catch (const WriteFailure&) {
        remove_outputs(p, file);
        throw;
    }
}

}  // namespace ksieve

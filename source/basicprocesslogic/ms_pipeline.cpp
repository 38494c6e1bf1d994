// The per-file pipeline: one `.ms1`/`.ms2` pair read in step, the precursors of
// every MS2 scan determined from the MS1 window around it, and the results
// written as KS, MGF and the precursor table.
//
// Memory stays bounded whatever the length of the run: the MS1 side is a window
// of kMs1StoreSize FT scans under a ceiling on its peak lists, the MS2 side one
// scan at a time.
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "basicprocesslogic.h"
#include "detection.h"
#include "logger.h"
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

// Everything one pipeline call owns. The members are opened in the order of
// declaration; close_pipeline releases them in its own fixed order.
struct MsPipeline {
    LineFile ms1;
    LineFile ms2;
    CsvFile table;
    std::optional<KsFile> ks1;
    std::optional<KsFileSet> ks2;
    std::optional<MgfFileSet> mgf;
    Ms1Window window;
    bool mgf_conventions = false;
    std::set<std::string> keys;  // activation-and-instrument keys that had output
    ValidationCounts validation;
};

// Back to a default record, keeping the peak buffer's capacity for the next
// scan: the readers only append, so nothing of the old content can show.
template <typename Scan>
void reset_keeping_buffer(Scan& scan) {
    std::vector<Peak> peaks = std::move(scan.m_peaks);
    peaks.clear();
    scan = Scan{};
    scan.m_peaks = std::move(peaks);
}

// Advances the MS1 stream by one scan. Every scan goes to the KS1 file; an FT
// scan also enters the window, pushing out the oldest record, whose buffers come
// back in `scan` for reuse (the caller resets it before the next pull). At the
// end of the stream the window loses its front record and false is returned.
bool pull_ms1_scan(MS1Spectrum& scan, Ms1Window& window, LineFile& reader, KsFile* ks1) {
    if (!ReadMs1Scan(reader, scan)) {
        if (!window.m_store.empty()) {
            pop_ms1_scan(window);
        }
        return false;
    }
    if (ks1 != nullptr) {
        write_ks1_record(*ks1, scan);
    }
    if (scan.m_instrument_type == "FT") {
        push_ms1_scan(window, scan);
    }
    const int32_t count = reader.m_head.m_scan_count;
    if (count % kProgressStep == 0) {
        log_info("Extracting MS1, Scan Num = " + std::to_string(count));
    }
    return true;
}

// Pulls MS1 scans until five FT scans stand behind the parent of `ms2` (or the
// MS1 file ends). A scan with no parent (0) pulls nothing.
void read_ahead(MsPipeline& p, MS1Spectrum& ms1, const MS2Spectrum& ms2) {
    KsFile* ks1 = p.ks1 ? &*p.ks1 : nullptr;
    reset_keeping_buffer(ms1);
    const Ms1Store& store = p.window.m_store;
    while (store.size() > kMinWindow &&
           store[store.size() - 1 - kScansBehindParent].m_scan < ms2.m_precursor_scan) {
        if (!pull_ms1_scan(ms1, p.window, p.ms1, ks1)) {
            return;
        }
        reset_keeping_buffer(ms1);
    }
}

bool passes_gate(const MS2Spectrum& scan) {
    return g_activation_types.count(scan.m_activation_type) != 0 &&
           g_instrument_types.count(scan.m_instrument_type) != 0;
}

double tolerance_ppm(const UserParameters& params, const MS2Spectrum& scan) {
    return params.m_mstolppm ? params.m_mstol : params.m_mstol / scan.m_activation_center * 1e6;
}

// The second look at what detection found, on the same ten MS1 slices.
void validate_precursors(const UserParameters& params, const Ms1Store& store, MS2Spectrum& scan,
                         ValidationCounts& counts) {
    const Ms1Slices slices = CollectMs1Slices(params.m_search_window, store, scan);
    const ValidationInput input{&scan.m_precursors, &slices, &FeaturesExtractor::m_h_IPV_Matrix,
                                tolerance_ppm(params, scan)};
    ValidationResult result = ValidatePrecursors(input, kFittedValidationModel);
    scan.m_precursors = std::move(result.m_precursors);
    add_counts(counts, result.m_counts);
}

// Detection runs only for a scan with a positive declared charge and a window
// large enough to slice; when it finds nothing the declared precursors stand.
void determine_precursors(const UserParameters& params, const PrecursorDetector& detect,
                          MsPipeline& p, MS2Spectrum& scan) {
    Ms1Window& window = p.window;
    if (scan.m_precursors.empty() || scan.m_precursors.front().m_charge < 1 ||
        window.m_store.size() < kMinWindow) {
        return;
    }
    const auto held = hold_ms1_scans(window, scan);
    scan.m_precursors = detect(params, window.m_store, scan);
    if (params.m_validate_precursors && !scan.m_precursors.empty()) {
        validate_precursors(params, window.m_store, scan, p.validation);
    }
    release_ms1_scans(window, held);
    if (scan.m_precursors.empty()) {
        scan.m_precursors = scan.m_instrument_precursors;
    }
}

// Drops what no writer may print: an m/z below 1e-6 or a charge of 0. Walked
// from the back, so one scan's messages come last entry first.
void remove_invalid_precursors(MS2Spectrum& scan) {
    for (size_t i = scan.m_precursors.size(); i-- > 0;) {
        if (!is_valid(scan.m_precursors[i])) {
            scan.m_precursors.erase(scan.m_precursors.begin() + static_cast<std::ptrdiff_t>(i));
            log("WARN", "Scan " + std::to_string(scan.m_scan) +
                            " has incorrect precursor infomation, skipping...");
        }
    }
}

void write_scan(MsPipeline& p, const MS2Spectrum& scan) {
    p.keys.insert(scan.m_activation_type + scan.m_instrument_type);
    if (p.ks2) {
        write_ks2_record(file_for(*p.ks2, scan), scan);
    }
    if (p.mgf) {
        MgfFile& mgf = file_for(*p.mgf, scan);
        ++mgf.m_head.m_scan_count;  // scans, not blocks
        mgf.m_conventions = p.mgf_conventions;
        write_mgf_blocks(mgf, scan);
    }
    write_csv_row(p.table, scan);
}

void handle_ms2_scan(MsPipeline& p, const UserParameters& params, const PrecursorDetector& detect,
                     MS2Spectrum& scan) {
    // Scans outside the known activation and instrument types leave no trace.
    if (!passes_gate(scan)) {
        return;
    }
    const int32_t count = p.ms2.m_head.m_scan_count;
    if (count % kProgressStep == 0) {
        log_info("Extracting MS2, Scan Num = " + std::to_string(count));
    }
    determine_precursors(params, detect, p, scan);
    remove_invalid_precursors(scan);
    if (!scan.m_precursors.empty()) {
        write_scan(p, scan);
    }
}

// One line per input, which the run summary reads back.
void log_validation_counts(const std::string& path, const ValidationCounts& c) {
    const auto n = [](int64_t value) { return std::to_string(value); };
    log_info("Precursor validation in " + path + ": " + n(c.m_in) + " detected, " + n(c.m_out) +
             " kept; removed charge alias " + n(c.m_charge_alias) + ", isotope alias " +
             n(c.m_isotope_alias) + ", duplicate " + n(c.m_duplicate) + ", not co-eluting " +
             n(c.m_not_coeluting) + ", poor envelope " + n(c.m_poor_envelope) +
             "; corrected isotope " + n(c.m_corrected_isotope) + ", charge " +
             n(c.m_corrected_charge) + "; scans left with the best detected only " +
             n(c.m_restored));
}

void open_pipeline(MsPipeline& p, const UserParameters& params) {
    open_spectrum_file(p.ms1.m_head, params.m_current_path, "r");
    open_spectrum_file(p.ms2.m_head, sibling_path(params, ".ms2"), "r");
    open_csv_file(p.table, output_path(params, ".csv"), "w+");
    const std::string& title = params.m_current_stem;
    if (params.m_output_ks) {
        p.ks1.emplace();
        open_ks_file(*p.ks1, output_path(params, ".ks1"), "wb+", title);
        p.ks2.emplace(KsFileSet{4, output_path(params, "_.ks2"), "wb+", title, {}});
    }
    if (params.m_output_mgf) {
        p.mgf.emplace(MgfFileSet{4, output_path(params, "_.mgf"), "w+", title, {}});
    }
    start_ms1_window(p.window, params, params.m_current_path);
    p.mgf_conventions = params.m_mgf_conventions;
}

// The precursor table is renamed last: a <stem>.csv on disk means that every
// other output of the file is complete, which the resume check relies on.
void close_pipeline(MsPipeline& p) {
    report_dropped_values(p.ms1.m_head.m_path, p.ms1.m_dropped);
    report_dropped_values(p.ms2.m_head.m_path, p.ms2.m_dropped);
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
    finish_csv_file(p.table);
    release_spectrum_file(p.table.m_head);
    p.window.m_store = Ms1Store{};
}

// After a failed write nothing of this input may look usable: its KS files, MGF
// files and unfinished table go, so that the next run does it again.
void remove_outputs(const MsPipeline& p, const UserParameters& params) {
    for (const char* suffix : {".ks1", ".ks1idx", ".csv_unfinished"}) {
        discard_file(output_path(params, suffix));
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

void run_pipeline(MsPipeline& p, const UserParameters& params, const PrecursorDetector& detect) {
    open_pipeline(p, params);
    MS1Spectrum ms1;
    MS2Spectrum ms2;
    while (ReadMs2Scan(p.ms2, ms2)) {
        read_ahead(p, ms1, ms2);
        handle_ms2_scan(p, params, detect, ms2);
        reset_keeping_buffer(ms2);
    }
    // Every MS1 scan reaches the KS1 file, however far the MS2 side needed it.
    reset_keeping_buffer(ms1);
    while (pull_ms1_scan(ms1, p.window, p.ms1, p.ks1 ? &*p.ks1 : nullptr)) {
        reset_keeping_buffer(ms1);
    }
    if (params.m_validate_precursors) {
        log_validation_counts(params.m_current_path, p.validation);
    }
    close_pipeline(p);
}

}  // namespace

void process_ms_files(UserParameters& params) {
    process_ms_files(params, DetectPrecursors);
}

void process_ms_files(UserParameters& params, const PrecursorDetector& detect) {
    if (has_existing_result(params, ".csv", "...")) {
        return;
    }
    MsPipeline p;
    try {
        run_pipeline(p, params, detect);
    } catch (const WriteFailure&) {
        remove_outputs(p, params);
        throw;
    }
}

}  // namespace ksieve

// The per-file pipeline: one `.ms1`/`.ms2` pair read in step, the precursors of
// every MS2 scan determined from the MS1 window around it, and the results
// written as KS, MGF and the precursor table.
//
// Memory stays bounded whatever the length of the run: the MS1 side is a window
// of kMs1StoreSize FT scans (one per FAIMS voltage) under a ceiling on its peak
// lists, the MS2 side a fixed number of scans in flight per thread.
//
// Threads: this thread reads, cuts each scan's slices out of the window, writes
// and logs; scans go round a ring of slots, each claimed in turn by a worker
// (or by this thread while it waits for the oldest). A slot belongs to this
// thread until it is handed over, to one worker from its claim until it is
// marked done, and to this thread again from then on; the hand-overs go through
// the queue's mutex. Workers touch nothing else but the read-only parameters,
// the isotope table and their own scratch.
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
    std::exception_ptr failure;
};

// What the workers read and never change.
struct ScanFormat {
    const PrecursorDetector* detect = nullptr;
    const UserParameters* params = nullptr;
    const IpvTable* ipv = nullptr;
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

// The ring of scans in flight. Sequence number n lives in slot n % size.
struct ScanQueue {
    explicit ScanQueue(std::size_t size) : slots(size), done(size, 0) {}
    std::vector<ScanWork> slots;
    std::mutex mutex;
    std::condition_variable work_ready;  // a scan to claim, or the end
    std::condition_variable work_done;
    std::vector<unsigned char> done;  // by slot; guarded by `mutex`
    std::size_t published = 0;        // guarded by `mutex`
    std::size_t claimed = 0;          // guarded by `mutex`
    bool stop = false;                // guarded by `mutex`
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
        const Ms1Store& store = window.m_store;
        if (store.size() <= kMinWindow ||
            store[store.size() - 1 - kScansBehindParent].m_scan >= ms2.m_precursor_scan) {
            return window;
        }
        if (!pull_ms1_scan(ms1, p.windows, p.ms1, ks1, mzml, &told)) {
            pop_ms1_scan(window);
            return window;
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
        window.m_store.size() < kMinWindow) {
        return;
    }
    const auto held = hold_ms1_scans(window, scan);
    if (first_window_over_ceiling(window, held)) {
        work.told.push_back(
            {"WARN", "The memory ceiling of " + std::to_string(params.m_memory_ceiling_mib) +
                         " MiB cannot hold the MS1 window of scan " + std::to_string(scan.m_scan) +
                         ": every scan reads its MS1 slices again from " + window.m_path +
                         ", which takes far longer"});
    }
    work.raw = CollectMs1Slices(params.m_search_window, window.m_store, scan);
    work.times = FindSliceTimes(window.m_store, scan);
    release_ms1_scans(window, held);
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
    work.failure = nullptr;
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
    work.passes = passes_gate(work.scan);
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

// Runs claimed scan `sequence` and marks it done; a failure travels with it to
// the writer, which raises it in turn.
void run_claimed(ScanQueue& queue, const ScanFormat& format, WorkerScratch& scratch,
                 std::size_t sequence) {
    const std::size_t slot = sequence % queue.slots.size();
    try {
        process_work(format, scratch, queue.slots[slot]);
    } catch (...) {
        queue.slots[slot].failure = std::current_exception();
    }
    {
        const std::lock_guard<std::mutex> lock(queue.mutex);
        queue.done[slot] = 1;
    }
    queue.work_done.notify_all();
}

void work_loop(ScanQueue& queue, const ScanFormat& format) {
    WorkerScratch scratch;
    while (true) {
        std::size_t sequence = 0;
        {
            std::unique_lock<std::mutex> lock(queue.mutex);
            queue.work_ready.wait(
                lock, [&queue] { return queue.stop || queue.claimed < queue.published; });
            if (queue.stop) {
                return;
            }
            sequence = queue.claimed++;
        }
        run_claimed(queue, format, scratch, sequence);
    }
}

// The worker threads of one file; leaving the scope stops and joins them, on
// failure too, before the queue they work on goes.
class Workers {
  public:
    Workers(ScanQueue& queue, const ScanFormat& format, std::size_t count) : m_queue(queue) {
        for (std::size_t i = 0; i < count; ++i) {
            m_threads.emplace_back(work_loop, std::ref(queue), std::cref(format));
        }
    }
    ~Workers() {
        {
            const std::lock_guard<std::mutex> lock(m_queue.mutex);
            m_queue.stop = true;
        }
        m_queue.work_ready.notify_all();
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

  private:
    ScanQueue& m_queue;
    std::vector<std::thread> m_threads;
};

void publish(ScanQueue& queue, std::size_t sequence) {
    {
        const std::lock_guard<std::mutex> lock(queue.mutex);
        queue.done[sequence % queue.slots.size()] = 0;
        ++queue.published;
    }
    queue.work_ready.notify_one();
}

// Waits until scan `sequence` is done, detecting scans nobody has claimed yet
// meanwhile, so that this thread's core is not idle.
void wait_or_help(ScanQueue& queue, const ScanFormat& format, WorkerScratch& scratch,
                  std::size_t sequence) {
    std::unique_lock<std::mutex> lock(queue.mutex);
    while (queue.done[sequence % queue.slots.size()] == 0) {
        if (queue.claimed < queue.published) {
            const std::size_t mine = queue.claimed++;
            lock.unlock();
            run_claimed(queue, format, scratch, mine);
            lock.lock();
            continue;
        }
        queue.work_done.wait(lock);
    }
}

// Output, in file order: the scan's messages, then its KS2 record, MGF blocks
// and table row.
void write_work(MsPipeline& p, ScanWork& work) {
    if (work.failure) {
        std::rethrow_exception(work.failure);
    }
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
    ScanQueue queue(threads == 1 ? 1 : threads * kScansPerThread);
    const Workers workers(queue, format, threads - 1);
    WorkerScratch scratch;
    MS1Spectrum ms1;
    HeldLines last_read;
    std::size_t read = 0;
    std::size_t written = 0;
    bool more = true;
    while (true) {
        while (more && read - written < queue.slots.size()) {
            ScanWork& work = queue.slots[read % queue.slots.size()];
            if (!read_work(p, params, ms1, work)) {
                last_read = std::move(work.told);
                more = false;
                break;
            }
            publish(queue, read++);
        }
        if (written == read) {
            break;
        }
        wait_or_help(queue, format, scratch, written);
        write_work(p, queue.slots[written++ % queue.slots.size()]);
    }
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

void run_pipeline(MsPipeline& p, const UserParameters& params, const FileContext& file,
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
        log_validation_counts(file.m_path, p.validation);
    }
    if (params.m_precursor_table) {
        write_run_summary_json(params, file, p.evidence_counts,
                               params.m_validate_precursors ? &p.validation : nullptr);
    }
    close_pipeline(p);
}

}  // namespace

std::size_t detection_threads(const UserParameters& params) {
    if (params.m_threads > 0) {
        return static_cast<std::size_t>(params.m_threads);
    }
    return usable_cores();
}

void process_ms_files(const UserParameters& params, const FileContext& file) {
    const IpvTable& ipv = *file.m_ipv;
    process_ms_files(
        params, file,
        [&params, &ipv](const Ms1Slices& raw, const MS2Spectrum& ms2, DetectionScratch& scratch) {
            return DetectPrecursors(params, ipv, raw, ms2, scratch);
        });
}

void process_ms_files(const UserParameters& params, const FileContext& file,
                      const PrecursorDetector& detect) {
    if (has_existing_result(params, file, ".csv", "...")) {
        return;
    }
    MsPipeline p;
    try {
        run_pipeline(p, params, file, detect);
    } catch (const WriteFailure&) {
        remove_outputs(p, file);
        throw;
    }
}

}  // namespace ksieve

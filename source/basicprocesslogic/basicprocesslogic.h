// Run control: the batch over the configured data paths, the per-file flows and
// the run of the companion extractor.
//
// The parameters are read-only here; what belongs to one input file travels
// beside them in its FileContext. Everything fails only by throwing (a
// std::string or std::runtime_error, reported by the entry point); one failing
// file ends the batch and what it wrote stays behind unfinished, so the next run
// redoes it. A failed write (WriteFailure) is the exception: the input's KS, MGF
// and unfinished table files are removed first, so that nothing short can pass
// for output. Finished inputs are recognised by their markers and skipped unless
// m_rewrite_files is set:
//   <stem>.csv    in the output directory  - the file was fully processed
//   <stem>.spexor in the output directory  - the companion has extracted it
//   <stem>.mgf    in the output directory  - MGF input (see process_mgf_file)
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "detection.h"
#include "featuresextractor.h"
#include "mzml_writer.h"
#include "records.h"
#include "spectrumfiles.h"
#include "userparameters.h"

namespace ksieve {

// The scan gate of the per-file pipeline: MS2 scans of other activation or
// instrument types reach no output at all.
extern const std::set<std::string> g_activation_types;  // CID HCD ETD ETCID ETHCD
extern const std::set<std::string> g_instrument_types;  // IT FT

// One input file as the flows see it. Made by file_context and never changed;
// a flow that goes on with another file (the extracted pair) makes a new one.
struct FileContext {
    std::string m_path;
    std::string m_dir;                // "." when the path has no directory part
    std::string m_stem;               // file name without extension
    std::string m_output_dir;         // outputpath, or the input's directory without one
    std::string m_input_format;       // the format word in force, as stored
    const IpvTable* m_ipv = nullptr;  // the run's isotope table
    std::string m_instrument_file;    // for a pair the companion made: its source
};

// Loads the isotope table once (from beside the executable when the working
// directory lacks it), then walks m_datapaths in order, sending each file down
// the flow of its format word. Each input is locked (flock) for the whole of its
// flow; a run that finds it locked logs "waiting for another kSieve run on
// <stem>" and waits. mzML and mzXML inputs may be gzip-compressed (run.mzML.gz).
void run_batch(const UserParameters& params);

// The lower-cased extension of an existing file (the whole path when it has no
// dot); for a directory or a missing path, `format_in_force` as it stands.
std::string input_format_of(const std::string& path, const std::string& format_in_force);

// The context of `path`: its names and, with the output beside the input, its
// directory as the output directory. The stem of "run.mzML.gz" is "run".
// Asserts "i_dot != string::npos".
FileContext file_context(const UserParameters& params, const std::string& path,
                         std::string input_format, const IpvTable* ipv);

// <m_output_dir>/<stem><suffix> and <m_dir>/<stem><suffix>.
std::string output_path(const FileContext& file, const std::string& suffix);
std::string sibling_path(const FileContext& file, const std::string& suffix);

struct ValidationCounts;
// Writes <stem>.summary.json beside the outputs (under a temporary name until
// it is whole): versions, the input, the precursor counts, the validation
// stage's counts when it ran (`validation` not null), the companion's account
// from <stem>.spexor beside the input (empty without one) and every parameter.
void write_run_summary_json(const UserParameters& params, const FileContext& file,
                            const EvidenceCounts& evidence, const ValidationCounts* validation);

// The resume rule: with m_rewrite_files off and <stem><marker> present in the
// output directory, logs "<path> has existed results, skipping<what>" and returns
// true, so the caller skips its work.
bool has_existing_result(const UserParameters& params, const FileContext& file,
                         const std::string& marker, const std::string& what);

// A raw, mzXML or mzML file: resume check, companion run, then the pipeline on
// the extracted pair; with m_delete_msn the pair and its marker are removed.
void process_instrument_file(const UserParameters& params, const FileContext& file);

// Runs the companion ("ms" kind) unless its marker exists, with an argument
// vector and no shell, passing its output to the log under "SUBPROCESS". Throws
// std::runtime_error when no process or pipe can be had, and "Cannot use spexor
// to extract signals from: <path>" when the extraction fails; the companion's
// standard error then stands in the log just before the ERROR line.
void run_extractor(const UserParameters& params, const FileContext& file, const std::string& kind);

// The number of threads that detect and format: m_threads, or with 0 every core
// the process may run on (at least 1).
std::size_t detection_threads(const UserParameters& params);

// One `.ms1` file and its `.ms2` partner beside it: detection for every MS2 scan
// that passes the gate, then .ks1/.ks2/.mgf output and the precursor table, which
// takes its final name <stem>.csv last of all.
//
// With more than one thread, this thread reads both files and cuts each scan's
// ten MS1 slices from the window at once, so that no later movement of the
// window can touch them; worker threads then detect and format a bounded number
// of scans ahead, and this thread writes them, and logs what each scan had to
// say, in file order. Every output byte and every log line is the same for any
// number of threads.
void process_ms_files(const UserParameters& params, const FileContext& file);

// The same pipeline with the detection step supplied by the caller (the plain
// overload passes DetectPrecursors). Benchmarks use it to time reading and
// writing alone, tests to drive the handling of detection results. A detector
// must behave as DetectPrecursors does: no I/O, empty when it finds nothing, and
// safe to call from several threads at once, each with its own scratch. It is
// called only for a scan whose parent the window holds (ten slices).
using PrecursorDetector =
    std::function<std::vector<Precursor>(const Ms1Slices&, const MS2Spectrum&, DetectionScratch&)>;
void process_ms_files(const UserParameters& params, const FileContext& file,
                      const PrecursorDetector& detect);

// The MS1 window of the pipeline under a ceiling on the bytes of peak lists it
// holds. Past the ceiling the oldest lists are let go, and read again from the
// `.ms1` file (by the offset the reader noted) when a parent scan needs them, so
// detection sees the same peaks at any ceiling. Records whose offset is unknown
// are never let go.
struct Ms1Window {
    Ms1Store m_store = make_ms1_store();
    std::size_t m_ceiling_bytes = 0;
    std::size_t m_held_bytes = 0;  // capacity of the peak lists in m_store
    std::size_t m_first_held = 0;  // records before it were let go, or cannot be
    std::string m_path;            // the `.ms1` file
    LineFile m_reread;             // a second stream on it, opened on first need
    bool m_told_short = false;     // the ceiling was found below one scan's window
};
// The ceiling in bytes that memory_ceiling_mib sets.
std::size_t ms1_ceiling_bytes(const UserParameters& params);
// Appends an FT scan, dropping the front record into `scan` (its buffers are
// reused), then lets the oldest lists go down to the ceiling.
void push_ms1_scan(Ms1Window& window, MS1Spectrum& scan);
// Drops the front record, as the end of the MS1 file does once per pull.
void pop_ms1_scan(Ms1Window& window);
// Reads again the let-go lists that detection of `ms2` reads; returns the range
// to hand to release_ms1_scans afterwards.
std::pair<std::size_t, std::size_t> hold_ms1_scans(Ms1Window& window, const MS2Spectrum& ms2);
// True the first time the lists of [first, end) together exceed the ceiling:
// every scan then reads its slices again, which the caller tells once.
bool first_window_over_ceiling(Ms1Window& window, std::pair<std::size_t, std::size_t> range);
// Lets the lists of [first, end) go again while the window is over its ceiling.
void release_ms1_scans(Ms1Window& window, std::pair<std::size_t, std::size_t> range);

// The MS1 windows of one run, one per FAIMS compensation voltage: with a FAIMS
// interface each survey scan lets through only the ions of its voltage, so an
// MS2 scan is judged against the survey scans of its own voltage alone. Scans
// without a voltage line, and every scan with m_faims_windows off, share one
// window, which then behaves exactly as the single window of a plain run. The
// ceiling on held peak lists is shared out evenly among the windows.
struct SurveyWindows {
    std::deque<Ms1Window> m_windows;                // in order of first appearance; never moved
    std::vector<std::optional<double>> m_voltages;  // the voltage of each window
    bool m_by_voltage = true;
    std::size_t m_ceiling_bytes = 0;  // for all windows together
    std::string m_path;               // the `.ms1` file
};
void start_survey_windows(SurveyWindows& windows, const UserParameters& params,
                          const std::string& path);
// The window of `voltage`, made (full of default records) on first need.
Ms1Window& window_of(SurveyWindows& windows, const std::optional<double>& voltage);
// The window that holds the parent scan of `ms2`; when none does (yet), the
// window of the scan's own voltage.
Ms1Window& parent_window(SurveyWindows& windows, const MS2Spectrum& ms2);
// Appends an FT scan to the window of its voltage, as push_ms1_scan does.
void push_survey_scan(SurveyWindows& windows, MS1Spectrum& scan);

// Back to a default record, keeping the peak buffer's capacity for the next
// scan: the readers only append, so nothing of the old content can show.
template <typename Scan>
void reset_keeping_buffer(Scan& scan) {
    std::vector<Peak> peaks = std::move(scan.m_peaks);
    peaks.clear();
    scan = Scan{};
    scan.m_peaks = std::move(peaks);
}

// The mzML output of one input (output_mzml): <stem>.ksieve.mzML in the output
// directory, spectra in scan-number order. The MS1 scans are encoded once, as
// the pipeline reads them, and wait until the MS2 scans pass them. The pipeline
// reads MS1 only as far as detection needs, which for a run with its survey
// scans first is not as far as the file order: the stage then reads on with a
// stream of its own from where the pipeline stands, and takes nothing twice.
// Scans waiting are bounded in bytes (memory_ceiling_mib, at most 32 MiB); past
// that the own stream reads them again when they are due.
inline constexpr char kMzmlSuffix[] = ".ksieve.mzML";
struct MzmlMs1Text {
    int32_t m_scan = 0;
    std::string m_id;
    std::string m_text;
};
struct MzmlStage {
    MzmlFile m_file;
    std::deque<MzmlMs1Text> m_waiting;  // encoded MS1 scans not yet written, in file order
    std::size_t m_waiting_bytes = 0;
    std::size_t m_waiting_ceiling = 0;
    int64_t m_taken = 0;        // MS1 scans written or waiting, counted in file order
    int64_t m_delivered = 0;    // MS1 scans the pipeline has read
    int64_t m_next_offset = 0;  // where the pipeline's next MS1 scan begins; -1 unknown
    int64_t m_gap_offset = -1;  // where the first scan the pipeline offered in vain begins
    LineFile m_own;             // the stage's own stream on the `.ms1` file
    int64_t m_own_next = -1;    // which scan it reads next; -1 when not placed
    bool m_own_at_end = false;
    bool m_ms2_done = false;  // MS1 scans offered from now on are written at once
    MS1Spectrum m_scan;       // the own stream's scan, its buffers reused
    MzmlScratch m_scratch;
};
MzmlOptions mzml_options(const UserParameters& params);
// Hashes the `.ms1`/`.ms2` pair for the header, then opens the file.
void open_mzml_stage(MzmlStage& stage, const UserParameters& params, const FileContext& file);
// An MS1 scan the pipeline has just read with `reader`, the next in file order.
void offer_mzml_ms1(MzmlStage& stage, const MS1Spectrum& scan, const LineFile& reader);
// The native id of MS1 scan `parent` while `window` holds it; empty otherwise.
std::string parent_native_id(const Ms1Window& window, int32_t parent);
// The mzML view of a written MS2 scan: RT in seconds, the isolation window from
// isolation_width, its precursors in rank order with their evidence, the parent
// under `parent_id` (with native ids, no parent reference when that is empty).
// It refers to the scan's peaks.
MzmlSpectrum mzml_ms2_spectrum(const MS2Spectrum& scan, const UserParameters& params,
                               const std::string& parent_id, const MzmlOptions& options);
// Writes the MS1 scans numbered below the MS2 scan, then the MS2 scan.
void write_mzml_ms2(MzmlStage& stage, const MS2Spectrum& scan, const std::string& text);
// No MS2 scan follows: the MS1 scans waiting and those offered later go out.
void end_mzml_ms2(MzmlStage& stage);
// Writes the MS1 scans left and finishes the file under its final name.
void close_mzml_stage(MzmlStage& stage);

// An MGF file converted to <stem>.ks2 with its declared precursors; no detection.
void process_mgf_file(const UserParameters& params, const FileContext& file);

}  // namespace ksieve

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

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "detection.h"
#include "featuresextractor.h"
#include "mzml_writer.h"
#include "records.h"
#include "spectrumfiles.h"
#include "userparameters.h"

namespace ksieve {

// One input file as the flows see it. Made by file_context and never changed;
// a flow that goes on with another file (the extracted pair) makes a new one.
struct FileContext {
    std::string m_path;
    std::string m_dir;                    // "." when the path has no directory part
    std::string m_stem;                   // file name without extension
    std::string m_output_dir;             // outputpath, or the input's directory without one
    std::string m_input_format;           // the format word in force, as stored
    const IsotopeTable* m_ipv = nullptr;  // the run's isotope table
    std::string m_instrument_file;        // for a pair the companion made: its source
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
                         std::string input_format, const IsotopeTable* ipv);

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
//
// Returns what the MS1 windows did under the memory ceiling (nothing when the
// input was skipped as done): the peak lists read again from the `.ms1` file
// after they were let go, and the most bytes of peak lists held.
struct Ms1WindowCounts {
    int64_t m_rereads = 0;
    std::size_t m_most_held_bytes = 0;
};
using PrecursorDetector =
    std::function<std::vector<Precursor>(const Ms1Slices&, const MS2Spectrum&, DetectionScratch&)>;
Ms1WindowCounts process_ms_files(const UserParameters& params, const FileContext& file,
                                 const PrecursorDetector& detect);

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
// that the own stream reads them again when they are due. With more than one
// thread a helper thread of the stage encodes them (deflate, base64, text) in
// the order they wait, so that the reading thread only copies their peaks.
inline constexpr char kMzmlSuffix[] = ".ksieve.mzML";
// An MS1 scan waiting: its own copy of the peaks, then its text. Until it is
// marked done (under the helper's mutex) the helper thread may be writing
// m_text and m_error; everything else is the reading thread's.
struct MzmlMs1Text {
    int32_t m_scan = 0;
    std::string m_id;
    std::string m_text;
    std::vector<Peak> m_peaks;
    MzmlSpectrum m_spectrum;  // refers to m_peaks
    bool m_done = false;
    std::exception_ptr m_error;  // what encoding threw, raised when it is written
};
// The stage's encoding thread: it takes the waiting scans from m_next on, in
// order, and stops (joined) when the helper is destroyed.
struct MzmlHelper {
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_next = 0;  // the first waiting scan not yet encoded
    bool m_stop = false;
    MzmlScratch m_scratch;  // the helper thread's own
    std::thread m_thread;
    MzmlHelper() = default;
    MzmlHelper(const MzmlHelper&) = delete;
    MzmlHelper& operator=(const MzmlHelper&) = delete;
    ~MzmlHelper();
};
struct MzmlStage {
    MzmlFile m_file;
    std::deque<MzmlMs1Text> m_waiting;  // MS1 scans not yet written, in file order
    std::vector<MzmlMs1Text> m_spare;   // written ones, their buffers kept for reuse
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
    // Last, so that its thread has stopped before the scans it works on go.
    std::unique_ptr<MzmlHelper> m_helper;  // none with one thread
};
MzmlOptions mzml_options(const UserParameters& params);
// Opens the file; its writer hashes the `.ms1`/`.ms2` pair for the header, on
// the thread that writes the file.
void open_mzml_stage(MzmlStage& stage, const UserParameters& params, const FileContext& file);
// An MS1 scan the pipeline has just read with `reader`, the next in file order.
void offer_mzml_ms1(MzmlStage& stage, const MS1Spectrum& scan, const LineFile& reader);
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

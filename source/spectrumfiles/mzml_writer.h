// The mzML output: one indexed mzML 1.1.0 file per input, holding every MS1 scan
// and every MS2 scan with its written precursors, streamed in the order given.
//
// The file is written under <path>_unfinished and renamed by finish_mzml_file,
// like the precursor table; memory does not grow with the run, as spectra go out
// as they come and the offset index waits in an unnamed temporary file until the
// end. Every write is checked (WriteFailure naming the unfinished path).
//
// The precursor userParams, by name (all on the selectedIon):
//   "kSieve declared m/z"   the m/z the instrument declared for the scan
//   "kSieve origin"         where the precursor came from (detection, declared, ...)
//   "kSieve score"          the score of its envelope
//   "kSieve purity"         its share of the isolation window's signal
// Text is escaped for XML; nothing written names an entity beyond the five
// predefined ones.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "encoding.h"
#include "records.h"
#include "spectrumfiles.h"

namespace ksieve {

// What kSieve can tell about one precursor beyond its ion.
// kSieve's evidence for one written precursor, as userParams of its selected
// ion; the declared m/z and the score are left out when there is none.
struct MzmlEvidence {
    std::optional<double> m_declared_mz;
    std::string m_origin;
    std::optional<double> m_score;
    double m_purity = 0.0;
};

struct MzmlPrecursor {
    double m_mz = 0.0;
    int32_t m_charge = 0;
    std::optional<double> m_intensity;  // left out when unknown
    std::optional<MzmlEvidence> m_evidence;
};

// One spectrum as the writer takes it. Ids that are empty fall back to the scan
// number form "scan=<n>"; a parent of scan 0 with no id gets no spectrumRef.
struct MzmlSpectrum {
    std::string m_native_id;
    int32_t m_scan = 0;
    double m_retention_seconds = 0.0;
    double m_ion_injection_ms = 0.0;
    int32_t m_ms_level = 1;
    bool m_centroid = true;
    std::span<const Peak> m_peaks;
    std::optional<double> m_faims_cv;  // volts
    // MS2 only:
    std::string m_parent_native_id;
    int32_t m_parent_scan = 0;
    std::string m_activation;  // CID, HCD, ETD, ETCID or ETHCD; others name no method
    double m_isolation_target = 0.0;
    double m_isolation_lower = 0.0;  // offsets below and above the target, m/z
    double m_isolation_upper = 0.0;
    std::vector<MzmlPrecursor> m_precursors;  // best first
};

struct MzmlOptions {
    bool m_compress = true;            // zlib, else the raw little-endian numbers
    bool m_monoisotopic_term = false;  // also MS:1003208 on each selected ion
    // Spectra go under the instrument's native ids (a scan without one under
    // its scan number), else every spectrum under its scan number.
    bool m_native_ids = false;
};

struct MzmlSource {
    std::string m_path;  // as given: written as the location and name
    std::string m_sha1;  // 40 hex digits
};

// What the file header says about the run.
struct MzmlRunInfo {
    std::string m_run_id;
    // How the spectrum ids are formed, as the vocabulary's accession and name:
    // the scan-number form unless the instrument's own ids are carried through.
    std::pair<std::string, std::string> m_native_id_format{"MS:1000776",
                                                           "scan number only nativeID format"};
    std::string m_software_version;
    std::vector<MzmlSource> m_sources;
    std::vector<std::pair<std::string, std::string>> m_keys;  // parameters in force
    MzmlOptions m_options;
    // True: m_sources are the `.ms1`/`.ms2` pair, their SHA-1 left empty. The
    // writer reads them for their SHA-1 and foretells one spectrum per scan they
    // hold, on its own thread, while the first spectra are made; the header
    // waits for them in memory. With the count foretold the checksum is made as
    // the file is written; a wrong guess costs a read-back at the end, as does a
    // file whose sources are given.
    bool m_digest_sources = false;
};

// A spectrum element made away from the file: its text from the attribute after
// the index on, which write_mzml_spectrum completes.
struct MzmlScratch {
    std::string m_bytes;
    std::string m_packed;
    DeflateScratch m_deflate;
};

struct MzmlSinkThread;

// What the writer learns before its first byte goes out: text to put over
// placeholders, by offset in the file, and the spectrum count it foretells.
struct MzmlPrelude {
    std::vector<std::pair<int64_t, std::string>> m_patches;
    int64_t m_expected = -1;  // -1: none; the bytes are then not hashed as written
};

// Where the file's bytes go: gathered into writes of a mebibyte, each hashed
// for the closing checksum as it is written, on the sink's own thread, at any
// thread count: the work of writing and hashing, not of making the output. The
// thread, once started, is stopped before the sink goes.
struct MzmlSink {
    std::FILE* m_stream = nullptr;
    std::string m_path;  // named by a failed write
    std::string m_gathering;
    MzmlPrelude m_prelude;  // read only once the sink is drained
    int64_t m_written = 0;  // bytes passed to the file
    Sha1 m_sha1;            // of every byte written until sink_digest
    bool m_hashing = false;
    std::unique_ptr<MzmlSinkThread> m_thread;
    MzmlSink();  // out of line, where the thread's type is known
    ~MzmlSink();
};

// Starts the sink and its thread on an open stream. `prelude` (when given) runs
// first, on the sink's thread; what it throws is thrown by the sink's next call.
void start_sink(MzmlSink& sink, std::FILE* stream, const std::string& path,
                std::function<MzmlPrelude()> prelude);
// Takes `size` bytes for the file; throws the WriteFailure of an earlier write.
void sink_write(MzmlSink& sink, const char* data, std::size_t size);
// Writes and flushes everything taken so far; throws the WriteFailure of any write.
void drain_sink(MzmlSink& sink);
// Drains the sink and returns the SHA-1 of every byte written; later bytes are
// written unhashed.
std::string sink_digest(MzmlSink& sink);

struct MzmlFile {
    SpectrumFile m_head;  // m_scan_count counts spectra written
    std::string m_unfinished_path;
    MzmlOptions m_options;
    int64_t m_offset = 0;          // bytes written so far
    int64_t m_count_offset = 0;    // where the spectrum count waits to be filled in
    std::FILE* m_index = nullptr;  // the offset index, until the end
    MzmlScratch m_scratch;         // for spectra formatted where they are written
    MzmlSink m_sink;               // after the stream, so that it stops writing first
    ~MzmlFile();
};

// Opens <path>_unfinished (logging "Start to process <path>") and writes the
// header up to the opening of the spectrum list; the writes, their hashing and
// the digests of the sources run on the sink's thread.
void open_mzml_file(MzmlFile& file, std::string path, const MzmlRunInfo& info);
// The text of one spectrum, replacing `text`, for write_mzml_spectrum.
void format_mzml_spectrum(std::string& text, const MzmlSpectrum& spectrum,
                          const MzmlOptions& options, MzmlScratch& scratch);
// Writes one formatted spectrum under the next index, with its index entry.
void write_mzml_spectrum(MzmlFile& file, const std::string& id, const std::string& text);
// The id a spectrum is written under.
std::string mzml_spectrum_id(const std::string& native_id, int32_t scan);
// The vocabulary's nativeID format that a run's ids follow, judged by one of
// them: an empty id stands for the scan-number form that replaces it.
std::pair<std::string, std::string> native_id_format(const std::string& native_id);
// Closes the lists, writes the index, fills in the count and the file checksum,
// closes the file (logging as any spectrum file) and renames it to its path,
// replacing an older one. Throws "Cannot rename file: <unfinished path>".
void finish_mzml_file(MzmlFile& file);

}  // namespace ksieve

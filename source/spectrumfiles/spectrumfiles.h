// Every file that kSieve reads or writes: the stream records, the `.ms1`/`.ms2`
// and MGF readers, the KS binary writers, the MGF and CSV writers, the precursor
// evidence table and run summary, and the reader of the isotope table.
//
// Opening failures throw the open_file message of utils ("Cannot open  File,
// Path: <path>", two blanks: the label is empty). Every write, flush and close of
// an output is checked: a failure throws WriteFailure (utils) naming the file and
// the reason, and the owner removes what the input had written so far.
// Each opening of a spectrum file logs "Start to process <path>" first; finishing
// logs "Closed <path>", "Finished Operations on <path>" and
// "Scan Number in <path>: <count>". Owners call finish_spectrum_file, then
// release_spectrum_file.
#pragma once

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "logger.h"
#include "records.h"

namespace ksieve {

// Bytes of one line buffer: at most 1023 characters and a terminator arrive at a
// time; a longer line arrives in pieces, each handled by its first character.
inline constexpr int kLineBufferSize = 1024;

// Bytes of the stdio buffer given to every stream opened for reading: spectrum
// text runs to gigabytes, and large reads keep the line getter off the kernel.
inline constexpr std::size_t kReadBufferSize = std::size_t{1} << 20;

// The head shared by every spectrum file.
struct SpectrumFile {
    int32_t m_scan_count = 0;  // scans read or written so far (never precursors)
    std::string m_path;
    std::string m_mode;
    std::FILE* m_stream = nullptr;
    std::unique_ptr<char[]> m_read_buffer;  // the stream's buffer, when opened for reading
    // When set, what reading the file has to say waits here, for the owner to
    // log in the order of its output.
    HeldLines* m_held_lines = nullptr;

    // A record that goes out of scope with its stream still open (a failure
    // unwinding past its owner) closes the stream quietly, so the stream never
    // outlives its buffer; what was written stays as it was. Owning a stream, the
    // record and every member of its family are held in place, never copied.
    ~SpectrumFile();
};

// What a reader left out of one input file: peaks whose numbers are not finite,
// whose intensity is above 1e30 or whose m/z lies outside (0, 100000), and MS2
// scans whose activation centre or a declared precursor m/z is not finite.
struct DroppedValues {
    int64_t m_peaks = 0;
    int64_t m_scans = 0;
};

// A `.ms1` or `.ms2` input. m_line is also the reader's one-line look-ahead: a
// line whose first byte is not 0 has not been consumed yet.
struct LineFile {
    SpectrumFile m_head;
    char m_line[kLineBufferSize] = {};
    DroppedValues m_dropped;
};

// How MGF output blocks are written: the stem printed in titles, the printf
// format of one peak line (finalising builds it from the m/z and intensity
// digits), and the conventions of most search engines: RTINSECONDS in seconds
// (the input's minutes times 60) and a SCANS= line after each TITLE.
struct MgfLayout {
    std::string m_title;
    std::string m_peak_format = "%.5f %.1f\n";
    bool m_conventions = false;
};

// An MGF input, or one MGF output file.
struct MgfFile {
    SpectrumFile m_head;
    MgfLayout m_layout;  // output only
    char m_line[kLineBufferSize] = {};
    DroppedValues m_dropped;  // input only
};

// The last data offset that an index entry, a signed 32-bit number, can hold.
inline constexpr int64_t kKsIndexLimit = INT32_MAX;

// One KS data file with its index beside it (path + "idx").
struct KsFile {
    SpectrumFile m_head;
    std::FILE* m_index_stream = nullptr;
    std::string m_index_path;
    // A record that starts beyond this offset cannot be indexed; from then on the
    // index is given up and removed when the file is finalised.
    int64_t m_index_limit = kKsIndexLimit;
    bool m_index_given_up = false;

    // As for SpectrumFile: an index still open when a failure unwinds is closed.
    ~KsFile();
};

// The precursor table, written as <path>_unfinished until finish_csv_file.
struct CsvFile {
    SpectrumFile m_head;
    std::string m_unfinished_path;
};

// ---- streams -------------------------------------------------------------

// Count 0, path and mode stored, "Start to process <path>" logged, then opened.
void open_spectrum_file(SpectrumFile& file, std::string path, std::string mode);
void finish_spectrum_file(SpectrumFile& file);
void release_spectrum_file(SpectrumFile& file);

// Reads the next line (newline and any carriage return kept) into `line`, a
// buffer of kLineBufferSize bytes; a longer line arrives in pieces. False at the
// end of the stream, with `line` untouched. The stream must be open.
bool GetLine(SpectrumFile& file, char* line);

// ---- readers -------------------------------------------------------------
// `scan` must be a default record. True: one scan filled in and m_scan_count
// raised by 1, peaks in peak order. False: the file is finished. Values no
// instrument writes are left out and counted in the file's m_dropped. Invalid declared
// precursors are dropped with the "WARN" line
// "Scan <n> has incorrect precursor infomation, skipping this precursor...".

bool ReadMs1Scan(LineFile& file, MS1Spectrum& scan);
bool ReadMs2Scan(LineFile& file, MS2Spectrum& scan);
// Throws kMgfTitleFailure (a const char*) for a title it cannot parse.
bool ReadMgfScan(MgfFile& file, MS2Spectrum& scan);

inline constexpr char kMgfTitleFailure[] =
    "Sorry, kSieve fail to parse the title of the MGF.\n[Error] Incorrect title format! correct "
    "format should be: \tRAWName.scan.scan.charge.dta\ne.g:\t\thuman_SILAC.2345.2345.2.dta";

// Pieces shared by the readers.

// The pending line in `line` (first byte not 0), or else the next one from the
// stream. False at the end of the stream, with line[0] set to 0.
bool pending_or_next_line(SpectrumFile& file, char* line);
// A peak line "<m/z> <intensity>": the line is cut at blanks and tabs in place
// and the two first tokens are read as atof reads them; a missing intensity
// reads as 0.
Peak parse_peak_line(char* line);
// Parses the line and appends the peak unless it is one that no instrument
// writes (see DroppedValues), which is counted instead.
void add_peak_line(char* line, PeakList& peaks, DroppedValues& dropped);
// Whether the scan's activation centre, retention time and declared precursor
// m/z are all finite.
bool has_finite_targets(const MS2Spectrum& scan);
// One "WARN" line naming the file and the counts, when anything was dropped.
void report_dropped_values(const std::string& path, const DroppedValues& dropped);
// Sorts into peak order. A NaN, which only junk text produces, goes behind every
// number so that the order stays a strict one and the sort stays defined.
void sort_peaks(PeakList& peaks);
// The end of an MS2 scan: peaks sorted, invalid precursors dropped from the
// last to the first with their "WARN" line, the valid ones kept as the
// instrument's, and the file's count raised. A scan without finite targets is
// skipped whole and counted by the readers before this runs.
void finish_ms2_scan(SpectrumFile& file, MS2Spectrum& scan);
// The MS2 readers' loop: `read_lines(scan)` gathers one scan's lines; a scan
// with finite targets is finished and kept, any other is counted and skipped.
template <typename ReadLines>
bool read_scan_with_finite_targets(SpectrumFile& head, DroppedValues& dropped, MS2Spectrum& scan,
                                   ReadLines read_lines) {
    while (read_lines(scan)) {
        if (has_finite_targets(scan)) {
            finish_ms2_scan(head, scan);
            return true;
        }
        ++dropped.m_scans;
        scan = MS2Spectrum{};
    }
    return false;
}

// ---- KS binary output (little-endian, no padding) -------------------------

// Opens data and index files (mode "wb+") and writes the header: count 0, title
// length, title bytes.
void open_ks_file(KsFile& file, std::string path, std::string mode, std::string title);
// Appends one record and its index entry (scan, position); raises the count.
void write_ks1_record(KsFile& file, const MS1Spectrum& scan);
void write_ks2_record(KsFile& file, const MS2Spectrum& scan);
// The same in two steps, so that the bytes can be made away from the file: the
// record after its index entry, then written with its index entry.
void format_ks2_record(std::string& bytes, const MS2Spectrum& scan);
void write_ks_record_bytes(KsFile& file, int32_t scan, const std::string& bytes);
// Rewrites the scan count at offset 0 and closes the index stream, so that the
// index is complete on disk as soon as the data file is. An index given up is
// removed instead, with the WARN line
// "Index not written, it cannot address records beyond 2 GiB: <index path>".
// The owner then finishes and releases the data file.
void finalize_ks_file(KsFile& file);

// One output file per activation-and-instrument key, opened on first use: the
// member's path is the template path with the key put before its 4-byte
// extension, so "<stem>_.ks2" and "HCD" + "FT" give "<stem>_HCDFT.ks2".
// The template path must be at least m_extension_length bytes long.
template <typename File>
struct OutputFileSet {
    int32_t m_extension_length = 4;
    std::string m_template_path;
    std::string m_mode;
    std::string m_title;
    std::map<std::string, std::unique_ptr<File>> m_files;  // by key, byte order
};
using KsFileSet = OutputFileSet<KsFile>;

// The path of the set's member for `key`.
template <typename File>
std::string member_path(const OutputFileSet<File>& set, const std::string& key) {
    const std::string& stem_path = set.m_template_path;
    const std::size_t cut = stem_path.size() - static_cast<std::size_t>(set.m_extension_length);
    return stem_path.substr(0, cut) + key + stem_path.substr(cut);
}
using MgfFileSet = OutputFileSet<MgfFile>;

KsFile& file_for(KsFileSet& set, const MS2Spectrum& spectrum);
MgfFile& file_for(MgfFileSet& set, const MS2Spectrum& spectrum);
// Finalises (KS only), finishes and releases every member in key order, then
// empties the set. A set with no member leaves no file behind.
void close_file_set(KsFileSet& set);
void close_file_set(MgfFileSet& set);

// ---- MGF and CSV output -----------------------------------------------------

// Opens an MGF output file (mode "w+"), logging as any spectrum file.
void open_mgf_file(MgfFile& file, std::string path, std::string mode, std::string title);
// One block per entry of m_precursors, every peak repeated in each, as text
// replacing `text`; `peak_text` is scratch for the peak lines, which every
// block repeats. The caller raises the file's m_scan_count once per scan.
void format_mgf_blocks(std::string& text, std::string& peak_text, const MgfLayout& layout,
                       const MS2Spectrum& scan);
// Appends formatted blocks to an output file.
void write_mgf_text(MgfFile& file, const std::string& text);
// Appends the title of precursor `i` of `scan` (counted from 0), without
// "TITLE=": "<stem>.<scan>.<scan>.<charge>.<i>.dta".
void append_mgf_title(std::string& text, const std::string& stem, const MS2Spectrum& scan,
                      std::size_t i);

// Opens <path>_unfinished and writes the header line; logs nothing.
void open_csv_file(CsvFile& file, std::string path, std::string mode);
// The same for any table written under a temporary name, with its own header.
void open_table_file(CsvFile& file, std::string path, std::string mode, const char* header);
// One row as text, replacing `row`: declared m/z and charge, then one
// "n, mz, charge, " triple per precursor; and its writing (which raises the
// count).
void format_csv_row(std::string& row, const MS2Spectrum& scan);
void write_csv_text(CsvFile& file, const std::string& row);
// Finishes the stream, deletes any old <path>, renames <path>_unfinished to it.
// Throws "Cannot rename file: <unfinished path>".
void finish_csv_file(CsvFile& file);

// ---- precursor evidence table ---------------------------------------------

// The name of an origin in the evidence table: "declared_confirmed", ...
const char* precursor_origin_name(PrecursorOrigin origin);
// Opens <path>_unfinished with the header line of the evidence table.
void open_evidence_table(CsvFile& file, std::string path, std::string mode);
// One tab-separated row per precursor of `scan`, in its order, replacing
// `rows`: scan, native id, retention time in seconds, the MGF title under
// `stem`, rank from 1, m/z, charge, origin, score, intensity, purity, isotope
// shift and validation outcome. Tabs and line ends inside the native id become
// blanks; a value that does not apply is left empty.
void format_evidence_rows(std::string& rows, const std::string& stem, const MS2Spectrum& scan);

// ---- run summary ---------------------------------------------------------

// What became of the written scans and their precursors, from their evidence.
// A scan's declared precursor (its first) was confirmed, corrected (written at
// another isotope or charge), kept (written without detection's support) or
// replaced (only other ions were written).
struct EvidenceCounts {
    int64_t m_scans = 0;
    int64_t m_precursors = 0;
    int64_t m_declared_confirmed = 0;
    int64_t m_declared_corrected = 0;
    int64_t m_declared_kept = 0;
    int64_t m_declared_replaced = 0;
    int64_t m_with_coeluted = 0;  // scans with two or more detected precursors
};
// Every count of EvidenceCounts once, by the name the run summary gives it.
inline constexpr CountName<EvidenceCounts> kEvidenceCountNames[] = {
    {"scans_written", &EvidenceCounts::m_scans},
    {"precursors_written", &EvidenceCounts::m_precursors},
    {"declared_confirmed", &EvidenceCounts::m_declared_confirmed},
    {"declared_corrected", &EvidenceCounts::m_declared_corrected},
    {"declared_kept", &EvidenceCounts::m_declared_kept},
    {"declared_replaced", &EvidenceCounts::m_declared_replaced},
    {"scans_with_coeluted", &EvidenceCounts::m_with_coeluted},
};
// Counts one written scan, its evidence filled.
void count_written_scan(EvidenceCounts& counts, const MS2Spectrum& scan);

// One value of the summary: a number as it stands, or a text that is quoted.
struct SummaryValue {
    std::string m_key;
    std::string m_text;
    bool m_number = false;
};
struct SummarySection {
    std::string m_name;
    std::vector<SummaryValue> m_values;
};
// The summary as one JSON object of objects, sections and values in order;
// texts are escaped so that any bytes of a path or name stay inside their string.
std::string format_run_summary(const std::vector<SummarySection>& sections);
// The companion's account of a conversion, the "<key>\t<count>" lines of its
// marker file: lines of any other shape are skipped, and so is a missing file.
std::vector<SummaryValue> read_companion_account(const std::string& path);
// Writes `text` to <path>_unfinished, then renames it to <path>; logs nothing.
// A failed write throws WriteFailure naming the unfinished file.
void write_summary_file(const std::string& path, const std::string& text);

// ---- isotope table ------------------------------------------------------------

inline constexpr int kIpvRows = 15000;
inline constexpr int kIpvColumns = 5;
using IpvRow = std::array<double, kIpvColumns>;

// Reads whitespace-separated numbers, five per integer mass from 0 upwards, into
// kIpvRows rows; rows the file does not reach stay 0. Reading stops at the end
// of the file or at the end of the table. Throws "Cannot open IPV Store File,
// Path: <path>", or "Bad IPV Store File, Path: <path>, line <n>: <why>" for a
// file that holds no number, a token that is not a number or one not finite.
std::vector<IpvRow> read_ipv_file(std::string path);

}  // namespace ksieve

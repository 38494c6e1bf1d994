// The companion extractor spexor_xml.exe: it turns one mzML or mzXML run into
// the `.ms1`/`.ms2` text pair that kSieve reads, and last of all writes the
// marker `<stem>.spexor` that tells kSieve the pair is complete.
//
// This header is the contract of the extractor's parts. Options, scan numbering,
// instrument and activation naming, the text layout and the output files need
// only the standard library; `extract_run` is the one part built on OpenMS.
//
// Failures are exceptions derived from std::exception with a message meant for
// the user; the executable prints it on standard error and exits non-zero.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ksieve::spexor {

// ---- command line ----------------------------------------------------------

// What kSieve asks for: `-ms -a -i <intensity digits> -m <m/z digits>
// -o <output dir> <input file>`. `-ms` (the text pair) is the only output mode
// and the default; `-a` (all scans) is the only scan selection and is accepted
// as such. Digits are decimals after the point, 0 to 10.
struct Options {
    int intensity_digits = 1;
    int mz_digits = 5;
    std::string output_dir;
    std::string input_path;
};

// `error` is empty when the arguments are usable; otherwise it says what is wrong.
struct ParsedOptions {
    Options options;
    std::string error;
};

// `args` are the arguments after the program name.
ParsedOptions parse_options(const std::vector<std::string>& args);
std::string usage_text();

// The file name of `path` without its directory and its last extension
// ("/data/run.1.mzML" gives "run.1"); a name without a dot is its own stem.
std::string stem_of(std::string_view path);

// ---- scan numbers, instrument and activation ---------------------------------

// N of a native ID token "scan=N" (Thermo "controllerType=0 controllerNumber=1
// scan=N", mzXML "scan=N"); -1 when the ID has no such token.
int scan_number_from_native_id(std::string_view native_id);

// The analyzer kinds that the run's metadata lists.
struct RunAnalyzers {
    bool fourier_transform = false;  // Orbitrap, FT-ICR and TOF: high resolution
    bool ion_trap = false;
};

// "FTMS" or "ITMS", the words whose first letter the reader turns into "FT" or
// "IT". Evidence in order of trust: the scan's own filter string ("FTMS + p ...");
// then the run's analyzers when they are of one kind; otherwise a survey scan is
// taken for high resolution, and a fragment scan for the trap unless it is HCD.
std::string instrument_type_of(std::string_view filter_string, RunAnalyzers analyzers, int ms_level,
                               std::string_view activation_type);

// The activation word of an MS2 scan from the library's short names of its
// activation methods: CID, HCD (beam-type CID), ETD, ETHCD and ETCID (ETD with
// supplemental activation, seen in the filter string "...@etd25.00@hcd20.00");
// any other method by the library's own name; "" when none is declared.
std::string activation_type_of(const std::vector<std::string>& method_names,
                               std::string_view filter_string);

// One precursor as a `Z` line carries it.
struct DeclaredPrecursor {
    double mz = 0.0;
    int charge = 0;
};

// Appends the precursors that one selected ion stands for: its charge when the
// file gives one, else each possible charge the file lists, else charges 2 and 3
// so that detection still runs on scans with unknown charge.
void append_declared_precursors(std::vector<DeclaredPrecursor>& out, double mz, int charge,
                                const std::vector<int>& possible_charges);

// The numbering and parent scans of one run, built from a first pass over the
// spectrum metadata in file order. Spectra are counted from 0 in file order.
class RunIndex {
  public:
    // `isolation_target` is the m/z the instrument isolated (0 when unknown).
    void add(std::string_view native_id, int ms_level, double rt_seconds, double isolation_target);
    // Chooses the numbering and orders the survey scans; call once after the last add.
    void finish();

    // Scan numbers come from the native IDs when every MS1 and MS2 spectrum has
    // "scan=N" and the numbers rise within each level in file order; otherwise
    // every spectrum is numbered by its index + 1, which always rises.
    bool uses_native_numbers() const { return m_native_numbers; }
    std::size_t size() const { return m_entries.size(); }
    int number(std::size_t index) const;
    int ms_level(std::size_t index) const;
    double isolation_target(std::size_t index) const;
    std::size_t count_of_level(int ms_level) const;

    // The number of the parent MS1 scan of spectrum `index`: the scan that
    // `spectrum_ref` names, else the last MS1 scan at or before it in retention
    // time (file order breaks ties), else 0. Some files store all MS1 spectra
    // before all MS2 spectra, so file order alone cannot pair them.
    int parent_of(std::size_t index, const std::string& spectrum_ref) const;

  private:
    struct Entry {
        int native_number;
        int ms_level;
        double rt_seconds;
        double isolation_target;
    };
    std::vector<Entry> m_entries;
    std::vector<std::size_t> m_survey_by_time;  // MS1 indices by (rt, index)
    std::unordered_map<std::string, std::size_t> m_survey_by_id;
    bool m_native_numbers = false;
    bool m_finished = false;
};

// ---- text layout -----------------------------------------------------------

struct PeakPoint {
    double mz = 0.0;
    double intensity = 0.0;
};

// One scan as the text pair carries it. Optional values that the file does not
// give are left out of the text rather than written as invented numbers.
struct ScanRecord {
    int number = 0;
    double retention_minutes = 0.0;
    std::optional<double> injection_ms;
    std::string instrument_type;  // "FTMS" or "ITMS"
    std::string centroiding;      // "as stored" or the name of the peak picker
    // MS2 only.
    std::string activation_type;  // "" when the file declares none
    double activation_center = 0.0;
    int precursor_scan = 0;  // 0 when unknown
    std::vector<DeclaredPrecursor> precursors;
    std::vector<PeakPoint> peaks;  // ascending m/z, positive intensity
};

// The proton mass that the `.ms2` reader uses to turn a `Z` line's singly
// protonated mass back into m/z; using the same value keeps the round trip exact
// up to the printed digits.
inline constexpr double kProtonMass = 1.007276;

// Singly protonated mass [M+H]+ of an ion at `mz` with `charge`; 0 for an m/z
// below 1e-6, which the reader replaces by the isolation target.
double singly_protonated_mass(double mz, int charge);

// Header lines "H\t<key>\t<value>\n".
void append_header_line(std::string& text, std::string_view key, std::string_view value);

// The lines of one scan, appended to `text`. Fixed positions the reader relies
// on: "I\tRetTime\t" value at 10, "I\tIonInjectionTime\t" at 19,
// "I\tInstrumentType\t" at 17, "I\tActivationType\t" at 17,
// "I\tActivationCenter\t" at 19, "I\tPrecursorScan\t" at 16. The ActivationCenter
// line comes before the Z lines, since a Z line of mass 0 stands for it.
void append_ms1_scan(std::string& text, const ScanRecord& scan, const Options& digits);
void append_ms2_scan(std::string& text, const ScanRecord& scan, const Options& digits);

// ---- output files ----------------------------------------------------------

// The `.ms1`/`.ms2` pair of one input. Both are written under "<name>.part" and
// take their final names only in `commit`, which writes the marker last. A stale
// marker is removed when the pair is opened, and a pair that is not committed
// is removed again, so a failed run never leaves a pair that looks complete.
class OutputPair {
  public:
    OutputPair(const std::string& output_dir, const std::string& stem);
    ~OutputPair();
    OutputPair(const OutputPair&) = delete;
    OutputPair& operator=(const OutputPair&) = delete;

    // Writes `text` to the `.ms1` or `.ms2` file and clears it. Throws when the
    // write fails (a full disk).
    void write_ms1(std::string& text);
    void write_ms2(std::string& text);

    // Closes both files, gives them their final names and writes `marker_text`
    // into the marker. Throws on any failure.
    void commit(const std::string& marker_text);

    const std::string& ms1_path() const { return m_ms1_path; }
    const std::string& ms2_path() const { return m_ms2_path; }
    const std::string& marker_path() const { return m_marker_path; }

  private:
    void discard() noexcept;

    std::string m_ms1_path;
    std::string m_ms2_path;
    std::string m_marker_path;
    std::FILE* m_ms1 = nullptr;
    std::FILE* m_ms2 = nullptr;
    bool m_committed = false;
};

// ---- extraction (OpenMS) ---------------------------------------------------

// Counts of one finished extraction.
struct ExtractSummary {
    std::size_t ms1_written = 0;
    std::size_t ms2_written = 0;
    std::size_t centroided_here = 0;  // profile spectra centroided by the peak picker
    std::size_t skipped_levels = 0;   // MS3 and above: not part of the pair
    std::size_t skipped_empty = 0;    // no peak left: the reader cannot hold such a scan
    bool native_numbers = false;
};

// Converts `options.input_path` (mzML or mzXML, any compression the library
// reads) into the pair and marker in `options.output_dir`, which is created when
// missing. `progress` receives one line at a time, without line end. Throws when
// the file cannot be read, has no MS1 scan, or holds a profile MS1 spectrum that
// gives no centroid.
ExtractSummary extract_run(const Options& options,
                           const std::function<void(const std::string&)>& progress);

}  // namespace ksieve::spexor

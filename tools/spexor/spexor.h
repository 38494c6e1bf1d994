// The companion extractor spexor_xml.exe: it turns one mzML or mzXML run into
// the `.ms1`/`.ms2` text pair that kSieve reads, and last of all writes the
// marker `<stem>.spexor` that tells kSieve the pair is complete.
//
// This header is the contract of the extractor's parts. Options, scan numbering,
// instrument and activation naming, the account, the text layout and the
// output files need only the standard library; `extract_run` reads the file
// through xml_reader.h (expat, zlib, the vocabulary table) and hands the
// spectra to a second thread through pipe.h.
//
// Failures are exceptions derived from std::exception with a message meant for
// the user; the executable prints it on standard error and exits non-zero.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "physics.h"

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

// The file name of `path` without its directory, a ".gz" suffix and then its
// last extension ("/data/run.1.mzML" gives "run.1", "run.mzML.gz" gives "run");
// a name without a dot is its own stem.
std::string stem_of(std::string_view path);

// ---- scan numbers, instrument and activation ---------------------------------

// N of a native ID token "scan=N" (Thermo "controllerType=0 controllerNumber=1
// scan=N", mzXML "scan=N"); -1 when the ID has no such token.
int scan_number_from_native_id(std::string_view native_id);

// The analyzer kinds that an instrument configuration lists.
struct RunAnalyzers {
    bool fourier_transform = false;  // Orbitrap and FT-ICR
    bool time_of_flight = false;
    bool ion_trap = false;
};

// "FTMS" or "ITMS", the words whose first letter the reader turns into "FT" or
// "IT". Evidence in order of trust: the scan's own filter string ("FTMS + p
// ..."); the analyzers of the scan's own instrument configuration when the run
// has several (hybrids list one per readout) and they are of one kind; the
// run's analyzers when they are all ion traps or all time-of-flight. A single
// Orbitrap or FT-ICR configuration does not tell where a hybrid read its
// fragments, so then a survey scan is taken for high resolution, and a fragment
// scan for the trap unless it is HCD.
std::string instrument_type_of(std::string_view filter_string, RunAnalyzers scan_analyzers,
                               RunAnalyzers run_analyzers, int ms_level,
                               std::string_view activation_type);

// The dissociation terms of one precursor's activation, sorted into the
// families kSieve knows by the vocabulary's is-a relations.
struct ActivationTerms {
    bool collision = false;               // collision-induced dissociation and its kinds
    bool beam_type = false;               // beam-type CID (HCD) and its kinds
    bool electron_transfer = false;       // ETD and its kinds
    bool ethcd = false;                   // the combined term EThcD
    bool supplemental_collision = false;  // supplemental (trap-type) CID
    bool supplemental_beam_type = false;  // supplemental beam-type CID
    bool supplemental_energy = false;     // a supplemental collision energy, of no stated type
    std::string other;                    // short name of the first method with no kSieve meaning
};

// The activation word of an MS2 scan: CID, HCD, ETD, ETHCD and ETCID (ETD with
// supplemental activation, by the supplemental energy's type, else by the
// filter string's chain "...@etd25.00@hcd20.00"); any other method by its own
// short name; "" when the scan names none.
std::string activation_type_of(const ActivationTerms& terms, std::string_view filter_string);

// The word for a scan that names no method: the run's own, as the nearest
// earlier MS2 scan named it; else what the filter string's analyzer implies
// (HCD for FTMS, CID for ITMS); else what the analyzers imply (HCD for Orbitrap,
// FT-ICR and TOF, CID for ion traps and hybrids of both); else CID.
std::string inferred_activation_type(std::string_view run_activation,
                                     std::string_view filter_string, RunAnalyzers analyzers);

// True when kSieve's scan gate processes a scan of this activation and
// instrument word as the companion writes them (FTMS, ITMS): kSieve's own gate,
// on the instrument type its reader makes of the word.
bool gate_processes(std::string_view activation_type, std::string_view instrument_type);

// Whether peaks declared as profile data really are: converters keep the
// declaration after centroiding, so the points must also lie close together
// (most neighbours under 0.05 m/z apart, at least 5 points). `mz` ascending.
bool looks_like_profile(const std::vector<double>& mz);

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

// Scan numbers while the file is read once: the native IDs' "scan=N" as long as
// every MS1 and MS2 spectrum has one and they rise within each level (other
// levels are not written and do not count). When a spectrum breaks this, the
// run must be numbered by position + 1, which always rises, from the start.
class ScanNumbering {
  public:
    explicit ScanNumbering(bool native) : m_native(native) {}
    bool uses_native_numbers() const { return m_native; }
    // The number of the spectrum at `position` (from 0, in file order); -1 when
    // native numbering breaks at this spectrum.
    int number(std::string_view native_id, int ms_level, std::size_t position);

  private:
    bool m_native;
    int m_last[3] = {-1, -1, -1};
};

// The survey scans read so far, to find the parent of each fragment scan while
// the file is read once. Memory grows with the number of MS1 scans only.
class SurveyScans {
  public:
    // `position` is the spectrum's place in the file.
    void add(const std::string& native_id, int number, double rt_seconds, std::size_t position);

    // The scan that `spectrum_ref` names when it is a survey scan read so far;
    // else the last survey scan at or before (`rt_seconds`, `position`) in
    // retention time, file order breaking ties; else 0. Some files store all MS1
    // spectra before all MS2 spectra, so file order alone cannot pair them.
    int parent_of(const std::string& spectrum_ref, double rt_seconds, std::size_t position) const;

  private:
    struct Entry {
        double rt_seconds;
        std::size_t position;
        int number;
    };
    std::vector<Entry> m_by_time;  // ordered by (rt, position)
    std::unordered_map<std::string, int> m_by_id;
};

// ---- the account of a conversion ----------------------------------------------

// What happened to every spectrum of the file. ms2_written plus the
// ms2_not_written counts is ms2_read.
struct ScanAccount {
    std::size_t ms1_read = 0;
    std::size_t ms1_written = 0;
    std::size_t ms2_read = 0;
    std::size_t ms2_written = 0;
    std::map<std::string, std::size_t> ms2_written_by_activation;
    std::size_t ms2_inferred_activation = 0;
    std::size_t ms2_gate_will_skip = 0;  // written with a method kSieve does not process
    // Written with charges 2 and 3 at the isolation target: no usable selected ion.
    std::size_t ms2_isolation_target_only = 0;
    // Written with neither a selected ion nor an isolation target: kSieve skips them.
    std::size_t ms2_no_precursor = 0;
    std::size_t ms2_not_written_no_peaks = 0;
    std::size_t msn_not_written = 0;  // MS3 and above
    std::set<double> faims_cv_values;
};

// "key\tvalue\n" lines in a fixed order: ms1_read, ms1_written, ms2_read,
// ms2_written, ms2_written_<ACTIVATION> (one per word written, sorted),
// ms2_inferred_activation, ms2_gate_will_skip, ms2_isolation_target_only and
// ms2_no_precursor (each only when not 0, so that the account of a run with
// declared precursors throughout reads as it always has),
// ms2_not_written_no_peaks, msn_not_written, faims_cv_values (the number of
// distinct voltages).
std::string account_text(const ScanAccount& account);

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
    std::string instrument_type;     // "FTMS" or "ITMS"
    std::string centroiding;         // "as stored" or the name of the peak picker
    std::optional<double> faims_cv;  // compensation voltage, V, when recorded
    std::string native_id;           // the spectrum's id in the file; "" when none
    // MS2 only.
    std::string activation_type;  // "" when the file declares none
    double activation_center = 0.0;
    int precursor_scan = 0;  // 0 when unknown
    std::vector<DeclaredPrecursor> precursors;
    std::vector<PeakPoint> peaks;  // ascending m/z, positive intensity
};

// Singly protonated mass [M+H]+ of an ion at `mz` with `charge`; 0 for an m/z
// below 1e-6, which the reader replaces by the isolation target.
double singly_protonated_mass(double mz, int charge);

// `value` with `digits` decimals (0 to 10), exactly as std::to_chars writes it
// in fixed notation (correctly rounded), at a fraction of its cost.
void append_fixed(std::string& text, double value, int digits);

// Header lines "H\t<key>\t<value>\n".
void append_header_line(std::string& text, std::string_view key, std::string_view value);

// The lines of one scan, appended to `text`. Fixed positions the reader relies
// on: "I\tRetTime\t" value at 10, "I\tIonInjectionTime\t" at 19,
// "I\tInstrumentType\t" at 17, "I\tActivationType\t" at 17,
// "I\tActivationCenter\t" at 19, "I\tPrecursorScan\t" at 16. The ActivationCenter
// line comes before the Z lines, since a Z line of mass 0 stands for it.
// "I\tNativeID\t" (at 11) follows the S line when the scan has an id: at most
// kMaxNativeIdBytes of it, with tabs and line ends as blanks, so that the line
// stays whole in the readers' 1023-byte buffer and no piece of it can read as
// a peak.
inline constexpr std::size_t kMaxNativeIdBytes = 1000;
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

// ---- extraction ---------------------------------------------------------------

// Converts `options.input_path` (mzML or mzXML, plain or gzip-compressed) into
// the pair and marker in `options.output_dir`, which is created when missing;
// `source_name` is the file name written in the header and whose stem names the
// outputs. The file is read once. `progress` receives one line at a time,
// without line end. Throws, leaving no marker, when the file cannot be read
// whole (a document type declaration, truncated, bad base64, bad compression,
// arrays of unequal length) or an output cannot be written. A file without MS1
// scans gives an `.ms1` file of header lines only.
ScanAccount extract_run(const Options& options, const std::string& source_name,
                        const std::function<void(const std::string&)>& progress);

// What both companions' main functions do once they have a file to read:
// converts it, prints progress and then the account on standard output, or one
// line "<program>: cannot convert <source>: <reason>" on standard error.
// Returns the exit code: 0 when the pair and the marker are written, else 1.
int convert_and_report(const char* program, const Options& options, const std::string& source_name);

}  // namespace ksieve::spexor

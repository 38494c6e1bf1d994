// Every run parameter, the three option tables, and the two ways of filling them:
// a parameter file or the command line.
//
// A run is configured from exactly one source. Both readers gather text pairs
// into a ParameterMap, then run one tail: apply_parameters, print_parameters (the
// echo in the log), finalize_parameters (validation, output and log directories,
// peak format, windows). Failures throw: a `const char*` for a fixed message, a
// std::string for a composed one; the entry point reports both. A data path that
// names nothing is the one soft failure: it is dropped with a "WARN" line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ksieve {

// Key to value, ordered by plain byte comparison; operator[] creates an empty
// value for a missing key, which the usage text and the template rely on.
using ParameterMap = std::map<std::string, std::string>;

struct UserParameters {
    bool m_rewrite_files = false;           // rewrite_files
    bool m_co_elute = true;                 // co-elute
    bool m_cut_similiar_mono = true;        // cut_similiar_mono
    bool m_delete_msn = false;              // delete_msn
    bool m_check_activationcenter = true;   // check_activationcenter
    bool m_output_ks = true;                // output_ks
    bool m_output_mgf = true;               // output_mgf
    bool m_mstolppm = true;                 // mstolppm: m_mstol in ppm, else in m/z
    int32_t m_intensity_digits = 1;         // intensity: decimals of MGF intensities
    int32_t m_mz_digits = 5;                // m/z: decimals of MGF peak m/z
    int32_t m_mars_model = 4;               // mars_model
    double m_mars_threshold = -0.34;        // mars_threshold
    double m_isolation_width = 2.0;         // isolation_width, m/z
    double m_recalibrate_window = 7.0;      // recalibrate_window, ppm half-width
    double m_mstol = 20.0;                  // mstol
    std::string m_logfilepath;              // logfilepath
    std::string m_ipv_file = "IPV.txt";     // ipv_file
    std::string m_input_format = "raw";     // input_format, stored as given
    std::string m_outputpath;               // outputpath; empty: beside each input
    std::vector<std::string> m_datapaths;   // datapath / datanum + datapathN
    int32_t m_memory_ceiling_mib = 1024;    // memory_ceiling_mib: MS1 peak lists held
    bool m_faims_windows = true;            // faims_windows: MS1 window per compensation voltage
    bool m_mgf_conventions = false;         // mgf_conventions: RTINSECONDS in seconds, SCANS=
    bool m_validate_precursors = false;     // validate_precursors: second look after detection
    int32_t m_threads = 0;                  // threads: that detect and format; 0 all cores
    bool m_keep_declared = false;           // keep_declared: declared precursor always written
    bool m_precursor_table = false;         // precursor_table: evidence table and run summary
    bool m_output_mzml = false;             // output_mzml: <stem>.ksieve.mzML
    bool m_mzml_compression = true;         // mzml_compression: zlib peak arrays
    bool m_mzml_monoisotopic_term = false;  // mzml_monoisotopic_term: MS:1003208 as well
    // Set by finalising; no key. The record is never changed after that: what
    // varies per input file travels beside it.
    bool m_output_beside_input = false;
    std::string m_peak_format;     // printf format of one MGF peak line
    double m_peak_window = 3.0;    // isolation_width + 1, after finalising
    double m_search_window = 3.5;  // peak window + tolerance margin, after finalising
};

// Where a key's value lands in the record; empty for the data path keys, which
// apply_parameters gathers on its own.
using OptionField = std::variant<std::monostate, bool UserParameters::*, int32_t UserParameters::*,
                                 double UserParameters::*, std::string UserParameters::*>;

// The numbers a key accepts; each end is open or closed. Anything else, NaN and
// infinities included, stops the run while the parameters are read.
struct OptionRange {
    double m_low = 0.0;
    double m_high = 0.0;
    bool m_low_open = false;
    bool m_high_open = false;
};

// One option: the single source of its name, letter, default, accepted values,
// help and documentation (rows are written with designated initialisers). Only
// the original rows reach the parameter echo, the template and the usage text;
// a later row is a parameter-file key, logged after the echo when it differs
// from its default.
struct OptionRow {
    const char* m_key = "";
    const char* m_letter = "";  // without the dash; "" for a parameter-file key
    OptionField m_field = {};   // its default is that of a fresh record
    std::optional<OptionRange> m_range = std::nullopt;
    const char* m_help = nullptr;  // template and usage text; original rows only
    bool m_original = true;
    // README lists the row (with the default of a fresh record's field, an empty
    // text shown as m_empty_default) and what it means.
    bool m_listed = true;
    const char* m_empty_default = "";
    const char* m_meaning = "";
    // Logged after the echo when not at its default; a key that cannot change a
    // byte of any output (the thread count) stays silent, so that the log too is
    // the same whatever its value.
    bool m_logged = true;
};

// Every option, in the order in which apply_parameters copies them.
const std::vector<OptionRow>& option_rows();
// The text form of one field of `record`: a flag "1" or "0", an integer in
// decimal, a double as format_double, a string as it stands.
std::string field_text(const UserParameters& record, const OptionField& field);
// The README table of options (Markdown), generated from option_rows.
std::string option_table_markdown();
// "a number in [0, 1048576]", or "a finite number" for a range open at both
// infinities: the accepted values as the messages and the README write them.
// (A NaN given for such a key is told it "should be a number, not NaN".)
std::string accepted_text(const OptionRange& range);

// Option letter (without the dash) to long key; 18 rows, case-sensitive.
extern ParameterMap g_short_options;
// Long key to help text (with its own leading tabs and line feeds).
extern ParameterMap g_option_help;
// Long key to the text of its default: parameters_to_map of a default record.
extern ParameterMap g_default_values;

// The line filter of a parameter file: each line (or 1023-byte piece of a longer
// one) is cut at its first '#' and trimmed; empty lines and lines beginning with
// ';' or '[' are skipped (section headers have no meaning); the rest must hold a
// '=' or the read throws "Unexpected INI format!". The key before the first '='
// is lowered and trimmed, the value after it trimmed with its case kept, quotes
// and later '=' included. A later line with the same key wins.
ParameterMap read_parameter_map(std::FILE* file);

// Opens the file (throws "Cannot open  File, Path: " + path), reads it with
// read_parameter_map and returns the finalised record.
UserParameters read_parameter_file(std::string path);
// With argc 2 the one argument is the data path, unchecked. Otherwise `-x value`
// pairs, letters looked up in g_short_options; throws for an even argc, an
// argument that is not "-x", or an unknown letter. Returns the finalised record.
UserParameters read_command_line(int argc, char** argv);

// Copies the keys present in `map` into `record`, in the order of option_rows
// (booleans, integers, doubles, mstolppm, strings, then the later keys), then the
// data paths; the first bad value ends it. Without a threads key, the
// environment variable KSIEVE_THREADS stands in for it (text that is not a
// whole number throws "cannot turn environment variable: <name:KSIEVE_THREADS>
// <value:...> into an int."). An original flag is false only for the
// text "0"; a later flag takes "0" or "1" only; the threads value is the whole
// text ("2.5" and "1e3" are refused as to_int refuses "x"). A number outside its row's range
// throws "Argument <key>(-<letter>) invalid: <value>; <key> should be " +
// accepted_text (no letter part for a parameter-file key). Paths come from datapath1..datapathN
// when datanum is present (a missing one throws "Unable to find User Defined
// Parameter: datapathK"), otherwise from datapath (throws when absent); trailing
// separators are stripped, and a path that names nothing is dropped with the
// "WARN" line "Datapath: <path>is not a valid datapath.".
void apply_parameters(UserParameters& record, ParameterMap map);
// Validates the digits (0 to 9, else a fixed message), builds m_peak_format,
// settles the output directory (created if missing; none: output beside each
// input) and the log directory (logfilepath, else outputpath, else the parent of
// the first data path, else "."), hands the latter to the logger, and computes
// m_peak_window = isolation_width + 1 and m_search_window = m_peak_window + the
// tolerance in m/z at m/z 15000.
void finalize_parameters(UserParameters& record);

// strtol / strtod semantics (leading blanks skipped, trailing text ignored); no
// digits or out of range throws "cannot turn param: <name:..> <value:..> into an
// int." / "... into an double.".
int32_t to_int(std::string value, std::string name);
double to_double(std::string value, std::string name);

// The text form of every parameter: 20 rows plus one datapathN row per path.
void parameters_to_map(const UserParameters& record, ParameterMap& map);
// "%f" of a value.
std::string format_double(double value);
// The numbered parameter echo of the original keys, through the log at INFO,
// then one "<key> = <value>" line for each later key that is not at its default.
void print_parameters(const UserParameters& record);
// Writes "kSieve<Y><M><D><h><m><s>.params" in the working directory unless a file
// of that name exists.
void write_parameter_template();
// The usage text, on standard output.
void print_usage();

}  // namespace ksieve

// The vocabulary of the parameters: the one table of options, the letter, help
// and default tables derived from it, the text form of a record, and the README
// table of options.
//
// All three tables live in this one file: g_default_values is computed from
// parameters_to_map while statics are initialised, so nothing it reads may sit in
// another translation unit whose initialisation order is unknown.
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "userparameters.h"

namespace ksieve {

std::string format_double(double value) {
    // Measure first, then print into a string of exactly that length.
    const int length = std::snprintf(nullptr, 0, "%f", value);
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, "%f", value);
    return text;
}

std::string field_text(const UserParameters& record, const OptionField& field) {
    struct Text {
        const UserParameters& m_record;
        std::string operator()(std::monostate) const { return ""; }
        std::string operator()(bool UserParameters::*f) const { return m_record.*f ? "1" : "0"; }
        std::string operator()(int32_t UserParameters::*f) const {
            return std::to_string(m_record.*f);
        }
        std::string operator()(double UserParameters::*f) const {
            return format_double(m_record.*f);
        }
        std::string operator()(std::string UserParameters::*f) const { return m_record.*f; }
    };
    return std::visit(Text{record}, field);
}

void parameters_to_map(const UserParameters& record, ParameterMap& map) {
    map.clear();
    for (const OptionRow& row : option_rows()) {
        if (row.m_original && !std::holds_alternative<std::monostate>(row.m_field)) {
            map[row.m_key] = field_text(record, row.m_field);
        }
    }
    map["datanum"] = std::to_string(record.m_datapaths.size());
    for (size_t i = 0; i < record.m_datapaths.size(); ++i) {
        map["datapath" + std::to_string(i + 1)] = record.m_datapaths[i];
    }
}

namespace {

ParameterMap default_values() {
    ParameterMap map;
    parameters_to_map(UserParameters{}, map);
    return map;
}

const char* const kMarsModelHelp =
    "\t\t# 0: NORBCS, 11 features, Dorn Ala Lab_HeLa_Third Raw_Kbo*****_3.RAW;\n"
    "\t\t# 1: Hallam Velos-1, 11 featues;\n"
    "\t\t# 2: Hallam Velos-1, 5 feature;\n"
    "\t\t# 3: Hallam QE-1, 9 feature;\n"
    "\t\t# 4: Used to be Tovey-02A, 11 feature; Now  Elin Sarto, 9 feature.[kSeek "
    "2.2](Recommended)\n"
    "\t\t# 5: N15, 9 feature;\n"
    "\t\t# 15: best between N15, 9 feature and Hallam QE-2, 9 feature [Experimental];\n"
    "\t\t# 250: Hallam QE-2, 9 feature [kSeek 2.0];\n"
    "\t\t# 1024: Elin Sarto, 9 feature [Experimental].";

// A NaN width or tolerance makes every window comparison false, and the window
// searches then run off their peak lists; an infinite one makes every scan's
// window the whole spectrum, and a NaN or infinite threshold switches detection
// off or lets everything through. Every finite number leads to a completed run.
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr OptionRange kFiniteNumber{-kInfinity, kInfinity, true, true};
constexpr OptionRange kCeilingRange{0.0, 1048576.0, false, false};
constexpr OptionRange kThreadsRange{0.0, 4096.0, false, false};

const char* const kDataPathHelp = "\t\t# The directory contains input files / the input file path.";

// datanum, mstol and mstolppm have no letter: they can be set in a parameter file
// only, and the usage text and the template leave them out. Each help text carries
// its own indent and line feeds, and reads as a comment when a template is read
// back; ipv_file and recalibrate_window have none.
std::vector<OptionRow> make_option_rows() {
    using U = UserParameters;
    return {
        {.m_key = "rewrite_files",
         .m_letter = "r",
         .m_field = &U::m_rewrite_files,
         .m_help = "\t\t# 0 Do Not rewrite file if exist;\n\t\t# 1 Rewrite files anyway.",
         .m_meaning = "process files that already have results"},
        {.m_key = "co-elute",
         .m_letter = "C",
         .m_field = &U::m_co_elute,
         .m_help = "\t\t# 0 Output single precursor for single scan;\n\t\t# 1 Output all co - "
                   "eluted precursors.",
         .m_meaning = "report co-eluted precursors (0: one precursor per scan)"},
        {.m_key = "cut_similiar_mono",
         .m_letter = "S",
         .m_field = &U::m_cut_similiar_mono,
         .m_help = "\t\t# Do not change this usually.\n\t\t# 0 Output single precursor for "
                   "single scan;\n\t\t# 1 Keep one precursor in 20ppm with same charge.",
         .m_meaning = "merge candidate peaks within the tolerance"},
        {.m_key = "delete_msn",
         .m_letter = "d",
         .m_field = &U::m_delete_msn,
         .m_help = "\t\t# 0 Keep the MS1/MS2 files [recommended];\n\t\t# 1 Delete the MS1/MS2 "
                   "files.",
         .m_meaning = "delete the extracted `.ms1`/`.ms2` afterwards"},
        {.m_key = "check_activationcenter",
         .m_letter = "a",
         .m_field = &U::m_check_activationcenter,
         .m_help = "\t\t# 0 Do Not check;\n\t\t# 1 Check(Recommended).",
         .m_meaning = "let a parent-scan peak at the isolation target settle the candidates"},
        {.m_key = "output_ks",
         .m_letter = "p",
         .m_field = &U::m_output_ks,
         .m_help = "\t\t# 0 Do Not output KS;\n\t\t# 1 Output KS.",
         .m_meaning = "write `.ks1`/`.ks2`"},
        {.m_key = "output_mgf",
         .m_letter = "m",
         .m_field = &U::m_output_mgf,
         .m_help = "\t\t# 0 Do Not output MGF;\n\t\t\t\t# 1 Output MGF.",
         .m_meaning = "write `.mgf`"},
        {.m_key = "intensity",
         .m_letter = "i",
         .m_field = &U::m_intensity_digits,
         .m_help = "\t\t# The digits of intensity to output",
         .m_meaning = "decimals of peak intensity in MGF output (0-9)"},
        {.m_key = "m/z",
         .m_letter = "z",
         .m_field = &U::m_mz_digits,
         .m_help = "\t\t# The digits of m/z to output",
         .m_meaning = "decimals of peak m/z in MGF output (0-9)"},
        {.m_key = "mars_model",
         .m_letter = "M",
         .m_field = &U::m_mars_model,
         .m_help = kMarsModelHelp,
         .m_meaning = "scoring model: 0, 1, 2, 3, 4, 5, 15, 250, 1024"},
        {.m_key = "mars_threshold",
         .m_letter = "t",
         .m_field = &U::m_mars_threshold,
         .m_range = kFiniteNumber,
         .m_help = "\t\t# Be careful with this. Never try to revise this one.",
         .m_meaning = "score a precursor must exceed"},
        {.m_key = "isolation_width",
         .m_letter = "W",
         .m_field = &U::m_isolation_width,
         .m_range = kFiniteNumber,
         .m_help = "\t\t# Options: 2 / 2.5 / 3 / 4.",
         .m_meaning = "isolation window width, m/z"},
        {.m_key = "recalibrate_window",
         .m_letter = "R",
         .m_field = &U::m_recalibrate_window,
         .m_range = kFiniteNumber,
         .m_meaning = "ppm window of the final m/z recalibration"},
        {.m_key = "mstol",
         .m_field = &U::m_mstol,
         .m_range = kFiniteNumber,
         .m_meaning = "MS1 tolerance, in ppm or m/z by `mstolppm`; parameter file only"},
        {.m_key = "mstolppm",
         .m_field = &U::m_mstolppm,
         .m_meaning = "`mstol` in ppm when 1, in m/z when 0; parameter file only"},
        {.m_key = "logfilepath",
         .m_letter = "L",
         .m_field = &U::m_logfilepath,
         .m_help = "\t\t# Default value is the directory of data_path.",
         .m_empty_default = "the output directory, else the first input's",
         .m_meaning = "where `kSievePlusLog.txt` goes"},
        {.m_key = "ipv_file",
         .m_letter = "I",
         .m_field = &U::m_ipv_file,
         .m_meaning = "the isotope table"},
        {.m_key = "input_format",
         .m_letter = "F",
         .m_field = &U::m_input_format,
         .m_help = "\t\t# Options: raw / mzXML / mzML / ms1 / mgf.",
         .m_meaning = "raw, mzxml, mzml, ms1 or mgf (any case), for directories"},
        {.m_key = "outputpath",
         .m_letter = "O",
         .m_field = &U::m_outputpath,
         .m_help = "\t\t# Default value is the directory of data_path.",
         .m_empty_default = "beside each input",
         .m_meaning = "output directory, created when missing"},
        {.m_key = "datapath",
         .m_letter = "D",
         .m_help = kDataPathHelp,
         .m_meaning = "input file or directory (a parameter file may list several: `datanum`, "
                      "`datapath1`, ...)"},
        {.m_key = "datanum", .m_help = "\t\t# The number of datapath.", .m_listed = false},
        {.m_key = "datapath1", .m_help = kDataPathHelp, .m_listed = false},
        // Later keys: parameter file only, one row each.
        {.m_key = "memory_ceiling_mib",
         .m_field = &U::m_memory_ceiling_mib,
         .m_range = kCeilingRange,
         .m_original = false,
         .m_meaning = "MiB of MS1 peak lists held in memory; older ones are read again from the "
                      "`.ms1` file when needed, with identical results"},
        {.m_key = "faims_windows",
         .m_field = &U::m_faims_windows,
         .m_original = false,
         .m_meaning = "1: in a FAIMS run, each MS2 scan is judged against the MS1 scans of its "
                      "own compensation voltage (its parent scan's, else its own); 0: against all "
                      "MS1 scans"},
        {.m_key = "mgf_conventions",
         .m_field = &U::m_mgf_conventions,
         .m_original = false,
         .m_meaning = "1: MGF `RTINSECONDS` in seconds (the `.ms2` gives minutes) and a `SCANS=` "
                      "line after `TITLE`"},
        {.m_key = "validate_precursors",
         .m_field = &U::m_validate_precursors,
         .m_original = false,
         .m_meaning = "1: after detection, remove or correct precursors that are another charge "
                      "or isotope of an ion, twice the same ion, or an envelope whose isotopes do "
                      "not elute together"},
        {.m_key = "threads",
         .m_field = &U::m_threads,
         .m_range = kThreadsRange,
         .m_original = false,
         .m_meaning = "threads that determine precursors and format output (0: every core kSieve "
                      "may use; 1: one after another); output is the same for any number. The "
                      "environment variable `KSIEVE_THREADS` stands in for a missing key",
         .m_logged = false},
        {.m_key = "keep_declared",
         .m_field = &U::m_keep_declared,
         .m_original = false,
         .m_meaning = "1: a valid declared precursor that detection neither confirmed nor found "
                      "at another isotope or charge is written after the detected ones"},
        {.m_key = "precursor_table",
         .m_field = &U::m_precursor_table,
         .m_original = false,
         .m_meaning = "1: also write `<stem>.precursors.tsv`, one row of evidence per written "
                      "precursor (origin, score, intensity, isolation purity), keyed by the MGF "
                      "title, and `<stem>.summary.json`, the run's counts and parameters"},
        {.m_key = "output_mzml",
         .m_field = &U::m_output_mzml,
         .m_original = false,
         .m_meaning = "1: also write `<stem>.ksieve.mzML`, every MS1 scan and every written MS2 "
                      "scan with its precursors (see \"mzML output\")"},
        {.m_key = "mzml_compression",
         .m_field = &U::m_mzml_compression,
         .m_original = false,
         .m_meaning = "0: mzML peak arrays without zlib compression"},
        {.m_key = "mzml_monoisotopic_term",
         .m_field = &U::m_mzml_monoisotopic_term,
         .m_original = false,
         .m_meaning = "1: each mzML selected ion also carries `MS:1003208` (experimental "
                      "precursor monoisotopic m/z), a term older readers reject"},
    };
}

}  // namespace

const std::vector<OptionRow>& option_rows() {
    static const std::vector<OptionRow> rows = make_option_rows();
    return rows;
}

ParameterMap g_short_options = [] {
    ParameterMap map;
    for (const OptionRow& row : option_rows()) {
        if (*row.m_letter != '\0') {
            map[row.m_letter] = row.m_key;
        }
    }
    return map;
}();

ParameterMap g_option_help = [] {
    ParameterMap map;
    for (const OptionRow& row : option_rows()) {
        if (row.m_help != nullptr) {
            map[row.m_key] = row.m_help;
        }
    }
    return map;
}();

ParameterMap g_default_values = default_values();

std::string accepted_text(const OptionRange& range) {
    if (std::isinf(range.m_low) && std::isinf(range.m_high)) {
        return "a finite number";
    }
    const auto number = [](double value) {
        std::string text = format_double(value);
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.') {
            text.pop_back();
        }
        return text;
    };
    return std::string("a number in ") + (range.m_low_open ? "(" : "[") + number(range.m_low) +
           ", " + number(range.m_high) + (range.m_high_open ? ")" : "]");
}

namespace {

// A row's default as README shows it: the field of a fresh record, a double
// with its trailing zeros cut to one decimal, an empty text by what it means.
std::string readme_default(const OptionRow& row) {
    std::string text = field_text(UserParameters{}, row.m_field);
    if (std::holds_alternative<double UserParameters::*>(row.m_field)) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.') {
            text.push_back('0');
        }
    }
    return text.empty() ? row.m_empty_default : text;
}

}  // namespace

std::string option_table_markdown() {
    std::string table = "| option | key | default | accepted | meaning |\n|---|---|---|---|---|\n";
    for (const OptionRow& row : option_rows()) {
        if (!row.m_listed) {
            continue;
        }
        const std::string letter =
            *row.m_letter != '\0' ? "`-" + std::string(row.m_letter) + "`" : "";
        std::string accepted = row.m_range ? accepted_text(*row.m_range) : "";
        if (std::holds_alternative<bool UserParameters::*>(row.m_field)) {
            accepted = row.m_original ? "`0` is off, anything else on" : "0 or 1";
        }
        table += "| " + letter + " | `" + row.m_key + "` | " + readme_default(row) + " | " +
                 accepted + " | " + row.m_meaning + " |\n";
    }
    return table;
}

}  // namespace ksieve

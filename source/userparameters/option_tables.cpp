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
        {"rewrite_files",
         "r",
         &U::m_rewrite_files,
         {},
         "\t\t# 0 Do Not rewrite file if exist;\n\t\t# 1 Rewrite files anyway.",
         true,
         "0",
         "process files that already have results"},
        {"co-elute",
         "C",
         &U::m_co_elute,
         {},
         "\t\t# 0 Output single precursor for single scan;\n\t\t# 1 Output all co - eluted "
         "precursors.",
         true,
         "1",
         "report co-eluted precursors (0: one precursor per scan)"},
        {"cut_similiar_mono",
         "S",
         &U::m_cut_similiar_mono,
         {},
         "\t\t# Do not change this usually.\n\t\t# 0 Output single precursor for single "
         "scan;\n\t\t# 1 Keep one precursor in 20ppm with same charge.",
         true,
         "1",
         "merge candidate peaks within the tolerance"},
        {"delete_msn",
         "d",
         &U::m_delete_msn,
         {},
         "\t\t# 0 Keep the MS1/MS2 files [recommended];\n\t\t# 1 Delete the MS1/MS2 files.",
         true,
         "0",
         "delete the extracted `.ms1`/`.ms2` afterwards"},
        {"check_activationcenter",
         "a",
         &U::m_check_activationcenter,
         {},
         "\t\t# 0 Do Not check;\n\t\t# 1 Check(Recommended).",
         true,
         "1",
         "let a parent-scan peak at the isolation target settle the candidates"},
        {"output_ks",
         "p",
         &U::m_output_ks,
         {},
         "\t\t# 0 Do Not output KS;\n\t\t# 1 Output KS.",
         true,
         "1",
         "write `.ks1`/`.ks2`"},
        {"output_mgf",
         "m",
         &U::m_output_mgf,
         {},
         "\t\t# 0 Do Not output MGF;\n\t\t\t\t# 1 Output MGF.",
         true,
         "1",
         "write `.mgf`"},
        {"intensity",
         "i",
         &U::m_intensity_digits,
         {},
         "\t\t# The digits of intensity to output",
         true,
         "1",
         "decimals of peak intensity in MGF output (0-9)"},
        {"m/z",
         "z",
         &U::m_mz_digits,
         {},
         "\t\t# The digits of m/z to output",
         true,
         "5",
         "decimals of peak m/z in MGF output (0-9)"},
        {"mars_model",
         "M",
         &U::m_mars_model,
         {},
         kMarsModelHelp,
         true,
         "4",
         "scoring model: 0, 1, 2, 3, 4, 5, 15, 250, 1024"},
        {"mars_threshold", "t", &U::m_mars_threshold, kFiniteNumber,
         "\t\t# Be careful with this. Never try to revise this one.", true, "-0.34",
         "score a precursor must exceed"},
        {"isolation_width", "W", &U::m_isolation_width, kFiniteNumber,
         "\t\t# Options: 2 / 2.5 / 3 / 4.", true, "2.0", "isolation window width, m/z"},
        {"recalibrate_window", "R", &U::m_recalibrate_window, kFiniteNumber, nullptr, true, "7.0",
         "ppm window of the final m/z recalibration"},
        {"mstol", "", &U::m_mstol, kFiniteNumber, nullptr, true, "20",
         "MS1 tolerance, in ppm or m/z by `mstolppm`; parameter file only"},
        {"mstolppm",
         "",
         &U::m_mstolppm,
         {},
         nullptr,
         true,
         "1",
         "`mstol` in ppm when 1, in m/z when 0; parameter file only"},
        {"logfilepath",
         "L",
         &U::m_logfilepath,
         {},
         "\t\t# Default value is the directory of data_path.",
         true,
         "the output directory, else the first input's",
         "where `kSievePlusLog.txt` goes"},
        {"ipv_file", "I", &U::m_ipv_file, {}, nullptr, true, "IPV.txt", "the isotope table"},
        {"input_format",
         "F",
         &U::m_input_format,
         {},
         "\t\t# Options: raw / mzXML / mzML / ms1 / mgf.",
         true,
         "raw",
         "raw, mzxml, mzml, ms1 or mgf (any case), for directories"},
        {"outputpath",
         "O",
         &U::m_outputpath,
         {},
         "\t\t# Default value is the directory of data_path.",
         true,
         "beside each input",
         "output directory, created when missing"},
        {"datapath",
         "D",
         {},
         {},
         kDataPathHelp,
         true,
         "",
         "input file or directory (a parameter file may list several: `datanum`, "
         "`datapath1`, ...)"},
        {"datanum", "", {}, {}, "\t\t# The number of datapath.", true, nullptr, ""},
        {"datapath1", "", {}, {}, kDataPathHelp, true, nullptr, ""},
        // Later keys: parameter file only, one row each.
        {"memory_ceiling_mib", "", &U::m_memory_ceiling_mib, kCeilingRange, nullptr, false, "1024",
         "MiB of MS1 peak lists held in memory; older ones are read again from the `.ms1` "
         "file when needed, with identical results"},
        {"faims_windows",
         "",
         &U::m_faims_windows,
         {},
         nullptr,
         false,
         "1",
         "1: in a FAIMS run, each MS2 scan is judged against the MS1 scans of its own "
         "compensation voltage (its parent scan's, else its own); 0: against all MS1 scans"},
        {"mgf_conventions",
         "",
         &U::m_mgf_conventions,
         {},
         nullptr,
         false,
         "0",
         "1: MGF `RTINSECONDS` in seconds (the `.ms2` gives minutes) and a `SCANS=` line after "
         "`TITLE`"},
        {"validate_precursors",
         "",
         &U::m_validate_precursors,
         {},
         nullptr,
         false,
         "0",
         "1: after detection, remove or correct precursors that are another charge or isotope "
         "of an ion, twice the same ion, or an envelope whose isotopes do not elute together"},
        {"threads", "", &U::m_threads, kThreadsRange, nullptr, false, "0",
         "threads that determine precursors and format output (0: every core kSieve may use; "
         "1: one after another); output is the same for any number. The environment variable "
         "`KSIEVE_THREADS` stands in for a missing key",
         false},
        {"keep_declared",
         "",
         &U::m_keep_declared,
         {},
         nullptr,
         false,
         "0",
         "1: a valid declared precursor that detection neither confirmed nor found at another "
         "isotope or charge is written after the detected ones"},
        {"precursor_table",
         "",
         &U::m_precursor_table,
         {},
         nullptr,
         false,
         "0",
         "1: also write `<stem>.precursors.tsv`, one row of evidence per written precursor "
         "(origin, score, intensity, isolation purity), keyed by the MGF title, and "
         "`<stem>.summary.json`, the run's counts and parameters"},
        {"output_mzml",
         "",
         &U::m_output_mzml,
         {},
         nullptr,
         false,
         "0",
         "1: also write `<stem>.ksieve.mzML`, every MS1 scan and every written MS2 scan with "
         "its precursors (see \"mzML output\")"},
        {"mzml_compression",
         "",
         &U::m_mzml_compression,
         {},
         nullptr,
         false,
         "1",
         "0: mzML peak arrays without zlib compression"},
        {"mzml_monoisotopic_term",
         "",
         &U::m_mzml_monoisotopic_term,
         {},
         nullptr,
         false,
         "0",
         "1: each mzML selected ion also carries `MS:1003208` (experimental precursor "
         "monoisotopic m/z), a term older readers reject"},
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

std::string option_table_markdown() {
    std::string table = "| option | key | default | accepted | meaning |\n|---|---|---|---|---|\n";
    for (const OptionRow& row : option_rows()) {
        if (row.m_shown_default == nullptr) {
            continue;
        }
        const std::string letter =
            *row.m_letter != '\0' ? "`-" + std::string(row.m_letter) + "`" : "";
        std::string accepted = row.m_range ? accepted_text(*row.m_range) : "";
        if (std::holds_alternative<bool UserParameters::*>(row.m_field)) {
            accepted = row.m_original ? "`0` is off, anything else on" : "0 or 1";
        }
        table += "| " + letter + " | `" + row.m_key + "` | " + row.m_shown_default + " | " +
                 accepted + " | " + row.m_meaning + " |\n";
    }
    return table;
}

}  // namespace ksieve

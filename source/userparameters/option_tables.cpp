// The vocabulary of the parameters: option letters, help texts, and the text
// form of a record, from which the default values are derived.
//
// All three tables live in this one file: g_default_values is computed from
// parameters_to_map while statics are initialised, so nothing it reads may sit in
// another translation unit whose initialisation order is unknown.
#include <cstdio>
#include <string>

#include "userparameters.h"

namespace ksieve {

std::string format_double(double value) {
    // Measure first, then print into a string of exactly that length.
    const int length = std::snprintf(nullptr, 0, "%f", value);
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, "%f", value);
    return text;
}

void parameters_to_map(const UserParameters& record, ParameterMap& map) {
    const auto flag = [](bool value) { return std::string(value ? "1" : "0"); };
    map.clear();
    map["rewrite_files"] = flag(record.m_rewrite_files);
    map["co-elute"] = flag(record.m_co_elute);
    map["cut_similiar_mono"] = flag(record.m_cut_similiar_mono);
    map["delete_msn"] = flag(record.m_delete_msn);
    map["check_activationcenter"] = flag(record.m_check_activationcenter);
    map["output_ks"] = flag(record.m_output_ks);
    map["output_mgf"] = flag(record.m_output_mgf);
    map["mstolppm"] = flag(record.m_mstolppm);
    map["intensity"] = std::to_string(record.m_intensity_digits);
    map["m/z"] = std::to_string(record.m_mz_digits);
    map["mars_model"] = std::to_string(record.m_mars_model);
    map["mars_threshold"] = format_double(record.m_mars_threshold);
    map["isolation_width"] = format_double(record.m_isolation_width);
    map["recalibrate_window"] = format_double(record.m_recalibrate_window);
    map["mstol"] = format_double(record.m_mstol);
    map["logfilepath"] = record.m_logfilepath;
    map["ipv_file"] = record.m_ipv_file;
    map["input_format"] = record.m_input_format;
    map["outputpath"] = record.m_outputpath;
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

}  // namespace

// datanum, mstol and mstolppm have no letter: they can be set in a parameter file
// only, and the usage text and the template leave them out.
ParameterMap g_short_options = {
    {"a", "check_activationcenter"},
    {"C", "co-elute"},
    {"d", "delete_msn"},
    {"D", "datapath"},
    {"F", "input_format"},
    {"i", "intensity"},
    {"I", "ipv_file"},
    {"L", "logfilepath"},
    {"m", "output_mgf"},
    {"M", "mars_model"},
    {"O", "outputpath"},
    {"p", "output_ks"},
    {"r", "rewrite_files"},
    {"R", "recalibrate_window"},
    {"S", "cut_similiar_mono"},
    {"t", "mars_threshold"},
    {"W", "isolation_width"},
    {"z", "m/z"},
};

// Each text carries its own indent and line feeds, and reads as a comment when a
// template is read back. ipv_file and recalibrate_window have none.
ParameterMap g_option_help = {
    {"check_activationcenter", "\t\t# 0 Do Not check;\n\t\t# 1 Check(Recommended)."},
    {"co-elute",
     "\t\t# 0 Output single precursor for single scan;\n\t\t# 1 Output all co - eluted "
     "precursors."},
    {"cut_similiar_mono",
     "\t\t# Do not change this usually.\n\t\t# 0 Output single precursor for single "
     "scan;\n\t\t# 1 Keep one precursor in 20ppm with same charge."},
    {"datanum", "\t\t# The number of datapath."},
    {"datapath1", "\t\t# The directory contains input files / the input file path."},
    {"datapath", "\t\t# The directory contains input files / the input file path."},
    {"delete_msn",
     "\t\t# 0 Keep the MS1/MS2 files [recommended];\n\t\t# 1 Delete the MS1/MS2 files."},
    {"input_format", "\t\t# Options: raw / mzXML / mzML / ms1 / mgf."},
    {"intensity", "\t\t# The digits of intensity to output"},
    {"isolation_width", "\t\t# Options: 2 / 2.5 / 3 / 4."},
    {"logfilepath", "\t\t# Default value is the directory of data_path."},
    {"mars_model", kMarsModelHelp},
    {"mars_threshold", "\t\t# Be careful with this. Never try to revise this one."},
    {"m/z", "\t\t# The digits of m/z to output"},
    {"outputpath", "\t\t# Default value is the directory of data_path."},
    {"output_mgf", "\t\t# 0 Do Not output MGF;\n\t\t\t\t# 1 Output MGF."},
    {"output_ks", "\t\t# 0 Do Not output KS;\n\t\t# 1 Output KS."},
    {"rewrite_files", "\t\t# 0 Do Not rewrite file if exist;\n\t\t# 1 Rewrite files anyway."},
};

ParameterMap g_default_values = default_values();

}  // namespace ksieve

// From what the user gave to a finalised record: the parameter-file and
// command-line readers, the conversion of values, and the common tail of apply,
// echo and finalise.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "logger.h"
#include "userparameters.h"
#include "utils.h"

namespace ksieve {

namespace {

const char* const kCheckOptions = "! Please check the options or the *.cfg files.";

// The tail that both readers share. The echo comes before finalising, so it
// shows the values as the user gave them and is held by the logger until the
// log directory is settled.
UserParameters finish_parameters(const ParameterMap& map) {
    UserParameters record;
    apply_parameters(record, map);
    print_parameters(record);
    finalize_parameters(record);
    return record;
}

// A flag is off only for the exact text "0": "false", "no" and "" switch it on.
void apply_flag(const ParameterMap& map, const char* key, bool& field) {
    const auto row = map.find(key);
    if (row != map.end()) {
        field = row->second != "0";
    }
}

void apply_int(const ParameterMap& map, const char* key, int32_t& field) {
    const auto row = map.find(key);
    if (row != map.end()) {
        field = to_int(row->second, std::string("User Defined Parameter: ") + key);
    }
}

void apply_double(const ParameterMap& map, const char* key, double& field) {
    const auto row = map.find(key);
    if (row != map.end()) {
        field = to_double(row->second, std::string("User Defined Parameter: ") + key);
    }
}

void apply_text(const ParameterMap& map, const char* key, std::string& field) {
    const auto row = map.find(key);
    if (row != map.end()) {
        field = row->second;
    }
}

// The paths as named: datapath1..datapathN when datanum is given (datapath is
// then ignored), otherwise the one datapath.
std::vector<std::string> named_data_paths(const ParameterMap& map) {
    std::vector<std::string> paths;
    const auto count = map.find("datanum");
    if (count == map.end()) {
        const auto single = map.find("datapath");
        if (single == map.end()) {
            throw "Unable to find User Defined Parameter: datapath";
        }
        paths.push_back(single->second);
        return paths;
    }
    const int32_t number = to_int(count->second, "User Defined Parameter: datanum");
    for (int32_t i = 1; i <= number; ++i) {
        const std::string key = "datapath" + std::to_string(i);
        const auto row = map.find(key);
        if (row == map.end()) {
            throw "Unable to find User Defined Parameter: " + key;
        }
        paths.push_back(row->second);
    }
    return paths;
}

// A path that names nothing costs the user a warning, not the run.
void apply_data_paths(const ParameterMap& map, UserParameters& record) {
    for (std::string& path : named_data_paths(map)) {
        path = rtrim(std::move(path), kPathSeparators);
        if (!path_exists(path)) {
            log("WARN", "Datapath: " + path + "is not a valid datapath.");
            continue;
        }
        record.m_datapaths.push_back(std::move(path));
    }
}

// Digits above 9 (or negative, seen unsigned) make no sense in a printf precision.
void check_digits(const UserParameters& record) {
    if (static_cast<uint32_t>(record.m_mz_digits) > 9) {
        throw "Argument m/z(-z) invalid: m/z should be integer in [0, 9]";
    }
    if (static_cast<uint32_t>(record.m_intensity_digits) > 9) {
        throw "Argument Intensity(-i) invalid: Intensity should be integer in [0, 9]";
    }
}

// Without an output or log directory the log goes beside the first input; a run
// with no input at all logs into the working directory.
std::string log_directory(const UserParameters& record) {
    if (!record.m_logfilepath.empty()) {
        return rtrim(record.m_logfilepath, kPathSeparators);
    }
    if (!record.m_outputpath.empty()) {
        return record.m_outputpath;
    }
    if (!record.m_datapaths.empty()) {
        return parent_directory(record.m_datapaths.front());
    }
    return ".";
}

}  // namespace

ParameterMap read_parameter_map(std::FILE* file) {
    ParameterMap map;
    // A line longer than the buffer arrives in pieces, each taken as a line.
    char buffer[1024];
    while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
        std::string line = buffer;
        const size_t comment = line.find('#');
        if (comment != std::string::npos) {
            line.resize(comment);
        }
        line = trim(std::move(line), kWhiteSpace);
        // Section headers such as [Basic Options] only guide the reader's eye.
        if (line.empty() || line[0] == ';' || line[0] == '[') {
            continue;
        }
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            throw "Unexpected INI format!";
        }
        map[trim(to_lower(line.substr(0, equals)), kWhiteSpace)] =
            trim(line.substr(equals + 1), kWhiteSpace);
    }
    return map;
}

UserParameters read_parameter_file(std::string path) {
    std::FILE* file = open_file(path, "r", "");
    ParameterMap map;
    try {
        map = read_parameter_map(file);
    } catch (...) {
        std::fclose(file);
        throw;
    }
    std::fclose(file);
    return finish_parameters(map);
}

UserParameters read_command_line(int argc, char** argv) {
    ParameterMap map;
    if (argc == 2) {
        map["datapath"] = argv[1];
        return finish_parameters(map);
    }
    if (argc % 2 == 0) {
        throw "Incorrect parameters number! Please check the options or the *.cfg files.";
    }
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option.size() != 2 || option[0] != '-') {
            throw "Incorrect parameters" + option + kCheckOptions;
        }
        const auto row = g_short_options.find(option.substr(1));
        if (row == g_short_options.end()) {
            throw "Unknown parameter option!" + option + kCheckOptions;
        }
        // Taken as it stands: a value may begin with '-', and a repeated letter
        // keeps its last value.
        map[row->second] = argv[i + 1];
    }
    return finish_parameters(map);
}

void apply_parameters(UserParameters& record, ParameterMap map) {
    // This order decides which of several bad values the user hears about.
    apply_flag(map, "rewrite_files", record.m_rewrite_files);
    apply_flag(map, "co-elute", record.m_co_elute);
    apply_flag(map, "cut_similiar_mono", record.m_cut_similiar_mono);
    apply_flag(map, "delete_msn", record.m_delete_msn);
    apply_flag(map, "check_activationcenter", record.m_check_activationcenter);
    apply_flag(map, "output_ks", record.m_output_ks);
    apply_flag(map, "output_mgf", record.m_output_mgf);
    apply_int(map, "intensity", record.m_intensity_digits);
    apply_int(map, "m/z", record.m_mz_digits);
    apply_int(map, "mars_model", record.m_mars_model);
    apply_double(map, "mars_threshold", record.m_mars_threshold);
    apply_double(map, "isolation_width", record.m_isolation_width);
    apply_double(map, "recalibrate_window", record.m_recalibrate_window);
    apply_double(map, "mstol", record.m_mstol);
    apply_flag(map, "mstolppm", record.m_mstolppm);
    apply_text(map, "logfilepath", record.m_logfilepath);
    apply_text(map, "ipv_file", record.m_ipv_file);
    apply_text(map, "input_format", record.m_input_format);
    apply_text(map, "outputpath", record.m_outputpath);
    apply_data_paths(map, record);
}

void finalize_parameters(UserParameters& record) {
    check_digits(record);
    record.m_peak_format = "%." + std::to_string(record.m_mz_digits) + "f %." +
                           std::to_string(record.m_intensity_digits) + "f\n";
    if (record.m_outputpath.empty()) {
        record.m_output_beside_input = true;
    } else {
        record.m_outputpath = rtrim(record.m_outputpath, kPathSeparators);
        if (!directory_exists(record.m_outputpath)) {
            make_directory(record.m_outputpath);
        }
    }
    record.m_logfilepath = log_directory(record);
    if (!directory_exists(record.m_logfilepath)) {
        make_directory(record.m_logfilepath);
    }
    Logger::instance().set_directory(record.m_logfilepath);
    record.m_peak_window = record.m_isolation_width + 1.0;
    // The tolerance in m/z units at the top of the mass range (m/z 15000) widens
    // the search for MS1 slices.
    const double margin = record.m_mstolppm ? record.m_mstol * 15000.0 / 1000000.0 : record.m_mstol;
    record.m_search_window = record.m_peak_window + margin;
}

int32_t to_int(std::string value, std::string name) {
    const char* begin = value.c_str();
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(begin, &end, 10);
    if (end == begin || errno == ERANGE || number < INT32_MIN || number > INT32_MAX) {
        throw "cannot turn param: <name:" + name + "> <value:" + value + "> into an int.";
    }
    return static_cast<int32_t>(number);
}

double to_double(std::string value, std::string name) {
    const char* begin = value.c_str();
    char* end = nullptr;
    errno = 0;
    const double number = std::strtod(begin, &end);
    if (end == begin || errno == ERANGE) {
        throw "cannot turn param: <name:" + name + "> <value:" + value + "> into an double.";
    }
    return number;
}

}  // namespace ksieve

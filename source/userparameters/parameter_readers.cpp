// From what the user gave to a finalised record: the parameter-file and
// command-line readers, the conversion of values, and the common tail of apply,
// echo and finalise.
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
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

// "isolation_width(-W)", or the bare key of a parameter-file key.
std::string option_name(const OptionRow& row) {
    return *row.m_letter == '\0' ? row.m_key : std::string(row.m_key) + "(-" + row.m_letter + ")";
}

bool in_range(double value, const OptionRange& range) {
    const bool above_low = range.m_low_open ? value > range.m_low : value >= range.m_low;
    const bool below_high = range.m_high_open ? value < range.m_high : value <= range.m_high;
    return above_low && below_high;  // false for NaN
}

void check_range(const OptionRow& row, const std::string& text, double value) {
    if (row.m_range && !in_range(value, *row.m_range)) {
        const bool unbounded = std::isinf(row.m_range->m_low) && std::isinf(row.m_range->m_high);
        throw "Argument " + option_name(row) + " invalid: " + text + "; " + row.m_key +
            " should be " +
            (unbounded && std::isnan(value) ? "a number, not NaN" : accepted_text(*row.m_range));
    }
}

// Whether all of `text` is one integer that fits 32 bits.
bool is_whole_int(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    return end != text.c_str() && *end == '\0' && errno != ERANGE && number >= INT32_MIN &&
           number <= INT32_MAX;
}

// Copies one present key into its field. An original flag is off only for the
// exact text "0": "false", "no" and "" switch it on; a later flag is 0 or 1.
struct ApplyValue {
    const OptionRow& m_row;
    const std::string& m_text;
    UserParameters& m_record;

    std::string name() const { return std::string("User Defined Parameter: ") + m_row.m_key; }
    void operator()(std::monostate) const {}
    void operator()(bool UserParameters::*field) const {
        if (!m_row.m_original && m_text != "0" && m_text != "1") {
            throw "Argument " + option_name(m_row) + " invalid: " + m_text + "; " + m_row.m_key +
                " should be 0 or 1";
        }
        m_record.*field = m_text != "0";
    }
    void operator()(int32_t UserParameters::*field) const {
        // The other keys keep reading "2.5" as 2; a thread count is the whole text.
        if (m_row.m_key == std::string_view("threads") && !is_whole_int(m_text)) {
            throw "cannot turn param: <name:" + name() + "> <value:" + m_text + "> into an int.";
        }
        m_record.*field = to_int(m_text, name());
        check_range(m_row, m_text, m_record.*field);
    }
    void operator()(double UserParameters::*field) const {
        m_record.*field = to_double(m_text, name());
        check_range(m_row, m_text, m_record.*field);
    }
    void operator()(std::string UserParameters::*field) const { m_record.*field = m_text; }
};

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

// A path that names nothing costs the user a warning, not the run; a symbolic
// link that leads nowhere was meant to name something, and is refused.
void apply_data_paths(const ParameterMap& map, UserParameters& record) {
    for (std::string& path : named_data_paths(map)) {
        path = rtrim(std::move(path), kPathSeparators);
        if (!path_exists(path) && is_symbolic_link(path)) {
            throw "Cannot open  File, Path: " + path + " is a broken symbolic link";
        }
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
    // The key of the parameter file wins over the environment.
    if (const char* threads = std::getenv("KSIEVE_THREADS");
        threads != nullptr && map.count("threads") == 0) {
        if (!is_whole_int(threads)) {
            throw std::string("cannot turn environment variable: <name:KSIEVE_THREADS> <value:") +
                threads + "> into an int.";
        }
        map["threads"] = threads;
    }
    // The order of the rows decides which of several bad values the user hears about.
    for (const OptionRow& row : option_rows()) {
        const auto value = map.find(row.m_key);
        if (value != map.end()) {
            std::visit(ApplyValue{row, value->second, record}, row.m_field);
        }
    }
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

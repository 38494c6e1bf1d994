// The parameters spoken back to the user: the echo in the log, the parameter
// template and the usage text. All three are generated from the option tables,
// so a row added there shows up here by itself.
#include <cstdio>
#include <ctime>
#include <iostream>
#include <set>
#include <string>

#include "ksieve_config.h"
#include "logger.h"
#include "userparameters.h"
#include "utils.h"

namespace ksieve {

namespace {

// One template entry: "key = default", then the help text, which reads as a
// comment when the file comes back. A key without a row gets empty texts.
void write_template_entry(std::FILE* file, const std::string& key) {
    const std::string entry =
        key + " = " + g_default_values[key] + "\n" + g_option_help[key] + "\n";
    std::fputs(entry.c_str(), file);
}

// "kSieve" and the local time, each field unpadded: two different moments can
// give one name, which then is not written twice.
std::string template_file_name() {
    const std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);
    return "kSieve" + std::to_string(local->tm_year + 1900) + std::to_string(local->tm_mon + 1) +
           std::to_string(local->tm_mday) + std::to_string(local->tm_hour) +
           std::to_string(local->tm_min) + std::to_string(local->tm_sec) + ".params";
}

}  // namespace

void print_parameters(const UserParameters& record) {
    ParameterMap map;
    parameters_to_map(record, map);
    log_info("--------- BEGIN PARAMETERS -----------");
    int counter = 1;
    for (const auto& [key, value] : map) {
        const std::string number = (counter < 10 ? "0" : "") + std::to_string(counter);
        log_info(number + ": " + key + " = " + value);
        ++counter;
    }
    log_info("--------- END PARAMETERS -------------");
    // Keys beyond the original set speak only when set: a run that leaves them
    // alone logs exactly what it always did.
    const UserParameters defaults;
    for (const OptionRow& row : option_rows()) {
        if (row.m_original || !row.m_logged) {
            continue;
        }
        const std::string value = field_text(record, row.m_field);
        if (value != field_text(defaults, row.m_field)) {
            log_info(std::string(row.m_key) + " = " + value);
        }
    }
}

void write_parameter_template() {
    const std::string name = template_file_name();
    if (file_exists(name)) {
        return;
    }
    std::FILE* file = open_file(name, "w", "");
    std::fputs("# kSieve.params params template\n", file);
    std::fputs("# For help: mail to " KSIEVE_SUPPORT_EMAIL "\n", file);

    const std::set<std::string> basic = {"datanum", "datapath1"};
    const std::set<std::string> excluded = {"datapath"};
    std::set<std::string> advanced;
    for (const auto& [letter, key] : g_short_options) {
        if (basic.count(key) == 0) {
            advanced.insert(key);
        }
    }
    std::fputs("[Basic Options]\n", file);
    for (const std::string& key : basic) {
        if (excluded.count(key) == 0) {
            write_template_entry(file, key);
        }
    }
    std::fputs("[Advanced Options]\n", file);
    for (const std::string& key : advanced) {
        if (excluded.count(key) == 0) {
            write_template_entry(file, key);
        }
    }
    std::fclose(file);
}

void print_usage() {
    std::cout << "\n"
                 "USAGE:\n"
                 "Usage via config files:\n"
                 "\tkSieve.exe kSieve.params\n"
                 "Usage via command options:\n"
                 "\tkSieve.exe -D D:\\Dataset\\1.raw\n"
                 "\tOr\n"
                 "\tkSieve.exe -D D:\\Dataset\n"
                 "\tOr\n"
                 "\tkSieve.exe -D \"D:\\A Dataset\"\n"
                 "\tOr (in linux)\n"
                 "\tkSieve.exe -D \"/A Dataset/1.raw\"\n"
                 "Note: \n"
                 "\tIf spaces appear in file path, the file path must be enclosed in double "
                 "quotation marks. \n"
                 "\n"
                 "OPTIONS:\n";
    // Upper-case letters sort first.
    for (const auto& [letter, key] : g_short_options) {
        std::cout << "\t-" << letter << "\t" << key << "\t\tdefault: " << g_default_values[key]
                  << "\n"
                  << g_option_help[key] << "\n";
    }
    std::cout.flush();
}

}  // namespace ksieve

// kSieve's entry point: the banner, the choice between writing a parameter
// template, reading a parameter file and reading a command line, the batch, and
// the one place where any failure of the run becomes a message and an exit code.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "basicprocesslogic.h"
#include "constants.h"
#include "ksieve_config.h"
#include "logger.h"
#include "userparameters.h"
#include "utils.h"

namespace ksieve {
namespace {

// The address lines of the banner are padded so that their right border stands
// one column beyond that of the title line.
std::string banner_address_line(const std::string& label, const std::string& address,
                                const std::string& border) {
    constexpr size_t kWidth = 48;
    std::string line = label + address;
    line.append(line.size() < kWidth ? kWidth - line.size() : 1, ' ');
    return "\t" + line + border + "\n";
}

void print_banner() {
    const std::string stars = "\t  *********************************************\n";
    std::cout << "\n"
              << stars << "\t /       kSieve2.0 (" << g_platform << ") from kSeek Studio     \\\n"
              << banner_address_line("/        Email  :  ", KSIEVE_SUPPORT_EMAIL, "\\")
              << banner_address_line("\\        Website:  ", KSIEVE_WEBSITE, "/") << stars << "\n";
    std::cout.flush();
}

// This release carries no expiry date, so the licence admits every run; the
// check keeps its place at the start of the flow for releases that do.
bool licence_admits_run() {
    return true;
}

// Every argument, the program's name included, each followed by a blank: the
// log of each run begins with the exact command.
std::string command_text(int argc, char** argv) {
    std::string text;
    for (int i = 0; i < argc; ++i) {
        text += argv[i];
        text += ' ';
    }
    return text + "\n";
}

// Without arguments the program only explains itself and writes a template.
int introduce_program() {
    std::cout << "kSieve Version" << g_version_text << "\n\n";
    std::FILE* notes = std::fopen("kSieve_Release.txt", "r");
    std::cout << "\nRELEASES:\n";
    if (notes != nullptr) {
        char buffer[1024];
        while (std::fgets(buffer, sizeof buffer, notes) != nullptr) {
            std::cout << buffer;
        }
        std::fclose(notes);
    }
    std::cout << "\n\nATTENTION:\n"
                 "\tCarefully configured parameter file is required!\n"
                 "\tA standard parameter file named 'kSieve.params' is generated.\n";
    std::cout.flush();
    write_parameter_template();
    print_usage();
    return 0;
}

// Only a lone argument can be a parameter file; anything else is a command line,
// so "run.conf" or a data path goes to the command-line reader.
bool is_parameter_file(int argc, char** argv) {
    if (argc != 2) {
        return false;
    }
    for (const char* suffix : {".cfg", ".para", ".params", ".ini"}) {
        if (ends_with(argv[1], suffix)) {
            return true;
        }
    }
    return false;
}

int process(int argc, char** argv) {
    const auto start = std::chrono::steady_clock::now();
    UserParameters params;
    if (is_parameter_file(argc, argv)) {
        params = read_parameter_file(argv[1]);
    } else {
        params = read_command_line(argc, argv);
    }
    run_batch(params);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count();
    log_info(" == == == Time elapsed: " + std::to_string(seconds) + " seconds. == == == = ");
    return 0;
}

int run(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    print_banner();
    if (!licence_admits_run()) {
        return -1;
    }
    Logger::instance().append(command_text(argc, argv));
    if (argc == 1) {
        return introduce_program();
    }
    return process(argc, argv);
}

// Nothing below the entry point recovers from a failure: one failing input ends
// the batch, and the next run redoes it.
[[noreturn]] void fail(const std::string& message) {
    log("ERROR", message);
    log("EXIT", g_crash_message);
    std::exit(-1);
}

}  // namespace
}  // namespace ksieve

int main(int argc, char** argv) {
    try {
        return ksieve::run(argc, argv);
    } catch (const char* message) {
        ksieve::fail(message);
    } catch (const std::string& message) {
        ksieve::fail(message);
    } catch (const std::exception& error) {
        const char* what = error.what();
        ksieve::fail(what != nullptr && *what != '\0' ? what : "Unknown exception");
    }
}

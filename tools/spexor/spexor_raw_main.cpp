// spexor_raw.exe: kSieve starts it for Thermo .raw files. Those are read by
// ThermoRawFileParser when it is on PATH: it writes an mzML file into a
// temporary directory, which is then converted as spexor_xml.exe converts any
// mzML file, and removed again on success, on failure and on a signal. Without
// the parser, this companion says how to get a file that kSieve can read.
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "spexor.h"

extern char** environ;

namespace {

using namespace ksieve::spexor;

constexpr const char* kProgram = "spexor_raw.exe";

// What the signal handler removes; set before the parser starts.
char g_mzml_path[4096];
char g_temp_dir[4096];
volatile pid_t g_parser = 0;

void remove_temporary_files() {
    if (g_mzml_path[0] != '\0') {
        unlink(g_mzml_path);
    }
    if (g_temp_dir[0] != '\0') {
        rmdir(g_temp_dir);
    }
}

extern "C" void on_signal(int signal_number) {
    if (g_parser > 0) {
        kill(g_parser, SIGTERM);
    }
    remove_temporary_files();
    std::signal(signal_number, SIG_DFL);
    raise(signal_number);
}

// The parser's path: the first PATH directory that holds an executable
// "ThermoRawFileParser", else "ThermoRawFileParser.sh"; "" when none does.
std::string find_parser() {
    const char* path = std::getenv("PATH");
    for (const char* name : {"ThermoRawFileParser", "ThermoRawFileParser.sh"}) {
        std::string dirs = path != nullptr ? path : "";
        for (std::size_t begin = 0; begin <= dirs.size();) {
            std::size_t end = dirs.find(':', begin);
            if (end == std::string::npos) {
                end = dirs.size();
            }
            std::string dir = end > begin ? dirs.substr(begin, end - begin) : ".";
            std::string candidate = dir + "/" + name;
            struct stat info {};
            if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
                access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
            begin = end + 1;
        }
    }
    return {};
}

// Runs the parser without a shell; returns "" on success, else why it failed.
std::string run_parser(const std::string& parser, const std::string& raw,
                       const std::string& temp_dir) {
    std::vector<std::string> args = {parser, "-i", raw, "-o", temp_dir, "-f", "2"};
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int error = posix_spawn(&pid, parser.c_str(), nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        return "cannot start " + parser + ": " + std::strerror(error);
    }
    g_parser = pid;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_parser = 0;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return {};
    }
    return parser + (WIFEXITED(status)
                         ? " failed with exit code " + std::to_string(WEXITSTATUS(status))
                         : " was stopped by signal " + std::to_string(WTERMSIG(status)));
}

bool set_path(char (&target)[4096], const std::string& value) {
    if (value.size() >= sizeof target) {
        return false;
    }
    std::memcpy(target, value.c_str(), value.size() + 1);
    return true;
}

int convert_raw(const Options& options, const std::string& parser) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/spexor_raw.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr || !set_path(g_temp_dir, pattern)) {
        std::fprintf(stderr, "%s: cannot convert %s: cannot create a temporary directory in %s\n",
                     kProgram, options.input_path.c_str(), pattern.c_str());
        return 1;
    }
    Options mzml = options;
    mzml.input_path = pattern + "/" + stem_of(options.input_path) + ".mzML";
    set_path(g_mzml_path, mzml.input_path);
    for (int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) {
        std::signal(signal_number, on_signal);
    }
    int code = 1;
    std::string failure = run_parser(parser, options.input_path, pattern);
    if (failure.empty()) {
        code = convert_and_report(kProgram, mzml, options.input_path);
    } else {
        std::fprintf(stderr, "%s: cannot convert %s: %s\n", kProgram, options.input_path.c_str(),
                     failure.c_str());
    }
    remove_temporary_files();
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    ParsedOptions parsed = parse_options(std::vector<std::string>(argv + 1, argv + argc));
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "%s: %s\n%s", kProgram, parsed.error.c_str(), usage_text().c_str());
        return 2;
    }
    std::string parser = find_parser();
    if (parser.empty()) {
        std::fprintf(stderr,
                     "%s: cannot read %s: Thermo .raw files need the vendor's library, which is "
                     "not available on this platform. Put ThermoRawFileParser on PATH, or convert "
                     "the file to mzML first, with a converter such as ThermoRawFileParser or "
                     "msconvert, then give kSieve the mzML file.\n",
                     kProgram, parsed.options.input_path.c_str());
        return 1;
    }
    return convert_raw(parsed.options, parser);
}

// The companion extractor: instrument files (raw, mzXML, mzML) are turned into
// the `.ms1`/`.ms2` text pair by a separate program, started from the working
// directory (or, when it is not there, from beside kSieve's own executable),
// whose standard output is passed on to the log line by line.
//
// The companion is started with an argument vector and no shell, so no byte of a
// path is ever read as a command.
#include <string>
#include <vector>

#include "basicprocesslogic.h"
#include "logger.h"
#include "utils.h"

namespace ksieve {

namespace {

// Bytes of one read from the pipe; a longer line reaches the log in pieces.
constexpr std::size_t kPipeBufferSize = 2048;

std::vector<std::string> extractor_arguments(const UserParameters& params, const FileContext& file,
                                             const std::string& kind) {
    const bool is_xml = file.m_input_format == "mzxml" || file.m_input_format == "mzml";
    const std::string program = is_xml ? "spexor_xml.exe" : "spexor_raw.exe";
    return {shipped_file(join_path({".", program})),
            kind == "mgf" ? "-mgf" : "-ms",
            "-a",
            "-i",
            std::to_string(params.m_intensity_digits),
            "-m",
            std::to_string(params.m_mz_digits),
            "-o",
            file.m_output_dir,
            file.m_path};
}

// The command as the log shows it: the two paths in double quotes.
std::string command_text(const std::vector<std::string>& args) {
    std::string command;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const bool quoted = i + 2 >= args.size();
        command +=
            (i == 0 ? "" : " ") + std::string(quoted ? "\"" : "") + args[i] + (quoted ? "\"" : "");
    }
    return command;
}

}  // namespace

void run_extractor(const UserParameters& params, const FileContext& file, const std::string& kind) {
    if (has_existing_result(params, file, ".spexor", " spexor process...")) {
        return;
    }
    const std::vector<std::string> args = extractor_arguments(params, file, kind);
    const std::string command = command_text(args);
    log_info(command);
    // The two messages keep the words users and their scripts know.
    const ChildOutcome outcome = run_child(
        args, kPipeBufferSize, [](const std::string& piece) { log("SUBPROCESS", piece); },
        "popen(\"" + command + "\",\"r\") failed!",
        "popen(\"" + command + "\",\"r\") lose connection with kSieve!");
    // The marker is the companion's own word that the pair is complete; an exit
    // code of 0 without it is no success.
    if (!outcome.m_succeeded || !file_exists(output_path(file, ".spexor"))) {
        // Why the companion failed, in its own words, stands in the log before
        // the ERROR line (the console has had it already).
        std::string reason = outcome.m_error_text;
        if (!reason.empty() && reason.back() != '\n') {
            reason += '\n';
        }
        Logger::instance().append(reason);
        throw "Cannot use spexor to extract signals from: " + file.m_path;
    }
}

}  // namespace ksieve

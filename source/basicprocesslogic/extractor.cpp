// The companion extractor: instrument files (raw, mzXML, mzML) are turned into
// the `.ms1`/`.ms2` text pair by a separate program, started from the working
// directory, whose standard output is passed on to the log line by line.
#include <sys/wait.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

#include "basicprocesslogic.h"
#include "logger.h"
#include "utils.h"

namespace ksieve {

namespace {

// Bytes of one read from the pipe; a longer line reaches the log in pieces.
constexpr int kPipeBufferSize = 2048;

std::string extractor_command(const UserParameters& params, const std::string& kind) {
    const bool is_xml = params.m_input_format == "mzxml" || params.m_input_format == "mzml";
    const std::string program = is_xml ? "spexor_xml.exe" : "spexor_raw.exe";
    const std::string mode = kind == "mgf" ? "-mgf" : "-ms";
    std::string command = join_path({".", program});
    command += " ";
    command += mode;
    command += " -a -i ";
    command += std::to_string(params.m_intensity_digits);
    command += " -m ";
    command += std::to_string(params.m_mz_digits);
    command += " -o \"";
    command += params.m_outputpath;
    command += "\" \"";
    command += params.m_current_path;
    command += "\"";
    return command;
}

// A child that was killed, or could not be waited for, has failed as surely as
// one that reported a non-zero exit code.
bool exited_cleanly(int status) {
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Runs `command`, logging its standard output under "SUBPROCESS"; true when the
// child exited with 0. Its standard error goes straight to ours.
bool run_and_relay(const std::string& command) {
    // Our own buffered console text must come out before the child's.
    std::cout.flush();
    std::fflush(stdout);
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("popen(\"" + command + "\",\"r\") failed!");
    }
    char buffer[kPipeBufferSize];
    while (std::fgets(buffer, kPipeBufferSize, pipe) != nullptr) {
        log("SUBPROCESS", buffer);
    }
    if (!std::feof(pipe)) {
        throw std::runtime_error("popen(\"" + command + "\",\"r\") lose connection with kSieve!");
    }
    return exited_cleanly(pclose(pipe));
}

}  // namespace

void run_extractor(UserParameters& params, const std::string& kind) {
    if (has_existing_result(params, ".spexor", " spexor process...")) {
        return;
    }
    const std::string command = extractor_command(params, kind);
    log_info(command);
    const bool exited = run_and_relay(command);
    // The marker is the companion's own word that the pair is complete; an exit
    // code of 0 without it is no success.
    if (!exited || !file_exists(output_path(params, ".spexor"))) {
        throw "Cannot use spexor to extract signals from: " + params.m_current_path;
    }
}

}  // namespace ksieve

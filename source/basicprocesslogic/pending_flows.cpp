// Temporary: the per-file flows are being built. Each refuses to run rather than
// pretend to process a file.
#include <string>

#include "basicprocesslogic.h"

namespace ksieve {

void run_extractor(UserParameters& params, const std::string&) {
    throw "Extraction of " + params.m_current_path + " is not available in this build.";
}

void process_ms_files(UserParameters& params) {
    throw "Processing of " + params.m_current_path + " is not available in this build.";
}

void process_mgf_file(UserParameters& params) {
    throw "Processing of " + params.m_current_path + " is not available in this build.";
}

}  // namespace ksieve

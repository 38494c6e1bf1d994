#include "constants.h"

#include "ksieve_config.h"
#include "logger.h"

namespace ksieve {

const std::string g_platform = "x64";
const std::string g_version_text = "-Release-2.0.8(" + g_platform + ")";
const std::string g_crash_message =
    std::string("kSieve has encountered a problem and will exit.\n You can send your ") +
    g_log_file_name + " to " KSIEVE_SUPPORT_EMAIL " for help.";
const std::string g_training_set_name = "TrainingSet.txt";

}  // namespace ksieve

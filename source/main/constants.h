// Process-wide constants of the entry point, built while statics are initialised
// and never changed.
#pragma once

#include <string>

namespace ksieve {

extern const std::string g_platform;           // "x64"
extern const std::string g_version_text;       // "-Release-2.0.8(x64)"
extern const std::string g_crash_message;      // closing text of every fatal failure
extern const std::string g_training_set_name;  // "TrainingSet.txt"; no code reads it

}  // namespace ksieve

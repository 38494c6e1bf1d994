#include <cstring>

#include "spectrumfiles.h"

namespace ksieve {

char g_peak_format[32] = "%.5f %.1f\n";

void set_peak_format(const std::string& format) {
    std::strncpy(g_peak_format, format.c_str(), sizeof(g_peak_format) - 1);
}

}  // namespace ksieve

#include <cstdio>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

std::vector<IpvRow> read_ipv_file(std::string path) {
    std::vector<IpvRow> rows(kIpvRows, IpvRow{});
    std::FILE* file = open_file(path, "r", "IPV Store");
    // The file is a plain stream of numbers; line structure means nothing. A scan
    // that fails (end of file, or a token that is not a number) ends the table.
    bool reading = true;
    for (size_t row = 0; reading && row < rows.size(); ++row) {
        for (double& value : rows[row]) {
            if (std::fscanf(file, "%lf", &value) != 1) {
                reading = false;
                break;
            }
        }
    }
    std::fclose(file);
    return rows;
}

}  // namespace ksieve

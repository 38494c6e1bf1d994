#include "ipv_table.h"

#include <algorithm>
#include <vector>

#include "chemistry.h"

namespace ksieve::ipv {

std::array<double, kIpvColumns> ipv_row(int mass) {
    const std::vector<chem::IsotopePeak> peaks =
        chem::isotope_pattern(chem::averagine(mass - kProtonMass), kIpvColumns);
    std::array<double, kIpvColumns> row{};
    double largest = 0.0;
    for (int k = 0; k < kIpvColumns; ++k) {
        row[k] = peaks[k].m_abundance;
        largest = std::max(largest, row[k]);
    }
    for (double& value : row) {
        value /= largest;
    }
    return row;
}

void write_ipv_table(std::FILE* out) {
    for (int mass = 0; mass < kIpvRows; ++mass) {
        const std::array<double, kIpvColumns> row = ipv_row(mass);
        std::fprintf(out, "%.6g %.6g %.6g %.6g %.6g\n", row[0], row[1], row[2], row[3], row[4]);
    }
}

}  // namespace ksieve::ipv

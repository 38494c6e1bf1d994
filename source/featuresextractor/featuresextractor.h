// The evaluator of one candidate precursor, and the process-wide table of
// theoretical isotope patterns it compares observations with.
#pragma once

#include <array>
#include <vector>

namespace ksieve {

class FeaturesExtractor {
  public:
    // The isotope table: row m holds the relative intensities of the first five
    // isotope peaks of a molecule of singly protonated integer mass m. Written
    // once, before any evaluator exists; read-only afterwards.
    static bool m_h_is_IPV_inited;
    static std::vector<std::array<double, 5>> m_h_IPV_Matrix;

    // Installs a loaded table and marks the store as loaded.
    static void InstallIpvMatrix(std::vector<std::array<double, 5>> rows);
};

}  // namespace ksieve

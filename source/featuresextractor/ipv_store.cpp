#include "featuresextractor.h"

namespace ksieve {

bool FeaturesExtractor::m_h_is_IPV_inited = false;
std::vector<std::array<double, 5>> FeaturesExtractor::m_h_IPV_Matrix;

void FeaturesExtractor::InstallIpvMatrix(std::vector<std::array<double, 5>> rows) {
    m_h_IPV_Matrix = std::move(rows);
    m_h_is_IPV_inited = true;
}

}  // namespace ksieve

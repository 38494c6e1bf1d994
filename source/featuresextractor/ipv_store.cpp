#include "featuresextractor.h"
#include "utils.h"

namespace ksieve {

namespace {

double singly_protonated_mass(const Precursor& precursor) {
    const double z = precursor.m_charge;
    return z * precursor.m_mz - z * kProtonMass + kProtonMass;
}

}  // namespace

bool FeaturesExtractor::HasIpvRow() const {
    // The row is the mass truncated toward zero, and an index below 0 is as far
    // out of the table as one past its end. Tested on the mass itself so that no
    // out-of-range value is ever converted.
    const double mz = singly_protonated_mass(m_precursor);
    return mz > -1.0 && mz < static_cast<double>(m_ipv->size());
}

const std::array<double, 5>& FeaturesExtractor::GetIpvRow() const {
    KS_ASSERT(HasIpvRow(), "m_h_is_IPV_inited && (int)mz < m_h_IPV_Matrix.size()");
    const double mz = singly_protonated_mass(m_precursor);
    return (*m_ipv)[static_cast<std::size_t>(static_cast<int32_t>(mz))];
}

}  // namespace ksieve

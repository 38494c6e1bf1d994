#include <cmath>

#include "chemistry.h"

namespace ksieve::chem {

namespace {

struct Isotope {
    int m_extra_neutrons;  // nominal mass above the lightest isotope
    double m_mass;
    double m_abundance;
};

struct ElementData {
    const char* m_symbol;
    std::vector<Isotope> m_isotopes;  // lightest first
};

// Atomic masses from the 2016 atomic mass evaluation; abundances are the IUPAC
// representative isotopic compositions of terrestrial material.
const std::array<ElementData, kElementCount>& element_table() {
    static const std::array<ElementData, kElementCount> table = {{
        {"C", {{0, 12.0, 0.9893}, {1, 13.00335483507, 0.0107}}},
        {"H", {{0, 1.00782503223, 0.999885}, {1, 2.01410177812, 0.000115}}},
        {"N", {{0, 14.00307400443, 0.99636}, {1, 15.00010889888, 0.00364}}},
        {"O",
         {{0, 15.99491461957, 0.99757},
          {1, 16.99913175650, 0.00038},
          {2, 17.99915961286, 0.00205}}},
        {"S",
         {{0, 31.9720711744, 0.9499},
          {1, 32.9714589098, 0.0075},
          {2, 33.967867004, 0.0425},
          {4, 35.96708071, 0.0001}}},
    }};
    return table;
}

using Series = std::vector<double>;

// Truncated product of two power series of the same length.
Series multiply(const Series& left, const Series& right) {
    Series product(left.size(), 0.0);
    for (size_t k = 0; k < product.size(); ++k) {
        for (size_t j = 0; j <= k; ++j) {
            product[k] += left[j] * right[k - j];
        }
    }
    return product;
}

// base^exponent truncated to base.size() terms, for base[0] > 0. For a whole
// exponent this is the repeated self-convolution of the element's abundances;
// the recurrence (from differentiating q = p^n, so that p q' = n p' q) gives the
// same kept terms directly and extends to fractional atom counts.
Series power(const Series& base, double exponent) {
    Series result(base.size(), 0.0);
    result[0] = std::pow(base[0], exponent);
    for (size_t k = 1; k < result.size(); ++k) {
        double sum = 0.0;
        for (size_t j = 1; j <= k; ++j) {
            sum += ((exponent + 1.0) * static_cast<double>(j) - static_cast<double>(k)) * base[j] *
                   result[k - j];
        }
        result[k] = sum / (static_cast<double>(k) * base[0]);
    }
    return result;
}

// An isotope distribution together with its mass moment: abundance[k] is the
// share of molecules in nominal peak k, moment[k] the sum of abundance times
// mass over the same isotopologues.
struct Distribution {
    Series m_abundance;
    Series m_moment;
};

// The distribution of `atoms` atoms of one element. With P the abundance series
// and M its mass moment, n atoms give P^n and the moment n P^(n-1) M: the
// derivative of P^n when each term is marked with exp(t * mass).
Distribution element_distribution(const ElementData& element, double atoms, size_t count) {
    Series abundance(count, 0.0);
    Series moment(count, 0.0);
    for (const Isotope& isotope : element.m_isotopes) {
        const auto shift = static_cast<size_t>(isotope.m_extra_neutrons);
        if (shift < count) {
            abundance[shift] += isotope.m_abundance;
            moment[shift] += isotope.m_abundance * isotope.m_mass;
        }
    }
    Distribution result{power(abundance, atoms), multiply(power(abundance, atoms - 1.0), moment)};
    for (double& value : result.m_moment) {
        value *= atoms;
    }
    return result;
}

Distribution combine(const Distribution& left, const Distribution& right) {
    Distribution result{multiply(left.m_abundance, right.m_abundance),
                        multiply(left.m_moment, right.m_abundance)};
    const Series cross = multiply(left.m_abundance, right.m_moment);
    for (size_t k = 0; k < cross.size(); ++k) {
        result.m_moment[k] += cross[k];
    }
    return result;
}

}  // namespace

Formula& Formula::operator+=(const Formula& other) {
    for (size_t e = 0; e < m_count.size(); ++e) {
        m_count[e] += other.m_count[e];
    }
    return *this;
}

Formula operator*(Formula formula, double factor) {
    for (double& count : formula.m_count) {
        count *= factor;
    }
    return formula;
}

const char* element_symbol(Element element) {
    return element_table()[element].m_symbol;
}

double monoisotopic_mass(const Formula& formula) {
    double mass = 0.0;
    for (int e = 0; e < kElementCount; ++e) {
        mass += formula.m_count[e] * element_table()[e].m_isotopes.front().m_mass;
    }
    return mass;
}

double average_mass(const Formula& formula) {
    double mass = 0.0;
    for (int e = 0; e < kElementCount; ++e) {
        double element_mass = 0.0;
        for (const Isotope& isotope : element_table()[e].m_isotopes) {
            element_mass += isotope.m_abundance * isotope.m_mass;
        }
        mass += formula.m_count[e] * element_mass;
    }
    return mass;
}

std::vector<IsotopePeak> isotope_pattern(const Formula& formula, int count) {
    if (count <= 0) {
        return {};
    }
    const auto size = static_cast<size_t>(count);
    Distribution total{Series(size, 0.0), Series(size, 0.0)};
    total.m_abundance[0] = 1.0;
    for (int e = 0; e < kElementCount; ++e) {
        const double atoms = formula.m_count[e];
        if (atoms > 0.0) {
            total = combine(total, element_distribution(element_table()[e], atoms, size));
        }
    }
    std::vector<IsotopePeak> peaks(size);
    for (size_t k = 0; k < size; ++k) {
        // Below a few atoms (under about 180 Da of averagine) the series of a
        // fractional power can dip below zero at the far peaks, where a real
        // molecule of that size has no isotopologue at all: such a peak is empty.
        const double abundance = total.m_abundance[k];
        if (abundance > 0.0) {
            peaks[k] = {total.m_moment[k] / abundance, abundance};
        }
    }
    return peaks;
}

Formula averagine_unit() {
    return Formula{{4.9384, 7.7583, 1.3577, 1.4773, 0.0417}};
}

Formula averagine(double neutral_mass) {
    if (neutral_mass <= 0.0) {
        return Formula{};
    }
    const Formula unit = averagine_unit();
    return unit * (neutral_mass / monoisotopic_mass(unit));
}

}  // namespace ksieve::chem

// Matching written precursors to the true ions of a scan, and the counts behind
// precision and recall.
#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>

#include "accuracy.h"

namespace ksieve::eval {

namespace {

double ppm_distance(const Precursor& written, const Precursor& truth) {
    return std::fabs(written.m_mz - truth.m_mz) / truth.m_mz * 1e6;
}

void count_wrong(const Precursor& written, const std::vector<TruthIon>& truth, double ppm,
                 AccuracyCounts& counts) {
    bool other_charge = false;
    for (const TruthIon& ion : truth) {
        const std::optional<int> offset = isotope_offset(written.m_mz, ion.m_ion, ppm);
        if (offset && written.m_charge == ion.m_ion.m_charge && *offset != 0) {
            ++counts.m_wrong_isotope;
            return;
        }
        other_charge = other_charge || (offset && written.m_charge != ion.m_ion.m_charge);
    }
    ++(other_charge ? counts.m_wrong_charge : counts.m_wrong_other);
}

void count_scan(const std::vector<Precursor>& written, const std::vector<TruthIon>& truth,
                const MatchRules& rules, AccuracyCounts& counts) {
    const std::vector<int> match = match_precursors(written, truth, rules.m_ppm);
    ++counts.m_rows;
    counts.m_precursors += static_cast<int64_t>(written.size());
    if (!match.empty() && match[0] == 0) {
        ++counts.m_first_is_dominant;
    }
    for (size_t i = 0; i < match.size(); ++i) {
        if (match[i] < 0) {
            count_wrong(written[i], truth, rules.m_ppm, counts);
        }
        if (match[i] == 0) {
            ++counts.m_dominant_found;
        }
        if (i == 0) {
            continue;
        }
        if (match[i] >= 0 && truth[match[i]].m_share < rules.m_min_share) {
            continue;  // a minor ion: neither right nor wrong
        }
        ++counts.m_extra;
        if (match[i] >= 0) {
            ++counts.m_extra_correct;
        }
    }
    for (size_t ion = 1; ion < truth.size(); ++ion) {
        if (truth[ion].m_share >= rules.m_min_share) {
            const bool found =
                std::find(match.begin(), match.end(), static_cast<int>(ion)) != match.end();
            counts.m_coeluted_found += found ? 1 : 0;
        }
    }
}

int64_t coeluted_ions(const std::vector<TruthIon>& truth, double min_share) {
    int64_t count = 0;
    for (size_t ion = 1; ion < truth.size(); ++ion) {
        count += truth[ion].m_share >= min_share ? 1 : 0;
    }
    return count;
}

}  // namespace

int64_t matching_precursors(const AccuracyCounts& counts) {
    return counts.m_precursors - counts.m_wrong_isotope - counts.m_wrong_charge -
           counts.m_wrong_other;
}

double precision(const AccuracyCounts& counts) {
    return counts.m_precursors == 0 ? 0.0
                                    : static_cast<double>(matching_precursors(counts)) /
                                          static_cast<double>(counts.m_precursors);
}

bool same_ion(const Precursor& written, const Precursor& truth, double ppm) {
    return written.m_charge == truth.m_charge && ppm_distance(written, truth) <= ppm;
}

std::optional<int> isotope_offset(double mz, const Precursor& ion, double ppm) {
    const double tolerance = ppm * ion.m_mz / 1e6;
    for (int size = 0; size <= kMaxIsotopeShift; ++size) {
        for (const int shift : {-size, size}) {
            if (std::fabs(mz - (ion.m_mz + shift * kIsotopeSpacing / ion.m_charge)) <= tolerance) {
                return shift;
            }
        }
    }
    return std::nullopt;
}

std::vector<int> match_precursors(const std::vector<Precursor>& written,
                                  const std::vector<TruthIon>& truth, double ppm) {
    std::vector<int> match(written.size(), -1);
    std::vector<bool> taken(truth.size(), false);
    for (size_t i = 0; i < written.size(); ++i) {
        double nearest = 0.0;
        for (size_t ion = 0; ion < truth.size(); ++ion) {
            if (taken[ion] || !same_ion(written[i], truth[ion].m_ion, ppm)) {
                continue;
            }
            const double distance = ppm_distance(written[i], truth[ion].m_ion);
            if (match[i] < 0 || distance < nearest) {
                match[i] = static_cast<int>(ion);
                nearest = distance;
            }
        }
        if (match[i] >= 0) {
            taken[match[i]] = true;
        }
    }
    return match;
}

AccuracyCounts evaluate(const std::vector<TableRow>& rows, const TruthTable& truth,
                        const MatchRules& rules) {
    AccuracyCounts counts;
    counts.m_scans = static_cast<int64_t>(truth.size());
    for (const auto& [scan, ions] : truth) {
        counts.m_coeluted += coeluted_ions(ions, rules.m_min_share);
    }
    std::set<int32_t> seen;
    for (const TableRow& row : rows) {
        const auto ions = truth.find(row.m_scan);
        if (ions == truth.end()) {
            throw std::runtime_error("scan " + std::to_string(row.m_scan) +
                                     " of the table is not in the truth");
        }
        if (!seen.insert(row.m_scan).second) {
            throw std::runtime_error("scan " + std::to_string(row.m_scan) +
                                     " has two rows in the table");
        }
        count_scan(row.m_precursors, ions->second, rules, counts);
    }
    return counts;
}

}  // namespace ksieve::eval

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>

#include "chemistry.h"
#include "run_model.h"

namespace ksieve::sim {

namespace {

constexpr int kMinLength = 6;
constexpr int kMaxLength = 40;

bool is_cleavage_site(const std::string& protein, size_t position) {
    const char residue = protein[position];
    return (residue == 'K' || residue == 'R') &&
           (position + 1 == protein.size() || protein[position + 1] != 'P');
}

// Charges that the peptide can carry (one per basic site) and that put its
// mono-isotopic peak inside the survey range.
std::vector<int> possible_charges(const std::string& sequence) {
    const auto basic_sites = 1 + std::count_if(sequence.begin(), sequence.end(), [](char c) {
                                 return c == 'K' || c == 'R' || c == 'H';
                             });
    const double mass = chem::monoisotopic_mass(chem::peptide_formula(sequence));
    std::vector<int> charges;
    for (int charge = kMinCharge; charge <= kMaxCharge && charge <= basic_sites; ++charge) {
        const double mz = chem::mz_from_neutral(mass, charge);
        if (mz >= kMs1LowMz && mz <= kMs1HighMz) {
            charges.push_back(charge);
        }
    }
    return charges;
}

}  // namespace

std::vector<std::string> read_fasta(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("cannot read the FASTA file " + path);
    }
    std::vector<std::string> proteins;
    std::string line;
    bool in_entry = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '>') {
            proteins.emplace_back();
            in_entry = true;
            continue;
        }
        if (!in_entry) {
            continue;
        }
        for (char c : line) {
            if (!std::isspace(static_cast<unsigned char>(c))) {
                proteins.back() += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
    }
    return proteins;
}

std::vector<std::string> tryptic_peptides(const std::string& protein, int missed_cleavages,
                                          int min_length, int max_length) {
    // Fully cleaved pieces first; a peptide with missed cleavages is a run of
    // neighbouring pieces.
    std::vector<size_t> starts{0};
    for (size_t i = 0; i + 1 < protein.size(); ++i) {
        if (is_cleavage_site(protein, i)) {
            starts.push_back(i + 1);
        }
    }
    starts.push_back(protein.size());
    std::vector<std::string> peptides;
    for (size_t first = 0; first + 1 < starts.size(); ++first) {
        for (size_t last = first + 1;
             last < starts.size() && last - first <= static_cast<size_t>(missed_cleavages) + 1;
             ++last) {
            const std::string peptide = protein.substr(starts[first], starts[last] - starts[first]);
            const auto length = static_cast<int>(peptide.size());
            if (length >= min_length && length <= max_length &&
                std::all_of(peptide.begin(), peptide.end(), chem::is_standard_residue)) {
                peptides.push_back(peptide);
            }
        }
    }
    return peptides;
}

std::vector<Peptide> digest_proteome(const std::vector<std::string>& proteins,
                                     int missed_cleavages) {
    std::vector<std::string> sequences;
    for (const std::string& protein : proteins) {
        const std::vector<std::string> pieces =
            tryptic_peptides(protein, missed_cleavages, kMinLength, kMaxLength);
        sequences.insert(sequences.end(), pieces.begin(), pieces.end());
    }
    std::sort(sequences.begin(), sequences.end());
    sequences.erase(std::unique(sequences.begin(), sequences.end()), sequences.end());
    std::vector<Peptide> peptides;
    for (std::string& sequence : sequences) {
        std::vector<int> charges = possible_charges(sequence);
        if (!charges.empty()) {
            peptides.push_back({std::move(sequence), std::move(charges)});
        }
    }
    return peptides;
}

}  // namespace ksieve::sim

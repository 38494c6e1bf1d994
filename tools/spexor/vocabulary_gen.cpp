// Writes the companion's vocabulary table (see vocabulary.h) from the PSI-MS
// vocabulary compiled into ProteoWizard, sorted by accession:
//   spexor_vocabulary_gen <output.cpp>
#include <pwiz/data/common/cv.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace cv = pwiz::cv;

namespace {

bool is_a(cv::CVID term, cv::CVID parent) {
    return term == parent || cv::cvIsA(term, parent);
}

// The family of a term as vocabulary.h names it; "" for a term not sorted.
std::string kind_of(cv::CVID id) {
    if (id == cv::MS_supplemental_beam_type_collision_induced_dissociation) {
        return "kSupplementalBeamType";
    }
    if (id == cv::MS_supplemental_collision_induced_dissociation) {
        return "kSupplementalCollision";
    }
    if (id == cv::MS_supplemental_collision_energy) {
        return "kSupplementalEnergy";
    }
    if (id == cv::MS_EThcD) {
        return "kEThcD";
    }
    if (is_a(id, cv::MS_electron_transfer_dissociation)) {
        return "kElectronTransfer";
    }
    if (is_a(id, cv::MS_beam_type_collision_induced_dissociation)) {
        return "kBeamType";
    }
    // Low-energy CID stands beside CID in the vocabulary, not under it.
    if (is_a(id, cv::MS_collision_induced_dissociation) ||
        is_a(id, cv::MS_low_energy_collision_induced_dissociation)) {
        return "kCollision";
    }
    if (is_a(id, cv::MS_dissociation_method)) {
        return "kOtherMethod";
    }
    if (is_a(id, cv::MS_orbitrap) ||
        is_a(id, cv::MS_fourier_transform_ion_cyclotron_resonance_mass_spectrometer)) {
        return "kFourierTransform";
    }
    if (is_a(id, cv::MS_time_of_flight)) {
        return "kTimeOfFlight";
    }
    if (is_a(id, cv::MS_ion_trap)) {
        return "kIonTrap";
    }
    return "";
}

std::string short_name_of(const cv::CVTermInfo& info) {
    std::string best;
    for (const std::string& synonym : info.exactSynonyms) {
        if (synonym.find(' ') == std::string::npos &&
            (best.empty() || synonym.size() < best.size())) {
            best = synonym;
        }
    }
    if (best.empty()) {
        best = info.name;
        std::replace(best.begin(), best.end(), ' ', '_');
    }
    best.erase(
        std::remove_if(best.begin(), best.end(), [](char c) { return c == '"' || c == '\\'; }),
        best.end());
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: spexor_vocabulary_gen <output.cpp>\n");
        return 2;
    }
    std::vector<std::string> rows;
    for (cv::CVID id : cv::cvids()) {
        const cv::CVTermInfo& info = cv::cvTermInfo(id);
        std::string kind = kind_of(id);
        if (info.prefix() != "MS" || info.isObsolete || kind.empty()) {
            continue;
        }
        rows.push_back("    {\"" + info.id + "\", TermKind::" + kind + ", \"" +
                       short_name_of(info) + "\"},\n");
    }
    std::sort(rows.begin(), rows.end());
    std::ofstream out(argv[1], std::ios::binary);
    out << "// Generated at build time by spexor_vocabulary_gen from ProteoWizard's PSI-MS\n"
           "// vocabulary; sorted by accession.\n"
           "#include <algorithm>\n#include <iterator>\n\n#include \"vocabulary.h\"\n\n"
           "namespace ksieve::spexor {\nnamespace {\n\nconst VocabularyTerm kTerms[] = {\n";
    for (const std::string& row : rows) {
        out << row;
    }
    out << "};\n\n}  // namespace\n\n"
           "const VocabularyTerm* find_term(std::string_view accession) {\n"
           "    auto at = std::lower_bound(std::begin(kTerms), std::end(kTerms), accession,\n"
           "                               [](const VocabularyTerm& term, std::string_view key) {\n"
           "                                   return std::string_view(term.accession) < key;\n"
           "                               });\n"
           "    return at != std::end(kTerms) && at->accession == accession ? at : nullptr;\n"
           "}\n\n}  // namespace ksieve::spexor\n";
    out.close();
    if (!out) {
        std::fprintf(stderr, "spexor_vocabulary_gen: cannot write %s\n", argv[1]);
        return 1;
    }
    std::printf("%zu terms\n", rows.size());
    return 0;
}

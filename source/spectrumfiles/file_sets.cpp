#include <memory>
#include <string>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// The member for the scan's activation-and-instrument key, opened on first use
// by `open` with its path, the set's mode and the set's title.
template <typename File, typename Open>
File& member_for(OutputFileSet<File>& set, const MS2Spectrum& spectrum, Open open) {
    const std::string key = spectrum.m_activation_type + spectrum.m_instrument_type;
    if (auto found = set.m_files.find(key); found != set.m_files.end()) {
        return *found->second;
    }
    const std::string& stem_path = set.m_template_path;
    KS_ASSERT(set.m_extension_length >= 0 &&
                  stem_path.size() >= static_cast<std::size_t>(set.m_extension_length),
              "set.m_template_path.size() >= set.m_extension_length");
    auto file = std::make_unique<File>();
    open(*file, member_path(set, key), set.m_mode, set.m_title);
    return *set.m_files.emplace(key, std::move(file)).first->second;
}

}  // namespace

KsFile& file_for(KsFileSet& set, const MS2Spectrum& spectrum) {
    return member_for(set, spectrum, open_ks_file);
}

MgfFile& file_for(MgfFileSet& set, const MS2Spectrum& spectrum) {
    return member_for(set, spectrum, open_mgf_file);
}

void close_file_set(KsFileSet& set) {
    for (auto& [key, file] : set.m_files) {
        finalize_ks_file(*file);
        finish_spectrum_file(file->m_head);
        release_spectrum_file(file->m_head);
    }
    set.m_files.clear();
}

// An MGF file has no header to finalise.
void close_file_set(MgfFileSet& set) {
    for (auto& [key, file] : set.m_files) {
        finish_spectrum_file(file->m_head);
        release_spectrum_file(file->m_head);
    }
    set.m_files.clear();
}

}  // namespace ksieve

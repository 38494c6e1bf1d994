
#include "basicprocesslogic.h"
#include "featuresextractor.h"
#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

const std::set<std::string> g_activation_types = {"CID", "HCD", "ETD", "ETCID", "ETHCD"};
const std::set<std::string> g_instrument_types = {"IT", "FT"};

namespace {

bool is_instrument_word(const std::string& word) {
    return word == "raw" || word == "mzxml" || word == "mzml";
}

bool is_format_word(const std::string& word) {
    return word == "ms1" || word == "mgf" || is_instrument_word(word);
}

// mzML and mzXML are read compressed too: "run.mzML.gz" is an mzML file.
bool is_compressed_xml(const std::string& path) {
    const std::string lower = to_lower(path);
    return lower.ends_with(".mzml.gz") || lower.ends_with(".mzxml.gz");
}

std::vector<std::string> instrument_extensions(const std::string& format) {
    if (format == "mzml" || format == "mzxml") {
        return {"." + format, "." + format + ".gz"};
    }
    return {"." + format};
}

// Each file of one data path through `flow`, under an exclusive lock on the
// input itself: a second run on the same input waits here, and its flow's
// resume check then finds the work done.
template <typename Flow>
void run_each(UserParameters& params, const std::vector<std::string>& files, Flow flow) {
    for (const std::string& file : files) {
        set_current_file(params, file);
        const ExclusiveFileLock lock(file, [&params] {
            log_info("waiting for another kSieve run on " + params.m_current_stem);
        });
        flow(params);
    }
}

}  // namespace

void run_batch(UserParameters& params) {
    set_peak_format(params.m_peak_format);
    LoadIpvMatrix(shipped_file(params.m_ipv_file));
    for (const std::string& entry : params.m_datapaths) {
        const std::string word = input_format_of(entry, params);
        // The word stays in force for the paths that follow: a directory after a
        // single .mgf file is listed as MGF whatever the configuration says.
        if (is_format_word(word)) {
            params.m_input_format = word;
        }
        if (word == "ms1") {
            run_each(params, list_files(entry, ".ms1"),
                     [](UserParameters& file) { process_ms_files(file); });
        } else if (word == "mgf") {
            run_each(params, list_files(entry, ".mgf"), process_mgf_file);
        } else {
            // A file of unknown extension leaves the configured word in force,
            // and only the three instrument words have a flow here.
            const std::string configured = to_lower(params.m_input_format);
            if (!is_instrument_word(configured)) {
                throw "Argument input_format(-F) invalid: " + params.m_input_format +
                    "; input_format should be raw, mzxml or mzml for " + entry;
            }
            run_each(params, list_files(entry, instrument_extensions(configured)),
                     process_instrument_file);
        }
    }
}

std::string input_format_of(const std::string& path, const UserParameters& params) {
    // The template's own help writes "mzXML": the configured word is taken in
    // any case, as the extension of a file always was.
    if (!file_exists(path)) {
        return to_lower(params.m_input_format);
    }
    if (is_compressed_xml(path)) {
        const std::string inner = path.substr(0, path.size() - 3);  // without ".gz"
        return to_lower(inner.substr(inner.rfind('.') + 1));
    }
    const size_t dot = path.rfind('.');
    return to_lower(dot == std::string::npos ? path : path.substr(dot + 1));
}

void set_current_file(UserParameters& params, const std::string& path) {
    params.m_current_path = path;
    const size_t separator = path.find_last_of(kPathSeparators);
    if (separator != std::string::npos) {
        params.m_current_dir = path.substr(0, separator);
        params.m_current_name = path.substr(separator + 1);
    } else {
        params.m_current_dir = ".";
        params.m_current_name = path;
    }
    // The stem of "run.mzML.gz" is "run", as that of "run.mzML".
    const std::string& name = params.m_current_name;
    const size_t i_dot =
        name.rfind('.', is_compressed_xml(name) ? name.size() - 4 : std::string::npos);
    KS_ASSERT(i_dot != std::string::npos, "i_dot != string::npos");
    params.m_current_stem = params.m_current_name.substr(0, i_dot);
    params.m_current_ext = params.m_current_name.substr(i_dot + 1);
    if (params.m_output_beside_input) {
        params.m_outputpath = params.m_current_dir;
    }
}

std::string output_path(const UserParameters& params, const std::string& suffix) {
    return join_path({params.m_outputpath, params.m_current_stem + suffix});
}

std::string sibling_path(const UserParameters& params, const std::string& suffix) {
    return join_path({params.m_current_dir, params.m_current_stem + suffix});
}

void LoadIpvMatrix(const std::string& path) {
    if (FeaturesExtractor::m_h_is_IPV_inited) {
        return;
    }
    FeaturesExtractor::InstallIpvMatrix(read_ipv_file(path));
}

bool has_existing_result(const UserParameters& params, const std::string& marker,
                         const std::string& what) {
    if (params.m_rewrite_files || !file_exists(output_path(params, marker))) {
        return false;
    }
    log_info(params.m_current_path + " has existed results, skipping" + what);
    return true;
}

void process_instrument_file(UserParameters& params) {
    if (has_existing_result(params, ".csv", "...")) {
        return;
    }
    run_extractor(params, "ms");
    set_current_file(params, output_path(params, ".ms1"));
    process_ms_files(params);
    if (!params.m_delete_msn) {
        return;
    }
    delete_file(output_path(params, ".ms1"));
    delete_file(output_path(params, ".ms2"));
    delete_file(output_path(params, ".spexor"));
}

}  // namespace ksieve

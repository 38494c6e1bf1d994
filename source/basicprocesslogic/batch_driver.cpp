#include <map>
#include <string>

#include "basicprocesslogic.h"
#include "featuresextractor.h"
#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

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

// kSieve's own mzML output is no input: a directory listing leaves out
// "<stem>.ksieve.mzML" and its gzip form, which a second run would otherwise
// take for instrument files.
std::vector<std::string> without_own_mzml(std::vector<std::string> files) {
    std::erase_if(files, [](const std::string& path) {
        const std::string lower = to_lower(path);
        return lower.ends_with(".ksieve.mzml") || lower.ends_with(".ksieve.mzml.gz");
    });
    return files;
}

// What the data paths of one batch share: the isotope table, and the first
// input written to each <output directory>/<stem>.
struct Batch {
    const UserParameters& params;
    const IsotopeTable& ipv;
    std::map<std::string, std::string> first_of_stem;
};

// Each file of one data path through `flow`, under exclusive locks on the input
// itself and on its outputs: a second run on the same input, or on another input
// of the same stem and output directory, waits here, and its flow's resume check
// then finds the work done. A second input of one stem (run.mzML and
// run.mzML.gz) is named beside the first, as its flow finds their results.
template <typename Flow>
void run_each(Batch& batch, const std::string& entry, const std::vector<std::string>& files,
              const std::string& format, Flow flow) {
    // Only a directory lists nothing: a file of another extension is refused.
    if (files.empty()) {
        log("WARN", "Directory " + entry + " holds no input of the format " + format);
    }
    for (const std::string& path : files) {
        const FileContext file = file_context(batch.params, path, format, &batch.ipv);
        const auto [first, inserted] = batch.first_of_stem.emplace(output_path(file, ""), path);
        if (!inserted && first->second != path) {
            log("WARN",
                path + " has the stem of " + first->second + ": both write " + first->first + ".*");
        }
        const auto wait = [&file] { log_info("waiting for another kSieve run on " + file.m_stem); };
        const ExclusiveFileLock input_lock(path, wait);
        const ExclusiveFileLock output_lock(output_lock_path(output_path(file, "")), wait, true);
        flow(batch.params, file);
    }
}

}  // namespace

void run_batch(const UserParameters& params) {
    const IsotopeTable ipv = read_ipv_file(shipped_file(params.m_ipv_file));
    Batch batch{params, ipv, {}};
    std::string format = params.m_input_format;
    for (const std::string& entry : params.m_datapaths) {
        const std::string word = input_format_of(entry, format);
        // The word stays in force for the paths that follow: a directory after a
        // single .mgf file is listed as MGF whatever the configuration says.
        if (is_format_word(word)) {
            format = word;
        }
        if (word == "ms1") {
            run_each(batch, entry, list_files(entry, ".ms1"), format,
                     [](const UserParameters& p, const FileContext& f) { process_ms_files(p, f); });
        } else if (word == "mgf") {
            run_each(batch, entry, list_files(entry, ".mgf"), format, process_mgf_file);
        } else {
            // Only the three instrument words have a flow here; a file of another
            // extension has none either, and its own word is the one refused.
            const std::string configured = to_lower(format);
            const bool no_flow = !is_instrument_word(configured);
            if (no_flow || (file_exists(entry) && !is_instrument_word(word))) {
                throw "Argument input_format(-F) invalid: " + (no_flow ? format : word) +
                    "; input_format should be raw, mzxml or mzml for " + entry;
            }
            std::vector<std::string> files = list_files(entry, instrument_extensions(configured));
            if (directory_exists(entry)) {
                files = without_own_mzml(std::move(files));
            }
            run_each(batch, entry, files, format, process_instrument_file);
        }
    }
}

std::string input_format_of(const std::string& path, const std::string& format_in_force) {
    // The template's own help writes "mzXML": the configured word is taken in
    // any case, as the extension of a file always was.
    if (!file_exists(path)) {
        return to_lower(format_in_force);
    }
    if (is_compressed_xml(path)) {
        const std::string inner = path.substr(0, path.size() - 3);  // without ".gz"
        return to_lower(inner.substr(inner.rfind('.') + 1));
    }
    const size_t dot = path.rfind('.');
    return to_lower(dot == std::string::npos ? path : path.substr(dot + 1));
}

FileContext file_context(const UserParameters& params, const std::string& path,
                         std::string input_format, const IsotopeTable* ipv) {
    FileContext file;
    file.m_path = path;
    const size_t separator = path.find_last_of(kPathSeparators);
    std::string name = path;
    if (separator != std::string::npos) {
        file.m_dir = path.substr(0, separator);
        name = path.substr(separator + 1);
    } else {
        file.m_dir = ".";
    }
    // The stem of "run.mzML.gz" is "run", as that of "run.mzML".
    const size_t i_dot =
        name.rfind('.', is_compressed_xml(name) ? name.size() - 4 : std::string::npos);
    KS_ASSERT(i_dot != std::string::npos, "i_dot != string::npos");
    file.m_stem = name.substr(0, i_dot);
    file.m_output_dir = params.m_output_beside_input ? file.m_dir : params.m_outputpath;
    file.m_input_format = std::move(input_format);
    file.m_ipv = ipv;
    return file;
}

std::string output_path(const FileContext& file, const std::string& suffix) {
    return join_path({file.m_output_dir, file.m_stem + suffix});
}

std::string sibling_path(const FileContext& file, const std::string& suffix) {
    return join_path({file.m_dir, file.m_stem + suffix});
}

bool has_existing_result(const UserParameters& params, const FileContext& file,
                         const std::string& marker, const std::string& what) {
    if (params.m_rewrite_files || !file_exists(output_path(file, marker))) {
        return false;
    }
    log_info(file.m_path + " has existed results, skipping" + what);
    return true;
}

// The extracted pair lies in the output directory, and so does its output.
void process_instrument_file(const UserParameters& params, const FileContext& file) {
    if (has_existing_result(params, file, ".csv", "...")) {
        return;
    }
    run_extractor(params, file, "ms");
    FileContext pair =
        file_context(params, output_path(file, ".ms1"), file.m_input_format, file.m_ipv);
    pair.m_instrument_file = file.m_path;
    process_ms_files(params, pair);
    if (!params.m_delete_msn) {
        return;
    }
    delete_file(output_path(file, ".ms1"));
    delete_file(output_path(file, ".ms2"));
    delete_file(output_path(file, ".spexor"));
}

}  // namespace ksieve

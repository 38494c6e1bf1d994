// The machine-readable summary of one input: what became of the declared
// precursors, what the validation stage did, the companion's account, the
// parameters in force and the versions, as JSON for the workflow to read.
#include <cstdio>
#include <string>
#include <vector>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// A marker line longer than this is no line of the companion's.
constexpr std::size_t kMaxAccountLine = 256;

void append_json_text(std::string& out, const std::string& text) {
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            append_format(out, "\\u%04x", static_cast<unsigned>(byte));
        } else {
            out += c;
        }
    }
    out += '"';
}

bool is_count_line(const std::string& key, const std::string& value) {
    if (key.empty() || value.empty() || value.size() > 18) {
        return false;
    }
    for (const char c : key) {
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) {
            return false;
        }
    }
    for (const char c : value) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

}  // namespace

void count_written_scan(EvidenceCounts& counts, const MS2Spectrum& scan) {
    ++counts.m_scans;
    counts.m_precursors += static_cast<int64_t>(scan.m_precursors.size());
    bool confirmed = false;
    bool corrected = false;
    bool kept = false;
    int64_t detected = 0;
    for (const Precursor& precursor : scan.m_precursors) {
        const PrecursorOrigin origin = precursor.m_evidence.m_origin;
        confirmed = confirmed || origin == PrecursorOrigin::kDeclaredConfirmed;
        corrected = corrected || origin == PrecursorOrigin::kCorrected;
        kept = kept || origin == PrecursorOrigin::kDeclaredKept;
        detected += origin != PrecursorOrigin::kDeclaredKept ? 1 : 0;
    }
    if (confirmed) {
        ++counts.m_declared_confirmed;
    } else if (corrected) {
        ++counts.m_declared_corrected;
    } else if (kept) {
        ++counts.m_declared_kept;
    } else {
        ++counts.m_declared_replaced;
    }
    counts.m_with_coeluted += detected >= 2 ? 1 : 0;
}

std::string format_run_summary(const std::vector<SummarySection>& sections) {
    std::string out = "{\n";
    for (std::size_t s = 0; s < sections.size(); ++s) {
        out += "  ";
        append_json_text(out, sections[s].m_name);
        out += ": {";
        const std::vector<SummaryValue>& values = sections[s].m_values;
        for (std::size_t v = 0; v < values.size(); ++v) {
            out += v == 0 ? "\n    " : ",\n    ";
            append_json_text(out, values[v].m_key);
            out += ": ";
            if (values[v].m_number) {
                out += values[v].m_text;
            } else {
                append_json_text(out, values[v].m_text);
            }
        }
        out += values.empty() ? "}" : "\n  }";
        out += s + 1 < sections.size() ? ",\n" : "\n";
    }
    out += "}\n";
    return out;
}

std::vector<SummaryValue> read_companion_account(const std::string& path) {
    std::vector<SummaryValue> values;
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return values;
    }
    char line[kMaxAccountLine];
    bool whole = true;  // the piece read begins a line
    while (std::fgets(line, sizeof line, file) != nullptr) {
        const bool begins = whole;
        const std::string piece = line;
        whole = !piece.empty() && piece.back() == '\n';
        if (!begins || !whole) {
            continue;  // a piece of a line too long to be the companion's
        }
        const std::string text = trim(piece, kWhiteSpace);
        const std::size_t tab = text.find('\t');
        if (tab == std::string::npos) {
            continue;
        }
        const std::string key = text.substr(0, tab);
        const std::string value = text.substr(tab + 1);
        if (is_count_line(key, value)) {
            values.push_back({key, value, true});
        }
    }
    std::fclose(file);
    return values;
}

void write_summary_file(const std::string& path, const std::string& text) {
    const std::string unfinished = path + "_unfinished";
    std::FILE* file = open_file(unfinished, "w", "");
    bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    written = std::fflush(file) == 0 && written;
    written = std::fclose(file) == 0 && written;
    check_written(written, unfinished);
    if (std::rename(unfinished.c_str(), path.c_str()) != 0) {
        throw "Cannot rename file: " + unfinished;
    }
}

}  // namespace ksieve

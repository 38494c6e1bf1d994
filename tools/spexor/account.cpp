// The account of a conversion: one "key<TAB>value" line per count, on standard
// output at the end (kSieve copies it into its log) and in the marker file.
#include <string>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

void append_count(std::string& text, std::string_view key, std::size_t value) {
    text += key;
    text += '\t';
    text += std::to_string(value);
    text += '\n';
}

}  // namespace

std::string account_text(const ScanAccount& account) {
    std::string text;
    append_count(text, "ms1_read", account.ms1_read);
    append_count(text, "ms1_written", account.ms1_written);
    append_count(text, "ms2_read", account.ms2_read);
    append_count(text, "ms2_written", account.ms2_written);
    for (const auto& [activation, count] : account.ms2_written_by_activation) {
        append_count(text, "ms2_written_" + activation, count);
    }
    append_count(text, "ms2_inferred_activation", account.ms2_inferred_activation);
    append_count(text, "ms2_gate_will_skip", account.ms2_gate_will_skip);
    if (account.ms2_isolation_target_only != 0) {
        append_count(text, "ms2_isolation_target_only", account.ms2_isolation_target_only);
    }
    if (account.ms2_no_precursor != 0) {
        append_count(text, "ms2_no_precursor", account.ms2_no_precursor);
    }
    append_count(text, "ms2_not_written_no_peaks", account.ms2_not_written_no_peaks);
    append_count(text, "msn_not_written", account.msn_not_written);
    append_count(text, "faims_cv_values", account.faims_cv_values.size());
    return text;
}

}  // namespace ksieve::spexor

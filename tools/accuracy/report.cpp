// The accuracy report as a Markdown table.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include "accuracy.h"

namespace ksieve::eval {

namespace {

// "83.4 % (4170/5000)", or "-" when nothing was counted.
std::string percent(int64_t part, int64_t whole) {
    if (whole == 0) {
        return "-";
    }
    return format_text("%.1f %% (%" PRId64 "/%" PRId64 ")",
                       100.0 * static_cast<double>(part) / static_cast<double>(whole), part, whole);
}

}  // namespace

std::string format_text(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string format_report(const std::vector<LabelledCounts>& runs, const MatchRules& rules) {
    std::string text;
    if (!runs.empty()) {
        const AccuracyCounts& first = runs.front().m_counts;
        text +=
            format_text("%" PRId64 " MS2 scans in the truth, %" PRId64
                        " co-eluted ions with at least %g %% of the window; "
                        "match: same charge, m/z within %g ppm\n\n",
                        first.m_scans, first.m_coeluted, 100.0 * rules.m_min_share, rules.m_ppm);
    }
    text +=
        "| precursors | rows | written | precision | dominant precision | dominant recall "
        "| co-eluted precision | co-eluted recall |\n"
        "|---|--:|--:|--:|--:|--:|--:|--:|\n";
    for (const LabelledCounts& run : runs) {
        const AccuracyCounts& c = run.m_counts;
        text += "| " + run.m_label + " | " + std::to_string(c.m_rows) + " | " +
                std::to_string(c.m_precursors) + " | " +
                percent(matching_precursors(c), c.m_precursors) + " | " +
                percent(c.m_first_is_dominant, c.m_rows) + " | " +
                percent(c.m_dominant_found, c.m_scans) + " | " +
                percent(c.m_extra_correct, c.m_extra) + " | " +
                percent(c.m_coeluted_found, c.m_coeluted) + " |\n";
    }
    text +=
        "\n| precursors | wrong | another isotope peak of a true ion "
        "| a peak of a true ion of another charge | elsewhere |\n"
        "|---|--:|--:|--:|--:|\n";
    for (const LabelledCounts& run : runs) {
        const AccuracyCounts& c = run.m_counts;
        const int64_t wrong = c.m_wrong_isotope + c.m_wrong_charge + c.m_wrong_other;
        text += "| " + run.m_label + " | " + std::to_string(wrong) + " | " +
                percent(c.m_wrong_isotope, wrong) + " | " + percent(c.m_wrong_charge, wrong) +
                " | " + percent(c.m_wrong_other, wrong) + " |\n";
    }
    return text;
}

}  // namespace ksieve::eval

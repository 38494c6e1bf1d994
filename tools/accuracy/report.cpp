// The accuracy report as a Markdown table.
#include <cinttypes>
#include <cstdio>

#include "accuracy.h"

namespace ksieve::eval {

namespace {

std::string printf_text(const char* format, auto... values) {
    char buffer[160];
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

// "83.4 % (4170/5000)", or "-" when nothing was counted.
std::string percent(int64_t part, int64_t whole) {
    if (whole == 0) {
        return "-";
    }
    return printf_text("%.1f %% (%" PRId64 "/%" PRId64 ")",
                       100.0 * static_cast<double>(part) / static_cast<double>(whole), part, whole);
}

}  // namespace

std::string format_report(const std::vector<LabelledCounts>& runs, const MatchRules& rules) {
    std::string text;
    if (!runs.empty()) {
        const AccuracyCounts& first = runs.front().m_counts;
        text +=
            printf_text("%" PRId64 " MS2 scans in the truth, %" PRId64
                        " co-eluted ions with at least %g %% of the window; "
                        "match: same charge, m/z within %g ppm\n\n",
                        first.m_scans, first.m_coeluted, 100.0 * rules.m_min_share, rules.m_ppm);
    }
    text +=
        "| precursors | rows | written | dominant precision | dominant recall "
        "| co-eluted precision | co-eluted recall |\n"
        "|---|--:|--:|--:|--:|--:|--:|\n";
    for (const LabelledCounts& run : runs) {
        const AccuracyCounts& c = run.m_counts;
        text += "| " + run.m_label + " | " + std::to_string(c.m_rows) + " | " +
                std::to_string(c.m_precursors) + " | " + percent(c.m_first_is_dominant, c.m_rows) +
                " | " + percent(c.m_dominant_found, c.m_scans) + " | " +
                percent(c.m_extra_correct, c.m_extra) + " | " +
                percent(c.m_coeluted_found, c.m_coeluted) + " |\n";
    }
    return text;
}

}  // namespace ksieve::eval

// The names of the stage's outcomes and counts, and the log line of the counts:
// each taken from the one table of its kind.
#include <charconv>
#include <system_error>

#include "validation.h"

namespace ksieve {

namespace {

constexpr bool outcomes_in_fate_order() {
    for (std::size_t i = 0; i < std::size(kValidationOutcomes); ++i) {
        if (static_cast<std::size_t>(kValidationOutcomes[i].m_fate) != i) {
            return false;
        }
    }
    return true;
}
static_assert(outcomes_in_fate_order(), "kValidationOutcomes lists the fates in their order");

constexpr std::string_view kLinePrefix = "Precursor validation in ";

// Reads `words` from the front of `text`.
bool take(std::string_view& text, std::string_view words) {
    if (!text.starts_with(words)) {
        return false;
    }
    text.remove_prefix(words.size());
    return true;
}

// Reads a count of decimal digits from the front of `text`.
bool take_count(std::string_view& text, int64_t& count) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end == text.data() || count < 0) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

}  // namespace

void add_counts(ValidationCounts& total, const ValidationCounts& scan) {
    for (const ValidationCountName& count : kValidationCountNames) {
        total.*count.m_member += scan.*count.m_member;
    }
}

std::string ValidationCountsLine(const std::string& path, const ValidationCounts& counts) {
    std::string line = std::string(kLinePrefix) + path;
    for (const ValidationCountName& count : kValidationCountNames) {
        if (count.m_log_before != nullptr) {
            line += count.m_log_before;
            line += std::to_string(counts.*count.m_member);
            line += count.m_log_after;
        }
    }
    return line;
}

std::optional<ValidationCountsRead> ReadValidationCountsLine(std::string_view line) {
    const std::size_t start = line.find(kLinePrefix);
    const std::size_t colon = line.rfind(": ");
    if (start == std::string_view::npos || colon == std::string_view::npos ||
        colon < start + kLinePrefix.size()) {
        return std::nullopt;
    }
    const std::size_t path_start = start + kLinePrefix.size();
    ValidationCountsRead read{std::string(line.substr(path_start, colon - path_start)), {}};
    std::string_view rest = line.substr(colon);
    for (const ValidationCountName& count : kValidationCountNames) {
        if (count.m_log_before != nullptr &&
            !(take(rest, count.m_log_before) && take_count(rest, read.m_counts.*count.m_member) &&
              take(rest, count.m_log_after))) {
            return std::nullopt;
        }
    }
    if (!rest.empty()) {
        return std::nullopt;
    }
    return read;
}

const char* ValidationFateName(ValidationFate fate) {
    return kValidationOutcomes[static_cast<std::size_t>(fate)].m_name;
}

}  // namespace ksieve

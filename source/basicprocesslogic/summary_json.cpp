// The run summary of one input put together from what the pipeline counted,
// the companion's marker, the parameters and the versions.
#include <string>
#include <variant>
#include <vector>

#include "basicprocesslogic.h"
#include "ksieve_config.h"
#include "validation.h"

namespace ksieve {

namespace {

template <typename Counts, typename Names>
SummarySection count_section(const char* name, const Counts& counts, const Names& names) {
    SummarySection section{name, {}};
    for (const auto& count : names) {
        section.m_values.push_back({count.m_name, std::to_string(counts.*count.m_member), true});
    }
    return section;
}

SummarySection parameter_section(const UserParameters& params) {
    SummarySection section{"parameters", {}};
    for (const OptionRow& row : option_rows()) {
        // A key that cannot change the outputs (the thread count) stays out, so
        // that the summary too is the same whatever its value.
        if (row.m_logged && !std::holds_alternative<std::monostate>(row.m_field)) {
            section.m_values.push_back({row.m_key, field_text(params, row.m_field), false});
        }
    }
    for (std::size_t i = 0; i < params.m_datapaths.size(); ++i) {
        section.m_values.push_back(
            {"datapath" + std::to_string(i + 1), params.m_datapaths[i], false});
    }
    return section;
}

}  // namespace

void write_run_summary_json(const UserParameters& params, const FileContext& file,
                            const EvidenceCounts& evidence, const ValidationCounts* validation) {
    std::vector<SummarySection> sections;
    sections.push_back({"versions", {{"ksieve", KSIEVE_VERSION, false}}});
    sections.push_back({"input", {{"path", file.m_path, false}, {"stem", file.m_stem, false}}});
    sections.push_back(count_section("precursors", evidence, kEvidenceCountNames));
    if (validation != nullptr) {
        sections.push_back(count_section("validation", *validation, kValidationCountNames));
    }
    sections.push_back({"companion", read_companion_account(sibling_path(file, ".spexor"))});
    sections.push_back(parameter_section(params));
    write_summary_file(output_path(file, ".summary.json"), format_run_summary(sections));
}

}  // namespace ksieve

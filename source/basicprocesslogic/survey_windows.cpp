// The MS1 windows of a FAIMS run, one per compensation voltage.
//
// A run cycles through two or three voltages; each survey scan and each MS2 scan
// belongs to one. The precursor of an MS2 scan can only appear in the survey
// scans of its own voltage, so slices cut across voltages would dilute its
// elution and intensity evidence with scans in which it cannot be seen.
#include <algorithm>
#include <string>

#include "detection.h"
#include "ms1_window.h"

namespace ksieve {

void start_survey_windows(SurveyWindows& windows, const UserParameters& params,
                          const std::string& path) {
    windows.m_by_voltage = params.m_faims_windows;
    windows.m_path = path;
    windows.m_ceiling_bytes = ms1_ceiling_bytes(params);
}

Ms1Window& window_of(SurveyWindows& windows, const std::optional<double>& voltage) {
    const std::optional<double> key = windows.m_by_voltage ? voltage : std::nullopt;
    const auto known = std::find(windows.m_voltages.begin(), windows.m_voltages.end(), key);
    if (known != windows.m_voltages.end()) {
        return windows.m_windows[static_cast<std::size_t>(known - windows.m_voltages.begin())];
    }
    windows.m_voltages.push_back(key);
    Ms1Window& made = windows.m_windows.emplace_back(windows.m_path);
    const std::size_t share = windows.m_ceiling_bytes / windows.m_windows.size();
    for (Ms1Window& window : windows.m_windows) {
        window.set_ceiling(share);
    }
    return made;
}

Ms1Window& parent_window(SurveyWindows& windows, const MS2Spectrum& ms2) {
    for (Ms1Window& window : windows.m_windows) {
        if (FindSliceRange(window.store(), ms2)) {
            return window;
        }
    }
    return window_of(windows, ms2.m_compensation_voltage);
}

void push_survey_scan(SurveyWindows& windows, MS1Spectrum& scan) {
    window_of(windows, scan.m_compensation_voltage).push(scan);
}

Ms1WindowCounts survey_window_counts(const SurveyWindows& windows) {
    Ms1WindowCounts all;
    for (const Ms1Window& window : windows.m_windows) {
        all.m_rereads += window.counts().m_rereads;
        all.m_most_held_bytes += window.counts().m_most_held_bytes;
    }
    return all;
}

}  // namespace ksieve

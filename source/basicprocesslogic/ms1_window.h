// The MS1 windows of the per-file pipeline, inside run control only: the
// pipeline and the mzML stage use them, nothing outside this folder does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "basicprocesslogic.h"
#include "detection.h"
#include "records.h"
#include "spectrumfiles.h"
#include "userparameters.h"

namespace ksieve {

// The MS1 window of the pipeline under a ceiling on the bytes of peak lists it
// holds. Past the ceiling the oldest lists are let go, and read again from the
// `.ms1` file (by the offset the reader noted) when a parent scan needs them, so
// detection sees the same peaks at any ceiling. Records whose offset is unknown
// are never let go. Held bytes are the capacities of the lists in the store.
class Ms1Window {
  public:
    // The window of the `.ms1` file at `path`, full of default records.
    explicit Ms1Window(std::string path) : m_path(std::move(path)) {}

    const Ms1Store& store() const { return m_store; }
    const std::string& path() const { return m_path; }
    void set_ceiling(std::size_t bytes) { m_ceiling_bytes = bytes; }
    // Lists read again so far, and the most bytes of lists held at once.
    Ms1WindowCounts counts() const { return m_counts; }

    // Appends an FT scan, dropping the front record into `scan` (its buffers
    // are reused), then lets the oldest lists go down to the ceiling.
    void push(MS1Spectrum& scan);
    // Drops the front record, as the end of the MS1 file does once per pull.
    void pop();
    // Reads again the let-go lists that detection of `ms2` reads; returns the
    // range to hand to release afterwards.
    std::pair<std::size_t, std::size_t> hold(const MS2Spectrum& ms2);
    // True the first time the lists of [first, end) together exceed the
    // ceiling: every scan then reads its slices again, which the caller tells
    // once.
    bool first_window_over_ceiling(std::pair<std::size_t, std::size_t> range);
    // Lets the lists of [first, end) go again while the window is over its
    // ceiling.
    void release(std::pair<std::size_t, std::size_t> range);

  private:
    void add_held(const MS1Spectrum& scan);
    void let_go(MS1Spectrum& scan);
    MS1Spectrum take_front();
    void enforce_ceiling();
    void read_again(MS1Spectrum& scan);

    Ms1Store m_store = make_ms1_store();
    std::size_t m_ceiling_bytes = 0;
    std::size_t m_held_bytes = 0;
    std::size_t m_first_held = 0;  // records before it were let go, or cannot be
    std::string m_path;            // the `.ms1` file
    LineFile m_reread;             // a second stream on it, opened on first need
    bool m_told_short = false;     // the ceiling was found below one scan's window
    Ms1WindowCounts m_counts;
};

// The ceiling in bytes that memory_ceiling_mib sets.
std::size_t ms1_ceiling_bytes(const UserParameters& params);

// The MS1 windows of one run, one per FAIMS compensation voltage: with a FAIMS
// interface each survey scan lets through only the ions of its voltage, so an
// MS2 scan is judged against the survey scans of its own voltage alone. Scans
// without a voltage line, and every scan with m_faims_windows off, share one
// window, which then behaves exactly as the single window of a plain run. The
// ceiling on held peak lists is shared out evenly among the windows.
struct SurveyWindows {
    std::deque<Ms1Window> m_windows;                // in order of first appearance; never moved
    std::vector<std::optional<double>> m_voltages;  // the voltage of each window
    bool m_by_voltage = true;
    std::size_t m_ceiling_bytes = 0;  // for all windows together
    std::string m_path;               // the `.ms1` file
};
void start_survey_windows(SurveyWindows& windows, const UserParameters& params,
                          const std::string& path);
// The window of `voltage`, made (full of default records) on first need.
Ms1Window& window_of(SurveyWindows& windows, const std::optional<double>& voltage);
// The window that holds the parent scan of `ms2`; when none does (yet), the
// window of the scan's own voltage.
Ms1Window& parent_window(SurveyWindows& windows, const MS2Spectrum& ms2);
// Appends an FT scan to the window of its voltage, as Ms1Window::push does.
void push_survey_scan(SurveyWindows& windows, MS1Spectrum& scan);
// The re-reads of all windows, and the sum of their highest held bytes (so at
// least the most the windows held together at any one time).
Ms1WindowCounts survey_window_counts(const SurveyWindows& windows);

// The native id of MS1 scan `parent` while `window` holds it; empty otherwise.
std::string parent_native_id(const Ms1Window& window, int32_t parent);

}  // namespace ksieve

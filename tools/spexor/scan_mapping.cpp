// How the spectra of an mzML/mzXML run become the scans of the text pair: their
// numbers, their parent survey scans, and the instrument and activation words
// that kSieve sorts its output by.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "spexor.h"

namespace ksieve::spexor {
namespace {

// The first blank-separated token of `text`.
std::string_view first_token(std::string_view text) {
    std::size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        return {};
    }
    std::size_t end = text.find(' ', begin);
    return text.substr(begin, end == std::string_view::npos ? end : end - begin);
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The activation that a Thermo filter string chains after ETD in the same
// fragmentation step ("600.00@etd25.00@hcd20.00" gives "hcd"); "" when none.
std::string_view supplemental_after_etd(std::string_view filter) {
    std::size_t etd = filter.find("@etd");
    if (etd == std::string_view::npos) {
        return {};
    }
    std::size_t token_end = filter.find(' ', etd);
    std::string_view rest =
        filter.substr(etd + 4, token_end == std::string_view::npos ? std::string_view::npos
                                                                   : token_end - etd - 4);
    std::size_t next = rest.find('@');
    if (next == std::string_view::npos) {
        return {};
    }
    return rest.substr(next + 1, 3);
}

}  // namespace

int scan_number_from_native_id(std::string_view native_id) {
    constexpr std::string_view kKey = "scan=";
    for (std::size_t at = native_id.find(kKey); at != std::string_view::npos;
         at = native_id.find(kKey, at + 1)) {
        if (at != 0 && native_id[at - 1] != ' ') {
            continue;  // part of a longer key such as "subscan="
        }
        long long value = 0;
        std::size_t i = at + kKey.size();
        std::size_t first_digit = i;
        while (i < native_id.size() && native_id[i] >= '0' && native_id[i] <= '9' &&
               value <= 2147483647LL) {
            value = value * 10 + (native_id[i] - '0');
            ++i;
        }
        bool ends_token = i == native_id.size() || native_id[i] == ' ';
        if (i > first_digit && ends_token && value <= 2147483647LL) {
            return static_cast<int>(value);
        }
    }
    return -1;
}

std::string instrument_type_of(std::string_view filter_string, RunAnalyzers analyzers, int ms_level,
                               std::string_view activation_type) {
    std::string_view analyzer = first_token(filter_string);
    if (analyzer == "FTMS" || analyzer == "TOFMS") {
        return "FTMS";
    }
    if (analyzer == "ITMS") {
        return "ITMS";
    }
    if (analyzers.fourier_transform != analyzers.ion_trap) {
        return analyzers.fourier_transform ? "FTMS" : "ITMS";
    }
    // No evidence for this scan: precursor detection needs high-resolution
    // survey scans, and HCD fragments are read out in the Orbitrap of a hybrid
    // while trap CID fragments stay in the trap.
    if (ms_level <= 1 || activation_type == "HCD") {
        return "FTMS";
    }
    return "ITMS";
}

std::string activation_type_of(const std::vector<std::string>& method_names,
                               std::string_view filter_string) {
    bool beam_type = contains(method_names, "HCID");
    bool collision = contains(method_names, "CID") || contains(method_names, "LCID");
    if (contains(method_names, "ETD")) {
        std::string_view supplemental = supplemental_after_etd(filter_string);
        if (beam_type || supplemental == "hcd") {
            return "ETHCD";
        }
        if (collision || supplemental == "cid") {
            return "ETCID";
        }
        return "ETD";
    }
    if (beam_type) {
        return "HCD";
    }
    if (collision) {
        return "CID";
    }
    return method_names.empty() ? std::string() : method_names.front();
}

void append_declared_precursors(std::vector<DeclaredPrecursor>& out, double mz, int charge,
                                const std::vector<int>& possible_charges) {
    if (charge != 0) {
        out.push_back({mz, charge});
        return;
    }
    std::size_t before = out.size();
    for (int possible : possible_charges) {
        if (possible != 0) {
            out.push_back({mz, possible});
        }
    }
    if (out.size() == before) {
        out.push_back({mz, 2});
        out.push_back({mz, 3});
    }
}

void RunIndex::add(std::string_view native_id, int ms_level, double rt_seconds,
                   double isolation_target) {
    if (m_finished) {
        throw std::logic_error("RunIndex::add after finish");
    }
    std::size_t index = m_entries.size();
    m_entries.push_back(
        {scan_number_from_native_id(native_id), ms_level, rt_seconds, isolation_target});
    if (ms_level == 1) {
        m_survey_by_id.emplace(std::string(native_id), index);
    }
}

void RunIndex::finish() {
    m_finished = true;
    int last_number[3] = {-1, -1, -1};
    m_native_numbers = true;
    for (const Entry& entry : m_entries) {
        if (entry.ms_level != 1 && entry.ms_level != 2) {
            continue;
        }
        int& last = last_number[entry.ms_level];
        if (entry.native_number < 0 || entry.native_number <= last) {
            m_native_numbers = false;
            break;
        }
        last = entry.native_number;
    }
    m_survey_by_time.clear();
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (m_entries[i].ms_level == 1) {
            m_survey_by_time.push_back(i);
        }
    }
    std::stable_sort(m_survey_by_time.begin(), m_survey_by_time.end(),
                     [this](std::size_t a, std::size_t b) {
                         return m_entries[a].rt_seconds < m_entries[b].rt_seconds;
                     });
}

int RunIndex::number(std::size_t index) const {
    return m_native_numbers ? m_entries.at(index).native_number : static_cast<int>(index + 1);
}

int RunIndex::ms_level(std::size_t index) const {
    return m_entries.at(index).ms_level;
}

double RunIndex::isolation_target(std::size_t index) const {
    return m_entries.at(index).isolation_target;
}

std::size_t RunIndex::count_of_level(int level) const {
    return static_cast<std::size_t>(
        std::count_if(m_entries.begin(), m_entries.end(),
                      [level](const Entry& entry) { return entry.ms_level == level; }));
}

int RunIndex::parent_of(std::size_t index, const std::string& spectrum_ref) const {
    if (!spectrum_ref.empty()) {
        auto named = m_survey_by_id.find(spectrum_ref);
        if (named != m_survey_by_id.end()) {
            return number(named->second);
        }
    }
    const double rt = m_entries.at(index).rt_seconds;
    // First survey scan that comes after this spectrum in (time, file position).
    auto after = std::upper_bound(m_survey_by_time.begin(), m_survey_by_time.end(), index,
                                  [this, rt](std::size_t self, std::size_t survey) {
                                      double survey_rt = m_entries[survey].rt_seconds;
                                      return rt < survey_rt || (rt == survey_rt && self < survey);
                                  });
    return after == m_survey_by_time.begin() ? 0 : number(*(after - 1));
}

}  // namespace ksieve::spexor

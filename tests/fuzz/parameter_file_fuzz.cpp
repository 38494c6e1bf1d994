// Any bytes as a parameter file: the line filter must end and either refuse the
// file with its one fixed message or give keys that are lowered, trimmed and
// free of comments. Applying the map must fail only with the parameter
// messages, and what it accepts must survive its own text form unchanged.
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "userparameters.h"
#include "utils.h"

namespace {

using ksieve::ParameterMap;

bool is_trimmed(const std::string& text) {
    return text.empty() || (std::strchr(ksieve::kWhiteSpace, text.front()) == nullptr &&
                            std::strchr(ksieve::kWhiteSpace, text.back()) == nullptr);
}

void check_rows(const ParameterMap& map) {
    for (const auto& [key, value] : map) {
        KS_FUZZ_CHECK(is_trimmed(key) && is_trimmed(value));
        KS_FUZZ_CHECK(key.find_first_of("#=") == std::string::npos);
        KS_FUZZ_CHECK(value.find('#') == std::string::npos);
        KS_FUZZ_CHECK(ksieve::to_lower(key) == key);
        KS_FUZZ_CHECK(key.empty() || (key[0] != ';' && key[0] != '['));
    }
}

// Without its data paths a map never reaches the file system: applying it ends
// at the paths, or, with a datanum below 1, accepts a record without any.
void check_apply(ParameterMap map) {
    for (auto row = map.begin(); row != map.end();) {
        row = row->first.rfind("datapath", 0) == 0 ? map.erase(row) : std::next(row);
    }
    ksieve::UserParameters record;
    try {
        ksieve::apply_parameters(record, map);
    } catch (const char* message) {
        KS_FUZZ_CHECK(std::strcmp(message, "Unable to find User Defined Parameter: datapath") == 0);
        return;
    } catch (const std::string& message) {
        KS_FUZZ_CHECK(message.rfind("cannot turn param: <name:User Defined Parameter: ", 0) == 0 ||
                      message == "Unable to find User Defined Parameter: datapath1");
        return;
    }
    KS_FUZZ_CHECK(record.m_datapaths.empty());
    ParameterMap text;
    ksieve::parameters_to_map(record, text);
    ksieve::UserParameters again;
    ksieve::apply_parameters(again, text);
    ParameterMap text_again;
    ksieve::parameters_to_map(again, text_again);
    KS_FUZZ_CHECK(text_again == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    std::FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    KS_FUZZ_CHECK(file != nullptr);
    ParameterMap map;
    try {
        map = ksieve::read_parameter_map(file);
    } catch (const char* message) {
        KS_FUZZ_CHECK(std::strcmp(message, "Unexpected INI format!") == 0);
        std::fclose(file);
        return 0;
    }
    std::fclose(file);
    check_rows(map);
    check_apply(map);
    return 0;
}

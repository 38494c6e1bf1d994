// Any bytes as a parameter file: the line filter must end and either refuse the
// file with its one fixed message or give keys that are lowered, trimmed and
// free of comments. Applying the map must fail only with the parameter
// messages (a refused value names its key), and what it accepts must survive
// its own text form unchanged.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "userparameters.h"

namespace {

using namespace ksieve;

bool is_trimmed(const std::string& text) {
    return text.empty() ||
           !(std::strchr(kWhiteSpace, text.front()) || std::strchr(kWhiteSpace, text.back()));
}

// Without its data paths a map never reaches the file system: applying it ends
// at the paths, or, with a datanum below 1, accepts a record without any.
void check_apply(ParameterMap map) {
    std::erase_if(map, [](const auto& row) { return row.first.rfind("datapath", 0) == 0; });
    UserParameters record;
    try {
        apply_parameters(record, map);
    } catch (const char* message) {
        KS_FUZZ_CHECK(std::strcmp(message, "Unable to find User Defined Parameter: datapath") == 0);
        return;
    } catch (const std::string& message) {
        KS_FUZZ_CHECK(message.rfind("cannot turn param: <name:User Defined Parameter: ", 0) == 0 ||
                      (message.rfind("Argument ", 0) == 0 &&
                       message.find(" invalid: ") != std::string::npos) ||
                      message == "Unable to find User Defined Parameter: datapath1");
        return;
    }
    KS_FUZZ_CHECK(record.m_datapaths.empty());
    ParameterMap text, text_again;
    parameters_to_map(record, text);
    UserParameters again;
    apply_parameters(again, text);
    parameters_to_map(again, text_again);
    KS_FUZZ_CHECK(text_again == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        fmemopen(const_cast<uint8_t*>(data), size, "r"), &std::fclose);
    KS_FUZZ_CHECK(file != nullptr);
    ParameterMap map;
    try {
        map = read_parameter_map(file.get());
    } catch (const char* message) {
        KS_FUZZ_CHECK(std::strcmp(message, "Unexpected INI format!") == 0);
        return 0;
    }
    for (const auto& [key, value] : map) {
        KS_FUZZ_CHECK(is_trimmed(key) && is_trimmed(value) && to_lower(key) == key);
        KS_FUZZ_CHECK(key.find_first_of("#=") == std::string::npos &&
                      value.find('#') == std::string::npos);
        KS_FUZZ_CHECK(key.empty() || (key[0] != ';' && key[0] != '['));
    }
    check_apply(map);
    return 0;
}

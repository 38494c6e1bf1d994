// Runs a fuzz target over every file of the seed corpus directories (or files)
// given on the command line, so that the seeds are a regression test wherever
// no fuzzing engine is linked. Fails when there is nothing to run.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::set<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code not_a_directory;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], not_a_directory)) {
            inputs.insert(entry.path());
        }
        if (not_a_directory) {
            inputs.insert(argv[i]);
        }
    }
    for (const std::filesystem::path& input : inputs) {
        std::ifstream in(input, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%zu inputs ran\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}

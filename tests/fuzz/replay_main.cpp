// Runs a fuzz target over every file of the seed corpus directories (or files)
// given on the command line, so that the seeds are a regression test wherever
// no fuzzing engine is linked. Fails when there is nothing to run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputs_of(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t runs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& input : inputs_of(argv[i])) {
            std::ifstream in(input, std::ios::binary);
            if (!in) {
                std::fprintf(stderr, "cannot read %s\n", input.c_str());
                return 1;
            }
            const std::string bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++runs;
        }
    }
    std::fprintf(stderr, "%zu inputs ran\n", runs);
    return runs > 0 ? 0 : 1;
}

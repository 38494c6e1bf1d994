// The mzML writer's encodings on real peak arrays: every scan of a `.ms1` or
// `.ms2` file packed as the writer packs it (64-bit m/z, 32-bit intensities),
// then compressed by our deflate and by zlib at levels 1 and 6, base64-encoded
// and hashed. Prints input MB/s and the compressed share of each.
//   deflate_bench <file.ms1|file.ms2>... [--repeats N]
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "encoding.h"
#include "spectrumfiles.h"

namespace {

using ksieve::Peak;

std::vector<std::string> packed_arrays(const std::string& path) {
    ksieve::LineFile file;
    ksieve::open_spectrum_file(file.m_head, path, "r");
    std::vector<std::string> arrays;
    const auto pack = [&arrays](const std::vector<Peak>& peaks) {
        std::string mz;
        std::string intensity;
        for (const Peak& peak : peaks) {
            const auto level = static_cast<float>(peak.m_intensity);
            mz.append(reinterpret_cast<const char*>(&peak.m_mz), 8);
            intensity.append(reinterpret_cast<const char*>(&level), 4);
        }
        arrays.push_back(std::move(mz));
        arrays.push_back(std::move(intensity));
    };
    if (path.ends_with(".ms1")) {
        ksieve::MS1Spectrum scan;
        while (ksieve::ReadMs1Scan(file, scan)) {
            pack(scan.m_peaks);
            scan = ksieve::MS1Spectrum{};
        }
    } else {
        ksieve::MS2Spectrum scan;
        while (ksieve::ReadMs2Scan(file, scan)) {
            pack(scan.m_peaks);
            scan = ksieve::MS2Spectrum{};
        }
    }
    ksieve::release_spectrum_file(file.m_head);
    return arrays;
}

// Best of `repeats` runs of `encode` over every array; returns seconds, and the
// output bytes of the last run in `out_bytes`.
double best_time(int repeats, const std::vector<std::string>& arrays,
                 const std::function<std::size_t(const std::string&)>& encode,
                 std::size_t& out_bytes) {
    double best = 1e30;
    for (int r = 0; r < repeats; ++r) {
        out_bytes = 0;
        const auto start = std::chrono::steady_clock::now();
        for (const std::string& array : arrays) {
            out_bytes += encode(array);
        }
        best = std::min(
            best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
}

const unsigned char* bytes(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}

}  // namespace

int main(int argc, char** argv) {
    int repeats = 3;
    std::vector<std::string> arrays;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--repeats") == 0 && i + 1 < argc) {
            repeats = std::max(1, std::atoi(argv[++i]));
            continue;
        }
        std::vector<std::string> more = packed_arrays(argv[i]);
        arrays.insert(arrays.end(), more.begin(), more.end());
    }
    std::size_t input = 0;
    for (const std::string& array : arrays) {
        input += array.size();
    }
    std::printf("%zu arrays, %.1f MB\n", arrays.size(), static_cast<double>(input) / 1e6);
    ksieve::DeflateScratch scratch;
    std::string out;
    std::vector<unsigned char> zbuffer;
    const auto report = [&](const char* name,
                            const std::function<std::size_t(const std::string&)>& encode) {
        std::size_t out_bytes = 0;
        const double seconds = best_time(repeats, arrays, encode, out_bytes);
        std::printf("%-22s %8.1f MB/s  output %.3f of input\n", name,
                    static_cast<double>(input) / 1e6 / seconds,
                    static_cast<double>(out_bytes) / static_cast<double>(input));
    };
    report("deflate (ours)", [&](const std::string& a) {
        out.clear();
        ksieve::zlib_compress(bytes(a), a.size(), out, scratch);
        return out.size();
    });
    for (const int level : {1, 6}) {
        report(level == 1 ? "zlib level 1" : "zlib level 6", [&, level](const std::string& a) {
            uLongf size = compressBound(a.size());
            zbuffer.resize(size);
            compress2(zbuffer.data(), &size, bytes(a), a.size(), level);
            return static_cast<std::size_t>(size);
        });
    }
    report("base64", [&](const std::string& a) {
        out.clear();
        ksieve::base64_append(out, bytes(a), a.size());
        return out.size();
    });
    report("SHA-1", [&](const std::string& a) {
        ksieve::Sha1 sha1;
        sha1.update(bytes(a), a.size());
        return sha1.hex_digest().size();
    });
    return 0;
}

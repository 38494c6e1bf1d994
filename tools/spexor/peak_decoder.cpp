// Decoding the peak arrays of a spectrum: strict base64, zlib, MS-Numpress
// (ProteoWizard's decoders), 32/64-bit floats and integers in either byte
// order. It runs on the converting thread, away from the XML parse.
#include <zlib.h>

#include <pwiz/data/msdata/MSNumpress.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "xml_reader.h"

namespace ksieve::spexor {
namespace {

// Decodes strict base64 (blanks and line ends allowed between symbols).
void decode_base64(std::string_view text, std::vector<unsigned char>& out) {
    static const auto table = [] {
        std::array<signed char, 256> t{};
        t.fill(-1);
        const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int i = 0; i < 64; ++i) {
            t[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
        }
        for (char blank : {' ', '\n', '\r', '\t'}) {
            t[static_cast<unsigned char>(blank)] = -2;
        }
        t['='] = -3;
        return t;
    }();
    out.resize(text.size() / 4 * 3 + 3);
    std::size_t written = 0;
    std::uint32_t group = 0;
    int symbols = 0;
    std::size_t padding = 0;
    for (char c : text) {
        const int value = table[static_cast<unsigned char>(c)];
        if (value >= 0 && padding == 0) {
            group = (group << 6) | static_cast<std::uint32_t>(value);
            if (++symbols == 4) {
                out[written] = static_cast<unsigned char>(group >> 16);
                out[written + 1] = static_cast<unsigned char>(group >> 8);
                out[written + 2] = static_cast<unsigned char>(group);
                written += 3;
                symbols = 0;
                group = 0;
            }
        } else if (value == -3 && symbols >= 2) {
            ++padding;
            group <<= 6;
            if (++symbols == 4) {
                out[written] = static_cast<unsigned char>(group >> 16);
                out[written + 1] = static_cast<unsigned char>(group >> 8);
                written += 3 - padding;
                symbols = 0;
            }
        } else if (value != -2) {
            throw std::runtime_error("bad base64 in a peak array");
        }
    }
    if (symbols != 0) {
        throw std::runtime_error("bad base64 in a peak array (length not a multiple of 4)");
    }
    out.resize(written);
}

// "spectrum <id>, m/z array": which array of which spectrum a refusal is about.
std::string array_label(const std::string& spectrum_id, EncodedArray::Kind kind) {
    return "spectrum " + spectrum_id + ", " +
           (kind == EncodedArray::kIntensity ? "intensity array"
            : kind == EncodedArray::kMz      ? "m/z array"
                                             : "m/z-intensity pairs");
}

// Inflates `in` into `out`, refusing a stream that would give more than
// `limit` bytes: a small array can swell to gigabytes, so the limit that the
// declared length sets is enforced before the memory is spent.
void inflate_all(const std::vector<unsigned char>& in, std::size_t limit, long long declared,
                 std::vector<unsigned char>& out, const std::string& spectrum_id,
                 EncodedArray::Kind kind) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        throw std::runtime_error("cannot start zlib");
    }
    // One byte beyond the limit shows whether the stream holds more.
    out.resize(std::min(std::max<std::size_t>(in.size() * 4, 1024), limit + 1));
    stream.next_in = const_cast<unsigned char*>(in.data());
    stream.avail_in = static_cast<uInt>(in.size());
    int status = Z_OK;
    while (status == Z_OK && stream.total_out <= limit) {
        if (stream.total_out == out.size()) {
            out.resize(std::min(out.size() * 2, limit + 1));
        }
        stream.next_out = out.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
        status = inflate(&stream, Z_NO_FLUSH);
        if (status == Z_BUF_ERROR && stream.avail_out > 0) {
            break;  // input ended before the stream did
        }
        if (status == Z_BUF_ERROR) {
            status = Z_OK;
        }
    }
    const std::size_t total = stream.total_out;
    inflateEnd(&stream);
    if (total > limit) {
        throw std::runtime_error(array_label(spectrum_id, kind) + " inflates past the " +
                                 std::to_string(limit) + " bytes that the " +
                                 std::to_string(declared) + " values it declares can take");
    }
    out.resize(total);
    if (status != Z_STREAM_END) {
        throw std::runtime_error("bad zlib compression in a peak array");
    }
}

// Little-endian (mzML) or network-order (mzXML) numbers of `bytes` each.
void unpack_numbers(const std::vector<unsigned char>& raw, int bytes, bool integer, bool big_endian,
                    std::vector<double>& out) {
    if (raw.size() % static_cast<std::size_t>(bytes) != 0) {
        throw std::runtime_error("a peak array's size is not a whole number of values");
    }
    const std::size_t count = raw.size() / static_cast<std::size_t>(bytes);
    out.resize(count);
    unsigned char word[8];
    for (std::size_t i = 0; i < count; ++i) {
        const unsigned char* at = raw.data() + i * static_cast<std::size_t>(bytes);
        for (int b = 0; b < bytes; ++b) {
            word[b] = big_endian ? at[bytes - 1 - b] : at[b];
        }
        if (bytes == 8) {
            if (integer) {
                std::int64_t v;
                std::memcpy(&v, word, 8);
                out[i] = static_cast<double>(v);
            } else {
                double v;
                std::memcpy(&v, word, 8);
                out[i] = v;
            }
        } else if (integer) {
            std::int32_t v;
            std::memcpy(&v, word, 4);
            out[i] = v;
        } else {
            float v;
            std::memcpy(&v, word, 4);
            out[i] = v;
        }
    }
}

// The most bytes that `values` numbers can take as stored: MS-Numpress spends
// at most 4.5 bytes a value (SLOF 2) after a header of at most 16 bytes.
std::size_t stored_bytes_limit(const EncodedArray& a, std::size_t values) {
    values = std::min(values, std::numeric_limits<std::size_t>::max() / 16);
    return a.numpress == 0 ? values * static_cast<std::size_t>(a.bytes) : values * 5 + 16;
}

// Decodes MS-Numpress `raw` into `out`, first making sure that the bytes can
// hold `expected` values, so that no corrupt header sizes the allocation.
void decode_numpress(const std::vector<unsigned char>& raw, char method, std::size_t expected,
                     std::vector<double>& out, const std::string& spectrum_id,
                     EncodedArray::Kind kind) {
    namespace np = pwiz::msdata::MSNumpress;
    const std::size_t size = raw.size();
    const bool fits = method == 's' ? size >= 8 && (size - 8) % 2 == 0 && (size - 8) / 2 == expected
                      : method == 'l' ? size >= 8 && expected <= 2 * size
                                      : expected <= 2 * size;
    if (!fits) {
        throw std::runtime_error(array_label(spectrum_id, kind) + ": " + std::to_string(size) +
                                 " bytes of numpress data cannot hold the " +
                                 std::to_string(expected) + " values it declares");
    }
    out.resize(size * 2 + 8);
    std::size_t n = 0;
    try {
        n = method == 'l'   ? np::decodeLinear(raw.data(), size, out.data())
            : method == 'p' ? np::decodePic(raw.data(), size, out.data())
                            : np::decodeSlof(raw.data(), size, out.data());
    } catch (const char* reason) {
        throw std::runtime_error(array_label(spectrum_id, kind) + ": bad numpress data (" + reason +
                                 ")");
    }
    if (n > out.size()) {
        throw std::runtime_error(array_label(spectrum_id, kind) + ": bad numpress data");
    }
    out.resize(n);
}

}  // namespace

void PeakDecoder::decode(RawSpectrum& spectrum) {
    spectrum.mz.clear();
    spectrum.intensity.clear();
    for (std::size_t i = 0; i < spectrum.array_count; ++i) {
        const EncodedArray& a = spectrum.arrays[i];
        const long long per_value = a.kind == EncodedArray::kPairs ? 2 : 1;
        const long long expected =
            (a.length >= 0 ? a.length : spectrum.declared_length) * per_value;
        const auto values = static_cast<std::size_t>(std::max(expected, 0LL));
        decode_base64(a.text, m_bytes);
        const std::vector<unsigned char>* raw = &m_bytes;
        // An empty array is stored as nothing, compressed or not.
        if (a.zlib && !m_bytes.empty()) {
            inflate_all(m_bytes, stored_bytes_limit(a, values), expected, m_inflated, spectrum.id,
                        a.kind);
            raw = &m_inflated;
        }
        std::vector<double>& out = a.kind == EncodedArray::kIntensity ? spectrum.intensity
                                   : a.kind == EncodedArray::kMz      ? spectrum.mz
                                                                      : m_values;
        out.clear();
        if (!raw->empty() && a.numpress == 0) {
            unpack_numbers(*raw, a.bytes, a.integer, a.big_endian, out);
        } else if (!raw->empty()) {
            decode_numpress(*raw, a.numpress, values, out, spectrum.id, a.kind);
        }
        if (static_cast<long long>(out.size()) != expected) {
            throw std::runtime_error(
                "spectrum " + spectrum.id + " has " + std::to_string(out.size()) +
                " values in a peak array where it declares " + std::to_string(expected));
        }
        if (a.kind == EncodedArray::kPairs) {
            spectrum.mz.resize(out.size() / 2);
            spectrum.intensity.resize(out.size() / 2);
            for (std::size_t p = 0; p < spectrum.mz.size(); ++p) {
                spectrum.mz[p] = out[2 * p];
                spectrum.intensity[p] = out[2 * p + 1];
            }
        }
    }
    if (spectrum.mz.size() != spectrum.intensity.size()) {
        throw std::runtime_error("spectrum " + spectrum.id + " has " +
                                 std::to_string(spectrum.mz.size()) + " m/z values and " +
                                 std::to_string(spectrum.intensity.size()) + " intensities");
    }
}

}  // namespace ksieve::spexor

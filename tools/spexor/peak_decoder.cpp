// Decoding the peak arrays of a spectrum: strict base64, zlib, MS-Numpress
// (ProteoWizard's decoders), 32/64-bit floats and integers in either byte
// order. It runs on the converting thread, away from the XML parse.
#include <zlib.h>

#include <pwiz/data/msdata/MSNumpress.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
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

void inflate_all(const std::vector<unsigned char>& in, std::vector<unsigned char>& out) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        throw std::runtime_error("cannot start zlib");
    }
    out.resize(std::max<std::size_t>(in.size() * 4, 1024));
    stream.next_in = const_cast<unsigned char*>(in.data());
    stream.avail_in = static_cast<uInt>(in.size());
    int status = Z_OK;
    while (status == Z_OK) {
        if (stream.total_out == out.size()) {
            out.resize(out.size() * 2);
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
    out.resize(stream.total_out);
    inflateEnd(&stream);
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

}  // namespace

void PeakDecoder::decode(RawSpectrum& spectrum) {
    spectrum.mz.clear();
    spectrum.intensity.clear();
    for (std::size_t i = 0; i < spectrum.array_count; ++i) {
        const EncodedArray& a = spectrum.arrays[i];
        decode_base64(a.text, m_bytes);
        const std::vector<unsigned char>* raw = &m_bytes;
        // An empty array is stored as nothing, compressed or not.
        if (a.zlib && !m_bytes.empty()) {
            inflate_all(m_bytes, m_inflated);
            raw = &m_inflated;
        }
        std::vector<double>& out = a.kind == EncodedArray::kIntensity ? spectrum.intensity
                                   : a.kind == EncodedArray::kMz      ? spectrum.mz
                                                                      : m_values;
        out.clear();
        if (!raw->empty() && a.numpress == 0) {
            unpack_numbers(*raw, a.bytes, a.integer, a.big_endian, out);
        } else if (!raw->empty()) {
            namespace np = pwiz::msdata::MSNumpress;
            out.resize(raw->size() * 2 + 8);
            std::size_t n =
                a.numpress == 'l'   ? np::decodeLinear(raw->data(), raw->size(), out.data())
                : a.numpress == 'p' ? np::decodePic(raw->data(), raw->size(), out.data())
                                    : np::decodeSlof(raw->data(), raw->size(), out.data());
            out.resize(n);
        }
        const long long per_value = a.kind == EncodedArray::kPairs ? 2 : 1;
        const long long expected =
            (a.length >= 0 ? a.length : spectrum.declared_length) * per_value;
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

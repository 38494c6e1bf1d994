#include <array>
#include <cstring>

#include "encoding.h"

namespace ksieve {

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The two digits of every 12 bits, so that three bytes take two look-ups.
constexpr std::array<char, 2 * 4096> kDigitPairs = [] {
    std::array<char, 2 * 4096> pairs{};
    for (std::size_t v = 0; v < 4096; ++v) {
        pairs[2 * v] = kBase64Digits[v >> 6];
        pairs[2 * v + 1] = kBase64Digits[v & 63];
    }
    return pairs;
}();

}  // namespace

void base64_append(std::string& out, const unsigned char* data, std::size_t size) {
    const std::size_t start = out.size();
    out.resize(start + (size + 2) / 3 * 4);
    char* o = out.data() + start;
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        std::memcpy(o, &kDigitPairs[2 * (v >> 12)], 2);
        std::memcpy(o + 2, &kDigitPairs[2 * (v & 4095)], 2);
        o += 4;
    }
    if (i < size) {
        const bool two = i + 1 < size;
        const uint32_t v = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0U);
        *o++ = kBase64Digits[v >> 18];
        *o++ = kBase64Digits[(v >> 12) & 63];
        *o++ = two ? kBase64Digits[(v >> 6) & 63] : '=';
        *o++ = '=';
    }
}

}  // namespace ksieve

#include "encoding.h"

namespace ksieve {

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

void base64_append(std::string& out, const unsigned char* data, std::size_t size) {
    const std::size_t start = out.size();
    out.resize(start + (size + 2) / 3 * 4);
    char* o = out.data() + start;
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        *o++ = kBase64Digits[v >> 18];
        *o++ = kBase64Digits[(v >> 12) & 63];
        *o++ = kBase64Digits[(v >> 6) & 63];
        *o++ = kBase64Digits[v & 63];
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

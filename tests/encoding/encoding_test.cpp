#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "encoding.h"
#include "test_support.h"

namespace ksieve {
namespace {

std::vector<unsigned char> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

// What zlib makes of one of our streams; fails the test when it rejects it.
std::vector<unsigned char> inflate_all(const std::string& stream, std::size_t expected_size) {
    std::vector<unsigned char> out(expected_size + 1);
    uLongf out_size = out.size();
    const int status = uncompress(out.data(), &out_size,
                                  reinterpret_cast<const Bytef*>(stream.data()), stream.size());
    EXPECT_EQ(status, Z_OK);
    out.resize(out_size);
    return out;
}

void expect_round_trip(const std::vector<unsigned char>& input, DeflateScratch& scratch) {
    std::string stream = "prefix";  // appended, never replaced
    zlib_compress(input.data(), input.size(), stream, scratch);
    ASSERT_EQ(stream.substr(0, 6), "prefix");
    EXPECT_EQ(inflate_all(stream.substr(6), input.size()), input);
    // Never much larger than the input: stored blocks are the fallback.
    EXPECT_LE(stream.size() - 6, input.size() + 11 + 5 * (input.size() / 65535));
}

// A peak array as the writer packs it: 64-bit m/z rising, 32-bit intensities.
std::vector<unsigned char> peak_bytes(std::mt19937& random, int peaks, bool mz) {
    std::vector<unsigned char> bytes;
    double value = 200.0;
    std::uniform_real_distribution<double> step(0.001, 3.0);
    std::lognormal_distribution<float> intensity(8.0F, 2.0F);
    for (int i = 0; i < peaks; ++i) {
        unsigned char raw[8];
        if (mz) {
            value += step(random);
            std::memcpy(raw, &value, 8);
            bytes.insert(bytes.end(), raw, raw + 8);
        } else {
            const float level = intensity(random);
            std::memcpy(raw, &level, 4);
            bytes.insert(bytes.end(), raw, raw + 4);
        }
    }
    return bytes;
}

TEST(ZlibCompress, ZlibInflatesEveryStreamBackExactly) {
    DeflateScratch scratch;  // shared, as the writer shares it across spectra
    std::mt19937 random(20);
    expect_round_trip({}, scratch);
    expect_round_trip({0x42}, scratch);
    expect_round_trip(bytes_of("ab"), scratch);
    expect_round_trip(std::vector<unsigned char>(100000, 7), scratch);  // longest matches
    expect_round_trip(bytes_of(std::string(300, 'x') + "abcabcabcabc" + std::string(5, 'x')),
                      scratch);
    for (int peaks : {1, 17, 1000, 40000}) {
        expect_round_trip(peak_bytes(random, peaks, true), scratch);
        expect_round_trip(peak_bytes(random, peaks, false), scratch);
    }
    std::vector<unsigned char> noise(200000);  // incompressible: stored blocks
    for (unsigned char& byte : noise) {
        byte = static_cast<unsigned char>(random());
    }
    expect_round_trip(noise, scratch);
    // Blocks of different kinds in one stream: coded blocks end mid-byte, and
    // the stored block after one must start on a byte of its own.
    std::vector<unsigned char> mixed(70000, 9);
    mixed.insert(mixed.end(), noise.begin(), noise.end());
    mixed.insert(mixed.end(), noise.begin(), noise.end());
    const std::vector<unsigned char> levels = peak_bytes(random, 40000, false);
    mixed.insert(mixed.end(), levels.begin(), levels.end());
    expect_round_trip(mixed, scratch);
    // Repeats further apart than the window may not be referenced.
    std::vector<unsigned char> far = peak_bytes(random, 5000, true);
    far.insert(far.end(), far.begin(), far.begin() + 1000);
    expect_round_trip(far, scratch);
}

TEST(ZlibCompress, RealPeakArraysInflateBackAndShrink) {
    // The m/z column of a real `.ms2` scan list, as 64-bit numbers.
    std::ifstream in(std::string(KSIEVE_TEST_DATA_DIR) + "/threads/bsa_demo.ms2");
    std::vector<unsigned char> mz;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] >= '0' && line[0] <= '9') {
            const double value = std::stod(line);
            unsigned char raw[8];
            std::memcpy(raw, &value, 8);
            mz.insert(mz.end(), raw, raw + 8);
        }
    }
    ASSERT_GT(mz.size(), 80000U);
    DeflateScratch scratch;
    std::string stream;
    zlib_compress(mz.data(), mz.size(), stream, scratch);
    EXPECT_EQ(inflate_all(stream, mz.size()), mz);
    EXPECT_LT(stream.size(), mz.size() * 9 / 10);
}

TEST(Adler32, AgreesWithZlib) {
    std::vector<unsigned char> data(20000);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(255 - i % 251);  // long runs of high bytes
    }
    for (std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{5552}, std::size_t{5553}, data.size()}) {
        EXPECT_EQ(adler32(data.data(), size), ::adler32(1, data.data(), static_cast<uInt>(size)))
            << size;
    }
}

TEST(Base64, KnownTextsWithEveryPadding) {
    const std::pair<const char*, const char*> cases[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xff\xfe\x00", "//4A"}};
    for (const auto& [plain, encoded] : cases) {
        std::string out = "=";
        const std::size_t size = std::strlen(plain) + (std::strcmp(encoded, "//4A") == 0 ? 1 : 0);
        base64_append(out, reinterpret_cast<const unsigned char*>(plain), size);
        EXPECT_EQ(out, std::string("=") + encoded) << plain;
    }
}

std::string sha1_of(const std::string& text, std::size_t piece, Sha1Engine engine) {
    Sha1 sha1(engine);
    for (std::size_t at = 0; at < text.size(); at += piece) {
        const std::string part = text.substr(at, piece);
        sha1.update(reinterpret_cast<const unsigned char*>(part.data()), part.size());
    }
    return sha1.hex_digest();
}

// The test vectors of FIPS 180-2, fed whole and in awkward pieces, through the
// portable code and through the processor's SHA instructions where it has them.
TEST(Sha1, StandardVectorsInAnyPiecesByEitherEngine) {
    const std::string million_a(1000000, 'a');
    const std::pair<std::string, const char*> cases[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {million_a, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
    for (const Sha1Engine engine : {Sha1Engine::kFastest, Sha1Engine::kPortable}) {
        for (const auto& [text, digest] : cases) {
            for (std::size_t piece : {std::size_t{1}, std::size_t{63}, std::size_t{64},
                                      std::size_t{1000}, std::size_t{1} << 20}) {
                if (piece == 1 && text.size() > 1000) {
                    continue;
                }
                EXPECT_EQ(sha1_of(text, piece, engine), digest) << piece;
            }
        }
    }
}

// Both engines agree on every length around the block and padding boundaries,
// over bytes that exercise every bit of the message schedule.
TEST(Sha1, EnginesAgreeOnRandomBytesOfEveryLength) {
    if (!sha1_hardware_available()) {
        GTEST_SKIP() << "no SHA instructions on this processor";
    }
    std::mt19937 random(7);
    std::string text(300, '\0');
    for (char& byte : text) {
        byte = static_cast<char>(random());
    }
    for (std::size_t size = 0; size <= text.size(); ++size) {
        const std::string part = text.substr(0, size);
        EXPECT_EQ(sha1_of(part, 7, Sha1Engine::kFastest), sha1_of(part, 64, Sha1Engine::kPortable))
            << size;
    }
}

}  // namespace
}  // namespace ksieve

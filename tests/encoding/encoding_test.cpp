#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <bit>
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
    const std::vector<unsigned char> levels = peak_bytes(random, 40000, false);
    std::vector<unsigned char> mixed;
    mixed.reserve(70000 + 2 * noise.size() + levels.size());
    mixed.assign(70000, 9);
    mixed.insert(mixed.end(), noise.begin(), noise.end());
    mixed.insert(mixed.end(), noise.begin(), noise.end());
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

// The kind of the stream's first block: 0 stored, 1 fixed codes, 2 fitted codes.
int first_block_kind(const std::string& stream) {
    return (static_cast<unsigned char>(stream.at(2)) >> 1) & 3;
}

std::string compressed(const std::vector<unsigned char>& input) {
    DeflateScratch scratch;
    std::string stream;
    zlib_compress(input.data(), input.size(), stream, scratch);
    return stream;
}

// Numbers drawn from a few values: whole eight-byte words recur.
std::vector<unsigned char> repeating_numbers(std::mt19937& random, std::size_t count) {
    std::vector<unsigned char> bytes;
    std::uniform_int_distribution<int> pick(0, 40);
    for (std::size_t i = 0; i < count; ++i) {
        const double value = 300.0 + 1.0078 * pick(random);
        unsigned char raw[8];
        std::memcpy(raw, &value, 8);
        bytes.insert(bytes.end(), raw, raw + 8);
    }
    return bytes;
}

// Each way a block goes out (stored; codes fitted to the bytes alone; matches
// and codes fitted to them), at the sizes where the choice or the block turns,
// and streams that switch from one way to another between blocks.
TEST(ZlibCompress, EveryKindOfBlockInflatesBackAtItsEdges) {
    constexpr std::size_t kBlock = 4 * 65535;  // input per block: four whole stored blocks
    DeflateScratch scratch;
    std::mt19937 random(5);
    const std::vector<unsigned char> mz = peak_bytes(random, 70000, true);
    const std::vector<unsigned char> repeats = repeating_numbers(random, 70000);
    // Noise is stored, in whole stored blocks but for the last: the bound that
    // expect_round_trip checks.
    std::vector<unsigned char> noise(kBlock + 8);
    for (unsigned char& byte : noise) {
        byte = static_cast<unsigned char>(random());
    }
    for (const auto* source :
         std::array<const std::vector<unsigned char>*, 3>{&mz, &repeats, &noise}) {
        for (const std::size_t size :
             {std::size_t{0}, std::size_t{1}, std::size_t{3}, std::size_t{4}, std::size_t{5},
              std::size_t{7}, std::size_t{8}, std::size_t{9}, std::size_t{63}, std::size_t{64},
              std::size_t{65}, std::size_t{4096}, kBlock - 1, kBlock, kBlock + 1, kBlock + 5}) {
            const std::vector<unsigned char> input(source->begin(),
                                                   source->begin() + static_cast<long>(size));
            expect_round_trip(input, scratch);
        }
    }
    EXPECT_EQ(first_block_kind(compressed({noise.begin(), noise.begin() + 4096})), 0);
    EXPECT_EQ(first_block_kind(compressed({mz.begin(), mz.begin() + 4096})), 2);
    EXPECT_EQ(first_block_kind(compressed({repeats.begin(), repeats.begin() + 4096})), 2);
    // Literals after matches and matches after literals, across block ends that
    // fall mid-byte.
    std::vector<unsigned char> switching(repeats.begin(), repeats.begin() + kBlock - 3);
    switching.insert(switching.end(), mz.begin(), mz.begin() + kBlock);
    switching.insert(switching.end(), repeats.begin(), repeats.begin() + kBlock);
    switching.insert(switching.end(), noise.begin(), noise.begin() + 5000);
    expect_round_trip(switching, scratch);
}

// Bytes coded alone, with no aligned word repeated within the window: the low
// two bytes of each word count up, the high two are drawn from 0 to `rarest`,
// each value half as often as the one before, so that the rarest ones get the
// longest codes.
std::vector<unsigned char> skewed_words(std::mt19937& random, std::size_t size, int rarest) {
    std::vector<unsigned char> bytes(size);
    std::uniform_int_distribution<uint32_t> bits(0, (1U << rarest) - 1);
    const auto draw = [&] {
        return static_cast<unsigned char>(std::min(rarest, std::countr_one(bits(random))));
    };
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t word = i / 4;
        switch (i % 4) {
            case 0:
                bytes[i] = static_cast<unsigned char>(128 + word % 128);
                break;
            case 1:
                bytes[i] = static_cast<unsigned char>(128 + (word / 128) % 128);
                break;
            default:
                bytes[i] = draw();
        }
    }
    return bytes;
}

// Reads a stream's bits as an inflater does, least significant first.
struct BitReader {
    const std::string& m_stream;
    std::size_t m_at = 16;  // after the zlib header
    uint32_t take(int count) {
        uint32_t value = 0;
        for (int i = 0; i < count; ++i, ++m_at) {
            value |= ((static_cast<unsigned char>(m_stream.at(m_at / 8)) >> (m_at % 8)) & 1U) << i;
        }
        return value;
    }
};

// One symbol of a canonical code given by its lengths, read a bit at a time.
uint32_t decode_symbol(BitReader& bits, const std::vector<int>& lengths) {
    uint32_t code = 0;
    uint32_t first = 0;
    for (int length = 1; length <= 15; ++length) {
        code |= bits.take(1);
        for (std::size_t symbol = 0; symbol < lengths.size(); ++symbol) {
            if (lengths[symbol] == length && code == first++) {
                return static_cast<uint32_t>(symbol);
            }
        }
        first <<= 1;
        code <<= 1;
    }
    ADD_FAILURE() << "no symbol";
    return 0;
}

// The longest literal code of the stream's first block, which has fitted codes.
int longest_literal_code(const std::string& stream) {
    BitReader bits{stream};
    EXPECT_EQ(bits.take(3) >> 1, 2U);
    const uint32_t literals = bits.take(5) + 257;
    bits.take(5);
    const uint32_t sent = bits.take(4) + 4;
    constexpr std::array<int, 19> kOrder = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                            11, 4,  12, 3, 13, 2, 14, 1, 15};
    std::vector<int> code_lengths(19, 0);
    for (uint32_t i = 0; i < sent; ++i) {
        code_lengths[static_cast<std::size_t>(kOrder[i])] = static_cast<int>(bits.take(3));
    }
    int longest = 0;
    for (uint32_t done = 0; done < literals;) {
        const uint32_t symbol = decode_symbol(bits, code_lengths);
        if (symbol < 16) {
            longest = std::max(longest, static_cast<int>(symbol));
            ++done;
        } else {
            done += symbol == 16   ? 3 + bits.take(2)
                    : symbol == 17 ? 3 + bits.take(3)
                                   : 11 + bits.take(7);
        }
    }
    return longest;
}

// Bytes coded alone go out several codes at a time: every count of bytes left
// over at the block's end, with codes short enough for four at a time and with
// codes that reach the fifteen bits deflate allows, in blocks that end mid-byte.
TEST(ZlibCompress, LiteralBlocksInflateBackWithCodesOfEveryLength) {
    constexpr std::size_t kBlock = 4 * 65535;
    DeflateScratch scratch;
    std::mt19937 random(13);
    for (const int rarest : {6, 15}) {
        const std::vector<unsigned char> words = skewed_words(random, 2 * kBlock + 64, rarest);
        const std::string whole = compressed(words);
        EXPECT_EQ(first_block_kind(whole), 2);
        EXPECT_LT(whole.size(), words.size() * 3 / 4);
        EXPECT_EQ(longest_literal_code(whole) == 15, rarest == 15);
        for (std::size_t size = 2048; size < 2048 + 12; ++size) {
            expect_round_trip({words.begin(), words.begin() + static_cast<long>(size)}, scratch);
        }
        for (const std::size_t size :
             {kBlock - 1, kBlock, kBlock + 1, kBlock + 4096 + 7, 2 * kBlock + 64}) {
            expect_round_trip({words.begin(), words.begin() + static_cast<long>(size)}, scratch);
        }
    }
}

std::size_t zlib_size(const std::vector<unsigned char>& input, int strategy) {
    z_stream z{};
    EXPECT_EQ(deflateInit2(&z, 6, Z_DEFLATED, 15, 8, strategy), Z_OK);
    std::vector<unsigned char> out(deflateBound(&z, input.size()));
    z.next_in = const_cast<unsigned char*>(input.data());
    z.avail_in = static_cast<uInt>(input.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
    const std::size_t size = z.total_out;
    deflateEnd(&z);
    return size;
}

// Bytes coded alone get codes within a few per cent of zlib's own Huffman
// coding (which starts new codes every 16384 symbols); where whole numbers
// repeat, matches are sought: the stream is far smaller than with codes alone,
// and runs of zeros come out within a few per cent of zlib's default level.
TEST(ZlibCompress, CodesAsGoodAsZlibsAndMatchesWhereNumbersRepeat) {
    std::mt19937 random(9);
    for (const bool mz : {true, false}) {
        const std::vector<unsigned char> peaks = peak_bytes(random, 5000, mz);
        const std::size_t ours = compressed(peaks).size();
        EXPECT_LT(ours, peaks.size() * 95 / 100) << mz;
        EXPECT_LE(ours * 100, zlib_size(peaks, Z_HUFFMAN_ONLY) * 102) << mz;
    }
    const std::vector<unsigned char> repeats = repeating_numbers(random, 5000);
    EXPECT_LT(compressed(repeats).size(), zlib_size(repeats, Z_HUFFMAN_ONLY) / 2);
    // A profile's runs of zero intensities.
    std::vector<unsigned char> runs = peak_bytes(random, 3000, false);
    for (std::size_t at = 0; at + 400 < runs.size(); at += 1000) {
        std::fill_n(runs.begin() + static_cast<long>(at), 400, 0);
    }
    EXPECT_LE(compressed(runs).size() * 100, zlib_size(runs, Z_DEFAULT_STRATEGY) * 103);
}

// Short arrays whose codes could save only a few bytes are stored; short ones
// that shrink a lot are still coded.
TEST(ZlibCompress, ShortArraysAreStoredUnlessTheyShrinkALot) {
    std::mt19937 random(11);
    const std::vector<unsigned char> levels = peak_bytes(random, 80, false);
    const std::string stored = compressed(levels);
    EXPECT_EQ(first_block_kind(stored), 0);
    EXPECT_EQ(stored.size(), levels.size() + 11);
    const std::vector<unsigned char> zeros(320, 0);
    EXPECT_LT(compressed(zeros).size(), 40U);
}

// Sums are taken sixteen bytes at a time where the processor allows: every
// length and starting byte around those blocks, and bytes of 255 throughout,
// which bring the sums nearest to overflowing before each reduction.
TEST(Adler32, AgreesWithZlibAtEveryLengthAndOffset) {
    std::vector<unsigned char> data(20000);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(255 - i % 251);  // long runs of high bytes
    }
    const auto expect_zlib = [](const unsigned char* bytes, std::size_t size) {
        EXPECT_EQ(adler32(bytes, size), ::adler32(1, bytes, static_cast<uInt>(size))) << size;
    };
    for (std::size_t offset = 0; offset < 16; ++offset) {
        for (std::size_t size = 0; size <= 100; ++size) {
            expect_zlib(data.data() + offset, size);
        }
    }
    for (const std::size_t size : {std::size_t{5552}, std::size_t{5553}, std::size_t{19999}}) {
        expect_zlib(data.data(), size);
    }
    const std::vector<unsigned char> full(3 * 5552 + 37, 255);
    expect_zlib(full.data(), full.size());
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

// Digits worked out bit by bit, six at a time, for every length and starting
// byte around the twelve that the processor's vector code takes at once.
TEST(Base64, EveryLengthAndOffsetGivesTheDigitsOfItsBits) {
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937 random(5);
    std::vector<unsigned char> bytes(120);
    for (unsigned char& b : bytes) {
        b = static_cast<unsigned char>(random());
    }
    for (std::size_t offset = 0; offset < 4; ++offset) {
        for (std::size_t size = 0; size + offset <= bytes.size(); ++size) {
            std::string expected;
            for (std::size_t bit = 0; bit < 8 * size; bit += 6) {
                int group = 0;
                for (std::size_t k = bit; k < bit + 6; ++k) {
                    const bool set = k < 8 * size && ((bytes[offset + k / 8] >> (7 - k % 8)) & 1);
                    group = 2 * group + (set ? 1 : 0);
                }
                expected += digits[static_cast<std::size_t>(group)];
            }
            expected.append((4 - expected.size() % 4) % 4, '=');
            std::string out;
            base64_append(out, bytes.data() + offset, size);
            EXPECT_EQ(out, expected) << offset << " " << size;
        }
    }
}

// Every value of three bytes comes out as the digits of its four six-bit
// groups, in a text long enough to take the fast path throughout.
TEST(Base64, EveryThreeByteValueGivesItsFourDigits) {
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<unsigned char> bytes;
    for (uint32_t v = 0; v < (1U << 24); ++v) {
        bytes.push_back(static_cast<unsigned char>(v >> 16));
        bytes.push_back(static_cast<unsigned char>(v >> 8));
        bytes.push_back(static_cast<unsigned char>(v));
    }
    std::string out;
    base64_append(out, bytes.data(), bytes.size());
    ASSERT_EQ(out.size(), std::size_t{4} << 24);
    for (uint32_t v = 0; v < (1U << 24); ++v) {
        const char* four = out.data() + 4 * std::size_t{v};
        for (int group = 0; group < 4; ++group) {
            if (four[group] != digits[(v >> (18 - 6 * group)) & 63]) {
                FAIL() << "value " << v << ", group " << group;
            }
        }
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

// Two digests fed side by side, in pieces of every awkward size and after one
// message has ended, come out as each fed alone, whichever engines they run on.
TEST(Sha1, BothSideBySideGiveEachOnesDigest) {
    std::mt19937 random(3);
    std::string first(70000, '\0');
    std::string second(50001, '\0');
    for (std::string* text : {&first, &second}) {
        for (char& byte : *text) {
            byte = static_cast<char>(random());
        }
    }
    const auto bytes = [](const std::string& text, std::size_t at) {
        return reinterpret_cast<const unsigned char*>(text.data()) + at;
    };
    const std::pair<Sha1Engine, Sha1Engine> engine_pairs[] = {
        {Sha1Engine::kFastest, Sha1Engine::kFastest},
        {Sha1Engine::kPortable, Sha1Engine::kFastest},
        {Sha1Engine::kPortable, Sha1Engine::kPortable}};
    for (const auto& [engine_a, engine_b] : engine_pairs) {
        for (const std::size_t piece : {std::size_t{1}, std::size_t{63}, std::size_t{64},
                                        std::size_t{1000}, std::size_t{4096}, std::size_t{70000}}) {
            Sha1 a(engine_a);
            Sha1 b(engine_b);
            std::size_t at = 0;
            for (; at < second.size(); at += piece) {
                const std::size_t size = std::min(piece, second.size() - at);
                Sha1::update_both(a, bytes(first, at), b, bytes(second, at), size);
            }
            a.update(bytes(first, second.size()), first.size() - second.size());
            EXPECT_EQ(a.hex_digest(), sha1_of(first, 1 << 20, Sha1Engine::kPortable)) << piece;
            EXPECT_EQ(b.hex_digest(), sha1_of(second, 1 << 20, Sha1Engine::kPortable)) << piece;
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

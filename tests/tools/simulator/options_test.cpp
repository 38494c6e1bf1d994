#include <gtest/gtest.h>

#include "simulator.h"

namespace ksieve::sim {
namespace {

TEST(Options, BadCommandLinesAreRefusedWithAReasonGoodOnesRead) {
    const std::vector<std::vector<std::string>> bad = {
        {},                                       // no FASTA
        {"--fasta"},                              // no value
        {"--fasta", ""},                          // empty path
        {"--fasta", "p", "--colour", "red"},      // unknown option
        {"--fasta", "p", "--ms2-scans", "0"},     // out of range
        {"--fasta", "p", "--ms2-scans", "12x"},   // not a number
        {"--fasta", "p", "--ppm-error", "nan"},   // not a value in range
        {"--fasta", "p", "--activation", "ETD"},  // not an activation we write
        {"--fasta", "p", "--noise-peaks", "0"},   // scans must have peaks
        {"--fasta", "p", "--seed", "-1"},
    };
    for (const auto& args : bad) {
        std::string error;
        EXPECT_FALSE(parse_options(args, error)) << testing::PrintToString(args);
        EXPECT_FALSE(error.empty()) << testing::PrintToString(args);
    }
    std::string error;
    const auto options = parse_options(
        {"--fasta", "p.fasta", "--seed", "42", "--ms2-scans", "200000", "--activation", "CID"},
        error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->m_seed, 42u);
    EXPECT_EQ(options->m_ms2_scans, 200000);
    EXPECT_EQ(options->m_activation, Activation::kCid);
}

}  // namespace
}  // namespace ksieve::sim

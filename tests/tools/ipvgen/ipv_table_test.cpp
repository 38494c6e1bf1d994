#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>

#include "ipv_table.h"
#include "test_support.h"

namespace ksieve::ipv {
namespace {

// The shipped table must be exactly what the generator writes today, so that a
// change of the chemistry cannot leave a stale table behind; and it must be what
// the loader expects: 15000 lines of five numbers, each row's largest 1.
TEST(IpvTable, ShippedTableIsWhatTheGeneratorWrites) {
    test::TempDir dir;
    const std::string command = std::string(IPVGEN_EXECUTABLE) + " " + dir.file("IPV.txt");
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const std::string shipped = test::read_file(std::string(KSIEVE_SOURCE_DIR) + "/data/IPV.txt");
    EXPECT_TRUE(test::read_file(dir.file("IPV.txt")) == shipped)
        << "regenerate data/IPV.txt with ipvgen";
    EXPECT_LT(shipped.size(), 1000000u);
    std::istringstream lines(shipped);
    std::string line;
    int rows = 0;
    for (; std::getline(lines, line); ++rows) {
        std::istringstream fields(line);
        std::vector<double> row{std::istream_iterator<double>(fields), {}};
        ASSERT_EQ(row.size(), size_t(kIpvColumns)) << "row " << rows;
        EXPECT_EQ(*std::max_element(row.begin(), row.end()), 1.0) << "row " << rows;
        EXPECT_GE(*std::min_element(row.begin(), row.end()), 0.0) << "row " << rows;
    }
    EXPECT_EQ(rows, kIpvRows);
}

// The most intense peak walks to later isotopes as the mass grows, about one
// peak per 1800 Da of peptide; a mass of one proton or less has no atoms.
TEST(IpvTable, StrongestPeakFollowsTheMass) {
    EXPECT_EQ(ipv_row(1), (std::array<double, kIpvColumns>{1, 0, 0, 0, 0}));
    const std::pair<int, int> expected[] = {{1000, 0}, {2500, 1}, {5000, 2}, {14999, 4}};
    for (const auto& [mass, peak] : expected) {
        const std::array<double, kIpvColumns> row = ipv_row(mass);
        EXPECT_EQ(std::max_element(row.begin(), row.end()) - row.begin(), peak) << mass;
    }
}

}  // namespace
}  // namespace ksieve::ipv

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "ipv_table.h"

namespace ksieve::ipv {
namespace {

std::string read_bytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

const std::filesystem::path kShippedTable =
    std::filesystem::path(KSIEVE_SOURCE_DIR) / "data/IPV.txt";

// The shipped table must be exactly what the generator makes today, so that a
// change of the chemistry cannot silently leave a stale table behind.
TEST(IpvTable, ShippedTableIsWhatTheGeneratorWrites) {
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("ipvgen_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::filesystem::path fresh = dir / "IPV.txt";
    const std::string command = std::string(IPVGEN_EXECUTABLE) + " " + fresh.string();
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const std::string generated = read_bytes(fresh);
    std::filesystem::remove_all(dir);
    const std::string shipped = read_bytes(kShippedTable);
    ASSERT_FALSE(shipped.empty()) << kShippedTable;
    EXPECT_TRUE(generated == shipped) << "regenerate data/IPV.txt with ipvgen";
}

// What the loader needs: 15000 lines of five numbers, each row's largest 1, and
// small enough to ship.
TEST(IpvTable, ShippedTableShape) {
    const std::string shipped = read_bytes(kShippedTable);
    EXPECT_LT(shipped.size(), 1000000u);
    std::istringstream lines(shipped);
    std::string line;
    int rows = 0;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        double value = 0.0;
        double largest = 0.0;
        int columns = 0;
        while (fields >> value) {
            EXPECT_GE(value, 0.0) << "row " << rows;
            largest = std::max(largest, value);
            ++columns;
        }
        EXPECT_EQ(columns, kIpvColumns) << "row " << rows;
        EXPECT_EQ(largest, 1.0) << "row " << rows;
        ++rows;
    }
    EXPECT_EQ(rows, kIpvRows);
}

// Chemistry of the rows: light molecules are dominated by the mono-isotopic peak,
// the maximum walks to later peaks as the mass grows (about one peak per 1800 Da
// of peptide), and neighbouring rows change only a little.
TEST(IpvTable, RowsFollowTheMass) {
    EXPECT_EQ(ipv_row(0), (std::array<double, 5>{1, 0, 0, 0, 0}));
    EXPECT_EQ(ipv_row(1), (std::array<double, 5>{1, 0, 0, 0, 0}));
    const auto peak_of_max = [](int mass) {
        const std::array<double, 5> row = ipv_row(mass);
        return std::max_element(row.begin(), row.end()) - row.begin();
    };
    EXPECT_EQ(peak_of_max(1000), 0);
    EXPECT_EQ(peak_of_max(2500), 1);
    EXPECT_EQ(peak_of_max(5000), 2);
    EXPECT_EQ(peak_of_max(14999), 4);
    // The ratio of peaks 1 and 0 grows with the carbon count: about 0.055 per
    // 100 Da of averagine.
    const std::array<double, 5> row1000 = ipv_row(1000);
    EXPECT_NEAR(row1000[1] / row1000[0], 0.55, 0.03);
    for (int mass = 200; mass < kIpvRows - 1; mass += 97) {
        const std::array<double, 5> here = ipv_row(mass);
        const std::array<double, 5> next = ipv_row(mass + 1);
        for (int k = 0; k < kIpvColumns; ++k) {
            EXPECT_NEAR(here[k], next[k], 0.01) << mass << " column " << k;
        }
    }
}

}  // namespace
}  // namespace ksieve::ipv

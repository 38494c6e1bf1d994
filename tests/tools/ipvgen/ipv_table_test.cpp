#include <algorithm>
#include <cstdlib>

#include <gtest/gtest.h>

#include "ipv_table.h"
#include "test_support.h"

#ifdef KSIEVE_OPENMS_REFERENCE
#include <OpenMS/CHEMISTRY/ISOTOPEDISTRIBUTION/CoarseIsotopePatternGenerator.h>

#include "chemistry.h"
#endif

namespace ksieve::ipv {
namespace {

// The shipped table must be exactly what the generator writes today, so that a
// change of the chemistry cannot leave a stale table behind.
TEST(IsotopeTable, ShippedTableIsWhatTheGeneratorWrites) {
    test::TempDir dir;
    const std::string command = std::string(IPVGEN_EXECUTABLE) + " " + dir.file("IPV.txt");
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    EXPECT_TRUE(test::read_file(dir.file("IPV.txt")) ==
                test::read_file(std::string(KSIEVE_SOURCE_DIR) + "/data/IPV.txt"))
        << "regenerate data/IPV.txt with ipvgen";
    // A mass of one proton or less has no atoms.
    EXPECT_EQ(ipv_row(1), (std::array<double, kIpvColumns>{1, 0, 0, 0, 0}));
}

#ifdef KSIEVE_OPENMS_REFERENCE
// Against OpenMS's averagine estimate, which rounds the atom counts to whole
// atoms (0.45 S at 1200 Da moves the third peak by 0.022 of the largest) and
// keeps older N and S abundances.
TEST(IpvOpenMSReference, RowsMatchTheAveragineEstimate) {
    OpenMS::CoarseIsotopePatternGenerator generator(kIpvColumns);
    for (int mass : {500, 800, 1200, 1500, 1999, 3000, 4567, 8000, 14999}) {
        // OpenMS asks for the average weight of the averagine molecule.
        const double average = chem::average_mass(chem::averagine(mass - kProtonMass));
        const OpenMS::IsotopeDistribution estimate = generator.estimateFromPeptideWeight(average);
        ASSERT_EQ(estimate.size(), size_t(kIpvColumns));
        const double largest =
            std::max_element(estimate.begin(), estimate.end(), [](auto& a, auto& b) {
                return a.getIntensity() < b.getIntensity();
            })->getIntensity();
        const std::array<double, kIpvColumns> row = ipv_row(mass);
        for (int k = 0; k < kIpvColumns; ++k) {
            EXPECT_NEAR(row[k], estimate[k].getIntensity() / largest, 0.03)
                << "mass " << mass << " peak " << k;
        }
    }
}
#endif
}  // namespace
}  // namespace ksieve::ipv

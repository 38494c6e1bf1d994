// The theoretical isotope table that kSieve loads at start-up (IPV.txt): for
// each integer singly protonated mass, the first five isotope peaks of an
// averagine peptide of that mass.
#pragma once

#include <array>
#include <cstdio>

#include "physics.h"

namespace ksieve::ipv {

// One row per dalton of singly protonated mass, 0 to 14999.
inline constexpr int kIpvRows = 15000;
inline constexpr int kIpvColumns = 5;

// Peaks 0 to 4 of the averagine molecule whose singly protonated monoisotopic
// mass is `mass` (neutral mass mass - kProtonMass), scaled so that the largest is 1.
// A mass at or below one proton leaves no atoms: {1, 0, 0, 0, 0}.
std::array<double, kIpvColumns> ipv_row(int mass);

// The whole table as text: one line per row, rows 0 to 14999 in order, five
// numbers separated by a blank, each printed with "%.6g" (six significant
// digits, so the weak leading peaks of heavy molecules keep their precision).
void write_ipv_table(std::FILE* out);

}  // namespace ksieve::ipv

// ipvgen: writes kSieve's theoretical isotope table.
//   ipvgen <output path>     e.g. ipvgen data/IPV.txt
#include <cstdio>

#include "ipv_table.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output path>\n", argc > 0 ? argv[0] : "ipvgen");
        return 2;
    }
    std::FILE* out = std::fopen(argv[1], "w");
    if (out == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    ksieve::ipv::write_ipv_table(out);
    if (std::fclose(out) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    return 0;
}

// Writes a planted log to standard output, site after site in turn, with a torn and
// a foreign line among every thousand records.
//   write_log RECORDS SITES SEED
#include <cstdio>
#include <cstdlib>

#include "tests/tools/planted_log.hpp"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const long records = std::atol(argv[1]);
  const int sites = std::atoi(argv[2]);
  report::test::PlantedLog log(static_cast<unsigned>(std::atoi(argv[3])));
  for (long i = 0; i < records; ++i) {
    const std::string line = log.record(static_cast<int>(i % sites));
    if (i % 1000 == 500) std::printf("%.200s\nnot a record\n", line.c_str());
    std::printf("%s\n", line.c_str());
  }
}

// configstore_bench_gen ROOT [SCALE [SEED]]: writes the synthetic host of bench/SyntheticHost.h.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "bench/SyntheticHost.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    std::cerr << "usage: " << argv[0] << " ROOT [SCALE [SEED]]\n";
    return 2;
  }
  bench::HostSpec spec;
  if (argc > 2) spec.scale = std::atoi(argv[2]);
  if (argc > 3) spec.seed = std::strtoull(argv[3], nullptr, 10);
  if (spec.scale < 1) {
    std::cerr << "SCALE must be a positive integer\n";
    return 2;
  }
  try {
    bench::GenerateHost(argv[1], spec);
  } catch (const std::exception& e) {
    std::cerr << "generation failed: " << e.what() << "\n";
    return 1;
  }
  return 0;
}

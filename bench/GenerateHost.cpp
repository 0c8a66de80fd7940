// configstore_bench_gen [--shapes] ROOT [SCALE [SEED]]: writes the synthetic host of
// bench/SyntheticHost.h, the shapes host with --shapes.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "bench/SyntheticHost.h"

int main(int argc, char** argv) {
  bench::HostSpec spec;
  int first = 1;
  if (argc > 1 && std::string(argv[1]) == "--shapes") {
    spec.shapes = true;
    first = 2;
  }
  const int given = argc - first;
  if (given < 1 || given > 3) {
    std::cerr << "usage: " << argv[0] << " [--shapes] ROOT [SCALE [SEED]]\n";
    return 2;
  }
  if (given > 1) spec.scale = std::atoi(argv[first + 1]);
  if (given > 2) spec.seed = std::strtoull(argv[first + 2], nullptr, 10);
  if (spec.scale < 1) {
    std::cerr << "SCALE must be a positive integer\n";
    return 2;
  }
  try {
    bench::GenerateHost(argv[first], spec);
  } catch (const std::exception& e) {
    std::cerr << "generation failed: " << e.what() << "\n";
    return 1;
  }
  return 0;
}

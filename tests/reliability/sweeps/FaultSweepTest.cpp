// Every writing operation under every store-call fault and every file I/O fault it meets: each run
// ends in a documented outcome and leaves the stores in a state the operation allows.
#include <gtest/gtest.h>

#include "tests/reliability/sweeps/SweepEngine.h"

namespace sweep {
namespace {

class FaultSweep : public SweepTest, public ::testing::WithParamInterface<std::string> {};

std::vector<std::string> OperationNames() {
  std::vector<std::string> names;
  for (const Operation& op : Operations()) names.push_back(op.name);
  return names;
}

TEST_P(FaultSweep, StoreCallFaults) {
  const Operation* op = FindOperation(GetParam());
  ASSERT_NE(op, nullptr);
  Figures figures = Sweep(*op, StoreCalls());
  EXPECT_GT(figures.swept, 0) << "no store call to fail";
}

TEST_P(FaultSweep, FileIoFaults) {
  const Operation* op = FindOperation(GetParam());
  ASSERT_NE(op, nullptr);
  Figures figures = Sweep(*op, FileIo());
  EXPECT_GT(figures.swept, 0) << "no file I/O to fail";
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, ::testing::ValuesIn(OperationNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

}  // namespace
}  // namespace sweep

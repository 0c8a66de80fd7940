// The sandbox fixture every test stands on: a temporary host root of its own (removed afterwards,
// with any store fault a test armed), every log line captured, and readers for what the system
// recorded under the root.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/logging/CSLogger.h"
#include "platform/logging/Events.h"

namespace cstest {

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // "<root>" + hostPath.
  std::string Path(const std::string& hostPath) const;
  void WriteFile(const std::string& hostPath, const std::string& content) const;
  std::string ReadFile(const std::string& hostPath) const;
  bool Exists(const std::string& hostPath) const;
  void Remove(const std::string& hostPath) const;
  // Copies the repository's examples/host into the root.
  void CopyExampleHost() const;

  std::vector<Events::Event> RecordedEvents() const;
  // Messages of the system alerts recorded under the root, oldest first.
  std::vector<std::string> RecordedAlerts() const;

  std::string root_;
  CSLogger::Capture log_;
};

// "<code> <message>" of the ConfigStoreException `op` throws; "no exception" when it throws none
// (any other exception goes on to the test).
std::string Thrown(const std::function<void()>& op);

// Repository paths.
std::string SourcePath(const std::string& relative);
std::string BinaryPath(const std::string& relative);

}  // namespace cstest

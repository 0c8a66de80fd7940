#include "tests/support/Sandbox.h"

#include "errors/ConfigStoreException.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "errors/Json.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"

namespace fs = std::filesystem;

namespace cstest {

void SandboxTest::SetUp() {
  std::string tmpl = (fs::temp_directory_path() / "cs-test-XXXXXX").string();
  ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
  root_ = tmpl;
  Host::SetRoot(root_);
}

void SandboxTest::TearDown() {
  DBStore::faults::Disarm();  // a fault a test armed never reaches the next one
  std::error_code ec;
  if (std::getenv("CS_KEEP_SANDBOX") == nullptr) fs::remove_all(root_, ec);
}

std::string SandboxTest::Path(const std::string& hostPath) const { return root_ + hostPath; }

void SandboxTest::WriteFile(const std::string& hostPath, const std::string& content) const {
  fs::create_directories(fs::path(Path(hostPath)).parent_path());
  std::ofstream out(Path(hostPath), std::ios::binary | std::ios::trunc);
  out << content;
  ASSERT_TRUE(out.good()) << "cannot write " << Path(hostPath);
}

std::string SandboxTest::ReadFile(const std::string& hostPath) const {
  std::ifstream in(Path(hostPath), std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool SandboxTest::Exists(const std::string& hostPath) const { return fs::exists(Path(hostPath)); }

void SandboxTest::Remove(const std::string& hostPath) const {
  std::error_code ec;
  fs::remove_all(Path(hostPath), ec);
}

void SandboxTest::CopyExampleHost() const {
  fs::copy(SourcePath("examples/host"), root_, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

std::vector<Events::Event> SandboxTest::RecordedEvents() const { return Events::Recorded(); }

std::vector<std::string> SandboxTest::RecordedAlerts() const {
  std::vector<std::string> alerts;
  std::ifstream in(Path("/var/log/sysalerts.jsonl"));
  for (std::string line; std::getline(in, line);) {
    rapidjson::Document d;
    if (d.Parse(line.c_str()).HasParseError() || !d.IsObject()) continue;
    auto it = d.FindMember("message");
    if (it != d.MemberEnd() && it->value.IsString()) alerts.emplace_back(it->value.GetString());
  }
  return alerts;
}

std::string SourcePath(const std::string& relative) { return std::string(CONFIGSTORE_SOURCE_DIR) + "/" + relative; }
std::string BinaryPath(const std::string& relative) { return std::string(CONFIGSTORE_BINARY_DIR) + "/" + relative; }

std::string Thrown(const std::function<void()>& op) {
  try {
    op();
  } catch (const QorConfigStore::ConfigStoreException& e) {
    return std::to_string(e.code()) + " " + e.what();
  }
  return "no exception";
}

}  // namespace cstest

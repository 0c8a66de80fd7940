#include "fuzz/FuzzHost.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <typeinfo>
#include <vector>

#include "configstore/boot/LoadStore.h"
#include "configstore/bootstate/BootState.h"
#include "configstore/bootstate/UpgradeDetection.h"
#include "configstore/frame/ConfigStoreException.h"
#include "platform/dbstore/DBStore.h"
#include "platform/host/HostRoot.h"

namespace fs = std::filesystem;

namespace csfuzz {
namespace {

constexpr uintmax_t kMaxLogBytes = 1 << 20;
constexpr int kTrimEvery = 64;

std::string root;

struct StoreCopy {
  std::string path;
  std::string bytes;
};
std::vector<StoreCopy> pristine;

void Fail(const std::string& what) {
  std::fprintf(stderr, "fuzz host set-up failed: %s\n", what.c_str());
  std::abort();
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void RemoveRoot() {
  std::error_code ec;
  if (!root.empty()) fs::remove_all(root, ec);
}

void BootOnce() {
  fs::copy(CONFIGSTORE_SOURCE_DIR "/examples/host", root, fs::copy_options::recursive);
  if (QorConfigStore::LoadStore(true) != 0) Fail("the first boot of examples/host failed");
  // What an ordinary reboot finds: this boot bank recorded and no first-boot marker.
  QorConfigStore::CleanupBootState();
  fs::remove(Path(QorConfigStore::FIRSTBOOT_FILE));
  for (const std::string& path : {DBStore::StorePath(DBStore::CONFIG_STORE), DBStore::StorePath(DBStore::DATAFILE_STORE),
                                  DBStore::SchemaStorePath()}) {
    if (!fs::exists(path)) Fail("no store file " + path + " after the first boot");
    pristine.push_back({path, ReadAll(path)});
  }
}

}  // namespace

void SetUpHost(HostKind kind) {
  if (!root.empty()) return;
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/cs-fuzz-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) Fail("mkdtemp " + tmpl);
  root = tmpl;
  std::atexit(RemoveRoot);
  try {
    Host::SetRoot(root);
    if (kind == HostKind::Booted) BootOnce();
  } catch (...) {
    Fail(CurrentException());
  }
}

std::string Path(const std::string& hostPath) { return root + hostPath; }

void WriteHostFile(const std::string& hostPath, const uint8_t* data, size_t size) {
  const std::string path = Path(hostPath);
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  if (!out) Fail("cannot write " + path);
}

bool StoresPristine() {
  for (const StoreCopy& store : pristine) {
    if (ReadAll(store.path) != store.bytes) return false;
  }
  return true;
}

void RestoreStores() {
  for (const StoreCopy& store : pristine) {
    if (ReadAll(store.path) == store.bytes) continue;
    std::ofstream out(store.path, std::ios::binary | std::ios::trunc);
    out << store.bytes;
    out.close();
    if (!out) Fail("cannot restore " + store.path);
  }
}

void TrimLogs() {
  static int calls = 0;
  if (++calls % kTrimEvery != 0) return;
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(Path("/var/log"), ec)) {
    if (entry.is_regular_file(ec) && entry.file_size(ec) > kMaxLogBytes) fs::resize_file(entry.path(), 0, ec);
  }
}

void CheckValidationErrors(const rapidjson::Value& errors) {
  constexpr rapidjson::SizeType kMaxEntries = 1001;  // 1000 errors and the one saying more were left out
  if (!errors.IsArray()) Finding("validation errors are not an array");
  if (errors.Size() > kMaxEntries) Finding("more validation errors than the validator lists");
  for (const rapidjson::Value& e : errors.GetArray()) {
    auto field = e.IsObject() ? e.FindMember("field") : rapidjson::Value::ConstMemberIterator();
    auto error = e.IsObject() ? e.FindMember("error") : rapidjson::Value::ConstMemberIterator();
    if (!e.IsObject() || field == e.MemberEnd() || error == e.MemberEnd() || !field->value.IsString() ||
        !error->value.IsString()) {
      Finding("a validation error is not {\"field\", \"error\"}");
    }
    const std::string fieldText(field->value.GetString(), field->value.GetStringLength());
    const std::string errorText(error->value.GetString(), error->value.GetStringLength());
    if (!fieldText.empty() && fieldText[0] != '/') Finding("a validation error's field is no JSON Pointer: " + fieldText);
    // The validator turns its own exceptions into this entry; only running out of memory may do so.
    if (errorText.starts_with("validation failed: ") && errorText.find("bad_alloc") == std::string::npos) {
      Finding("the validator failed: " + errorText);
    }
  }
}

void Finding(const std::string& what) {
  std::fprintf(stderr, "==FUZZ FINDING== %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

std::string CurrentException() {
  try {
    throw;
  } catch (const QorConfigStore::ConfigStoreException& e) {
    return "ConfigStoreException " + std::to_string(e.code()) + ": " + e.what();
  } catch (const HostCtl::Lib::HostCtlException& e) {
    return std::string("HostCtlException: ") + e.what();
  } catch (const std::exception& e) {
    int status = 0;
    char* name = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
    std::string text = std::string(status == 0 ? name : typeid(e).name()) + ": " + e.what();
    std::free(name);
    return text;
  } catch (...) {
    return "an exception of unknown type";
  }
}

int CurrentExceptionCode() {
  try {
    throw;
  } catch (const QorConfigStore::ConfigStoreException& e) {
    return e.code();
  } catch (...) {
    return -1;
  }
}

std::shared_ptr<QorConfigStore::JsonDoc> ParsedInput(const uint8_t* data, size_t size) {
  std::shared_ptr<QorConfigStore::JsonDoc> doc;
  if (Refused([&] { doc = QorConfigStore::CreateDocumentFromString(Text(data, size)); },
              {QorConfigStore::CS_ERR_JSON_PARSE_STRING})) {
    return nullptr;
  }
  return doc;
}

}  // namespace csfuzz

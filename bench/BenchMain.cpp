// Every main job of the library on generated hosts, each beside its floor (bench/Floors.h) in the
// same run. Usage:
//   configstore_bench --host=1x:DIR [--host=2x:DIR ...] [--table=FILE] [Google Benchmark flags]
// Hosts come in pairs, the second twice the first's scale: the table shows the growth within each.
// Each host root is made by configstore_bench_gen. Every iteration starts from the host's golden
// stores (restored untimed) and from a cold validator cache, as a boot process does. The table
// (median of the iterations, peak heap from bench/HeapCounter.h) goes to standard output and FILE.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "bench/Floors.h"
#include "bench/HeapCounter.h"
#include "bench/SyntheticHost.h"
#include "configstore/boot/LoadStore.h"
#include "configstore/desired/DesiredConfig.h"
#include "configstore/frame/Metrics.h"
#include "configstore/frame/RuleSets.h"
#include "configstore/maintenance/Cleanup.h"
#include "configstore/plan/ConfigExport.h"
#include "configstore/packages/PackageFiles.h"
#include "configstore/schema/SchemaProcessor.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/validator/JsonValidator.h"

namespace fs = std::filesystem;

namespace {

struct HostRun {
  std::string label;
  std::string root;
};

struct Result {
  std::vector<double> job, floor;  // wall milliseconds per iteration
  std::vector<double> jobCpu, floorCpu;  // CPU milliseconds (user + system) per iteration
  size_t jobPeak = 0, floorPeak = 0;
};

double CpuMs() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto ms = [](const timeval& t) { return static_cast<double>(t.tv_sec) * 1000.0 + t.tv_usec / 1000.0; };
  return ms(usage.ru_utime) + ms(usage.ru_stime);
}

std::vector<HostRun> gHosts;
std::vector<std::string> gJobOrder;
std::map<std::string, std::map<std::string, Result>> gResults;  // job -> host label -> result

std::string Golden(const std::string& name) { return Host::Resolve(bench::kGoldenDir) + "/" + name; }

void CopyTo(const std::string& from, const std::string& hostPath) {
  const std::string target = Host::Resolve(hostPath);
  fs::create_directories(fs::path(target).parent_path());
  fs::copy_file(from, target, fs::copy_options::overwrite_existing);
}

void Put(const std::string& goldenName, const std::string& hostPath) { CopyTo(Golden(goldenName), hostPath); }

constexpr const char* kStore = "/etc/talvex/configstore/current-store-1";
constexpr const char* kDataStore = "/etc/talvex/configstore/datafile-store";
constexpr const char* kSchemaStore = "/var/lib/talvex/schemastore/schema-store";
constexpr const char* kBackup = "/var/lib/talvex/configstore/backup/current-store-1";
constexpr const char* kDataBackup = "/var/lib/talvex/configstore/backup/datafile-store";
constexpr const char* kStaged = "/bench/work/staged-store";

void LiveStores() {
  Put("current-store-1", kStore);
  Put("datafile-store", kDataStore);
  Put("schema-store", kSchemaStore);
}

// The backups a boot restores from; the store on the ramdisk is gone, as after a reboot.
void BootFrom(const std::string& goldenStore) {
  Put(goldenStore, kBackup);
  Put("datafile-store", kDataBackup);
  Put("schema-store", kSchemaStore);
  fs::remove(Host::Resolve(kStore));
  fs::remove(Host::Resolve(kDataStore));
}

// The cleanup only removes data files, so copying back what is missing restores the tree; removing
// and copying tens of thousands of files each time made the file system the slowest part of the run.
void DataFilesFromGolden() {
  fs::copy(Golden("datafiles"), Host::Resolve("/var/cache/datafiles"),
           fs::copy_options::recursive | fs::copy_options::skip_existing);
  Put("datafile-store", kDataStore);
}

std::unique_ptr<rapidjson::Document> DesiredDocument() {
  std::ifstream in(Host::Resolve(bench::kDesiredDocument), std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  auto doc = std::make_unique<rapidjson::Document>();
  doc->Parse(text.str().c_str());
  if (doc->HasParseError()) throw std::runtime_error("desired document does not parse");
  return doc;
}

std::vector<std::string> StickyFiles() {
  std::ifstream in(Host::Resolve(bench::kStickyList));
  std::vector<std::string> files;
  for (std::string line; std::getline(in, line);) files.push_back(line);
  return files;
}

// A boot whose load fails, or records a failure, ends the run.
void Boot() {
  QorConfigStore::BootReport report;
  const int status = QorConfigStore::LoadStore(true, &report);
  if (status != 0 || !report.recordedFailures.empty()) {
    throw std::runtime_error("boot failed: " + (report.fatal ? report.fatal->message
                                                : report.recordedFailures.empty() ? std::string("status 1")
                                                                                  : report.recordedFailures.front()));
  }
}

// A job: `prepare` runs once per benchmark, `reset` untimed before each iteration; `job` or `floor`
// is what is timed.
struct Job {
  std::string name;
  int iterations;
  std::function<void()> prepare;
  std::function<void()> reset;
  std::function<void()> job;
  std::function<void()> floor;
};

std::unique_ptr<rapidjson::Document> gDoc;
std::vector<std::string> gSticky;
std::vector<bench::floor::SchemaCase> gCases;

// Our validator on the cases the peer gets, with the rules the default configuration uses.
void ValidateCases() {
  rapidjson::Document errors;
  for (const bench::floor::SchemaCase& c : gCases) {
    // As the default configuration does: the schema looked up once for the key's instances.
    const JsonValidator::PreparedSchema validator =
        JsonValidator::Prepare(c.schema, c.text, QorConfigStore::kRulesDefaultConfig, "");
    for (const rapidjson::Value& instance : c.instances.GetArray()) {
      JsonValidator::Validate(validator, instance, errors);
      if (!errors.Empty()) throw std::runtime_error("a default instance is not valid");
    }
  }
}

constexpr const char* kExportStore = "/bench/work/export-store";
constexpr const char* kExportFile = "/bench/work/export.json";

// The store export runs on, with the round trip checked on it first: from the live store after a
// boot, export, set-desired (validated as the command line does) and plan. The first round's plan
// may only change what export named (the default instances of mutable keys that no desired boot
// has brought in yet); after that desired boot, the second round's plan must change nothing.
// Done once per host root; later calls put the checked store back.
void ExportRoundTrip() {
  static std::set<std::string> checked;
  if (checked.insert(Host::Resolve("/")).second) {
    BootFrom("current-store-1");
    Boot();
    for (int round = 1; round <= 2; ++round) {
      QorConfigStore::ConfigExport exported = QorConfigStore::ExportConfiguration({});
      std::set<std::string> named;
      auto name = [](const QorConfigStore::ConfigStoreObjectId& id) {
        return id.component + "/" + id.group + "/" + id.key + "/" + id.id;
      };
      for (const auto& o : exported.leftOut) named.insert(name(o.id));
      if (!QorConfigStore::DesiredDocumentErrors(exported.document, QorSchemaStore::SchemaStore::GetCache()).Empty()) {
        throw std::runtime_error("export round trip: set-desired refuses the export");
      }
      QorConfigStore::SetDesiredUserConfig(exported.document);
      const QorConfigStore::NextBootPlan plan = QorConfigStore::PlanNextBoot();
      if (plan.failure) throw std::runtime_error("export round trip: the plan fails: " + *plan.failure);
      size_t unnamed = 0;
      for (const auto* list : {&plan.added, &plan.removed, &plan.changed}) {
        for (const auto& o : *list) unnamed += round == 2 || !named.contains(name(o.id));
      }
      if (unnamed > 0) {
        throw std::runtime_error("export round trip, round " + std::to_string(round) + ": the plan shows " +
                                 std::to_string(plan.added.size()) + " added, " + std::to_string(plan.removed.size()) +
                                 " removed, " + std::to_string(plan.changed.size()) + " changed, " +
                                 std::to_string(unnamed) + " of them not named by export");
      }
      if (round == 1) {  // the desired boot
        CopyTo(Host::Resolve(kStore), kBackup);
        Put("datafile-store", kDataBackup);
        fs::remove(Host::Resolve(kStore));
        Boot();
      }
    }
    CopyTo(Host::Resolve(kStore), kExportStore);
  }
  CopyTo(Host::Resolve(kExportStore), kStore);
  Put("schema-store", kSchemaStore);
}

// export -o FILE: the document as the command line writes it (two-space indent), atomically.
void ExportToFile() {
  const QorConfigStore::ConfigExport exported = QorConfigStore::ExportConfiguration({});
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 2);
  exported.document.Accept(writer);
  std::string error;
  if (!Host::WriteFileAtomically(Host::Resolve(kExportFile), std::string(buffer.GetString(), buffer.GetSize()) + "\n",
                                 &error)) {
    throw std::runtime_error("export: " + error);
  }
}

std::vector<Job> Jobs() {
  return {
      {"ProcessSchemas", 3, nullptr, LiveStores,
       [] {
         std::string failure;
         if (!QorConfigStore::ProcessSchemas({}, &failure)) throw std::runtime_error("ProcessSchemas: " + failure);
       },
       [] { bench::floor::ProcessSchemas(); }},
      {"Default instances validated, patterns off (floor: rapidjson's validator)", 3,
       [] { gCases = bench::floor::PatternFreeDefaults(); }, nullptr, ValidateCases,
       [] { bench::floor::PeerValidate(gCases); }},
      {"LoadStore, schema-change boot", 3, nullptr, [] { BootFrom("current-store-1.upgrade"); },
       Boot, [] { bench::floor::Boot(true); }},
      {"LoadStore, ordinary boot", 3, nullptr, [] { BootFrom("current-store-1"); },
       Boot, [] { bench::floor::Boot(false); }},
      {"SetDesiredUserConfig", 3, nullptr,
       [] {
         LiveStores();
         gDoc = DesiredDocument();
       },
       [] { QorConfigStore::SetDesiredUserConfig(*gDoc); }, [] { bench::floor::SetDesiredUserConfig(*gDoc); }},
      {"LoadStore, boot after SetDesiredUserConfig", 3,
       [] {
         LiveStores();
         auto doc = DesiredDocument();
         QorConfigStore::SetDesiredUserConfig(*doc);
         CopyTo(Host::Resolve(kStore), kStaged);
       },
       [] {
         CopyTo(Host::Resolve(kStaged), kBackup);
         Put("datafile-store", kDataBackup);
         Put("schema-store", kSchemaStore);
         fs::remove(Host::Resolve(kStore));
       },
       Boot, [] { bench::floor::DesiredBoot(); }},
      {"CleanupStore", 5, nullptr, LiveStores, [] { QorConfigStore::CleanupStore(true); },
       [] { bench::floor::CleanupStore(); }},
      {"CleanupAutoConfig", 5, nullptr, LiveStores, [] { QorConfigStore::CleanupAutoConfig(); },
       [] { bench::floor::CleanupAutoConfig(); }},
      {"CleanupDataFiles", 5, nullptr, DataFilesFromGolden, [] { QorConfigStore::CleanupDataFiles(); },
       [] { bench::floor::CleanupDataFiles(); }},
      {"Metrics (4 sizes + per-row metrics)", 5, LiveStores, nullptr,
       [] {
         benchmark::DoNotOptimize(QorConfigStore::GetVitalConfigSize() + QorConfigStore::GetUserConfigSize() +
                                  QorConfigStore::GetCachedConfigSize() + QorConfigStore::GetConfigRowCount());
         benchmark::DoNotOptimize(QorConfigStore::GetConfigMetrics());
       },
       [] { bench::floor::Metrics(); }},
      {"FilterStickyBitFiles", 5, [] { gSticky = StickyFiles(); }, nullptr,
       [] { benchmark::DoNotOptimize(QorConfigStore::FilterStickyBitFiles(gSticky)); },
       [] { benchmark::DoNotOptimize(bench::floor::FilterStickyBitFiles(gSticky)); }},
      {"Export (export -o, round trip checked)", 5, ExportRoundTrip, nullptr, ExportToFile,
       [] { benchmark::DoNotOptimize(bench::floor::Export(Host::Resolve(kExportFile))); }},
  };
}

void RunTimed(benchmark::State& state, const HostRun& host, const Job& job, bool isFloor) {
  Host::SetRoot(host.root);
  if (job.prepare) job.prepare();
  Result& result = gResults[job.name][host.label];
  for (auto _ : state) {
    if (job.reset) job.reset();
    JsonValidator::ClearCache();
    bench::HeapMark();
    double cpuStart = CpuMs();
    auto start = std::chrono::steady_clock::now();
    (isFloor ? job.floor : job.job)();
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    (isFloor ? result.floorCpu : result.jobCpu).push_back(CpuMs() - cpuStart);
    size_t peak = bench::HeapPeakSinceMark();
    state.SetIterationTime(elapsed.count());
    (isFloor ? result.floor : result.job).push_back(elapsed.count() * 1000.0);
    size_t& kept = isFloor ? result.floorPeak : result.jobPeak;
    kept = std::max(kept, peak);
  }
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string Fixed(double value, int digits) {
  std::ostringstream out;
  out.setf(std::ios::fixed);
  out.precision(digits);
  out << value;
  return out.str();
}

std::string Mib(size_t bytes) { return Fixed(static_cast<double>(bytes) / (1024.0 * 1024.0), 1); }

std::string Table() {
  std::ostringstream out;
  out << "Median of the iterations in milliseconds, wall clock and CPU (user + system); the floor runs in\n"
         "the same process and run. Peak heap: the highest rise of heap bytes in use during one iteration\n"
         "(malloc family interposed: C++, rapidjson, SQLite, RE2, pugixml), in MiB.\n\n";
  for (const HostRun& host : gHosts) {
    std::ifstream counts(host.root + bench::kCountsFile);
    out << "- host " << host.label << ":";
    for (std::string name, value; counts >> name >> value;) out << " " << name << "=" << value;
    out << "\n";
  }
  out << "\n| job | host | time | floor | ratio | CPU | CPU floor | CPU ratio | peak heap | floor peak heap |\n"
         "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
  auto ratio = [](double a, double b) { return b > 0 ? Fixed(a / b, 2) : std::string("-"); };
  for (const std::string& job : gJobOrder) {
    for (const HostRun& h : gHosts) {
      const Result& r = gResults[job][h.label];
      double t = Median(r.job), f = Median(r.floor), c = Median(r.jobCpu), cf = Median(r.floorCpu);
      out << "| " << job << " | " << h.label << " | " << Fixed(t, 1) << " | " << Fixed(f, 1) << " | " << ratio(t, f)
          << " | " << Fixed(c, 1) << " | " << Fixed(cf, 1) << " | " << ratio(c, cf) << " | " << Mib(r.jobPeak)
          << " | " << Mib(r.floorPeak) << " |\n";
    }
  }
  // Hosts given in pairs: the second of each pair is the first at twice the scale.
  for (size_t pair = 0; pair + 1 < gHosts.size(); pair += 2) {
    const std::string& a = gHosts[pair].label;
    const std::string& b = gHosts[pair + 1].label;
    out << "\nGrowth from host " << a << " to host " << b << " (job time " << b << " / job time " << a << "):\n\n"
        << "| job | wall growth | CPU growth | floor wall growth | floor CPU growth |\n|---|---:|---:|---:|---:|\n";
    for (const std::string& job : gJobOrder) {
      const Result& ra = gResults[job][a];
      const Result& rb = gResults[job][b];
      out << "| " << job << " | " << ratio(Median(rb.job), Median(ra.job)) << " | "
          << ratio(Median(rb.jobCpu), Median(ra.jobCpu)) << " | " << ratio(Median(rb.floor), Median(ra.floor))
          << " | " << ratio(Median(rb.floorCpu), Median(ra.floorCpu)) << " |\n";
    }
  }
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  std::string tableFile;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--host=", 0) == 0) {
      std::string spec = arg.substr(7);
      auto colon = spec.find(':');
      if (colon == std::string::npos) {
        std::cerr << "--host=LABEL:DIR\n";
        return 2;
      }
      gHosts.push_back({spec.substr(0, colon), fs::absolute(spec.substr(colon + 1)).lexically_normal().string()});
    } else if (arg.rfind("--table=", 0) == 0) {
      tableFile = arg.substr(8);
    } else {
      rest.push_back(argv[i]);
    }
  }
  if (gHosts.empty()) {
    std::cerr << "usage: " << argv[0] << " --host=LABEL:DIR [--host=...] [--table=FILE] [benchmark flags]\n";
    return 2;
  }
  int restCount = static_cast<int>(rest.size());
  benchmark::Initialize(&restCount, rest.data());

  static const std::vector<Job> jobs = Jobs();
  for (const Job& job : jobs) {
    gJobOrder.push_back(job.name);
    for (const HostRun& host : gHosts) {
      for (bool isFloor : {false, true}) {
        std::string name = job.name + "/" + host.label + (isFloor ? "/floor" : "/job");
        benchmark::RegisterBenchmark(name.c_str(), [&job, host, isFloor](benchmark::State& state) {
          RunTimed(state, host, job, isFloor);
        })->Iterations(job.iterations)->UseManualTime()->Unit(benchmark::kMillisecond);
      }
    }
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  std::string table = Table();
  std::cout << "\n" << table;
  if (!tableFile.empty()) std::ofstream(tableFile, std::ios::trunc) << table;
  return 0;
}

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "errors/ConfigStoreException.h"
#include "platform/host/HostRoot.h"
#include "platform/image/QorImage.h"
#include "tests/support/Sandbox.h"

namespace {

using QorConfigStore::ConfigStoreException;
using QorImage::Package;
using Strings = std::vector<std::string>;

const std::string kDb = "/var/db/talvex/imgdb";
const std::string kProfile = kDb + "/profile.xml";
const std::string kLock = "/var/run/liveimgdb.pid";

std::string Descriptor(const std::string& name, const std::string& version, const Strings& tags = {},
                       const Strings& archives = {}) {
  std::string xml =
      "<?xml version=\"1.0\"?>\n<package>\n  <name>" + name + "</name>\n  <version>" + version + "</version>\n  <tags>";
  for (const auto& tag : tags) xml += "<tag>" + tag + "</tag>";
  xml += "</tags>\n  <archives>";
  for (const auto& archive : archives) xml += "<archive>" + archive + "</archive>";
  return xml + "</archives>\n</package>\n";
}

std::string Profile(const Strings& packages) {
  std::string xml = "<imageProfile><name>test-image</name><version>1.0.0_1.0</version><packages>";
  for (const auto& name : packages) xml += "<package>" + name + "</package>";
  return xml + "</packages></imageProfile>";
}

class QorImageTest : public cstest::SandboxTest {
 protected:
  std::string DescriptorPath(const std::string& name) const { return kDb + "/packages/" + name + ".xml"; }

  // A database holding one package "p" whose descriptor is `xml`.
  void WriteSinglePackage(const std::string& xml) const {
    WriteFile(kProfile, Profile({"p"}));
    WriteFile(DescriptorPath("p"), xml);
  }

  // The message of the code 2000 error the read must raise; "" (and a test failure) otherwise.
  static std::string ReadError() {
    try {
      QorImage::GetQorImage();
      ADD_FAILURE() << "the read succeeded";
    } catch (const ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      return e.what();
    }
    return "";
  }

  // True when nobody holds the lock file's lock.
  bool LockIsFree() const {
    int fd = ::open(Path(kLock).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool free = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return free;
  }
};

TEST_F(QorImageTest, ReadsTheSampleHostDatabase) {
  CopyExampleHost();
  auto image = QorImage::GetQorImage();
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->Name(), "Talvex-8.0.2-standard");
  EXPECT_EQ(image->Version(), "8.0.2_1.0");

  const std::vector<Package>& packages = image->GetPackages();
  ASSERT_EQ(packages.size(), 4u);
  EXPECT_EQ(packages[0].name, "qor-base");
  EXPECT_EQ(packages[0].tags, Strings({"ConfigSchema:qor-base-8.0.2_1.0"}));
  EXPECT_EQ(packages[0].archives, Strings({"qor-base.tgz", "qor-base-etc.tgz"}));
  EXPECT_EQ(packages[2].name, "storage-kit");
  EXPECT_EQ(packages[2].archives, Strings({"storage-kit.tgz", "storage-drivers.tgz"}));
  EXPECT_TRUE(packages[3].tags.empty());

  EXPECT_EQ(image->GetPackageIds(),
            Strings({"qor-base-8.0.2_1.0", "net-core-1.2.3_4.5", "storage-kit-2.1.0_3.1", "tools-lite-1.0.0_0.1"}));
  EXPECT_EQ(image->GetSchemaIds(), Strings({"qor-base-8.0.2_1.0", "net-core-1.2.3_4.5"}));
  EXPECT_EQ(QorImage::GetSchemaIds(), image->GetSchemaIds());

  // Schema files name themselves "<kitname>-<kitversion>": the sample's tags must say the same.
  for (const Package& package : packages) {
    for (const std::string& id : package.SchemaIds()) EXPECT_EQ(id, package.Id());
  }

  // Only storage-kit keeps its archives from holding sticky-bit files.
  for (const Package& package : packages) {
    SCOPED_TRACE(package.name);
    EXPECT_EQ(package.HasTag("RestrictStickyFiles"), package.name == "storage-kit");
    EXPECT_FALSE(package.HasTag("ConfigSchema:"));  // whole tags only, never a prefix
  }
  ASSERT_NE(image->FindPackage("net-core"), nullptr);
  EXPECT_EQ(image->FindPackage("net-core")->version, "1.2.3_4.5");
  EXPECT_EQ(image->FindPackage("net"), nullptr);
}

TEST_F(QorImageTest, EachCallReadsTheFilesAfresh) {
  CopyExampleHost();
  auto before = QorImage::GetQorImage();
  WriteFile(DescriptorPath("storage-kit"),
            Descriptor("storage-kit", "2.2.0_1.0", {"ConfigSchema:storage-kit-2.2.0_1.0"}, {"storage-kit.tgz"}));

  auto after = QorImage::GetQorImage();
  EXPECT_FALSE(after->FindPackage("storage-kit")->HasTag("RestrictStickyFiles"));
  EXPECT_EQ(after->GetSchemaIds(), Strings({"qor-base-8.0.2_1.0", "net-core-1.2.3_4.5", "storage-kit-2.2.0_1.0"}));
  // An object already handed out keeps what it read.
  EXPECT_TRUE(before->FindPackage("storage-kit")->HasTag("RestrictStickyFiles"));
}

TEST_F(QorImageTest, SeveralSchemaTagsAndUnknownElementsAreRead) {
  WriteFile(kProfile, Profile({"a", "b"}));
  WriteFile(DescriptorPath("a"),
            "<package><name>a</name><version>1.0.0_1.0</version><vendor>x</vendor>"
            "<tags><tag> ConfigSchema:a-1.0.0_1.0 </tag><other/>"
            "<tag>ConfigSchema:a-extra-2.0.0_1.0</tag></tags></package>");
  WriteFile(DescriptorPath("b"), Descriptor("b", "2.0.0_0.1"));
  // A descriptor the profile does not list is left alone.
  WriteFile(DescriptorPath("stale"), "not xml at all");

  auto image = QorImage::GetQorImage();
  EXPECT_EQ(image->GetSchemaIds(), Strings({"a-1.0.0_1.0", "a-extra-2.0.0_1.0"}));
  EXPECT_EQ(image->GetPackageIds(), Strings({"a-1.0.0_1.0", "b-2.0.0_0.1"}));
}

TEST_F(QorImageTest, BadDatabaseNamesTheFileAndTheFault) {
  struct Case {
    std::string name;
    std::optional<std::string> profile, descriptorOfA;  // written when given
    std::function<void()> special;                       // anything else the case needs
    std::string file;                                    // host path the message must name
    Strings fragments;
  };
  const std::string a = DescriptorPath("a");
  const std::string profileOfA = Profile({"a"});
  auto aIs = [this, a](std::function<void(const std::string&)> make) { return [this, a, make] { make(Path(a)); }; };
  namespace fs = std::filesystem;
  const std::vector<Case> cases = {
      {"no profile", {}, {}, {}, kProfile, {"missing"}},
      {"profile not XML", "<imageProfile><name>x</imageProfile>", {}, {}, kProfile,
       {"malformed XML", "Start-end tags mismatch", "at offset 23"}},
      {"empty profile", "", {}, {}, kProfile, {"malformed XML", "No document element found"}},
      {"profile wrong root", "<profile/>", {}, {}, kProfile, {"root element is \"profile\", expected <imageProfile>"}},
      {"profile without version", "<imageProfile><name>x</name></imageProfile>", {}, {}, kProfile,
       {"<imageProfile> has no <version>"}},
      {"package name leading out", Profile({"../../../etc/passwd"}), {}, {}, kProfile,
       {"\"../../../etc/passwd\" is not a plain name"}},
      {"empty package entry", Profile({""}), {}, {}, kProfile, {"an empty <package> in <packages>"}},
      {"package listed twice", Profile({"a", "a"}), Descriptor("a", "1.0.0_1.0"), {}, kProfile,
       {"\"a\" is listed twice"}},
      {"descriptor missing", profileOfA, {}, {}, a, {"missing, but profile.xml lists the package \"a\""}},
      {"descriptor malformed", profileOfA, "<package><name>a</name><version>1.0.0_1.0</version>", {}, a,
       {"malformed XML", "Start-end tags mismatch", "offset"}},
      {"descriptor of another package", profileOfA, Descriptor("b", "1.0.0_1.0"), {}, a,
       {"describes the package \"b\", expected \"a\""}},
      {"descriptor without version", profileOfA, "<package><name>a</name></package>", {}, a,
       {"<package> has no <version>"}},
      {"empty version", profileOfA, "<package><name>a</name><version>  </version></package>", {}, a,
       {"<version> is empty"}},
      {"empty tag", profileOfA, Descriptor("a", "1.0.0_1.0", {""}), {}, a, {"an empty <tag> in <tags>"}},
      {"schema tag without id", profileOfA, Descriptor("a", "1.0.0_1.0", {"ConfigSchema:"}), {}, a,
       {"\"ConfigSchema:\" names no schema identifier"}},
      {"empty archive", profileOfA, Descriptor("a", "1.0.0_1.0", {}, {""}), {}, a, {"an empty <archive> in <archives>"}},
      {"descriptor is a directory", profileOfA, {}, aIs([](const std::string& p) { fs::create_directories(p); }), a,
       {"Is a directory"}},
      // Opening a FIFO must not wait for a writer.
      {"descriptor is a FIFO", profileOfA, {},
       aIs([](const std::string& p) {
         fs::create_directories(fs::path(p).parent_path());
         ASSERT_EQ(::mkfifo(p.c_str(), 0644), 0);
       }),
       a, {"not a regular file"}},
      {"descriptor over the size cap", profileOfA, "",
       aIs([](const std::string& p) { fs::resize_file(p, 8 * 1024 * 1024 + 1); }), a, {"larger than 8388608 bytes"}},
      {"lock file cannot be opened", {}, {}, [this] { fs::create_directories(Path(kLock)); }, kLock,
       {"Cannot open the image database lock file", "Is a directory"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Remove("/var");
    if (c.profile) WriteFile(kProfile, *c.profile);
    if (c.descriptorOfA) WriteFile(a, *c.descriptorOfA);
    if (c.special) c.special();
    std::string message = ReadError();
    EXPECT_NE(message.find(Path(c.file)), std::string::npos) << message;
    for (const auto& fragment : c.fragments) EXPECT_NE(message.find(fragment), std::string::npos) << message;
  }
}

TEST_F(QorImageTest, HostileXmlIsReadOrRefusedNeverExpanded) {
  const std::string header = "<package><name>p</name><version>1.0.0_1.0</version>";
  std::string deepOpen;
  std::string deepClose;
  for (int i = 0; i < 200000; ++i) {
    deepOpen += "<d>";
    deepClose += "</d>";
  }
  std::string doctypeNest = "<!DOCTYPE package [";
  for (int i = 0; i < 200000; ++i) doctypeNest += "<![";
  // Each entity stands for ten of the previous one: &lol9; would be 10^9 bytes if expanded.
  std::string laughs = "<!DOCTYPE package [<!ENTITY lol0 \"lol\">";
  for (int i = 1; i <= 9; ++i) {
    laughs += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) laughs += "&lol" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  laughs += "]>";

  struct Case {
    std::string name;
    std::string xml;
    Strings tags;          // expected tags when the read succeeds
    std::string fragment;  // expected in the error when the read must fail ("" = must succeed)
  };
  const std::vector<Case> cases = {
      {"external entity",
       "<!DOCTYPE package [<!ENTITY xxe SYSTEM \"file:///etc/passwd\">]>" + header +
           "<tags><tag>&xxe;</tag></tags></package>",
       {"&xxe;"},
       ""},
      {"entity expansion bomb", laughs + header + "<tags><tag>&lol9;</tag></tags></package>", {"&lol9;"}, ""},
      {"deep nesting", header + deepOpen + deepClose + "<tags><tag>t</tag></tags></package>", {"t"}, ""},
      {"deep nesting unclosed", header + deepOpen + "</package>", {}, "Start-end tags mismatch"},
      {"nested DOCTYPE groups",
       doctypeNest + "]>" + header + "</package>",
       {},
       "Error parsing document type declaration"},
      {"huge attribute",
       "<package big=\"" + std::string(2 * 1024 * 1024, 'x') +
           "\"><name>p</name><version>1.0.0_1.0</version>"
           "<tags><tag>t</tag></tags></package>",
       {"t"},
       ""},
      {"huge name",
       "<package><name>" + std::string(1024 * 1024, 'n') + "</name><version>1</version></package>",
       {},
       "describes the package \"nnnn"},
      {"NUL and junk bytes",
       std::string("<package>\0\xff\xfe<name>", 15) + "</package>",
       {},
       "Start-end tags mismatch at offset 9"},
      {"unterminated CDATA",
       header + "<tags><tag><![CDATA[abc</tag></tags></package>",
       {},
       "Error parsing CDATA section at offset 71"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteSinglePackage(c.xml);
    if (c.fragment.empty()) {
      auto image = QorImage::GetQorImage();
      EXPECT_EQ(image->GetPackages().at(0).tags, c.tags);
      continue;
    }
    std::string message = ReadError();
    EXPECT_NE(message.find(c.fragment), std::string::npos) << message.substr(0, 300);
    EXPECT_LT(message.size(), 400u) << "a hostile value made a huge message";
  }
}

TEST_F(QorImageTest, ReadWritesItsProcessIdAndReleasesTheLock) {
  CopyExampleHost();
  WriteFile(kLock, "123456789\n");  // a longer id left by an earlier holder
  QorImage::GetQorImage();
  EXPECT_EQ(ReadFile(kLock), std::to_string(::getpid()) + "\n");
  EXPECT_TRUE(LockIsFree());

  // A failing read releases the lock too.
  Remove(kDb + "/packages/net-core.xml");
  EXPECT_NE(ReadError().find("net-core.xml"), std::string::npos);
  EXPECT_TRUE(LockIsFree());
}

TEST_F(QorImageTest, LockHeldByAnotherProcessFailsAfterThreeAttempts) {
  CopyExampleHost();
  ASSERT_TRUE(Host::MakeDirs(Path("/var/run")));
  int ready[2];
  int release[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(release), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The holder: locks, writes its id, says so, and keeps the lock until told to go.
    int fd = ::open(Path(kLock).c_str(), O_WRONLY | O_CREAT, 0644);
    bool ok = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    std::string pid = std::to_string(::getpid()) + "\n";
    ok = ok && ::write(fd, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size());
    char byte = ok ? '1' : '0';
    (void)!::write(ready[1], &byte, 1);
    (void)!::read(release[0], &byte, 1);
    ::_exit(0);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, '1');

  std::string message = ReadError();
  const std::string holder = "held by process " + std::to_string(child);
  EXPECT_NE(message.find("Cannot lock the image database: " + Path(kLock) + " is " + holder + " (3 attempts)"),
            std::string::npos)
      << message;
  // Two waits between the three attempts, and the holder's id left as it wrote it.
  EXPECT_EQ(log_.Count(holder + ", attempt"), 2u);
  EXPECT_TRUE(log_.Contains(holder + ", attempt 2 of 3", CSLogger::PRIO_WARNING));
  EXPECT_EQ(ReadFile(kLock), std::to_string(child) + "\n");

  ASSERT_EQ(::write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  for (int fd : {ready[0], ready[1], release[0], release[1]}) ::close(fd);
  EXPECT_NO_THROW(QorImage::GetQorImage());
}

TEST_F(QorImageTest, LockHeldInThisProcessWithoutAnIdStillFails) {
  CopyExampleHost();
  WriteFile(kLock, "");
  // flock locks belong to open file descriptions: a second open() conflicts within one process.
  int fd = ::open(Path(kLock).c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
  std::string message = ReadError();
  EXPECT_NE(message.find(Path(kLock) + " is held by another process (3 attempts)"), std::string::npos) << message;
  ::close(fd);
}

}  // namespace

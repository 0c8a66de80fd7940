// The image database: the profile and package descriptors, their faults (hostile XML among them) and the lock.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <optional>

#include "errors/ConfigStoreException.h"
#include "platform/host/HostRoot.h"
#include "platform/image/QorImage.h"
#include "tests/support/Sandbox.h"

namespace {

using Strings = std::vector<std::string>;
const std::string kDb = "/var/db/talvex/imgdb";
const std::string kProfile = kDb + "/profile.xml";
const std::string kLock = "/var/run/liveimgdb.pid";

std::string Descriptor(const std::string& name, const std::string& version, const std::string& tags = "") {
  return "<package><name>" + name + "</name><version>" + version + "</version><tags>" + tags + "</tags></package>";
}

std::string Profile(const Strings& packages) {
  std::string xml = "<imageProfile><name>test-image</name><version>1.0.0_1.0</version><packages>";
  for (const auto& name : packages) xml += "<package>" + name + "</package>";
  return xml + "</packages></imageProfile>";
}

class QorImageTest : public cstest::SandboxTest {
 protected:
  static std::string DescriptorPath(const std::string& name) { return kDb + "/packages/" + name + ".xml"; }

  // The message of the code 2000 error the read must raise; "" (and a test failure) otherwise.
  static std::string ReadError() {
    try {
      QorImage::GetQorImage();
      ADD_FAILURE() << "the read succeeded";
    } catch (const QorConfigStore::ConfigStoreException& e) {
      EXPECT_EQ(e.code(), 2000);
      return e.what();
    }
    return "";
  }

  bool LockIsFree() const {
    int fd = ::open(Path(kLock).c_str(), O_RDONLY | O_CLOEXEC);
    bool free = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    if (fd >= 0) ::close(fd);
    return free;
  }
};

TEST_F(QorImageTest, ReadsTheSampleHostDatabaseAfreshEachTime) {
  CopyExampleHost();
  WriteFile(kLock, "123456789\n");  // a longer id left by an earlier holder
  auto image = QorImage::GetQorImage();
  EXPECT_EQ(ReadFile(kLock), std::to_string(::getpid()) + "\n");
  EXPECT_TRUE(LockIsFree());
  EXPECT_EQ(image->Name() + " " + image->Version(), "Talvex-8.0.2-standard 8.0.2_1.0");
  EXPECT_EQ(image->GetPackages().at(2).archives, Strings({"storage-kit.tgz", "storage-drivers.tgz"}));
  EXPECT_EQ(image->GetPackageIds(),
            Strings({"qor-base-8.0.2_1.0", "net-core-1.2.3_4.5", "storage-kit-2.1.0_3.1", "tools-lite-1.0.0_0.1"}));
  EXPECT_EQ(QorImage::GetSchemaIds(), Strings({"qor-base-8.0.2_1.0", "net-core-1.2.3_4.5"}));
  EXPECT_TRUE(image->FindPackage("storage-kit")->HasTag("RestrictStickyFiles"));
  EXPECT_FALSE(image->FindPackage("storage-kit")->HasTag("RestrictSticky"));  // whole tags only, never a prefix

  // Names of every allowed character; several schema tags; unknown elements ignored.
  WriteFile(kProfile, Profile({"Kit_9.x+y-z", "b"}));
  WriteFile(DescriptorPath("Kit_9.x+y-z"), Descriptor("Kit_9.x+y-z", "1.0", "<tag> ConfigSchema:a-1.0 </tag><other/>"
                                                      "<tag>ConfigSchema:a-extra-2.0</tag>"));
  WriteFile(DescriptorPath("b"), Descriptor("b", "2.0"));
  auto after = QorImage::GetQorImage();
  EXPECT_EQ(after->GetSchemaIds(), Strings({"a-1.0", "a-extra-2.0"}));
  EXPECT_EQ(after->GetPackageIds(), Strings({"Kit_9.x+y-z-1.0", "b-2.0"}));
  EXPECT_TRUE(image->FindPackage("storage-kit")->HasTag("RestrictStickyFiles"));  // handed out: kept
}

TEST_F(QorImageTest, BadDatabaseNamesTheFileAndTheFault) {
  namespace fs = std::filesystem;
  const std::string a = DescriptorPath("a"), profileOfA = Profile({"a"});
  auto atA = [this, a](std::function<void(const std::string&)> make) { return [this, a, make] { make(Path(a)); }; };
  // Hostile XML: entities are never expanded (&lol9; would be 10^9 bytes), nor a value copied whole.
  std::string deepOpen, laughs = "<!DOCTYPE package [<!ENTITY lol0 \"lol\">";
  for (int i = 0; i < 200000; ++i) deepOpen += "<d>";
  for (int i = 1; i <= 9; ++i) {
    laughs += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) laughs += "&lol" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  const std::string xxe = "<!DOCTYPE package [<!ENTITY xxe SYSTEM \"file:///etc/passwd\">]>";
  struct Case {
    std::optional<std::string> profile, descriptorOfA;  // written when given
    std::function<void()> special;
    std::string file, fragment;  // the host file the message names, and what it says
  };
  const Case cases[] = {
      {{}, {}, {}, kProfile, "missing"},
      {"<imageProfile><name>x</imageProfile>", {}, {}, kProfile, "Start-end tags mismatch at offset 23"},
      {Profile({"../../../etc/passwd"}), {}, {}, kProfile, "\"../../../etc/passwd\" is not a plain name"},
      {Profile({"a b"}), {}, {}, kProfile, "\"a b\" is not a plain name"},
      {Profile({"a", "a"}), Descriptor("a", "1"), {}, kProfile, "\"a\" is listed twice"},
      {profileOfA, {}, {}, a, "missing, but profile.xml lists the package \"a\""},
      {profileOfA, Descriptor("b", "1"), {}, a, "describes the package \"b\", expected \"a\""},
      {profileOfA, Descriptor("a", "1", "<tag>ConfigSchema:</tag>"), {}, a, "\"ConfigSchema:\" names no schema identifier"},
      {profileOfA, xxe + Descriptor("&xxe;", "1"), {}, a, "describes the package \"&xxe;\", expected \"a\""},
      {profileOfA, laughs + "]>" + Descriptor("&lol9;", "1"), {}, a, "describes the package \"&lol9;\", expected"},
      {profileOfA, "<package><name>a</name>" + deepOpen + "</package>", {}, a, "Start-end tags mismatch"},
      {profileOfA, Descriptor(std::string(1 << 20, 'n'), "1"), {}, a, "describes the package \"nnnn"},
      // Opening a FIFO must not wait for a writer.
      {profileOfA, {}, atA([](const std::string& p) {
         fs::create_directories(fs::path(p).parent_path());
         ASSERT_EQ(::mkfifo(p.c_str(), 0644), 0);
       }), a, "not a regular file"},
      {{}, {}, [this] { fs::create_directories(Path(kLock)); }, kLock, "Cannot open the image database lock file"},
  };
  for (const Case& c : cases) {
    Remove("/var");
    if (c.profile) WriteFile(kProfile, *c.profile);
    if (c.descriptorOfA) WriteFile(a, *c.descriptorOfA);
    if (c.special) c.special();
    std::string message = ReadError();
    EXPECT_NE(message.find(Path(c.file) + ": "), std::string::npos) << message;
    EXPECT_NE(message.find(c.fragment), std::string::npos) << message.substr(0, 300);
    EXPECT_LT(message.size(), 400u) << "a hostile value made a huge message";
  }
  EXPECT_TRUE(LockIsFree());  // a failing read releases the lock too
}

TEST_F(QorImageTest, LockHeldByAnotherProcessFailsAfterThreeAttempts) {
  CopyExampleHost();
  ASSERT_TRUE(Host::MakeDirs(Path("/var/run")));
  int ready[2], release[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(release), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {  // the holder: locks, writes its id, says so, and keeps the lock until told to go
    int fd = ::open(Path(kLock).c_str(), O_WRONLY | O_CREAT, 0644);
    std::string pid = std::to_string(::getpid()) + "\n";
    char byte = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
                        ::write(fd, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size()) ? '1' : '0';
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
            std::string::npos) << message;
  EXPECT_EQ(log_.Count(holder + ", attempt"), 2u);  // two waits between the three attempts
  EXPECT_TRUE(log_.Contains(holder + ", attempt 2 of 3", CSLogger::PRIO_WARNING));
  EXPECT_EQ(ReadFile(kLock), std::to_string(child) + "\n");
  ASSERT_EQ(::write(release[1], "x", 1), 1);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  for (int fd : {ready[0], ready[1], release[0], release[1]}) ::close(fd);
  EXPECT_NO_THROW(QorImage::GetQorImage());
}

}  // namespace

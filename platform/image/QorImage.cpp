#include "platform/image/QorImage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pugixml.hpp>
#include <set>

#include "errors/ConfigStoreException.h"
#include "platform/host/Files.h"
#include "platform/host/HostRoot.h"
#include "platform/image/ImageDbLock.h"
#include "platform/logging/CSLogger.h"

namespace QorImage {
namespace {

// Descriptors are a few hundred bytes; the cap keeps a corrupt or hostile file from filling memory.
constexpr size_t kMaxFileSize = 8 * 1024 * 1024;
constexpr size_t kMaxNameLength = 255;  // a package name is also a file name

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  throw QorConfigStore::ConfigStoreException(QorConfigStore::CS_ERR_GENERIC,
                                             "Image database file " + path + ": " + what);
}

// A value quoted in a message, cut short so that a hostile file cannot make a huge message.
std::string Shown(std::string_view text) {
  constexpr size_t kShown = 80;
  if (text.size() <= kShown) return "\"" + std::string(text) + "\"";
  return "\"" + std::string(text.substr(0, kShown)) + "...\"";
}

// `missing` says what a missing file means to the caller.
std::string ReadSmallFile(const std::string& path, const std::string& missing) {
  std::string text, cause;
  if (!Host::ReadFile(path, &text, &cause, kMaxFileSize)) {
    Fail(path, errno == ENOENT ? missing : "cannot be read: " + cause);
  }
  return text;
}

// Parses a file and returns its root element, which must be named `rootName`.
pugi::xml_node LoadRoot(pugi::xml_document& doc, const std::string& path, const char* rootName,
                        const std::string& missing) {
  std::string text = ReadSmallFile(path, missing);
  // No parse_doctype: a DOCTYPE and its entity declarations are skipped, never expanded.
  pugi::xml_parse_result result =
      doc.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_trim_pcdata);
  if (!result) {
    Fail(path, std::string("malformed XML: ") + result.description() + " at offset " + std::to_string(result.offset));
  }
  pugi::xml_node root = doc.document_element();
  if (std::strcmp(root.name(), rootName) != 0) {
    Fail(path, "the root element is " + Shown(root.name()) + ", expected <" + rootName + ">");
  }
  return root;
}

// Text of the required child element `name`; an absent or empty one is an error.
std::string Required(pugi::xml_node parent, const char* name, const std::string& path) {
  pugi::xml_node child = parent.child(name);
  if (!child) Fail(path, "<" + std::string(parent.name()) + "> has no <" + name + ">");
  std::string text = child.child_value();
  if (text.empty()) Fail(path, "<" + std::string(name) + "> is empty");
  return text;
}

// Texts of every `item` element inside the optional `list` element, each required to be non-empty.
std::vector<std::string> List(pugi::xml_node parent, const char* list, const char* item, const std::string& path) {
  std::vector<std::string> texts;
  for (pugi::xml_node child : parent.child(list).children(item)) {
    std::string text = child.child_value();
    if (text.empty()) Fail(path, "an empty <" + std::string(item) + "> in <" + list + ">");
    texts.push_back(std::move(text));
  }
  return texts;
}

// The profile's package names become file names under packages/.
bool IsSafePackageName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameLength || name.front() == '.') return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
           c == '+' || c == '-';
  });
}

Package ReadDescriptor(const std::string& dir, const std::string& name) {
  std::string path = dir + "/packages/" + name + ".xml";
  pugi::xml_document doc;
  pugi::xml_node root = LoadRoot(doc, path, "package", "missing, but profile.xml lists the package " + Shown(name));
  Package package;
  package.name = Required(root, "name", path);
  if (package.name != name) Fail(path, "describes the package " + Shown(package.name) + ", expected " + Shown(name));
  package.version = Required(root, "version", path);
  package.tags = List(root, "tags", "tag", path);
  package.archives = List(root, "archives", "archive", path);
  for (const std::string& tag : package.tags) {
    if (tag == kConfigSchemaTagPrefix) Fail(path, "the tag " + Shown(tag) + " names no schema identifier");
  }
  return package;
}

}  // namespace

bool Package::HasTag(std::string_view tag) const { return std::find(tags.begin(), tags.end(), tag) != tags.end(); }

std::string Package::Id() const { return name + "-" + version; }

std::vector<std::string> Package::SchemaIds() const {
  std::vector<std::string> ids;
  for (const std::string& tag : tags) {
    if (tag.starts_with(kConfigSchemaTagPrefix)) ids.push_back(tag.substr(kConfigSchemaTagPrefix.size()));
  }
  return ids;
}

std::shared_ptr<QorImage> QorImage::GetQorImage() {
  const std::string dir = Host::Resolve(kImageDbDir);
  ImageDbLock lock(Host::Resolve(kImageDbLockFile));

  const std::string profilePath = dir + "/profile.xml";
  pugi::xml_document doc;
  pugi::xml_node root = LoadRoot(doc, profilePath, "imageProfile", "missing");
  std::shared_ptr<QorImage> image(new QorImage());
  image->name_ = Required(root, "name", profilePath);
  image->version_ = Required(root, "version", profilePath);

  std::set<std::string> seen;
  for (const std::string& name : List(root, "packages", "package", profilePath)) {
    if (!IsSafePackageName(name)) {
      Fail(profilePath, "the package name " + Shown(name) +
                            " is not a plain name (letters, digits, '_', '.', '+', '-', at most 255, no leading '.')");
    }
    if (!seen.insert(name).second) Fail(profilePath, "the package " + Shown(name) + " is listed twice");
    image->packages_.push_back(ReadDescriptor(dir, name));
  }
  CSLogger::Log(CSLogger::PRIO_DETAIL, "Read image database %s: image %s %s, %zu packages", dir.c_str(),
                image->name_.c_str(), image->version_.c_str(), image->packages_.size());
  return image;
}

const Package* QorImage::FindPackage(std::string_view name) const {
  for (const Package& package : packages_) {
    if (package.name == name) return &package;
  }
  return nullptr;
}

std::vector<std::string> QorImage::GetPackageIds() const {
  std::vector<std::string> ids;
  for (const Package& package : packages_) ids.push_back(package.Id());
  return ids;
}

std::vector<std::string> QorImage::GetSchemaIds() const {
  std::vector<std::string> ids;
  for (const Package& package : packages_) {
    for (std::string& id : package.SchemaIds()) ids.push_back(std::move(id));
  }
  return ids;
}

std::shared_ptr<QorImage> GetQorImage() { return QorImage::GetQorImage(); }

std::vector<std::string> GetSchemaIds() { return QorImage::GetQorImage()->GetSchemaIds(); }

}  // namespace QorImage

// The installed image database: which packages (kits) the running image holds, the schemas they
// ship, the archives they unpack and their software tags.
//
// The database lives under "<root>/var/db/talvex/imgdb/": "profile.xml" names the image and lists
// the installed packages; "packages/<name>.xml" describes each one (formats in docs/formats.md,
// "Image database"). Every read takes the exclusive, non-blocking lock on "/var/run/liveimgdb.pid"
// (three attempts one second apart, this process's id written into the file) and releases it
// before returning, also on failure. Nothing is cached: each GetQorImage() reads the files afresh.
//
// Failure: every read error throws QorConfigStore::ConfigStoreException with code 2000 and a message
// naming the file and what is wrong with it: a missing or unreadable file, XML that does not parse
// (with the parser's description and byte offset), a missing or empty member, a package the profile
// lists without a descriptor, or a lock held by another process (the lock file and, when it can be
// read, the holder's process id). Entities other than XML's five predefined ones and character
// references are never expanded; a DOCTYPE is skipped. Files over 8 MiB are refused unread.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace QorImage {

// Tag of a package that ships a configuration schema: "ConfigSchema:" + schema identifier
// ("net-core-1.2.3_4.5": kit name, a hyphen, kit version).
inline constexpr std::string_view kConfigSchemaTagPrefix = "ConfigSchema:";
// Tag of a package whose archives must not hold user-changed sticky-bit files.
inline constexpr std::string_view kRestrictStickyFilesTag = "RestrictStickyFiles";

// Host paths of the database and its lock.
inline constexpr const char* kImageDbDir = "/var/db/talvex/imgdb";
inline constexpr const char* kImageDbLockFile = "/var/run/liveimgdb.pid";

// One installed package (a kit), as its descriptor states it.
struct Package {
  std::string name;
  std::string version;
  std::vector<std::string> tags;      // in descriptor order
  std::vector<std::string> archives;  // payload archive names, in descriptor order

  bool HasTag(std::string_view tag) const;
  // "<name>-<version>".
  std::string Id() const;
  // Identifiers of its "ConfigSchema:" tags, in tag order (none for a package without a schema).
  std::vector<std::string> SchemaIds() const;
};

class QorImage {
 public:
  // Reads the database of the current host root under its lock. Throws as described above.
  static std::shared_ptr<QorImage> GetQorImage();

  const std::string& Name() const { return name_; }
  const std::string& Version() const { return version_; }
  // In the order the profile lists them.
  const std::vector<Package>& GetPackages() const { return packages_; }
  // nullptr when no installed package has that name. The pointer lives as long as this object.
  const Package* FindPackage(std::string_view name) const;
  // "<name>-<version>" of every package, in profile order.
  std::vector<std::string> GetPackageIds() const;
  // Schema identifiers of every package that ships one, in profile order.
  std::vector<std::string> GetSchemaIds() const;

 private:
  QorImage() = default;

  std::string name_;
  std::string version_;
  std::vector<Package> packages_;
};

// Shorthands for callers that need one answer: QorImage::GetQorImage(), QorImage::GetSchemaIds().
std::shared_ptr<QorImage> GetQorImage();
std::vector<std::string> GetSchemaIds();

}  // namespace QorImage

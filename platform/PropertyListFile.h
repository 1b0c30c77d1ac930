#pragma once

#include "platform/Error.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

namespace florvane {

// A dictionary in a property-list file (mode 0600) that several processes change. Readers take no lock: they see one
// whole version. Writers exclude each other by a lock on the file's path with ".lock". A damaged file is an error
// (QuilbarErrorDomain, PropertyListReadCorruptError) and is never replaced. Thread-safe; two objects on one path may
// coexist.
class PropertyListFile {
 public:
  enum class Readers { Any, OnlyOwner };

  // Tells versions of the file apart. Every write dates the file later than the one that it replaces, so that two
  // versions differ even where an inode number was used again within one tick of the file system's clock.
  struct Stamp {
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {};
    friend bool operator==(const Stamp& a, const Stamp& b) {
      return a.inode == b.inode && a.size == b.size && a.modified.tv_sec == b.modified.tv_sec &&
             a.modified.tv_nsec == b.modified.tv_nsec;
    }
  };
  // The stamp is absent, and the dictionary empty, when there is no file.
  struct Version {
    std::optional<Stamp> stamp;
    Dictionary contents;
  };

  // The format is that of writes. With OnlyOwner a file that another user owns or could read is an error
  // (QuilbarErrorDomain, FileReadNoPermissionError) for every call.
  PropertyListFile(std::string path, PropertyListFormat format, Readers readers)
      : path_(std::move(path)), format_(format), readers_(readers) {}

  const std::string& path() const { return path_; }
  Result<std::optional<Stamp>> stamp() const;
  Result<Version> read() const;
  // Reads, changes and writes as one step; the write is on stable storage on return, and left out when the change
  // leaves the contents equal. The change must not update the same file.
  Result<void> update(const std::function<void(Dictionary&)>& change) const;

 private:
  std::string path_;
  PropertyListFormat format_;
  Readers readers_;
};

}  // namespace florvane

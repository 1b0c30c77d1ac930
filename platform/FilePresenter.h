#pragma once

#include "platform/NotificationCenter.h"
#include "platform/SerialQueue.h"
#include "platform/URL.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace florvane {

// Someone who shows a file or a folder and wants to hear when others write it. Everything but
// presentedItemOperationQueue() is called on that queue. Implement what is of interest.
class FilePresenter {
 public:
  virtual ~FilePresenter() = default;
  // What is presented; absent when nothing is at the moment.
  virtual std::optional<URL> presentedItemURL() const = 0;
  // Asked on any thread; never null.
  virtual std::shared_ptr<SerialQueue> presentedItemOperationQueue() const = 0;

  // The item was written. Also said when notices were missed: everything may have changed, read it again.
  virtual void presentedItemDidChange() {}
  // Something below the presented folder was written, appeared, or moved away to another folder.
  virtual void presentedSubitemDidChangeAtURL(const URL& /*url*/) {}
  // The item, or a folder above it, has another place now.
  virtual void presentedItemDidMoveToURL(const URL& /*url*/) {}
  virtual void presentedSubitemDidMoveAtURL(const URL& /*url*/, const URL& /*newURL*/) {}
  // A writer has the item, or a folder above it, to delete it; it may be gone by now.
  virtual void presentedItemWillBeDeleted() {}
  virtual void presentedSubitemWillBeDeletedAtURL(const URL& /*url*/) {}
};

// What a coordinated writer says of its work.
struct ItemChange {
  enum class Kind : std::uint8_t { Changed, Moved, WillBeDeleted };
  Kind kind = Kind::Changed;
  std::string path;
  std::string newPath;            // of a move
  std::string purposeIdentifier;  // the writer's
};

// The presenters of this process, told of writes under other purpose identifiers by this and other processes through a
// notification centre: asynchronously, each writer's in order. Thread-safe.
class FilePresenters {
 public:
  explicit FilePresenters(NotificationCenter& center);
  ~FilePresenters();
  FilePresenters(const FilePresenters&) = delete;
  FilePresenters& operator=(const FilePresenters&) = delete;
  // Those of the process's container; made on first use.
  static FilePresenters& shared();

  // Holds the presenter weakly. Its own writes are those under that purpose identifier.
  void addFilePresenter(const std::shared_ptr<FilePresenter>& presenter, std::string purposeIdentifier);
  // A call that is queued already may still arrive.
  void removeFilePresenter(const std::shared_ptr<FilePresenter>& presenter);
  // Tells the presenters of every process. The path's folder must have been resolved (resolvedItemPath).
  void post(const ItemChange& change);

 private:
  struct State;
  NotificationCenter& center_;
  std::shared_ptr<State> state_;
  std::unique_ptr<NotificationCenter::Observation> observation_;
};

// The one name that all use for an item: absolute, the folders above it resolved as far as they exist, a last symbolic
// link kept.
std::string resolvedItemPath(const std::string& path);
// Whether the path lies below the folder.
bool isPathBelow(std::string_view path, std::string_view folder);

}  // namespace florvane

#pragma once

#include "Client/Client/DCDatabase.h"
#include "Client/Client/DCServerRequest.h"
#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/Value.h"

#include <memory>
#include <string>
#include <string_view>

namespace florvane {

class DCDocumentManager;

// What a document manager tells of the paths for which a delegate is registered, and of their direct children. All
// operations are optional; they arrive one at a time on the queue given at registration.
class DCDocumentManagerDelegate {
 public:
  using Manager = DCDocumentManager&;
  virtual ~DCDocumentManagerDelegate() = default;

  // Whether it cares for an operation, by its name ("documentManager:didUpdateContentsOfFileAtPath:"); those that it
  // denies are skipped.
  virtual bool respondsToSelector(std::string_view /*selector*/) const { return true; }

  // The new listing, an entry a child, as contentsOfDirectoryAtPath answers it.
  virtual void didUpdateContentsOfDirectoryAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                                  const Array& /*contents*/) {}
  // As the server said them.
  virtual void didUpdateAttributesOfItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                               const Dictionary& /*attributes*/) {}
  // New bytes are in the local copy.
  virtual void didUpdateContentsOfFileAtPath(Manager /*documentManager*/, const std::string& /*path*/) {}
  // The URL is that of a local image.
  virtual void didUpdateThumbnailOfFileAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                              const URL& /*url*/) {}
  // A refresh, a watch or an upload failed (error domains as in DCDocumentManager.h), or unsent bytes were moved to the
  // "Recovered" folder (DCErrorDomain 5, the new place under FilePathErrorKey).
  virtual void didFailToUpdateItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                         const Error& /*error*/) {}
  // The request counts its bytes, and can be cancelled.
  virtual void didStartDownloadingItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                             const DCServerRequest::Ptr& /*downloadTask*/) {}
  // The record counts the bytes that were sent, and goes when the server has them.
  virtual void didStartUploadingItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                           const std::shared_ptr<DCManagedUpload>& /*upload*/) {}
};

}  // namespace florvane

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

  virtual void didUpdateContentsOfDirectoryAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                                  const Array& /*contents*/) {}
  virtual void didUpdateAttributesOfItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                               const Dictionary& /*attributes*/) {}
  virtual void didUpdateContentsOfFileAtPath(Manager /*documentManager*/, const std::string& /*path*/) {}
  virtual void didUpdateThumbnailOfFileAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                              const URL& /*url*/) {}
  virtual void didFailToUpdateItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                         const Error& /*error*/) {}
  virtual void didStartDownloadingItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                             const DCServerRequest::Ptr& /*downloadTask*/) {}
  virtual void didStartUploadingItemAtPath(Manager /*documentManager*/, const std::string& /*path*/,
                                           const std::shared_ptr<DCManagedUpload>& /*upload*/) {}
};

}  // namespace florvane

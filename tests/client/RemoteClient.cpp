#include "tests/client/RemoteClient.h"

#include <stdexcept>

namespace florvane::test {

namespace {

std::shared_ptr<DCService> makeService(std::uint16_t port, const std::string& user, const std::string& password) {
  Account account;
  account.name = "office";
  account.userName = user;
  account.hostName = "127.0.0.1";
  account.dataClassPortNumber = port;
  auto store = AccountStore::shared();
  if (!store) throw std::runtime_error(store.error().description());
  auto added = (*store)->add(account, Secret(password));
  if (!added) throw std::runtime_error(added.error().description());
  return DCService::serviceWithAccount(*added);
}

}  // namespace

RemoteClient::RemoteClient(std::uint16_t port, const std::string& user, const std::string& password)
    : service(makeService(port, user, password)),
      sessionManager(HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(service)),
      manager(DCRemoteDocumentManager::remoteDocumentManagerForService(service)) {
  activityInfo = DCActivityInfo::activityInfoWithQueue(
      FVFQueueManager::sharedQueueManager().queueForServiceWithUniqueIdentifier(service->uniqueIdentifier()));
}

Outcome RemoteClient::wait(const Start& start) {
  auto promise = std::make_shared<std::promise<Outcome>>();
  activityInfo->queue()->dispatchAsynchronousBlock([start, promise] {
    start([promise](const FVFResponseContainer::Ptr& answer, const std::optional<Error>& error) {
      Outcome outcome;
      outcome.error = error;
      if (answer) {
        outcome.metadata = answer->metadata();
        outcome.transferType = answer->transferType();
        if (auto bytes = readFile(answer->url()->path())) outcome.body = std::string(bytes->view());
      }
      promise->set_value(std::move(outcome));
    });
  });
  return promise->get_future().get();
}

Outcome RemoteClient::root(const std::optional<Data>& unlessVersion) {
  return wait([this, unlessVersion](DCRemoteCompletionHandler handler) {
    manager->contentsOfRootDirectoryUnlessVersionIdentifier(unlessVersion, activityInfo, std::move(handler));
  });
}

Outcome RemoteClient::list(const Dictionary& directory, const std::optional<Data>& unlessVersion) {
  return wait([this, directory, unlessVersion](DCRemoteCompletionHandler handler) {
    manager->contentsOfDirectoryWithDocumentIdentifier(*directory.data(FVDocumentIdentifierKey), unlessVersion,
                                                       activityInfo, std::move(handler));
  });
}

Outcome RemoteClient::cat(const Dictionary& file, const std::optional<Data>& unlessVersion) {
  return wait([this, file, unlessVersion](DCRemoteCompletionHandler handler) {
    manager->contentsOfFileWithDocumentIdentifier(*file.data(FVDocumentIdentifierKey), unlessVersion, activityInfo,
                                                  std::move(handler));
  });
}

Dictionary RemoteClient::entry(const Outcome& listing, const std::string& name) {
  if (listing.error) throw std::runtime_error(listing.error->description());
  auto list = readPropertyList(Data::fromString(listing.body.value_or("")));
  auto entries = list ? list->asArray() : std::nullopt;
  if (!entries) throw std::runtime_error("no listing");
  for (const Value& each : *entries) {
    auto entry = each.asDictionary();
    if (entry && entry->string(ResourceNameKey) == name) return *entry;
  }
  throw std::runtime_error("no entry named " + name);
}

Outcome RemoteClient::share(const std::string& name) {
  Dictionary share = entry(root(), name);
  activityInfo = DCActivityInfo::activityInfoWithQueue(activityInfo->queue(), share.data(FVDocumentIdentifierKey));
  return list(share);
}

}  // namespace florvane::test

#pragma once

#include "Client/Client/DCPreferences.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFRequestUtils.h"
#include "common/PUAdditions.h"
#include "platform/ResourceValues.h"
#include "tests/client/DocumentClient.h"
#include "tests/support/ScriptedServer.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace florvane::test {

inline Data identifier(std::string_view text) { return Data::fromString(text); }

// A server whose answers a test writes itself, by command and document ("ls d", "cat f", "root"), and a client that is
// signed in to it.
class ScriptedTree {
 public:
  ScriptedTree()
      : certificate_(makeCertificate()),
        server([this](ScriptedServer::Connection& connection) { serve(connection); }, certificate_),
        client(server.port()) {
    auto stored = DCPreferences::preferences()->setAuthCookie(Secret("k=scripted"), certificate_.der(), client.service);
    if (!stored) throw std::runtime_error(stored.error().description());
    HTTPSASLClientSessionManager::HTTPSASLClientSessionManagerForService(client.service)
        ->restoreCachedCookieAndCertDataFromPreferences();
    list("root", directory("", "root", "1"), {directory("S", "s", "1")});
  }

  Dictionary item(const std::string& name, const std::string& document, const std::string& version, const char* type) {
    return {{ResourceNameKey, name},
            {FVDocumentIdentifierKey, identifier(document)},
            {FVVersionIdentifierKey, identifier(version)},
            {ResourceFileResourceTypeKey, type},
            {ResourceContentModificationDateKey, date}};
  }
  Dictionary file(const std::string& name, const std::string& document, const std::string& version) {
    return item(name, document, version, ResourceTypeRegular);
  }
  Dictionary directory(const std::string& name, const std::string& document, const std::string& version) {
    return item(name, document, version, ResourceTypeDirectory);
  }

  void list(const std::string& command, const Dictionary& metadata, const Array& entries) {
    answer(command, metadata, std::string(writePropertyList(entries, PropertyListFormat::Binary)->view()));
  }
  void answer(const std::string& command, const Dictionary& metadata, const std::string& body) {
    std::string text = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
                       DUHeaderTransferTypeKey + ": 1\r\nETag: " + pu_hex(*metadata.data(FVVersionIdentifierKey)) +
                       "\r\n" + DUHeaderMetadataKey + ": " +
                       *FVFMetadataUtils::headerFromMetadata(metadata, PropertyListFormat::Binary) + "\r\n\r\n" + body;
    std::lock_guard lock(mutex_);
    answers_[command] = text;
  }
  // The next request of that command waits for the signal, and says by the other that it waits.
  void hold(const std::string& command) {
    std::lock_guard lock(mutex_);
    held_[command] = {std::make_shared<Signal>(), std::make_shared<Signal>()};
  }
  bool waitForHeld(const std::string& command) { return signals(command).first->wait(); }
  void release(const std::string& command) { signals(command).second->raise(); }
  std::size_t requestsOf(const std::string& command) {
    std::lock_guard lock(mutex_);
    return counts_[command];
  }

  Date date = Date::fromMicroseconds(1'600'000'000'000'000);

 private:
  using Signals = std::pair<std::shared_ptr<Signal>, std::shared_ptr<Signal>>;

  Signals signals(const std::string& command) {
    std::lock_guard lock(mutex_);
    return held_.at(command);
  }
  void serve(ScriptedServer::Connection& connection) {
    while (auto request = connection.read()) {
      constexpr std::string_view prefix = "/fv/v1/";
      // Signing in is refused like all that no test has an answer for.
      std::string command = request->target.starts_with(prefix) ? request->target.substr(prefix.size()) : "none";
      auto query = command.find("?d=");
      if (query != std::string::npos) {
        std::string hex = command.substr(query + 3);
        hex = hex.substr(0, hex.find('&'));
        command = command.substr(0, query) + " " + std::string(pu_dataFromHexString(hex)->view());
      } else {
        command = command.substr(0, command.find('?'));
      }
      Signals held;
      std::string text;
      {
        std::lock_guard lock(mutex_);
        ++counts_[command];
        if (auto found = held_.find(command); found != held_.end() && holding_.insert(command).second) {
          held = found->second;
        }
        // What the server knew when it was asked.
        auto found = answers_.find(command);
        text = found == answers_.end() ? "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n" : found->second;
      }
      if (held.first) {
        held.first->raise();
        held.second->wait();
      }
      connection.send(text);
    }
  }

  std::mutex mutex_;
  std::map<std::string, std::string> answers_;
  std::map<std::string, Signals> held_;
  std::set<std::string> holding_;
  std::map<std::string, std::size_t> counts_;
  const Certificate certificate_;

 public:
  ScriptedServer server;
  DocumentClient client;
};

}  // namespace florvane::test

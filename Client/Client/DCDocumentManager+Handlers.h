#pragma once

#include "Client/Client/DCDocumentManager.h"
#include "Client/Client/DCLog.h"
#include "platform/Format.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace florvane {

// A handler that several pieces of work pass on, of whom one calls it.
template <typename... Args>
using SharedHandler = std::shared_ptr<CompletionHandler<Args...>>;

template <typename... Args>
SharedHandler<Args...> shareHandler(CompletionHandler<Args...> handler) {
  return std::make_shared<CompletionHandler<Args...>>(std::move(handler));
}

// A handler as trace lines show it; absent where there is none.
template <typename... Args>
std::optional<std::string> handlerText(const CompletionHandler<Args...>& handler) {
  return handler ? std::optional(baseDescription("Block", &handler)) : std::nullopt;
}

// Submits a caller's handler, if there is one, to the completion handler queue. The line is the caller's.
template <typename... Args, typename... Values>
void callUserHandler(const DCDocumentManager& manager, const SharedHandler<Args...>& handler, const char* function,
                     unsigned line, Values... values) {
  if (!handler || !*handler) return;
  DCLogCallback(DCLogLevelDebug, "%@: Calling completion handler %@ at %s:%u", manager,
                baseDescription("Block", handler.get()), function, line);
  manager.completionHandlerQueue()->async(
      [handler, ... settled = Args(std::move(values))]() mutable { (*handler)(std::move(settled)...); });
}

}  // namespace florvane

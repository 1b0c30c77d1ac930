#include "platform/TransferProtocol.h"

#include "platform/PropertyList.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace florvane {

namespace {

constexpr std::size_t kLengthBytes = 4;
constexpr PropertyListLimits kLimits = {.depth = 16, .values = 100'000};
constexpr int kDeepestError = 8;

Array encodeHeaders(const HTTPHeaders& headers) {
  Array fields;
  fields.reserve(2 * headers.fields().size());
  for (const auto& [name, value] : headers.fields()) {
    fields.append(Data::fromString(name));
    fields.append(Data::fromString(value));
  }
  return fields;
}

HTTPHeaders decodeHeaders(const std::optional<Array>& fields) {
  HTTPHeaders headers;
  if (!fields) return headers;
  for (std::size_t i = 0; i + 1 < fields->size(); i += 2) {
    headers.add((*fields)[i].dataBytes(), (*fields)[i + 1].dataBytes());
  }
  return headers;
}

std::optional<std::string> bytesOf(const Dictionary& dictionary, std::string_view key) {
  auto data = dictionary.data(key);
  if (!data) return std::nullopt;
  return std::string(data->view());
}

Dictionary encodeError(const Error& error, int depth) {
  Dictionary userInfo;
  for (const auto& [key, value] : error.userInfo()) {
    if (writePropertyList(value, PropertyListFormat::Binary)) userInfo.set(key, value);
  }
  Dictionary dictionary{{"domain", error.domain()}, {"code", error.code()}, {"userInfo", userInfo}};
  if (error.underlyingError() && depth < kDeepestError) {
    dictionary.set("underlying", encodeError(*error.underlyingError(), depth + 1));
  }
  return dictionary;
}

}  // namespace

TransferServer TransferServer::of(const URL& url) {
  std::string host = url.host();
  std::transform(host.begin(), host.end(), host.begin(), [](unsigned char c) { return std::tolower(c); });
  return {std::move(host), url.effectivePort()};
}

Result<Data> encodeTransferFrame(const Dictionary& frame) {
  auto list = writePropertyList(frame, PropertyListFormat::Binary);
  if (!list) return list;
  if (list->size() > kMostTransferFrameBytes) {
    return Failure(Error(URLErrorDomain, URLErrorDataLengthExceedsMaximum, "The message is too large for the agent."));
  }
  DataBuilder builder;
  builder.reserve(kLengthBytes + list->size());
  for (std::size_t i = 0; i < kLengthBytes; ++i) builder.append(static_cast<std::uint8_t>(list->size() >> (8 * i)));
  builder.append(list->view());
  return builder.finish();
}

void TransferFrameReader::append(std::span<const std::uint8_t> bytes) {
  if (begin_ == bytes_.size()) {
    bytes_.clear();
    begin_ = 0;
  }
  bytes_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

Result<std::optional<Dictionary>> TransferFrameReader::next() {
  std::size_t available = bytes_.size() - begin_;
  if (available < kLengthBytes) return std::nullopt;
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthBytes; ++i) {
    length |= std::size_t{static_cast<std::uint8_t>(bytes_[begin_ + i])} << (8 * i);
  }
  if (length > kMostTransferFrameBytes) {
    return Failure(Error(URLErrorDomain, URLErrorDataLengthExceedsMaximum, "The frame is too large."));
  }
  if (available < kLengthBytes + length) {
    // Frames that were read are dropped here, so that no byte is moved twice for each of many small ones.
    bytes_.erase(0, begin_);
    begin_ = 0;
    return std::nullopt;
  }
  auto list = readPropertyList(Data(bytes_.data() + begin_ + kLengthBytes, length), kLimits);
  begin_ += kLengthBytes + length;
  if (!list) return Failure(list.error());
  auto dictionary = list->asDictionary();
  if (!dictionary) {
    return Failure(Error(QuilbarErrorDomain, PropertyListReadCorruptError, "The frame is no dictionary."));
  }
  return dictionary;
}

Dictionary encodeTransferRequest(const URLRequest& request) {
  return {{"url", request.url.absoluteString()},
          {"method", request.method},
          {"headers", encodeHeaders(request.headers)},
          {"timeout", request.timeoutInterval.count()}};
}

std::optional<URLRequest> decodeTransferRequest(const Dictionary& dictionary) {
  auto text = dictionary.string("url");
  auto url = text ? URL::fromString(*text) : std::nullopt;
  auto method = dictionary.string("method");
  auto timeout = dictionary.integer("timeout");
  if (!url || !method || !timeout) return std::nullopt;
  URLRequest request(*url);
  request.method = *method;
  request.headers = decodeHeaders(dictionary.array("headers"));
  request.timeoutInterval = Duration(*timeout);
  return request;
}

Dictionary encodeTransferResponse(const HTTPURLResponse& response) {
  return {{"url", response.url().absoluteString()},
          {"status", response.statusCode()},
          {"headers", encodeHeaders(response.headers())}};
}

std::shared_ptr<const HTTPURLResponse> decodeTransferResponse(const Dictionary& dictionary) {
  auto text = dictionary.string("url");
  auto url = text ? URL::fromString(*text) : std::nullopt;
  auto status = dictionary.integer("status");
  if (!url || !status) return nullptr;
  return std::make_shared<const HTTPURLResponse>(*url, static_cast<int>(*status),
                                                 decodeHeaders(dictionary.array("headers")));
}

Dictionary encodeTransferError(const Error& error) { return encodeError(error, 0); }

std::optional<Error> decodeTransferError(const Dictionary& dictionary) {
  auto domain = dictionary.string("domain");
  auto code = dictionary.integer("code");
  if (!domain || !code) return std::nullopt;
  Error error(*domain, *code, dictionary.dictionary("userInfo").value_or(Dictionary()));
  auto underlying = dictionary.dictionary("underlying");
  auto cause = underlying ? decodeTransferError(*underlying) : std::nullopt;
  return cause ? error.withUnderlyingError(*cause) : error;
}

Dictionary encodeTransferTask(const TransferTask& task, bool withCookie) {
  Dictionary dictionary{{"request", encodeTransferRequest(task.request)},
                        {"source", Data::fromString(task.sourcePath)},
                        {"path", Data::fromString(task.transfer.path)}};
  if (task.transfer.generationIdentifier) dictionary.set("generation", *task.transfer.generationIdentifier);
  if (task.transfer.pinnedCertificate) dictionary.set("pin", *task.transfer.pinnedCertificate);
  if (withCookie && task.cookie) dictionary.set("cookie", task.cookie->revealData());
  return dictionary;
}

std::optional<TransferTask> decodeTransferTask(const Dictionary& dictionary) {
  auto encoded = dictionary.dictionary("request");
  auto request = encoded ? decodeTransferRequest(*encoded) : std::nullopt;
  auto source = bytesOf(dictionary, "source");
  auto path = bytesOf(dictionary, "path");
  if (!request || !source || !path) return std::nullopt;
  TransferTask task(std::move(*request));
  task.sourcePath = std::move(*source);
  task.transfer.path = std::move(*path);
  task.transfer.generationIdentifier = dictionary.data("generation");
  task.transfer.pinnedCertificate = dictionary.data("pin");
  if (auto cookie = dictionary.data("cookie")) task.cookie = Secret(cookie->view());
  return task;
}

}  // namespace florvane

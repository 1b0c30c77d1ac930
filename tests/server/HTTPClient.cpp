#include "tests/server/HTTPClient.h"

#include "platform/Encoding.h"
#include "platform/PropertyList.h"
#include "tests/support/Process.h"

#include <stdexcept>

namespace florvane::test {

namespace {

std::optional<HTTPClient::Item> find(const Value& listing, const std::string& name) {
  for (std::size_t i = 0; i < listing.arraySize(); ++i) {
    auto entry = listing.arrayBegin()[i].asDictionary();
    if (entry && entry->string("ResourceNameKey") == name) {
      return HTTPClient::Item{hexEncode(entry->data("FVDocumentIdentifierKey").value()),
                              hexEncode(entry->data("FVVersionIdentifierKey").value())};
    }
  }
  return std::nullopt;
}

Value parse(const std::optional<Data>& bytes) {
  auto list = bytes ? readPropertyList(*bytes) : Result<Value>(Value());
  return list ? *list : Value();
}

}  // namespace

std::string HTTPAnswer::field(const std::string& name) const {
  std::size_t begin = header.rfind("\r\n" + name + ": ");
  if (begin == std::string::npos) return {};
  begin += name.size() + 4;
  return header.substr(begin, header.find("\r\n", begin) - begin);
}

Value HTTPAnswer::list() const { return parse(Data::fromString(body)); }

Dictionary HTTPAnswer::metadata() const {
  return parse(base64Decode(field("X-Quorl-Florvane-Metadata"))).asDictionary().value_or(Dictionary());
}

HTTPClient::HTTPClient(TestServer& server, bool isSignedIn) : server_(server) {
  if (isSignedIn) cookie_ = server.makeCookie().reveal();
}

HTTPAnswer HTTPClient::get(const std::string& target, std::vector<std::string> arguments) {
  return request(target, std::move(arguments));
}

HTTPAnswer HTTPClient::post(const std::string& target, const std::string& body, std::vector<std::string> arguments) {
  writeText(folder_.file("request"), body);
  arguments.insert(arguments.end(), {"--data-binary", "@" + folder_.file("request"), "-H", "Content-Type:"});
  return request(target, std::move(arguments));
}

HTTPAnswer HTTPClient::request(const std::string& target, std::vector<std::string> arguments) {
  writeText(folder_.file("body"), "");
  std::vector<std::string> command = {"curl",       "-sS", "-k", "-g",          "--path-as-is",
                                      "--max-time", "120", "-w", "%{http_code}"};
  command.insert(command.end(), {"-D", folder_.file("header"), "-o", folder_.file("body")});
  if (!cookie_.empty()) command.insert(command.end(), {"-H", "Cookie: " + cookie_});
  if (keepsCookies_) command.insert(command.end(), {"-b", folder_.file("jar"), "-c", folder_.file("jar")});
  command.insert(command.end(), arguments.begin(), arguments.end());
  command.push_back(server_.url() + target);
  ProcessResult result = runProcess(command);
  HTTPAnswer answer;
  if (result.standardOutput.size() == 3) answer.status = std::stoi(result.standardOutput);
  if (answer.status == 0) throw std::runtime_error(result.standardError);
  answer.header = readText(folder_.file("header"));
  answer.body = readText(folder_.file("body"));
  return answer;
}

HTTPClient::Item HTTPClient::share(const std::string& name) {
  Item item = find(get("/fv/v1/root").list(), name).value();
  item.version = get("/fv/v1/ls?d=" + item.identifier).field("ETag");
  return item;
}

std::optional<HTTPClient::Item> HTTPClient::child(const std::string& directory, const std::string& name) {
  return find(get("/fv/v1/ls?d=" + directory).list(), name);
}

}  // namespace florvane::test

#include "platform/Encoding.h"
#include "platform/PropertyList.h"
#include "platform/URL.h"
#include "tests/server/HTTPClient.h"
#include "tests/support/ManualClock.h"
#include "tests/support/Process.h"

#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace florvane::test {
namespace {

using namespace std::chrono_literals;

std::string metadataField(const Dictionary& metadata) {
  return "X-Quorl-Florvane-Metadata: " + base64Encode(*writePropertyList(metadata, PropertyListFormat::Binary));
}

std::string writeTarget(const std::string& folder, const std::string& name) {
  // Encoded for the path, then for the query.
  return "/fv/v1/write?n=" + percentEncode(percentEncode(name, URLPathAllowedCharacters), "") + "&D=" + folder;
}

std::string watchBody(const std::vector<HTTPClient::Item>& items) {
  Array list;
  for (const auto& each : items) {
    list.append(*hexDecode(each.identifier));
    list.append(*hexDecode(each.version));
  }
  return std::string(writePropertyList(list, PropertyListFormat::Binary)->view());
}

TEST(Server, ListsAndFetches) {
  TestServer server;
  std::string contents(3'000'000, '\0');
  for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * 2654435761U >> 13);
  writeText(server.files() + "/large.bin", contents);
  writeText(server.files() + "/empty", "");
  HTTPClient client(server);
  HTTPAnswer root = client.get("/fv/v1/root");
  ASSERT_EQ(root.status, 200);
  EXPECT_EQ(root.field("X-Quorl-Florvane-Transfer-Type"), "1");
  EXPECT_THAT(root.field("ETag"), testing::MatchesRegex("[0-9a-f]+"));
  EXPECT_TRUE(root.metadata().contains("ResourceNameKey"));
  EXPECT_EQ(root.list().arraySize(), 3U);
  for (const std::string& known :
       {root.field("ETag"), "\"" + root.field("ETag") + "\"", "W/\"" + root.field("ETag") + "\""}) {
    HTTPAnswer again = client.get("/fv/v1/root", {"-H", "If-None-Match: " + known});
    EXPECT_EQ(again.status, 304);
    EXPECT_EQ(again.field("ETag"), root.field("ETag"));
  }
  EXPECT_EQ(client.get("/fv/v1/root", {"-H", "If-None-Match;"}).status, 200) << "an empty version is never current";

  auto files = client.share("Files");
  auto large = client.child(files.identifier, "large.bin");
  ASSERT_TRUE(large);
  HTTPAnswer fetched = client.get("/fv/v1/cat?d=" + large->identifier + "&s=" + files.identifier);
  EXPECT_EQ(fetched.status, 200);
  EXPECT_EQ(fetched.field("Content-Length"), "3000000");
  EXPECT_EQ(fetched.field("ETag"), large->version);
  EXPECT_EQ(fetched.metadata().string("ResourceNameKey"), "large.bin");
  EXPECT_TRUE(fetched.body == contents);
  EXPECT_EQ(client.get("/fv/v1/cat?d=" + large->identifier, {"-H", "If-None-Match: " + large->version}).status, 304);
  EXPECT_EQ(client.get("/fv/v1/cat?d=" + client.child(files.identifier, "empty")->identifier).body, "");
}

TEST(Server, SaysWhyItRefuses) {
  TestServer server;
  writeText(server.library() + "/book", "text");
  HTTPClient client(server), stranger(server, false);
  EXPECT_EQ(stranger.get("/fv/v1/root").status, 401);
  stranger.setCookie("k=" + base64Encode(Data::fromString(std::string(32, 'x'))));
  EXPECT_EQ(stranger.get("/fv/v1/root").status, 401);
  stranger.setCookie("other=1; " + stranger.cookie() + "; " + client.cookie());
  EXPECT_EQ(stranger.get("/fv/v1/root").status, 200) << "the right cookie counts among others";

  std::string library = client.share("Library").identifier;
  std::string book = client.child(library, "book")->identifier;
  HTTPAnswer wrongMethod = client.post("/fv/v1/ls?d=" + library, "");
  EXPECT_EQ(wrongMethod.status, 405);
  EXPECT_EQ(wrongMethod.field("Allow"), "GET");
  for (const char* target : {"/", "/fv/v1/", "/fv/v2/root", "/fv/v1/delete", "/x/v1/root"}) {
    EXPECT_EQ(client.get(target).status, 404) << target;
  }
  for (const char* target : {"/fv/v1/ls", "/fv/v1/ls?d=", "/fv/v1/cat?d=xyz"}) {
    HTTPAnswer answer = client.get(target);
    EXPECT_TRUE(answer.status == 400 || answer.status == 404) << target << answer.status;
    EXPECT_THAT(answer.body, testing::EndsWith("."));
  }
  EXPECT_EQ(client.get("/fv/v1/cat?d=00112233445566778899aabbccddeeff").status, 404);
  EXPECT_EQ(client.post(writeTarget(library, "new"), "x").status, 403);
  EXPECT_EQ(client.post("/fv/v1/replace?d=" + book + "&v=00", "x").status, 403);
  EXPECT_EQ(client.post("/fv/v1/write?D=" + library, "x").status, 400);
  EXPECT_EQ(client.post("/fv/v1/watch", "no list").status, 400);
  EXPECT_EQ(client.post("/fv/v1/watch", watchBody({})).status, 400);
  EXPECT_EQ(
      client.post(writeTarget(client.share("Files").identifier, "new"), "x", {"-H", "X-Quorl-Florvane-Metadata: AAAA"})
          .status,
      400);
  EXPECT_EQ(client.get("/fv/v1/root", {"-H", "@/proc/self/cmdline", "-H", "X: " + std::string(100'000, 'x')}).status,
            200);
}

TEST(Server, StoresWhatIsSent) {
  TestServer server([](ServerOptions& options) { options.maximumUploadSize = 2'000'000; });
  HTTPClient client(server);
  auto files = client.share("Files");
  std::string name = "50% of A&B + Zoë.txt", contents(1'500'000, 'a');
  // As large as metadata may be, so given to curl in a file.
  TemporaryDirectory folder;
  writeText(folder.file("fields"), metadataField({{"ResourceNameKey", name}, {"Filling", std::string(780'000, 'f')}}));
  HTTPAnswer written = client.post(writeTarget(files.identifier, name), contents, {"-H", "@" + folder.file("fields")});
  ASSERT_EQ(written.status, 200) << written.body;
  EXPECT_EQ(written.field("X-Quorl-Florvane-Transfer-Type"), "1");
  HTTPAnswer listing = client.get("/fv/v1/ls?d=" + files.identifier);
  EXPECT_EQ(written.field("ETag"), listing.field("ETag"));
  EXPECT_EQ(written.body, listing.body);
  EXPECT_EQ(written.list().arraySize(), 1U);
  EXPECT_EQ(readText(server.files() + "/" + name), contents);
  EXPECT_EQ(client.post(writeTarget(files.identifier, name), "other").status, 409);

  auto stored = client.child(files.identifier, name);
  ASSERT_TRUE(stored);
  std::string replace = "/fv/v1/replace?d=" + stored->identifier + "&D=" + files.identifier;
  EXPECT_EQ(client.post(replace, "newer").status, 409);
  EXPECT_EQ(client.post(replace + "&v=0011", "newer").status, 409);
  EXPECT_EQ(readText(server.files() + "/" + name), contents);
  EXPECT_EQ(client.post(replace + "&v=" + stored->version, "newer", {"-H", "Transfer-Encoding: chunked"}).status, 200);
  EXPECT_EQ(readText(server.files() + "/" + name), "newer");

  HTTPAnswer dropped = client.post(writeTarget(client.share("Inbox").identifier, "letter"), "dear");
  EXPECT_EQ(dropped.status, 200);
  EXPECT_EQ(dropped.field("X-Quorl-Florvane-Transfer-Type"), "4");
  EXPECT_EQ(dropped.body, "");
  EXPECT_EQ(readText(server.inbox() + "/letter"), "dear");
}

// Sends all of its body before it reads, as a client may.
constexpr char stubbornClient[] = R"(
import socket, ssl, sys
port, cookie, target, size, framing = int(sys.argv[1]), sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5]
context = ssl._create_unverified_context()
server = context.wrap_socket(socket.create_connection(('127.0.0.1', port)))
head = f'POST {target} HTTP/1.1\r\nHost: h\r\nCookie: {cookie}\r\n'
if framing == 'chunked':
    server.sendall((head + 'Transfer-Encoding: chunked\r\n\r\n').encode())
    for _ in range(size // 65536):
        server.sendall(b'10000\r\n' + b'x' * 65536 + b'\r\n')
    server.sendall(b'0\r\n\r\n')
else:
    server.sendall((head + f'Content-Length: {size}\r\n\r\n').encode())
    for _ in range(size // 65536):
        server.sendall(b'x' * 65536)
print(server.recv(100).split(b'\r\n')[0].decode())
)";

TEST(Server, RefusalsArriveThroughLargeBodies) {
  TestServer server([](ServerOptions& options) { options.maximumUploadSize = 8 << 20; });
  HTTPClient client(server);
  std::string library = client.share("Library").identifier, files = client.share("Files").identifier;
  struct Case {
    std::string cookie, target, framing;
    int mebibytes;
    std::string statusLine;
  };
  for (const Case& each :
       {Case{client.cookie(), writeTarget(library, "new"), "length", 7, "HTTP/1.1 403 Forbidden\n"},
        Case{client.cookie(), writeTarget(files, "new"), "length", 32, "HTTP/1.1 413 Content Too Large\n"},
        Case{client.cookie(), writeTarget(files, "new"), "chunked", 32, "HTTP/1.1 413 Content Too Large\n"},
        Case{"k=stale", writeTarget(files, "new"), "chunked", 32, "HTTP/1.1 401 Unauthorized\n"},
        Case{client.cookie(), "/fv/v1/watch", "length", 32, "HTTP/1.1 413 Content Too Large\n"}}) {
    ProcessResult result = runPython(stubbornClient, {std::to_string(server.port()), each.cookie, each.target,
                                                      std::to_string(each.mebibytes << 20), each.framing});
    EXPECT_EQ(result.standardOutput, each.statusLine) << result.standardError;
  }
  for (const auto& each : std::filesystem::recursive_directory_iterator(server.files())) {
    EXPECT_FALSE(each.is_regular_file()) << "nothing stays of what was refused: " << each.path();
  }
}

TEST(Server, ATornUploadLeavesNothing) {
  TestServer server;
  HTTPClient client(server);
  std::string target = writeTarget(client.share("Files").identifier, "torn");
  runPython(R"(
import socket, ssl, sys
server = ssl._create_unverified_context().wrap_socket(socket.create_connection(('127.0.0.1', int(sys.argv[1]))))
server.sendall(f'POST {sys.argv[3]} HTTP/1.1\r\nHost: h\r\nCookie: {sys.argv[2]}\r\nContent-Length: 9000000\r\n\r\n'.encode())
server.sendall(b'x' * 3000000)
)",
            {std::to_string(server.port()), client.cookie(), target});
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(server.files() + "/torn"));
}

// Opens a thousand watches of one folder, checks that other requests are served meanwhile, changes the folder, and
// counts the answers.
constexpr char thousandWatches[] = R"(
import asyncio, ssl, sys, plistlib
port, cookie, body, folder = int(sys.argv[1]), sys.argv[2], bytes.fromhex(sys.argv[3]), sys.argv[4]
context = ssl._create_unverified_context()
limit = asyncio.Semaphore(50)
async def opened(method, target, body):
    async with limit:
        reader, writer = await asyncio.open_connection('127.0.0.1', port, ssl=context)
    writer.write(f'{method} {target} HTTP/1.1\r\nHost: h\r\nCookie: {cookie}\r\nContent-Length: {len(body)}\r\n\r\n'.encode() + body)
    await writer.drain()
    return reader, writer
async def answer(connection):
    head = await connection[0].readuntil(b'\r\n\r\n')
    length = [int(l.split(b':')[1]) for l in head.split(b'\r\n') if l.startswith(b'Content-Length')][0]
    return head.split(b'\r\n')[0].decode(), await connection[0].readexactly(length)
async def main():
    watches = await asyncio.gather(*(opened('POST', '/fv/v1/watch', body) for _ in range(1000)))
    answers = [asyncio.create_task(answer(watch)) for watch in watches]
    print((await answer(await opened('GET', '/fv/v1/root', b'')))[0])
    print(sum(task.done() for task in answers), 'answered before the change')
    open(folder + '/change', 'w').close()
    good = 0
    for task in answers:
        status, data = await task
        pairs = plistlib.loads(data)
        good += status == 'HTTP/1.1 200 OK' and len(pairs) == 2 and pairs[1] != plistlib.loads(body)[1]
    print(good, 'answered')
asyncio.run(main())
)";

TEST(Server, HoldsAThousandWatches) {
  TestServer server;
  HTTPClient client(server);
  Data body = Data::fromString(watchBody({client.share("Files")}));
  ProcessResult result =
      runPython(thousandWatches, {std::to_string(server.port()), client.cookie(), hexEncode(body), server.files()});
  EXPECT_EQ(result.standardOutput, "HTTP/1.1 200 OK\n0 answered before the change\n1000 answered\n")
      << result.standardError;
}

TEST(Server, AnswersAWatchInTheEnd) {
  ManualClock clock;
  TestServer server({}, clock);
  writeText(server.files() + "/short-lived", "");
  HTTPClient client(server), watcher(server);
  auto files = client.share("Files"), library = client.share("Library");
  auto gone = *client.child(files.identifier, "short-lived");
  std::filesystem::remove(server.files() + "/short-lived");
  EXPECT_EQ(client.post("/fv/v1/watch", watchBody({gone})).status, 404);
  HTTPAnswer rest = client.post("/fv/v1/watch", watchBody({library, gone}));
  EXPECT_EQ(rest.status, 200);
  EXPECT_EQ(rest.body, watchBody({library}));

  std::size_t before = clock.pendingTimers();
  HTTPAnswer answer;
  std::thread waiting([&] { answer = watcher.post("/fv/v1/watch", watchBody({library})); });
  while (clock.pendingTimers() == before) std::this_thread::yield();  // until the watch is held
  clock.advance(241s);
  waiting.join();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, watchBody({library})) << "unchanged pairs, so that the client asks again";
}

TEST(Server, KeepsItsStateToItself) {
  TestServer server;
  HTTPClient client(server);
  Data certificate = server->certificateDER();
  server.restart();
  EXPECT_EQ(client.get("/fv/v1/root").status, 200) << "sessions outlive a restart";
  EXPECT_EQ(server->certificateDER(), certificate);
  EXPECT_EQ(std::filesystem::status(server.stateFolder()).permissions(), std::filesystem::perms::owner_all);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(server.stateFolder())) {
    struct stat info{};
    ASSERT_EQ(lstat(entry.path().c_str(), &info), 0);
    std::string name = entry.path().filename();
    if (name == "certificate.pem" || name.starts_with("documents.")) continue;  // no secrets of their own
    EXPECT_EQ(info.st_mode & 077, 0U) << entry.path();
  }
  ProcessResult shown = runProcess(
      {"openssl", "x509", "-in", server.stateFolder() + "/certificate.pem", "-noout", "-ext", "subjectAltName"});
  EXPECT_THAT(shown.standardOutput,
              testing::HasSubstr("DNS:localhost, IP Address:127.0.0.1, IP Address:0:0:0:0:0:0:0:1"));
  EXPECT_EQ(runProcess({"openssl", "verify", "-CAfile", server.stateFolder() + "/certificate.pem",
                        server.stateFolder() + "/certificate.pem"})
                .exitStatus,
            0);

  ServerOptions options;
  options.stateDirectory = server.stateFolder();
  options.port = 0;
  Server second(options);
  auto started = second.start();
  ASSERT_FALSE(started);
  EXPECT_THAT(started.error().localizedDescription(), testing::HasSubstr("Another server is running"));

  EXPECT_EQ(server->revokeAllSessions(), 1U);
  EXPECT_EQ(client.get("/fv/v1/root").status, 401);
  server.forgetCertificate();
  server.restart();
  EXPECT_FALSE(server->certificateDER() == certificate);
}

// Starts the program, waits for its line, asks it something with a certificate check, and ends it by a signal.
constexpr char programUser[] = R"(
import signal, socket, ssl, subprocess, sys
program = subprocess.Popen(sys.argv[3:], stdout=subprocess.PIPE)
line = program.stdout.readline().decode()
host, port = line.split('//')[1].rsplit(':', 1)
context = ssl.create_default_context(cafile=sys.argv[2])
server = context.wrap_socket(socket.create_connection((host.strip('[]'), int(port))), server_hostname=host.strip('[]'))
server.sendall(b'GET /fv/v1/root HTTP/1.1\r\nHost: h\r\n\r\n')
print(line.replace(port.strip(), 'PORT').strip(), server.recv(100).split(b'\r\n')[0].decode())
program.send_signal(getattr(signal, sys.argv[1]))
print(program.wait(), repr(program.stdout.read().decode()))
)";

TEST(Program, ServesUntilASignalAndAdministers) {
  TemporaryDirectory folder;
  std::string program = std::string(FLORVANE_BIN_DIR) + "/florvaned", state = folder.file("state");
  writeText(folder.file("password"), "a word\n");
  std::filesystem::create_directory(folder.file("share"));
  auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program);
    arguments.insert(arguments.end(), {"--state", state});
    return runProcess(arguments);
  };
  ProcessResult added = run({"user", "add", "ada", "--password-file", folder.file("password")});
  EXPECT_EQ(added.exitStatus, 0) << added.standardError;
  EXPECT_EQ(run({"user", "add", "ada", "--password-file", folder.file("password")}).exitStatus, 1);
  EXPECT_EQ(run({"user", "list"}).standardOutput, "ada\n");
  EXPECT_EQ(run({"user", "add", "grace"}).standardError,
            "florvaned: There is no terminal to ask for a password; use --password-file.\n");
  EXPECT_EQ(run({}).exitStatus, 2) << "nothing to share";
  EXPECT_EQ(run({"--share", "Files"}).exitStatus, 2);
  EXPECT_EQ(run({"--share", "Files=" + folder.file("nowhere"), "--listen", "127.0.0.1:0"}).exitStatus, 1);
  ASSERT_EQ(run({"user", "remove", "ada"}).exitStatus, 0);
  EXPECT_EQ(run({"sessions", "revoke"}).standardOutput, "0 sessions ended\n");

  // Made by hand, since the program makes its own only once it serves.
  ProcessResult made = runProcess({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=test",
                                   "-addext", "subjectAltName=IP:127.0.0.1,IP:::1", "-keyout", folder.file("key.pem"),
                                   "-out", folder.file("certificate.pem")});
  ASSERT_EQ(made.exitStatus, 0) << made.standardError;
  for (auto [signal, host] : {std::pair("SIGTERM", "127.0.0.1"), std::pair("SIGINT", "[::1]")}) {
    ProcessResult served =
        runPython(programUser, {signal, folder.file("certificate.pem"), program, "--state", state, "--share",
                                "Files=" + folder.file("share") + ":ro", "--listen", std::string(host) + ":0",
                                "--certificate", folder.file("certificate.pem"), "--key", folder.file("key.pem")});
    EXPECT_EQ(served.standardOutput,
              std::string("listening on https://") + host + ":PORT HTTP/1.1 401 Unauthorized\n0 ''\n")
        << served.standardError;
  }
}

}  // namespace
}  // namespace florvane::test

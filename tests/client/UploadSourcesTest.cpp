#include "platform/FileSystem.h"
#include "tests/client/NotificationCounter.h"
#include "tests/client/UploadClient.h"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace florvane::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// A superuser's process reads whatever it likes; from now on this one obeys the modes of files as everybody's does.
// Before there are other threads.
void obeyModes() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2]{};
  ASSERT_EQ(syscall(SYS_capget, &header, sets), 0);
  constexpr std::uint32_t kOverrides = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
  sets[0].effective &= ~kOverrides;
  sets[0].permitted &= ~kOverrides;
  ASSERT_EQ(syscall(SYS_capset, &header, sets), 0);
}

// Does something whenever a file is opened, before whoever opens it goes on. Needs a superuser.
class OnOpen {
 public:
  OnOpen(const std::string& path, std::function<void()> work)
      : work_(std::move(work)),
        events_(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC)),
        end_(eventfd(0, EFD_CLOEXEC)) {
    isPossible_ =
        events_.valid() && fanotify_mark(events_.get(), FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, path.c_str()) == 0;
    if (isPossible_) thread_ = std::thread([this] { run(); });
  }
  ~OnOpen() {
    eventfd_write(end_.get(), 1);
    if (thread_.joinable()) thread_.join();
  }
  OnOpen(const OnOpen&) = delete;
  OnOpen& operator=(const OnOpen&) = delete;
  bool isPossible() const { return isPossible_; }

 private:
  void run() {
    while (true) {
      pollfd polled[] = {{events_.get(), POLLIN, 0}, {end_.get(), POLLIN, 0}};
      (void)poll(polled, 2, -1);
      if (polled[1].revents) return;
      fanotify_event_metadata event{};
      if (read(events_.get(), &event, sizeof event) != static_cast<ssize_t>(sizeof event)) continue;
      work_();
      const fanotify_response response{event.fd, FAN_ALLOW};
      (void)write(events_.get(), &response, sizeof response);
      close(event.fd);
    }
  }

  const std::function<void()> work_;
  const FileDescriptor events_, end_;
  bool isPossible_ = false;
  std::thread thread_;
};

// The folder of temporaries, without what is being downloaded.
std::size_t temporaries() {
  std::size_t files = 0;
  for (const auto& each : std::filesystem::directory_iterator(*DUTemporaryDirectory())) {
    files += each.path().filename().string().starts_with(".florvane-tmp-") ? 1 : 0;
  }
  return files;
}

TEST(UploadSources, OneThatCannotBeReadFailsTheWriteAndNothingElse) {
  obeyModes();
  TestServer server;
  writeText(server.files() + "/old", "old");
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  EXPECT_EQ(client.text(client.read("Files/old")), "old");
  const TemporaryDirectory folder;
  writeText(folder.file("locked"), "secret");
  ASSERT_EQ(chmod(folder.file("locked").c_str(), 0), 0);
  struct Case {
    std::string source;
    const char* words;
  };
  // The second is a regular file whose bytes the system does not give.
  for (const Case& each : {Case{folder.file("locked"), "Permission denied"}, Case{"/proc/self/mem", "/proc/"}}) {
    for (const char* path : {"Files/old", "Files/new"}) {
      const auto answer = client.writeFrom(path, each.source);
      ASSERT_TRUE(answer.error) << path << " from " << each.source;
      EXPECT_THAT(answer.error->localizedDescription(), HasSubstr(each.words));
      EXPECT_FALSE(client.record(path));
    }
  }
  EXPECT_EQ(client.text(client.read("Files/old")), "old");
  EXPECT_TRUE(client.read("Files/new").error);
  EXPECT_FALSE(client.manager->hasPendingUploads());
  EXPECT_EQ(temporaries(), 0U);
  // It was the source's fault: from another one both are written.
  for (const char* path : {"Files/old", "Files/new"}) {
    ASSERT_FALSE(client.write(path, "readable").error);
    ASSERT_TRUE(client.sent(path));
  }
  EXPECT_EQ(textOf(server.files() + "/old") + textOf(server.files() + "/new"), "readablereadable");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadSources, AQueuedFileThatCannotBeReadKeepsItsRecordAndSaysSoOnce) {
  obeyModes();
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  NotificationCounter failures(FlorvaneUploadDidFailNotification);
  auto delegate = std::make_shared<RecordingDelegate>();
  client.manager->setDelegate(delegate, client.queue, "Files");
  // Written while nobody can sign in, so that it waits.
  faulty.setFault("watch", [](const auto&) { return FaultyServer::refusal(500, ""); });
  faulty.setFault("/sasl", [](const auto&) { return FaultyServer::refusal(503, ""); });
  DCPreferences::preferences()->clearAllAuthCookiesAndTrustedCertData();
  const auto written = client.write("Files/queued", "queued bytes");
  ASSERT_TRUE(written.value);
  const std::string staged = written.value->path();
  ASSERT_EQ(chmod(staged.c_str(), 0), 0);
  faulty.setFault("/sasl", {});
  ASSERT_TRUE(
      DCPreferences::preferences()->setAuthCookie(server.makeCookie(), faulty.certificate().der(), client.service));
  auto heard = client.upload("Files/queued");
  ASSERT_TRUE(heard.error);
  EXPECT_TRUE(heard.error->is(QuilbarErrorDomain, FileReadNoPermissionError)) << heard.error->description();
  delegate->waitFor("failed Files/queued " + std::to_string(FileReadNoPermissionError));
  const auto upload = client.record("Files/queued");
  ASSERT_TRUE(upload);
  // Each attempt counts: what keeps it from being read is counted where it is read.
  EXPECT_EQ(upload->numberOfRetries(), 3);
  EXPECT_THAT(upload->error().value_or(""), HasSubstr("Permission denied"));
  EXPECT_EQ(failures.count(), 1);
  EXPECT_EQ(faulty.requestsOf("write"), 0U);
  ASSERT_EQ(chmod(staged.c_str(), 0600), 0);
  (void)client.upload("Files/queued");
  ASSERT_TRUE(client.sent("Files/queued"));
  EXPECT_EQ(textOf(server.files() + "/queued"), "queued bytes");
  EXPECT_EQ(failures.count(), 1);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadSources, OneThatChangesWhileItIsCopiedIsCopiedWholeOrRefused) {
  TestServer server;
  writeText(server.files() + "/old", "old");
  UploadClient client(server);
  EXPECT_EQ(client.text(client.read("Files/old")), "old");
  const TemporaryDirectory folder;
  const std::string source = folder.file("growing");
  writeText(source, "0");
  const FileDescriptor writer(open(source.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  std::atomic<int> changes = 0;
  OnOpen change(source, [&] {
    if (changes-- > 0) (void)write(writer.get(), "1", 1);
  });
  if (!change.isPossible()) GTEST_SKIP() << "Only a superuser hears of a file before it is opened.";
  // Twice while it is opened: the third copy is whole.
  for (const char* path : {"Files/old", "Files/new"}) {
    changes = 2;
    ASSERT_FALSE(client.writeFrom(path, source).error);
    ASSERT_TRUE(client.sent(path));
  }
  EXPECT_EQ(textOf(server.files() + "/old"), "011");
  EXPECT_EQ(textOf(server.files() + "/new"), "01111");
  // Again and again: refused in words, and what was there stays.
  changes = 1000;
  for (const char* path : {"Files/old", "Files/other"}) {
    const auto answer = client.writeFrom(path, source);
    ASSERT_TRUE(answer.error);
    ASSERT_TRUE(answer.error->underlyingError());
    EXPECT_TRUE(answer.error->underlyingError()->is(POSIXErrorDomain, EBUSY)) << answer.error->description();
    EXPECT_FALSE(client.record(path));
  }
  EXPECT_EQ(client.text(client.read("Files/old")), "011");
  EXPECT_EQ(textOf(server.files() + "/other"), "(none)");
  EXPECT_EQ(temporaries(), 0U);
  EXPECT_THAT(client.assertions(), IsEmpty());
}

TEST(UploadSources, ACachedFileThatChangesWhileItIsCopiedToBeSentIsSentAsItIsInTheEnd) {
  TestServer server;
  FaultyServer faulty(server);
  UploadClient client(server, faulty);
  const std::string staged = client.queueWithoutStart("Files/queued", "0").path();
  const FileDescriptor writer(open(staged.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  int changes = 3;
  OnOpen change(staged, [&] {
    if (changes-- > 0) (void)write(writer.get(), "1", 1);
  });
  if (!change.isPossible()) GTEST_SKIP() << "Only a superuser hears of a file before it is opened.";
  (void)client.upload("Files/queued");
  ASSERT_TRUE(client.sent("Files/queued"));
  EXPECT_EQ(textOf(server.files() + "/queued"), "0111");
  EXPECT_EQ(faulty.requestsOf("write"), 1U);
  EXPECT_EQ(client.text(client.read("Files/queued")), "0111");
  EXPECT_THAT(client.assertions(), IsEmpty());
}

}  // namespace
}  // namespace florvane::test

#include "platform/NotificationCenter.h"

#include "platform/BackgroundThread.h"
#include "platform/Container.h"
#include "platform/FileSystem.h"
#include "platform/Format.h"
#include "platform/NotificationSocket.h"
#include "platform/PropertyList.h"
#include "platform/SoftAssertion.h"

#include <algorithm>
#include <array>
#include <deque>
#include <mutex>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace florvane {

namespace {

constexpr char kSource[] = "platform/NotificationCenter";
constexpr char kNameKey[] = "Name";
constexpr char kObjectKey[] = "Object";
constexpr char kUserInfoKey[] = "UserInfo";
// Datagrams read before the thread looks after the process's own posts and the count of missed ones again.
constexpr int kBatch = 32;

struct Registration {
  explicit Registration(NotificationCenter::Handler function) : handler(std::move(function)) {}
  std::mutex calling;  // held while the handler runs; guards what follows, save on the centre's thread
  bool active = true;
  NotificationCenter::Handler handler;
};
using RegistrationPtr = std::shared_ptr<Registration>;

// Absent, after a report, when it cannot travel.
std::optional<Data> encode(const Notification& notification) {
  Dictionary message = {{kNameKey, notification.name}, {kUserInfoKey, notification.userInfo}};
  if (notification.object) message.set(kObjectKey, *notification.object);
  auto bytes = writePropertyList(message, PropertyListFormat::Binary);
  if (!bytes) {
    reportSoftAssertion(kSource, __LINE__,
                        format("notification '%@' is a property list: %@", notification.name, bytes.error()));
    return std::nullopt;
  }
  if (bytes->size() > NotificationSocket::kLargestMessage) {
    reportSoftAssertion(kSource, __LINE__,
                        format("notification '%@' of %zu bytes is small enough", notification.name, bytes->size()));
    return std::nullopt;
  }
  return *bytes;
}

std::optional<Notification> decode(const Data& bytes) {
  if (bytes.size() > NotificationSocket::kLargestMessage) return std::nullopt;  // cut off by the read
  // A datagram may share values so that a few bytes stand for very many.
  auto list = readPropertyList(bytes, {.depth = 128, .values = NotificationSocket::kLargestMessage});
  if (!list) return std::nullopt;
  auto message = list->asDictionary();
  if (!message) return std::nullopt;
  auto name = message->string(kNameKey);
  auto userInfo = message->dictionary(kUserInfoKey);
  if (!name || !userInfo) return std::nullopt;
  return Notification{std::move(*name), message->string(kObjectKey), *userInfo};
}

}  // namespace

// Shared with the centre's thread and with observations, each of which may outlive the centre.
struct NotificationCenter::State : std::enable_shared_from_this<NotificationCenter::State> {
  explicit State(std::string directory) : folder(std::move(directory)) {}

  void startLocked();
  void run();
  void receive();
  void deliver(const Notification& notification);
  void deliverMissed();
  void call(const RegistrationPtr& registration, const Notification& notification);
  void remove(const std::string& name, const RegistrationPtr& registration);
  void wake();

  const std::string folder;  // empty when there is none: then posts reach this process only

  std::mutex posting;  // held from a post's own delivery to its last datagram, so that all see posts in one order
  std::mutex mutex;    // guards everything below
  std::unordered_map<std::string, std::vector<RegistrationPtr>> observers;
  std::deque<Notification> ownPosts;
  FileDescriptor wakeUp;
  // Made with the first observer and constant from then on: a process that only posts needs none.
  std::unique_ptr<NotificationSocket> socket;
  bool started = false;
  bool stopped = false;

  // The centre whose handler this thread is calling.
  static thread_local const State* delivering;
};

thread_local const NotificationCenter::State* NotificationCenter::State::delivering = nullptr;

void NotificationCenter::State::startLocked() {
  if (started) return;
  wakeUp = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wakeUp.valid()) {
    reportSoftAssertion(kSource, __LINE__, "eventfd is made");
    return;
  }
  if (!folder.empty()) {
    if (auto made = NotificationSocket::bind(folder)) {
      socket = std::move(*made);
    } else {
      reportSoftAssertion(kSource, __LINE__, format("notification socket is bound: %@", made.error()));
    }
  }
  try {
    startBackgroundThread("notifications", [state = shared_from_this()] { state->run(); });
    started = true;
  } catch (const std::system_error& error) {
    socket = nullptr;
    reportSoftAssertion(kSource, __LINE__, format("notification thread starts: %s", error.what()));
  }
}

void NotificationCenter::State::wake() {
  std::uint64_t one = 1;
  // Fails only when the count is full, and then the thread is being woken already.
  [[maybe_unused]] ssize_t written = ::write(wakeUp.get(), &one, sizeof one);
}

void NotificationCenter::State::run() {
  delivering = this;
  std::array<pollfd, 2> sources{{{wakeUp.get(), POLLIN, 0}, {socket ? socket->descriptor() : -1, POLLIN, 0}}};
  for (;;) {
    poll(sources.data(), sources.size(), -1);
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t got = ::read(wakeUp.get(), &count, sizeof count);
    std::deque<Notification> own;
    {
      std::lock_guard lock(mutex);
      if (stopped) return;
      own.swap(ownPosts);
    }
    for (const Notification& notification : own) deliver(notification);
    if (sources[1].revents != 0) receive();
  }
}

void NotificationCenter::State::receive() {
  for (int read = 0; read < kBatch; ++read) {
    auto datagram = socket->receive();
    if (!datagram) break;
    if (datagram->empty()) continue;  // only says that some were missed
    if (auto notification = decode(*datagram)) {
      deliver(*notification);
    } else {
      reportSoftAssertion(kSource, __LINE__, format("datagram of %zu bytes is a notification", datagram->size()));
    }
  }
  if (socket->takeMissed()) deliverMissed();
}

void NotificationCenter::State::deliver(const Notification& notification) {
  std::vector<RegistrationPtr> called;
  {
    std::lock_guard lock(mutex);
    auto found = observers.find(notification.name);
    if (stopped || found == observers.end()) return;
    called = found->second;
  }
  for (const auto& registration : called) call(registration, notification);
}

void NotificationCenter::State::deliverMissed() {
  std::vector<std::pair<std::string, RegistrationPtr>> called;
  {
    std::lock_guard lock(mutex);
    if (stopped) return;
    for (const auto& [name, registrations] : observers) {
      for (const auto& registration : registrations) called.emplace_back(name, registration);
    }
  }
  for (const auto& [name, registration] : called) {
    Notification notification{name, std::nullopt, {}};
    notification.missedSome = true;
    call(registration, notification);
  }
}

void NotificationCenter::State::call(const RegistrationPtr& registration, const Notification& notification) {
  std::lock_guard lock(registration->calling);
  if (!registration->active) return;
  WorkItem item = [&] { registration->handler(notification); };
  runGuarded(item, notification.name);
}

void NotificationCenter::State::remove(const std::string& name, const RegistrationPtr& registration) {
  {
    std::lock_guard lock(mutex);
    if (auto found = observers.find(name); found != observers.end()) {
      std::erase(found->second, registration);
      if (found->second.empty()) observers.erase(found);
    }
  }
  if (delivering == this) {
    registration->active = false;  // perhaps from inside its own handler: there is nobody to wait for
    return;
  }
  Handler dropped;
  std::lock_guard lock(registration->calling);
  registration->active = false;
  dropped = std::move(registration->handler);
}

namespace {

class ObservationImpl final : public NotificationCenter::Observation {
 public:
  explicit ObservationImpl(std::function<void()> end) : end_(std::move(end)) {}
  ~ObservationImpl() override { end_(); }
  ObservationImpl(const ObservationImpl&) = delete;
  ObservationImpl& operator=(const ObservationImpl&) = delete;

 private:
  std::function<void()> end_;
};

}  // namespace

NotificationCenter::NotificationCenter(std::string folder) : state_(std::make_shared<State>(std::move(folder))) {}

NotificationCenter::~NotificationCenter() {
  std::lock_guard lock(state_->mutex);
  state_->stopped = true;
  if (state_->socket) state_->socket->unlink();
  if (state_->started) state_->wake();
}

NotificationCenter& NotificationCenter::shared() {
  // Never destroyed: observers of other static objects may go after it.
  static NotificationCenter& center = *[] {
    auto container = Container::directory();
    return new NotificationCenter(container ? *container + "/Notifications" : std::string());
  }();
  return center;
}

void NotificationCenter::post(std::string_view name, std::optional<std::string> object, const Dictionary& userInfo) {
  Notification notification{std::string(name), std::move(object), userInfo};
  auto message = state_->folder.empty() ? std::nullopt : encode(notification);
  std::lock_guard order(state_->posting);
  std::string ownSocket;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->started) {
      const bool isFirst = state_->ownPosts.empty();  // whoever waits before it has woken the thread already
      state_->ownPosts.push_back(std::move(notification));
      if (isFirst) state_->wake();
    }
    if (state_->socket) ownSocket = state_->socket->name();
  }
  if (message) NotificationSocket::sendToOthers(state_->folder, ownSocket, *message);
}

std::unique_ptr<NotificationCenter::Observation> NotificationCenter::addObserver(std::string_view name,
                                                                                 Handler handler) {
  auto registration = std::make_shared<Registration>(std::move(handler));
  std::string key(name);
  {
    std::lock_guard lock(state_->mutex);
    state_->observers[key].push_back(registration);
    state_->startLocked();
  }
  return std::make_unique<ObservationImpl>(
      [state = state_, key = std::move(key), registration] { state->remove(key, registration); });
}

}  // namespace florvane

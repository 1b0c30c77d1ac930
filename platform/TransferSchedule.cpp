#include "platform/TransferSchedule.h"

#include <algorithm>
#include <utility>

namespace florvane {

namespace {

constexpr std::size_t kMostRunning = 8;
constexpr Duration kFirstDelay = std::chrono::seconds(1);
constexpr Duration kLongestDelay = std::chrono::seconds(60);
constexpr double kLeastOfDelay = 0.75;

}  // namespace

void TransferSchedule::add(std::uint64_t task, const std::string& session, const TransferServer& server) {
  Server& at = servers_[server];
  const std::string& name = *sessionNames_.insert(session).first;
  if (running_.contains(task) || !waiting_.emplace(task, Place{&at, &name}).second) return;
  at.sessions[session].push_back(task);
}

bool TransferSchedule::remove(std::uint64_t task) { return waiting_.erase(task) > 0; }

bool TransferSchedule::mayStart(const Server& server, MonotonicTime now) {
  if (server.delay == Duration::zero()) return server.running < kMostRunning;
  return server.running == 0 && now >= server.retryAt;
}

// Tasks that were removed are passed over here: taking them out of the middle would cost the whole queue each time.
std::optional<std::uint64_t> TransferSchedule::takeNext(Server& server) {
  while (!server.sessions.empty()) {
    auto session = server.sessions.upper_bound(server.lastServed);
    if (session == server.sessions.end()) session = server.sessions.begin();
    auto& queue = session->second;
    while (!queue.empty() && !waiting_.contains(queue.front())) queue.pop_front();
    if (queue.empty()) {
      server.sessions.erase(session);
      continue;
    }
    std::uint64_t task = queue.front();
    queue.pop_front();
    server.lastServed = session->first;
    if (queue.empty()) server.sessions.erase(session);
    return task;
  }
  return std::nullopt;
}

std::optional<std::uint64_t> TransferSchedule::next(MonotonicTime now) {
  for (auto& [name, server] : servers_) {
    if (!mayStart(server, now)) continue;
    auto task = takeNext(server);
    if (!task) continue;
    auto node = waiting_.extract(*task);
    node.mapped().round = server.round;
    running_.insert(std::move(node));
    ++server.running;
    return task;
  }
  return std::nullopt;
}

void TransferSchedule::didReach(std::uint64_t task) {
  auto found = running_.find(task);
  if (found == running_.end()) return;
  found->second.server->delay = Duration::zero();
  found->second.server->reached = true;
}

bool TransferSchedule::isReached(std::uint64_t task) const {
  auto found = running_.find(task);
  return found != running_.end() && found->second.server->reached;
}

void TransferSchedule::didEnd(std::uint64_t task) {
  auto node = running_.extract(task);
  if (node) --node.mapped().server->running;
}

void TransferSchedule::didFail(std::uint64_t task, MonotonicTime now) {
  auto node = running_.extract(task);
  if (!node) return;
  Place place = node.mapped();
  Server& server = *place.server;
  --server.running;
  server.reached = false;
  server.sessions[*place.session].push_front(task);
  waiting_.insert(std::move(node));
  // Of several that failed together the first has said it.
  if (place.round != server.round) return;
  ++server.round;
  server.delay = server.delay == Duration::zero() ? kFirstDelay : std::min(2 * server.delay, kLongestDelay);
  std::uniform_real_distribution<double> part(kLeastOfDelay, 1.0);
  server.retryAt =
      now + Duration(static_cast<Duration::rep>(static_cast<double>(server.delay.count()) * part(random_)));
}

void TransferSchedule::retry(const TransferServer& server) {
  auto found = servers_.find(server);
  if (found == servers_.end()) return;
  found->second.delay = Duration::zero();
  // What is being tried right now was begun before the server answered: its failure does not count.
  ++found->second.round;
}

std::optional<MonotonicTime> TransferSchedule::deadline() const {
  std::optional<MonotonicTime> first;
  for (const auto& [name, server] : servers_) {
    if (server.delay == Duration::zero() || server.running > 0 || server.sessions.empty()) continue;
    if (!first || server.retryAt < *first) first = server.retryAt;
  }
  return first;
}

}  // namespace florvane

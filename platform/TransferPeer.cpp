#include "platform/TransferPeer.h"

#include "platform/TransferProtocol.h"

#include <chrono>

namespace florvane {

namespace {

constexpr auto kPatience = std::chrono::seconds(5);

}  // namespace

std::optional<ChallengeDisposition> TransferPeer::ask(const TransferTask& task, const ServerTrust& trust,
                                                      std::uint16_t port) {
  Array certificates;
  for (const auto& certificate : trust.certificates()) certificates.append(certificate);
  std::int64_t question = 0;
  {
    std::lock_guard lock(mutex_);
    if (closed_ || silent_) return std::nullopt;
    question = nextQuestion_++;
    questions_[question];
  }
  auto sent = connection->send({{"type", transfer_frame::Challenge},
                                {"question", question},
                                {"task", task.identifier},
                                {"description", encodeTransferTask(task, false)},
                                {"host", trust.host()},
                                {"port", port},
                                {"certificates", certificates}});
  std::unique_lock lock(mutex_);
  bool answered = sent && changed_.wait_for(lock, kPatience, [&] { return closed_ || questions_[question]; });
  silent_ = !answered;
  auto verdict = questions_[question];
  questions_.erase(question);
  return verdict;
}

void TransferPeer::takeVerdict(const Dictionary& frame) {
  auto question = frame.integer("question");
  auto disposition = frame.integer("disposition");
  if (!question || !disposition) return;
  std::lock_guard lock(mutex_);
  auto found = questions_.find(*question);
  if (found == questions_.end()) return;
  found->second = *disposition == 0   ? ChallengeDisposition::UseCredential
                  : *disposition == 1 ? ChallengeDisposition::PerformDefaultHandling
                                      : ChallengeDisposition::CancelAuthenticationChallenge;
  changed_.notify_all();
}

void TransferPeer::noteFrame() {
  std::lock_guard lock(mutex_);
  silent_ = false;
}

void TransferPeer::didClose() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace florvane

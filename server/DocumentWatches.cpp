#include "server/DocumentWatches.h"

#include "platform/BackgroundThread.h"

#include <algorithm>
#include <utility>

namespace florvane {

namespace {

// So that one slow disk leaves the others' watches alone.
constexpr int kThreads = 4;
constexpr Duration kLookAroundInterval = std::chrono::seconds(5);
constexpr Duration kLookAroundLeeway = std::chrono::seconds(1);

}  // namespace

struct DocumentWatches::Watch {
  std::vector<DocumentVersion> documents;
  std::mutex mutex;                     // guards the handler and the attention
  DocumentStore::WatchHandler handler;  // empty once answered or cancelled
  std::shared_ptr<const Attention> attention;
  bool queued = false;  // guarded by the list's mutex
};

class DocumentWatches::Token : public DocumentWatch {
 public:
  Token(DocumentWatches& watches, std::shared_ptr<Watch> watch) : watches_(watches), watch_(std::move(watch)) {}
  ~Token() override {
    DocumentStore::WatchHandler handler;  // goes after the lock
    {
      const std::lock_guard lock(watch_->mutex);
      handler = std::exchange(watch_->handler, {});
    }
    if (handler) watches_.close(watch_);
  }
  void answerNow() override { watches_.enqueue({{}, watch_, true}); }

 private:
  DocumentWatches& watches_;
  const std::shared_ptr<Watch> watch_;
};

DocumentWatches::DocumentWatches(Source& source, Clock& clock)
    : source_(source), clock_(clock), owner_(std::make_shared<Owner>()) {
  owner_->watches = this;
  for (int i = 0; i < kThreads; ++i) threads_.emplace_back([this] { run(); });
}

DocumentWatches::~DocumentWatches() { stop(); }

void DocumentWatches::stop() {
  {
    const std::lock_guard lock(owner_->mutex);
    owner_->watches = nullptr;
  }
  std::unique_ptr<Timer> timer;  // goes after the lock
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    timer = std::move(timer_);
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

std::unique_ptr<DocumentWatch> DocumentWatches::add(std::vector<DocumentVersion> documents,
                                                    DocumentStore::WatchHandler handler) {
  auto watch = std::make_shared<Watch>();
  watch->documents = std::move(documents);
  watch->handler = std::move(handler);
  auto token = std::make_unique<Token>(*this, watch);
  std::vector<DocumentIdentifier> identifiers;
  identifiers.reserve(watch->documents.size());
  for (const DocumentVersion& document : watch->documents) {
    identifiers.push_back(DocumentIdentifier::fromData(document.document).value_or(DocumentIdentifier()).document());
  }
  {
    const std::lock_guard lock(mutex_);
    ++open_;
    for (const DocumentIdentifier& identifier : identifiers) {
      if (identifier != DocumentIdentifier{}) byDocument_[identifier].insert(watch);
    }
  }
  // Registered first and looked at afterwards, so that no change falls between. Attending looks at the disk.
  auto attention = std::make_shared<const Attention>(source_.attend(identifiers));
  const bool announced = attention->announced;
  {
    const std::lock_guard lock(watch->mutex);
    if (watch->handler) watch->attention = std::move(attention);
  }
  check(watch, false);
  if (!announced) lookAround();
  return token;
}

void DocumentWatches::documentsChanged(std::span<const DocumentIdentifier> documents) {
  const std::lock_guard lock(mutex_);
  if (byDocument_.empty() || ending_) return;
  for (const DocumentIdentifier& document : documents) {
    const auto found = byDocument_.find(document);
    if (found == byDocument_.end()) continue;
    for (const std::shared_ptr<Watch>& watch : found->second) {
      if (std::exchange(watch->queued, true)) continue;
      tasks_.push_back({{}, watch, false});
      wake_.notify_one();
    }
  }
}

void DocumentWatches::directoryTouched(const DocumentIdentifier& directory) { enqueue({directory, nullptr, false}); }

void DocumentWatches::enqueue(Task task) {
  const std::lock_guard lock(mutex_);
  if (ending_ || (task.directory && !touched_.insert(*task.directory).second)) return;
  tasks_.push_back(std::move(task));
  wake_.notify_one();
}

void DocumentWatches::run() {
  for (;;) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
    if (ending_) return;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    if (task.directory) touched_.erase(*task.directory);
    if (task.watch && !task.force) task.watch->queued = false;
    lock.unlock();
    WorkItem item([&] {
      if (task.directory) {
        source_.refresh(*task.directory);
      } else {
        check(task.watch, task.force);
      }
    });
    runGuarded(item, "the watches of the document store");
  }
}

void DocumentWatches::check(const std::shared_ptr<Watch>& watch, bool force) {
  std::vector<DocumentVersion> current;
  bool differs = force || watch->documents.empty();
  std::shared_ptr<const Attention> attention;
  {
    const std::lock_guard lock(watch->mutex);
    attention = watch->attention;
  }
  const auto versions = source_.currentVersions(watch->documents, attention.get());
  for (std::size_t i = 0; i < versions.size(); ++i) {
    const DocumentVersion& document = watch->documents[i];
    const StoreResult<Data>& version = versions[i];
    if (!version && version.error().status == StoreStatus::NotFound) {
      differs = true;
      continue;
    }
    // What cannot be asked right now has not changed as far as anybody knows.
    current.push_back({document.document, version ? *version : document.version});
    differs = differs || current.back().version != document.version;
  }
  if (!differs) return;
  DocumentStore::WatchHandler handler;
  {
    const std::lock_guard lock(watch->mutex);
    handler = std::exchange(watch->handler, {});
  }
  if (!handler) return;
  close(watch);
  if (current.empty()) {
    handler(tl::unexpected(StoreError{StoreStatus::NotFound, "None of the watched items is on the server any more."}));
  } else {
    handler(std::move(current));
  }
}

void DocumentWatches::close(const std::shared_ptr<Watch>& watch) {
  std::shared_ptr<const Attention> attention;  // goes after the lock
  {
    const std::lock_guard lock(watch->mutex);
    attention = std::move(watch->attention);
  }
  const std::lock_guard lock(mutex_);
  --open_;
  for (const DocumentVersion& document : watch->documents) {
    const auto identifier = DocumentIdentifier::fromData(document.document);
    if (!identifier) continue;
    const auto found = byDocument_.find(identifier->document());
    if (found == byDocument_.end()) continue;
    found->second.erase(watch);
    if (found->second.empty()) byDocument_.erase(found);
  }
}

// Sees to directories whose changes nobody announces, as long as there are any.
void DocumentWatches::lookAround() {
  if (source_.unannounced().empty()) return;
  const std::lock_guard lock(mutex_);
  if (timer_ || ending_) return;
  timer_ = clock_.schedule(clock_.monotonicNow() + kLookAroundInterval, kLookAroundLeeway, [owner = owner_] {
    const std::lock_guard held(owner->mutex);
    DocumentWatches* const watches = owner->watches;
    if (!watches) return;
    for (const DocumentIdentifier& directory : watches->source_.unannounced()) watches->directoryTouched(directory);
    std::unique_ptr<Timer> fired;  // goes after the lock
    {
      const std::lock_guard inner(watches->mutex_);
      fired = std::move(watches->timer_);
    }
    watches->lookAround();
  });
}

}  // namespace florvane

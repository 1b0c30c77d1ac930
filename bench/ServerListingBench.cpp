#include "platform/Clock.h"
#include "platform/PropertyList.h"
#include "server/DocumentStore.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

// What the server takes to answer a listing. A directory of 10,000 entries that it knows is to take at most 30 ms.

namespace florvane {
namespace {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    path_ = std::filesystem::temp_directory_path() / "florvane-bench-XXXXXX";
    if (!::mkdtemp(path_.data())) std::abort();
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A store over one folder of so many small files.
class Listing {
 public:
  explicit Listing(std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) change("Quarterly report " + std::to_string(i) + ".pdf");
    reopen();
  }
  void reopen() {
    store_.reset();
    store_ = *DocumentStore::open(state_.path(), {{"Docs", docs_.path(), false, false}}, Clock::system());
    if (share_.empty()) {
      const auto root = readPropertyList(store_->listRoot({})->body);
      share_ = *root->asArray()->begin()->asDictionary()->data("FVDocumentIdentifierKey");
    }
  }
  void change(const std::string& name) const { std::ofstream(docs_.path() + "/" + name, std::ios::app) << "x"; }
  void list(benchmark::State& state) {
    const auto listing = store_->list(share_, {}, {});
    if (!listing) state.SkipWithError(listing.error().sentence.c_str());
    benchmark::DoNotOptimize(listing);
  }

 private:
  TemporaryFolder docs_;
  TemporaryFolder state_;
  std::unique_ptr<DocumentStore> store_;
  Data share_;
};

// Made once for all measurements of that size, and known to its store.
Listing& listed(benchmark::State& state) {
  static std::map<std::int64_t, Listing> listings;
  const auto [listing, isNew] = listings.try_emplace(state.range(0), state.range(0));
  if (isNew) listing->second.list(state);
  return listing->second;
}

void known(benchmark::State& state) {
  Listing& listing = listed(state);
  for (auto _ : state) listing.list(state);
}

void afterOneChange(benchmark::State& state) {
  Listing& listing = listed(state);
  for (auto _ : state) {
    state.PauseTiming();
    listing.change("Quarterly report 7.pdf");
    state.ResumeTiming();
    listing.list(state);
  }
}

void afterARestart(benchmark::State& state) {
  Listing& listing = listed(state);
  for (auto _ : state) {
    state.PauseTiming();
    listing.reopen();
    state.ResumeTiming();
    listing.list(state);
  }
}

void firstTime(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto listing = std::make_unique<Listing>(state.range(0));
    state.ResumeTiming();
    listing->list(state);
    state.PauseTiming();
    listing.reset();
    state.ResumeTiming();
  }
}

BENCHMARK(known)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK(afterOneChange)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(afterARestart)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(firstTime)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace florvane

BENCHMARK_MAIN();

#include "platform/PropertyList.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

// Reading and writing a folder's listing of 100,000 entries, and the memory that a process needs to read it. The
// binary form is to take at most 0.3 s each way and 150 MB.

namespace florvane {
namespace {

constexpr int kEntries = 100'000;

Data randomIdentifier(std::mt19937_64& random, std::size_t size) {
  std::array<std::uint64_t, 2> words{random(), random()};
  return Data(words.data(), size);
}

Dictionary listingEntry(int index, std::mt19937_64& random) {
  std::string name = "Quarterly report " + std::to_string(index) + (index % 10 == 0 ? " M\xc3\xa4rz.pdf" : ".pdf");
  auto date = [&] {
    return Date::fromMicroseconds(1'600'000'000'000'000 + static_cast<std::int64_t>(random() % 100'000'000'000'000));
  };
  Date modified = date();
  return Dictionary{
      {"ResourceNameKey", name},
      {"ResourcePathKey", "/Projects/" + name},
      {"ResourceFileResourceTypeKey", "ResourceTypeRegular"},
      {"ResourceFileSizeKey", static_cast<std::int64_t>(random() % 100'000'000)},
      {"ResourceIsDirectoryKey", false},
      {"ResourceIsPackageKey", false},
      {"ResourceIsReadableKey", true},
      {"ResourceIsWritableKey", true},
      {"ResourceIsHiddenKey", false},
      {"ResourceHasHiddenExtensionKey", false},
      {"ResourceTypeIdentifierKey", "application/pdf"},
      {"ResourceLocalizedTypeDescriptionKey", "PDF document"},
      {"ResourceCreationDateKey", date()},
      {"ResourceContentModificationDateKey", modified},
      {"ResourceAttributeModificationDateKey", modified},
      {"ResourceAddedToDirectoryDateKey", date()},
      {"FVDocumentIdentifierKey", randomIdentifier(random, 16)},
      {"FVVersionIdentifierKey", randomIdentifier(random, 12)},
  };
}

const Value& listing() {
  static const Value value = [] {
    std::mt19937_64 random(1);  // NOLINT(bugprone-random-generator-seed): every run measures the same listing
    Array entries;
    for (int i = 0; i < kEntries; ++i) entries.append(listingEntry(i, random));
    return Value(entries);
  }();
  return value;
}

const Data& encoded(PropertyListFormat format) {
  static const std::array<Data, 2> forms = {writePropertyList(listing(), PropertyListFormat::Binary).value(),
                                            writePropertyList(listing(), PropertyListFormat::XML).value()};
  return forms[format == PropertyListFormat::Binary ? 0 : 1];
}

void read(benchmark::State& state, PropertyListFormat format) {
  const Data& bytes = encoded(format);
  for (auto _ : state) {
    auto value = readPropertyList(bytes);
    if (!value) state.SkipWithError(value.error().localizedDescription().c_str());
    benchmark::DoNotOptimize(value);
    state.PauseTiming();
    value = Value();
    state.ResumeTiming();
  }
  state.counters["MB"] = static_cast<double>(bytes.size()) / 1e6;
}

void write(benchmark::State& state, PropertyListFormat format) {
  for (auto _ : state) {
    auto bytes = writePropertyList(listing(), format);
    if (!bytes) state.SkipWithError(bytes.error().localizedDescription().c_str());
    benchmark::DoNotOptimize(bytes);
  }
}

BENCHMARK_CAPTURE(read, binary, PropertyListFormat::Binary)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(write, binary, PropertyListFormat::Binary)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(read, XML, PropertyListFormat::XML)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(write, XML, PropertyListFormat::XML)->Unit(benchmark::kMillisecond);

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// What the process does that is started to be measured: reads that file and prints its own peak in kB. (The parent's
// wait4() would tell a peak that includes what this process was before it became that program.)
int readFile(const char* path) {
  File file(std::fopen(path, "rb"));
  struct stat information{};
  if (!file || fstat(fileno(file.get()), &information) != 0) return EXIT_FAILURE;
  Data bytes;
  {
    std::vector<std::uint8_t> content(static_cast<std::size_t>(information.st_size));
    if (std::fread(content.data(), 1, content.size(), file.get()) != content.size()) return EXIT_FAILURE;
    bytes = Data(content);
  }
  auto value = readPropertyList(bytes);
  File status(std::fopen("/proc/self/status", "r"));
  std::array<char, 256> line{};
  while (status && std::fgets(line.data(), line.size(), status.get())) {
    std::string_view text(line.data());
    if (text.starts_with("VmHWM:")) std::puts(line.data() + std::strlen("VmHWM:"));
  }
  return value ? EXIT_SUCCESS : EXIT_FAILURE;
}

void peakMemory(benchmark::State& state, PropertyListFormat format) {
  std::string path = "/tmp/PropertyListBench.XXXXXX";
  int descriptor = mkstemp(path.data());
  File file(descriptor < 0 ? nullptr : fdopen(descriptor, "wb"));
  const Data& bytes = encoded(format);
  if (!file || std::fwrite(bytes.bytes(), 1, bytes.size(), file.get()) != bytes.size()) {
    state.SkipWithError("cannot write a temporary file");
    return;
  }
  file.reset();
  std::array<char, 4096> program{};
  ssize_t length = readlink("/proc/self/exe", program.data(), program.size() - 1);
  double peak = 0;
  for (auto _ : state) {
    std::string command =
        "'" + std::string(program.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))) + "' --read " + path;
    std::FILE* output = popen(command.c_str(), "r");
    std::array<char, 64> answer{};
    if (output && std::fgets(answer.data(), answer.size(), output)) peak = std::strtod(answer.data(), nullptr);
    if (!output || pclose(output) != 0) state.SkipWithError("the measured process failed");
  }
  state.counters["peakMB"] = peak * 1024 / 1e6;
  unlink(path.c_str());
}

BENCHMARK_CAPTURE(peakMemory, binary, PropertyListFormat::Binary)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_CAPTURE(peakMemory, XML, PropertyListFormat::XML)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace florvane

int main(int count, char** arguments) {
  if (count == 3 && std::strcmp(arguments[1], "--read") == 0) return florvane::readFile(arguments[2]);
  benchmark::Initialize(&count, arguments);
  if (benchmark::ReportUnrecognizedArguments(count, arguments)) return EXIT_FAILURE;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}

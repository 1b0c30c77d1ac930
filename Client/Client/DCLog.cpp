#include "Client/Client/DCLog.h"

#include "Client/Client/DCPreferences.h"
#include "common/FVFDictionaryUtils.h"
#include "platform/NotificationCenter.h"
#include "platform/SerialQueue.h"
#include "platform/SoftAssertion.h"
#include "platform/SystemLog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <exception>
#include <mutex>
#include <utility>

#include <pthread.h>
#include <strings.h>
#include <sys/single_threaded.h>
#include <unistd.h>

namespace florvane {

std::array<std::atomic<std::uint8_t>, dc_log_max_categories> dc_log_mask_by_category;
std::atomic<bool> dc_log_trace_enabled = false;

namespace {

constexpr char kSource[] = "Client/Client/DCLog";
constexpr char kQueueLabel[] = "quorl.florvane.dclog";
constexpr int kDefaultMask = 63;
constexpr int kDefaultLevel = 5;
constexpr int kRemoteFilterFlag = 256;

struct LevelName {
  const char* name;
  int level;
};
// The first name of a level is the one that it is shown by.
constexpr std::array<LevelName, 13> kLevelNames = {{{"emerg", 0},
                                                    {"emergency", 0},
                                                    {"alert", 1},
                                                    {"crit", 2},
                                                    {"critical", 2},
                                                    {"err", 3},
                                                    {"error", 3},
                                                    {"warn", 4},
                                                    {"warning", 4},
                                                    {"notice", 5},
                                                    {"info", 6},
                                                    {"debug", 7},
                                                    {"trace", 7}}};

enum class RemoteLevels { Plain, Forced, Kept };

// The switches that call sites and the queue read without a lock.
std::atomic<bool> standardErrorEnabled = false;
std::atomic<bool> systemLogEnabled = true;
std::atomic<RemoteLevels> remoteLevels = RemoteLevels::Plain;

std::atomic<int> categoryCount = 0;
std::atomic<int> defaultCategory = -1;
std::atomic<int> callbacksCategory = -1;
std::atomic<int> traceCategory = -1;

// Set as soon as one thread has begun to read the preferences; nobody waits for its end.
std::atomic<bool> configurationBegun = false;
thread_local bool initializing = false;
thread_local int deliveries = 0;

// Never destroyed: there are messages until the very end of the process.
struct Log {
  Log() { queue->setSpecific(kQueueLabel, kQueueLabel); }
  static Log& shared() {
    static auto& log = *new Log;
    return log;
  }

  const std::shared_ptr<SerialQueue> queue = SerialQueue::create(kQueueLabel);
  // Written on the queue before the count that covers them, never changed afterwards.
  std::array<std::string, dc_log_max_categories> names;
  std::once_flag categoriesOnce;
  std::unique_ptr<NotificationCenter::Observation> preferencesObservation;

  std::mutex configurationMutex;  // guards the following, and orders reading preferences with applying them
  bool traceConfigured = false;
  bool levelConfigured = false;
  std::optional<int> appliedLevel;
};

bool isCategory(int category) { return category >= 0 && category < categoryCount.load(std::memory_order_acquire); }

// On the log's queue and in the caller's time; in place on that queue itself, and where there is no thread to be had.
template <typename Item>
void runOnLogQueue(Item item) {
  Log& log = Log::shared();
  if (log.queue->isCurrent()) {
    item();
    return;
  }
  bool ran = false;
  try {
    log.queue->sync([&] {
      ran = true;
      item();
    });
  } catch (const std::exception&) {
    if (!ran) item();
  }
}

int createCategory(const char* catname) {
  int category = dc_log_find_category(catname);
  if (category >= 0) return category;
  if (!SerialQueue::specific(kQueueLabel)) DCAssertionFailed(kSource, __LINE__, "on the log queue");
  category = categoryCount.load(std::memory_order_relaxed);
  if (category == dc_log_max_categories) return -1;
  auto index = static_cast<std::size_t>(category);
  Log::shared().names[index] = catname;
  dc_log_mask_by_category[index] = kDefaultMask;
  categoryCount.store(category + 1, std::memory_order_release);
  return category;
}

// Without initialising anything: lower layers report under locks of their own, which reading the preferences or
// following their changes may need.
void writeAssertion(std::string_view source, unsigned line, std::string_view condition) {
  int category = defaultCategory;
  // Before there are categories, an assertion still goes out.
  if (isCategory(category) && !(dc_log_get_mask(category) & DCLogMaskCritical)) return;
  dc_log(category, DCLogLevelCritical, "%s:%u: failed assertion '%s'\n", source, line, condition);
}

void createCategories() {
  defaultCategory = dc_log_get_category("quorl.florvane.dclog");
  callbacksCategory = dc_log_get_category("quorl.florvane.dc.callbacks");
  traceCategory = dc_log_get_category("quorl.florvane.dc.trace");
  setSoftAssertionHandler(writeAssertion);
}

struct Message {
  int category;  // -1 for none
  int level;
  std::string text;
  std::string threadIdentifier;  // empty when the process has one thread
  std::string machAbsoluteTime;
  std::string queueLabel;
};

std::string currentThreadIdentifier() {
  if (__libc_single_threaded) return {};
  if (getpid() == gettid()) return "main";
  return format("%p", static_cast<std::uint64_t>(pthread_self()));
}

std::string machAbsoluteTime() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return format("%llu",
                static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec));
}

const char* levelName(int level) {
  return std::find_if(kLevelNames.begin(), kLevelNames.end(),
                      [level](const auto& entry) { return entry.level == level; })
      ->name;
}

// One line a message, whatever a file's name may hold.
std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (char character : text) {
    auto byte = static_cast<unsigned char>(character);
    if (character == '\n') {
      result += "\\n";
    } else if (byte < 32 || byte == 127) {
      constexpr char digits[] = "0123456789abcdef";
      result += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    } else {
      result += character;
    }
  }
  return result;
}

void writeToStandardError(const Message& message, const char* facility) {
  std::string_view text = message.text;
  if (text.ends_with('\n')) text.remove_suffix(1);
  std::string line = format("%s %s [%s] ", levelName(message.level), facility ? facility : "-", message.queueLabel);
  line += printable(text);
  line += '\n';
  std::string_view rest = line;
  while (!rest.empty()) {
    ssize_t written = write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

void deliver(const Message& message) {
  // The system's log may itself have something to report, but not about that report.
  if (deliveries > 1) return;
  struct Depth {
    Depth() { ++deliveries; }
    ~Depth() { --deliveries; }
  } depth;
  const char* facility = dc_log_get_facility_name(message.category);
  int filter = systemLogEnabled ? 0xff : 0;
  if (facility) filter = dc_log_get_system_filter(message.category);
  if (filter & (1 << message.level)) {
    SystemLogMessage entry{message.level, message.text, {}};
    if (facility) entry.fields.emplace_back("Facility", facility);
    if (!message.threadIdentifier.empty()) entry.fields.emplace_back("ThreadID", message.threadIdentifier);
    entry.fields.emplace_back("MachAbsoluteTime", message.machAbsoluteTime);
    entry.fields.emplace_back("DispatchQueue", message.queueLabel);
    SystemLog::shared().write(entry);
  }
  if (standardErrorEnabled) writeToStandardError(message, facility);
}

std::string renderedArgument(const Value& value) {
  bool isCollection = value.kind() == Value::Kind::Array || value.kind() == Value::Kind::Dictionary;
  return isCollection ? DCStringFromCollection(value) : value.description();
}

}  // namespace

int dc_log_default_category() {
  _DCLogInitialize();
  return defaultCategory.load(std::memory_order_relaxed);
}

int dc_log_callbacks_category() {
  _DCLogInitialize();
  return callbacksCategory.load(std::memory_order_relaxed);
}

int dc_log_trace_category() {
  _DCLogInitialize();
  return traceCategory.load(std::memory_order_relaxed);
}

int dc_log_find_category(const char* catname) {
  if (!catname) {
    DCAssertionFailed(kSource, __LINE__, "catname != 0");
    return -1;
  }
  int count = categoryCount.load(std::memory_order_acquire);
  for (int category = 0; category < count; ++category) {
    if (Log::shared().names[static_cast<std::size_t>(category)] == catname) return category;
  }
  return -1;
}

int dc_log_get_category(const char* catname) {
  int category = dc_log_find_category(catname);
  if (category < 0 && catname) runOnLogQueue([&] { category = createCategory(catname); });
  return category;
}

const char* dc_log_get_category_name(int category) {
  return isCategory(category) ? Log::shared().names[static_cast<std::size_t>(category)].c_str() : nullptr;
}

const char* dc_log_get_facility_name(int category) { return dc_log_get_category_name(category); }

int dc_log_get_mask(int category) {
  if (category == -1) return 0;
  return isCategory(category) ? dc_log_mask_by_category[static_cast<std::size_t>(category)].load() : kDefaultMask;
}

void dc_log_set_mask(int category, int mask) {
  if ((mask & 0xff) == 0 || !isCategory(category)) return;
  dc_log_mask_by_category[static_cast<std::size_t>(category)] = static_cast<std::uint8_t>(mask & 0xff);
}

int dc_log_get_level(int category) {
  if (!isCategory(category)) return -1;
  int mask = dc_log_get_mask(category);
  int level = 7;
  while (level >= 0 && !(mask & (1 << level))) --level;
  return level;
}

void dc_log_set_level(int category, int level) {
  level = std::clamp(level, 0, 7);
  dc_log_set_mask(category, (1 << (level + 1)) - 1);
  DCAssert(dc_log_get_level(category) == level, kSource);
}

int dc_log_get_system_filter(int category) {
  if (!isCategory(category) || !systemLogEnabled) return 0;
  int flag = remoteLevels == RemoteLevels::Plain ? 0 : kRemoteFilterFlag;
  return dc_log_get_mask(category) | flag;
}

void dc_log_enable_stderr_logging() { standardErrorEnabled = true; }
void dc_log_disable_stderr_logging() { standardErrorEnabled = false; }
bool dc_log_stderr_logging_is_enabled() { return standardErrorEnabled; }
void dc_log_enable_system_logging() { systemLogEnabled = true; }
void dc_log_disable_system_logging() { systemLogEnabled = false; }
bool dc_log_system_logging_is_enabled() { return systemLogEnabled; }

void dc_log_set_force_remote_level(bool force) { remoteLevels = force ? RemoteLevels::Forced : RemoteLevels::Kept; }
void dc_log_clear_force_remote_level() { remoteLevels = RemoteLevels::Plain; }

void DCLogEnableDebug(bool enable) {
  int level = enable ? DCLogLevelDebug : DCLogLevelNotice;
  dc_log_set_level(dc_log_default_category(), level);
  dc_log_set_level(dc_log_callbacks_category(), level);
  // The callbacks again, not the trace: that category keeps the level it has.
  dc_log_set_level(dc_log_callbacks_category(), level);
  if (enable) {
    dc_log_enable_stderr_logging();
  } else {
    dc_log_disable_stderr_logging();
  }
}

bool dc_log_is_enabled(int category, int level) {
  return !isCategory(category) || std::clamp(level, 0, 7) <= dc_log_get_level(category);
}

void dc_logv(int category, int level, std::string_view text, std::initializer_list<FormatArgument> arguments) {
  level = std::clamp(level, 0, 7);
  if (!dc_log_is_enabled(category, level)) return;
  if (!isCategory(category)) category = categoryCount > 0 ? 0 : -1;
  if (remoteLevels == RemoteLevels::Forced && level >= DCLogLevelNotice) level = DCLogLevelNotice;
  try {
    Message message{category,
                    level,
                    formatWithArguments(text, arguments),
                    currentThreadIdentifier(),
                    machAbsoluteTime(),
                    SerialQueue::currentLabel()};
    runOnLogQueue([&] { deliver(message); });
  } catch (const std::exception&) {
    // Out of memory: a message is what can be spared.
  }
}

void _DCLogV(int category, int level, std::string_view text, std::initializer_list<FormatArgument> arguments) {
  dc_log(category, level, "%s", formatWithArguments(text, arguments));
}

std::string DCStringFromCollection(const Value& collection) {
  return FVFDictionaryUtils::stringFromCollection(collection);
}

std::string _DCLogStringWithArguments(const Array& namesAndValues) {
  std::string result;
  for (std::size_t index = 0; index < namesAndValues.size(); index += 2) {
    if (index > 0) result += ", ";
    result += namesAndValues[index].description();
    result += '=';
    result += renderedArgument(index + 1 < namesAndValues.size() ? namesAndValues[index + 1] : Value());
  }
  return result;
}

bool dc_log_trace_is_on() {
  int category = dc_log_default_category();
  return dc_log_trace_enabled.load(std::memory_order_relaxed) && (dc_log_get_mask(category) & DCLogMaskDebug);
}

void _DCLogTrace(std::string_view function, std::initializer_list<DCLogArgument> arguments) {
  Array namesAndValues;
  namesAndValues.reserve(2 * arguments.size());
  for (const auto& entry : arguments) {
    namesAndValues.append(entry.name);
    namesAndValues.append(entry.argument.value);
  }
  _DCLog(dc_log_default_category(), DCLogLevelDebug, "%s (%@)", function, _DCLogStringWithArguments(namesAndValues));
}

void DCAssertionFailed(std::string_view source, unsigned line, std::string_view condition) {
  _DCLogInitialize();
  writeAssertion(source, line, condition);
}

void _DCLogInitialize() {
  if (configurationBegun.load(std::memory_order_acquire)) return;
  Log& log = Log::shared();
  // Neither what is logged in here nor what the log's queue reports may wait for this to end.
  if (initializing || log.queue->isCurrent()) return;
  initializing = true;
  std::call_once(log.categoriesOnce, createCategories);
  if (!configurationBegun.exchange(true)) {
    try {
      // Before the first reading, so that no change falls between the two.
      log.preferencesObservation =
          NotificationCenter::shared().addObserver(DCPreferencesDidChangeNotification, [](const Notification&) {
            _DCConfigureLoggingFromLogTracePreference();
            _DCConfigureLoggingFromLogLevelPreference();
          });
    } catch (const std::exception& error) {
      DCLogError("Unable to follow changes of the log preferences: %s", error.what());
    }
    _DCConfigureLoggingFromLogTracePreference();
    _DCConfigureLoggingFromLogLevelPreference();
  }
  initializing = false;
}

void _DCConfigureLoggingFromLogTracePreference() {
  _DCLogInitialize();
  Log& log = Log::shared();
  std::unique_lock lock(log.configurationMutex);
  bool enabled = DCPreferences::preferences()->traceLogsEnabled();
  dc_log_trace_enabled = enabled;
  bool first = !std::exchange(log.traceConfigured, true);
  lock.unlock();
  if (!first) DCLogNotice("Detailed logging %@", enabled ? "enabled" : "disabled");
}

void _DCConfigureLoggingFromLogLevelPreference() {
  _DCLogInitialize();
  Log& log = Log::shared();
  std::unique_lock lock(log.configurationMutex);
  bool first = !std::exchange(log.levelConfigured, true);
  auto name = DCPreferences::preferences()->logLevel();
  if (!name) return;
  int level = std::clamp(_LogLevelByName(*name), 0, 7);
  if (std::exchange(log.appliedLevel, level) == level) return;
  if (!first) DCLogNotice("Setting log level to %d", level);
  dc_log_set_level(dc_log_default_category(), level);
}

int _LogLevelByName(std::string_view text) {
  std::string_view digits = text.substr(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  bool negative = digits.starts_with('-');
  if (digits.starts_with('+')) digits.remove_prefix(1);
  int number = 0;
  auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (failure == std::errc::result_out_of_range) number = negative ? -1 : 7;
  if (number != 0) return number;
  std::string name(text);
  for (const auto& entry : kLevelNames) {
    if (strcasecmp(name.c_str(), entry.name) == 0) return entry.level;
  }
  DCLogNotice("Unknown loglevel \"%@\"", text);
  return kDefaultLevel;
}

}  // namespace florvane

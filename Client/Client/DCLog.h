#pragma once

#include "platform/Format.h"
#include "platform/Value.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace florvane {

// Diagnostics: levelled messages in named categories, to the system's log and, when asked for, to standard error; trace
// lines; soft assertions. Everything here may be called from any thread and any queue, under the caller's locks, and
// while the process ends. Nothing here throws. The first use reads the log preferences of the container; messages of
// other threads, and of the reading itself, meanwhile go by the default levels rather than wait.

// Syslog levels.
inline constexpr int DCLogLevelEmergency = 0;
inline constexpr int DCLogLevelAlert = 1;
inline constexpr int DCLogLevelCritical = 2;
inline constexpr int DCLogLevelError = 3;
inline constexpr int DCLogLevelWarning = 4;
inline constexpr int DCLogLevelNotice = 5;
inline constexpr int DCLogLevelInfo = 6;
inline constexpr int DCLogLevelDebug = 7;

// Bits of a category's mask as call sites test them: 1 shifted left by the level.
inline constexpr int DCLogMaskCritical = 4;
inline constexpr int DCLogMaskNotice = 32;
inline constexpr int DCLogMaskInfo = 64;
inline constexpr int DCLogMaskDebug = 128;

// Categories are small indexes; -1 stands for none.
inline constexpr int dc_log_max_categories = 4;
int dc_log_default_category();    // "quorl.florvane.dclog"
int dc_log_callbacks_category();  // "quorl.florvane.dc.callbacks"
int dc_log_trace_category();      // "quorl.florvane.dc.trace"

// The categories' masks by index, for quick tests; set them with dc_log_set_mask.
extern std::array<std::atomic<std::uint8_t>, dc_log_max_categories> dc_log_mask_by_category;
// Whether trace lines are wanted; from the preferences.
extern std::atomic<bool> dc_log_trace_enabled;

// The category of that name, made when there are fewer than four; else -1.
int dc_log_get_category(const char* catname);
// -1 when there is none of exactly that name.
int dc_log_find_category(const char* catname);
// Null for an index out of range.
const char* dc_log_get_category_name(int category);
const char* dc_log_get_facility_name(int category);

// 0 for -1, 63 for any other index that is no category.
int dc_log_get_mask(int category);
// Stores the low byte; ignored when that is 0 or the index is no category.
void dc_log_set_mask(int category, int mask);
// The highest level whose bit is set; -1 for an index that is no category or an empty mask.
int dc_log_get_level(int category);
// Level (clamped to 0 to 7) and all more urgent ones.
void dc_log_set_level(int category, int level);
// The mask by which the category's messages reach the system's log: 0 while that is off, with bit 256 while remote
// levels are forced or kept.
int dc_log_get_system_filter(int category);

void dc_log_enable_stderr_logging();
void dc_log_disable_stderr_logging();
bool dc_log_stderr_logging_is_enabled();
void dc_log_enable_system_logging();
void dc_log_disable_system_logging();
bool dc_log_system_logging_is_enabled();
// True: messages of level 5 and above are sent at level 5. False: they keep their levels; the filters are as with true.
void dc_log_set_force_remote_level(bool force);
void dc_log_clear_force_remote_level();

// Level 7 and standard error, or back to 5 without it, for the default and the callbacks category.
void DCLogEnableDebug(bool enable);

// Whether a message of that level would not be dropped by its category.
bool dc_log_is_enabled(int category, int level);
// One message. A category that does not exist stands for category 0, whose level then drops nothing.
void dc_logv(int category, int level, std::string_view text, std::initializer_list<FormatArgument> arguments);

template <typename... Args>
void dc_log(int category, int level, std::string_view text, const Args&... arguments) {
  if (dc_log_is_enabled(category, level)) dc_logv(category, level, text, {FormatArgument(arguments)...});
}

// The framework's own formatting first, then dc_log with "%s".
void _DCLogV(int category, int level, std::string_view text, std::initializer_list<FormatArgument> arguments);

template <typename... Args>
void _DCLog(int category, int level, std::string_view text, const Args&... arguments) {
  if (dc_log_is_enabled(category, level)) _DCLogV(category, level, text, {FormatArgument(arguments)...});
}

// To the default category.
template <typename... Args>
void DCLogError(std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_default_category(), DCLogLevelError, text, arguments...);
}
template <typename... Args>
void DCLogWarning(std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_default_category(), DCLogLevelWarning, text, arguments...);
}
template <typename... Args>
void DCLogNotice(std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_default_category(), DCLogLevelNotice, text, arguments...);
}
template <typename... Args>
void DCLogInfo(std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_default_category(), DCLogLevelInfo, text, arguments...);
}
template <typename... Args>
void DCLogDebug(std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_default_category(), DCLogLevelDebug, text, arguments...);
}
// To the callbacks category: completions and delegate calls.
template <typename... Args>
void DCLogCallback(int level, std::string_view text, const Args&... arguments) {
  _DCLog(dc_log_callbacks_category(), level, text, arguments...);
}

// The rendering of a dictionary or an array in messages.
std::string DCStringFromCollection(const Value& collection);
// Alternating names and values as "name=value, name=value"; null, or a name without value, as "(null)".
std::string _DCLogStringWithArguments(const Array& namesAndValues);

// One argument of a trace line: any property-list value, anything that format() prints as "%@", or a null pointer.
struct DCLogArgument {
  struct Printable {
    template <typename T>
    Printable(const T& argument) {
      if constexpr (std::is_convertible_v<const T&, Value> && !std::is_convertible_v<const T&, const char*>) {
        value = Value(argument);
      } else if (FormatArgument object(argument); !object.isNull()) {
        std::string text;
        object.appendObject(text);
        value = Value(text);
      }
    }
    template <typename T>
    Printable(const std::optional<T>& argument) {
      if (argument) value = Printable(*argument).value;
    }
    Value value;
  };
  std::string_view name;
  Printable argument;
};

bool dc_log_trace_is_on();
void _DCLogTrace(std::string_view function, std::initializer_list<DCLogArgument> arguments = {});

// "%s (%@)" with an operation's whole name and its arguments, at level 7 to the default category. The arguments are
// looked at only while tracing is on:
//   DCLogTrace("-[DCRelativePath relativePathByAppendingPath:]", {{"path", path}});
#define DCLogTrace(function, ...)                                                                       \
  do {                                                                                                  \
    if (::florvane::dc_log_trace_is_on()) ::florvane::_DCLogTrace(function __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)

// A failed condition, written to the default category at level 2 as "%s:%u: failed assertion '%s'\n"; the work goes on.
// The source is the file's path without extension, such as "Client/Client/DCPath".
void DCAssertionFailed(std::string_view source, unsigned line, std::string_view condition);

#define DCAssert(condition, source)                                                \
  do {                                                                             \
    if (!(condition)) ::florvane::DCAssertionFailed(source, __LINE__, #condition); \
  } while (false)

// The log layer's own steps, run by first use and by a change of the preferences.
void _DCLogInitialize();
void _DCConfigureLoggingFromLogTracePreference();
void _DCConfigureLoggingFromLogLevelPreference();
// The level that a text names, by number or by name in either case; 5, with a message, for any other, "0" included.
// Not clamped.
int _LogLevelByName(std::string_view text);

}  // namespace florvane

#include "Kel/Log.h"

#include <syslog.h>

#include <mutex>

namespace Kel {

namespace {

struct LogState {
  std::mutex mutex;
  LogSink sink;
  bool opened = false;
};

LogState& state() {
  static LogState* s = new LogState();  // never destroyed: logging may run at exit
  return *s;
}

}  // namespace

void logSinkIs(LogSink sink) {
  std::lock_guard lock(state().mutex);
  state().sink = std::move(sink);
}

std::string logLine(const LogMessage& message, std::string_view text) {
  return fmt::format("%{}-{}-{}: {}", message.facility, static_cast<int>(message.severity),
                     message.mnemonic, text);
}

namespace internal {

void logWrite(const LogMessage& message, std::string_view text) {
  std::string line = logLine(message, text);
  LogState& s = state();
  std::lock_guard lock(s.mutex);
  if (s.sink) {
    s.sink(message, line);
    return;
  }
  if (!s.opened) {
    ::openlog(nullptr, LOG_PID | LOG_NDELAY, LOG_USER);
    s.opened = true;
  }
  ::syslog(static_cast<int>(message.severity), "%s", line.c_str());
}

}  // namespace internal
}  // namespace Kel

// Kel::log: operational events that an operator must see, written to the system log.
//
// Every message comes from a catalogue entry: a facility, a mnemonic, a severity and a
// format, plus the explanation and the recommended action that the operator's
// documentation shows. Declare entries once, next to the code that logs them:
//
//   KEL_LOG_MESSAGE(MPLS_VRF_LABEL_CONFLICT, "MPLS", "VRF_LABEL_CONFLICT",
//                   Kel::LogSeverity::warning,
//                   "Dynamic VRF label {} is claimed by more than one source",
//                   "Two dynamic sources assigned the same label; it is withdrawn.",
//                   "Remove one of the conflicting assignments.");
//   Kel::log(MPLS_VRF_LABEL_CONFLICT, label);
//
// The line written is "%MPLS-4-VRF_LABEL_CONFLICT: Dynamic VRF label 100 is claimed by
// more than one source", with the severity's syslog priority. Tests install a sink that
// captures lines instead (Kel::logSinkIs).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Kel/Strep.h"

namespace Kel {

// The syslog severities, with their syslog numbers.
enum class LogSeverity : uint8_t {
  emergency = 0,
  alert = 1,
  critical = 2,
  error = 3,
  warning = 4,
  notice = 5,
  info = 6,
  debug = 7,
};

struct LogMessage {
  std::string_view facility;
  std::string_view mnemonic;
  LogSeverity severity;
  std::string_view format;  // {fmt} syntax, one {} per argument
  std::string_view explanation;
  std::string_view recommendedAction;
};

using LogSink = std::function<void(const LogMessage& message, std::string_view line)>;
// Installs `sink` in place of the system log; an empty sink restores the system log.
void logSinkIs(LogSink sink);

namespace internal {
void logWrite(const LogMessage& message, std::string_view text);
}

// Formats the catalogue message with `args` and writes it. A format that does not match
// its arguments is a programming error; {fmt} throws fmt::format_error for it.
template <class... A>
void log(const LogMessage& message, const A&... args) {
  internal::logWrite(message, fmt::format(fmt::runtime(message.format), args...));
}

// "%MPLS-4-VRF_LABEL_CONFLICT: <text>"
std::string logLine(const LogMessage& message, std::string_view text);

}  // namespace Kel

#define KEL_LOG_MESSAGE(ident, facility, mnemonic, severity, format, explanation, action) \
  inline constexpr ::Kel::LogMessage ident { facility, mnemonic, severity, format, explanation, action }

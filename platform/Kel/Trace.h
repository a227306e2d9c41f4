// The trace facility: developer traces in named facilities with levels 0 to 9.
//
//   static Kel::TraceFacility trace("MplsLfibWriter");
//   KEL_TRACE(trace, 8, "lfibRouteIs routeKey: {} viaType: {}", key, viaType);
//
// A trace line costs one relaxed load when its level is off; its arguments are not even
// evaluated. Levels are switched on by a configuration string, from the environment
// variable KEL_TRACE at start-up or from Kel::traceConfigIs():
//
//   "MplsLfibWriter/0-9,LfibTracking*/135"     facility (a trailing * matches a prefix),
//                                              a slash, then the levels: digits and
//                                              ranges ("0-3", "135", "0-25-7") or * for
//                                              all; entries separated by commas; a later
//                                              entry overrides an earlier one
//
// A facility named in no entry traces nothing. Lines go to stderr as
//   "<seconds.micros> <pid> <facility> <level> <message>"
// unless a sink is installed (tests capture lines with one).
//
// Threads: configuration and sink changes are synchronised; tracing from several threads
// is safe, but lines of different threads may interleave in a custom sink.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Kel/Strep.h"

namespace Kel {

class TraceFacility {
 public:
  explicit TraceFacility(std::string_view name);
  ~TraceFacility();
  TraceFacility(const TraceFacility&) = delete;
  TraceFacility& operator=(const TraceFacility&) = delete;

  const std::string& name() const noexcept { return name_; }
  bool enabled(int level) const noexcept {
    return (levels_.load(std::memory_order_relaxed) >> level) & 1u;
  }
  // The enabled levels as a bit mask (bit n: level n).
  uint32_t levels() const noexcept { return levels_.load(std::memory_order_relaxed); }
  void write(int level, std::string_view message) const;

 private:
  friend class TraceRegistry;
  std::string name_;
  std::atomic<uint32_t> levels_{0};
};

// Applies a configuration string to every facility, present and future. Throws
// Kel::ParseError naming the bad entry when the string is malformed; nothing is changed
// then.
void traceConfigIs(std::string_view config);
std::string traceConfig();

using TraceSink = std::function<void(const TraceFacility& facility, int level,
                                     std::string_view message)>;
// Installs `sink` in place of stderr; an empty sink restores stderr. The sink runs under
// the facility registry's lock: it must not trace or change the trace configuration.
void traceSinkIs(TraceSink sink);

}  // namespace Kel

#define KEL_TRACE(facility, level, ...)                                  \
  do {                                                                   \
    if ((facility).enabled(level)) [[unlikely]] {                        \
      (facility).write((level), ::fmt::format(__VA_ARGS__));             \
    }                                                                    \
  } while (0)

#include "Kel/Trace.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "Kel/Exception.h"

namespace Kel {

namespace {

struct TraceRule {
  std::string pattern;  // exact name, or prefix when `prefix`
  bool prefix = false;
  uint32_t levels = 0;

  bool matches(std::string_view name) const {
    return prefix ? name.substr(0, pattern.size()) == pattern : name == pattern;
  }
};

std::vector<TraceRule> parseTraceConfig(std::string_view config) {
  std::vector<TraceRule> rules;
  size_t start = 0;
  while (start <= config.size()) {
    size_t end = config.find(',', start);
    if (end == std::string_view::npos) {
      end = config.size();
    }
    std::string_view entry = config.substr(start, end - start);
    start = end + 1;
    if (entry.empty()) {
      if (end == config.size()) {
        break;
      }
      continue;
    }
    auto bad = [&](std::string_view why) {
      throw ParseError(fmt::format("bad trace entry \"{}\": {}", entry, why));
    };
    size_t slash = entry.find('/');
    if (slash == std::string_view::npos) {
      bad("expected FACILITY/LEVELS");
    }
    TraceRule rule;
    std::string_view name = entry.substr(0, slash);
    if (!name.empty() && name.back() == '*') {
      rule.prefix = true;
      name.remove_suffix(1);
    }
    if (name.empty() && !rule.prefix) {
      bad("missing facility name");
    }
    rule.pattern = name;
    std::string_view levels = entry.substr(slash + 1);
    if (levels.empty()) {
      bad("missing levels");
    }
    if (levels == "*") {
      rule.levels = 0x3ff;
    } else {
      for (size_t i = 0; i < levels.size(); ++i) {
        char c = levels[i];
        if (c < '0' || c > '9') {
          bad("levels are digits 0 to 9, ranges such as 0-3, or *");
        }
        int lo = c - '0';
        int hi = lo;
        if (i + 2 < levels.size() && levels[i + 1] == '-') {
          char h = levels[i + 2];
          if (h < '0' || h > '9' || h < c) {
            bad("a range runs from a lower to a higher digit");
          }
          hi = h - '0';
          i += 2;
        } else if (i + 1 < levels.size() && levels[i + 1] == '-') {
          bad("a range needs its upper digit");
        }
        for (int l = lo; l <= hi; ++l) {
          rule.levels |= 1u << l;
        }
      }
    }
    rules.push_back(std::move(rule));
    if (end == config.size()) {
      break;
    }
  }
  return rules;
}

}  // namespace

class TraceRegistry {
 public:
  static TraceRegistry& instance() {
    static TraceRegistry* registry = new TraceRegistry();  // never destroyed: facilities
    return *registry;                                      // may outlive static teardown
  }

  void add(TraceFacility* f) {
    std::lock_guard lock(mutex_);
    facilities_.push_back(f);
    f->levels_.store(levelsFor(f->name()), std::memory_order_relaxed);
  }
  void remove(TraceFacility* f) {
    std::lock_guard lock(mutex_);
    std::erase(facilities_, f);
  }
  void configIs(std::string_view config) {
    auto rules = parseTraceConfig(config);
    std::lock_guard lock(mutex_);
    rules_ = std::move(rules);
    config_ = config;
    for (TraceFacility* f : facilities_) {
      f->levels_.store(levelsFor(f->name()), std::memory_order_relaxed);
    }
  }
  std::string config() {
    std::lock_guard lock(mutex_);
    return config_;
  }
  void sinkIs(TraceSink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
  }
  void write(const TraceFacility& f, int level, std::string_view message) {
    std::lock_guard lock(mutex_);
    if (sink_) {
      sink_(f, level, message);
      return;
    }
    auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count();
    std::string line = fmt::format("{}.{:06} {} {} {} {}\n", now / 1000000, now % 1000000,
                                   ::getpid(), f.name(), level, message);
    std::fwrite(line.data(), 1, line.size(), stderr);
  }

 private:
  TraceRegistry() {
    if (const char* env = std::getenv("KEL_TRACE")) {
      try {
        rules_ = parseTraceConfig(env);
        config_ = env;
      } catch (const ParseError& e) {
        std::fprintf(stderr, "KEL_TRACE ignored: %s\n", e.what());
      }
    }
  }
  uint32_t levelsFor(std::string_view name) const {
    uint32_t levels = 0;
    for (const TraceRule& r : rules_) {
      if (r.matches(name)) {
        levels = r.levels;
      }
    }
    return levels;
  }

  std::mutex mutex_;
  std::vector<TraceFacility*> facilities_;
  std::vector<TraceRule> rules_;
  std::string config_;
  TraceSink sink_;
};

TraceFacility::TraceFacility(std::string_view name) : name_(name) {
  TraceRegistry::instance().add(this);
}

TraceFacility::~TraceFacility() { TraceRegistry::instance().remove(this); }

void TraceFacility::write(int level, std::string_view message) const {
  TraceRegistry::instance().write(*this, level, message);
}

void traceConfigIs(std::string_view config) { TraceRegistry::instance().configIs(config); }

std::string traceConfig() { return TraceRegistry::instance().config(); }

void traceSinkIs(TraceSink sink) { TraceRegistry::instance().sinkIs(std::move(sink)); }

}  // namespace Kel

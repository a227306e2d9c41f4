// mplsctl load: programs a route file into an LFIB through the LFIB writer.
//
// Table sizes. The tables of an LFIB are sized when they are created and a later writer
// must ask for the very same sizes, so every size here is a function of the tables'
// capacities: a first load takes them from the file (twice its counts of routes and of
// each via type's vias, at least 1024, rounded up to a power of two); a later load reads
// the sizes of the tables that exist back from their segments, so that it also takes over
// an LFIB whose writer was killed while creating its tables (it creates the rest).
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Mpls/MplsLfibWriter.h"
#include "Pond/Exception.h"
#include "Pond/MountGroup.h"
#include "Pond/UndoLog.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"
#include "tools/mplsctl/TableSetMount.h"

namespace {

// A progress bar on stderr for long loads, when stderr is a terminal: redrawn at each
// whole percent, cleared when done.
class Progress {
 public:
  explicit Progress(size_t total)
      : total_(total), shown_(total > 10000 && ::isatty(STDERR_FILENO) == 1) {}
  void step() {
    if (!shown_) {
      return;
    }
    const size_t percent = ++done_ * 100 / total_;
    if (percent != percent_) {
      percent_ = percent;
      const int width = 40;
      const int filled = static_cast<int>(percent * width / 100);
      std::fprintf(stderr, "\r[%-*s] %3zu%% %zu/%zu routes", width,
                   std::string(static_cast<size_t>(filled), '#').c_str(), percent, done_, total_);
      std::fflush(stderr);
    }
  }
  // Clears the bar; also when the load ends in an error, whose message then starts on a
  // clean line.
  ~Progress() { done(); }
  void done() {
    if (shown_ && done_ > 0) {
      std::fprintf(stderr, "\r\033[K");
      std::fflush(stderr);
    }
    shown_ = false;
  }

 private:
  size_t total_;
  bool shown_;
  size_t done_ = 0;
  size_t percent_ = 0;
};

}  // namespace

namespace Mplsctl {

namespace {

// Makes the LFIB routes of a route list in file order on a thread of its own (start()),
// ahead of the writer that takes them (next()), in a ring of routes whose storage is
// reused.
class RouteMaker {
 public:
  explicit RouteMaker(const RouteList& routes) : routes_(routes), ring_(kRing) {}
  ~RouteMaker() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    room_.notify_one();
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  RouteMaker(const RouteMaker&) = delete;
  RouteMaker& operator=(const RouteMaker&) = delete;

  // Throws std::system_error when no thread is to be had.
  void start() { thread_ = std::thread([this] { make(); }); }

  // The next route, valid until the next call.
  const Mpls::ConsolidatedLfibRoute& next() {
    if (next_ % kBatch == 0 && next_ > 0) {
      // The routes before next_ are written: their places are free.
      std::unique_lock lock(mutex_);
      taken_ = next_;
      if (makerWaits_ && taken_ >= resumeAt_) {
        makerWaits_ = false;
        lock.unlock();
        room_.notify_one();
      }
    }
    if (next_ == made_) {
      std::unique_lock lock(mutex_);
      ready_.wait(lock, [&] { return madeShared_ > next_ || error_; });
      if (madeShared_ == next_) {
        std::rethrow_exception(error_);
      }
      made_ = madeShared_;
    }
    return ring_[next_++ % kRing];
  }

 private:
  // Routes are handed over in batches, each a quarter of the ring.
  static constexpr uint64_t kRing = 1024;
  static constexpr uint64_t kBatch = kRing / 4;

  void make() {
    uint64_t made = 0;
    uint64_t free = kRing;  // the routes below this may be made
    try {
      routes_.forEach([&](const RouteList::Route& r) {
        if (made == free) {
          // The ring is full: wait until half of it is free again.
          std::unique_lock lock(mutex_);
          resumeAt_ = made - kRing / 2;
          makerWaits_ = true;
          room_.wait(lock, [&] { return taken_ >= resumeAt_ || stop_; });
          makerWaits_ = false;
          if (stop_) {
            return false;
          }
          free = taken_ + kRing;
        }
        r.lfibRouteIn(ring_[made % kRing]);
        if (++made % kBatch == 0) {
          {
            std::lock_guard lock(mutex_);
            madeShared_ = made;
            free = taken_ + kRing;
          }
          ready_.notify_one();
        }
        return true;
      });
      std::lock_guard lock(mutex_);
      madeShared_ = made;
    } catch (...) {
      std::lock_guard lock(mutex_);
      madeShared_ = made;
      error_ = std::current_exception();
    }
    ready_.notify_one();
  }

  const RouteList& routes_;
  std::vector<Mpls::ConsolidatedLfibRoute> ring_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ready_;  // madeShared_ rose, or the maker failed
  std::condition_variable room_;   // taken_ reached resumeAt_, or stop_
  uint64_t madeShared_ = 0;        // routes made
  uint64_t taken_ = 0;             // routes the writer is done with
  bool makerWaits_ = false;        // for taken_ to reach resumeAt_
  uint64_t resumeAt_ = 0;
  bool stop_ = false;
  std::exception_ptr error_;
  // The writer's side.
  uint64_t next_ = 0;
  uint64_t made_ = 0;
};

// Calls f(const ConsolidatedLfibRoute&) with the LFIB route of each of `routes`, in file
// order, made by a RouteMaker when a thread is to be had.
template <class F>
void forEachLfibRoute(const RouteList& routes, F&& f) {
  RouteMaker maker(routes);
  try {
    maker.start();
  } catch (const std::system_error&) {
    Mpls::ConsolidatedLfibRoute route;
    routes.forEach([&](const RouteList::Route& r) {
      r.lfibRouteIn(route);
      f(route);
    });
    return;
  }
  for (size_t n = 0; n < routes.size(); ++n) {
    f(maker.next());
  }
}

}  // namespace

namespace {

using namespace Mpls;

// The rows each table is sized for, by table name; the tables not named keep their
// declared sizes.
using Capacities = std::map<std::string, uint32_t, std::less<>>;

LfibStatusSizing sizingFor(const Capacities& c) {
  LfibStatusSizing s;
  s.forEach([&](std::string_view table, Pond::TableSizing& t) {
    if (auto it = c.find(table); it != c.end()) {
      t.capacity = it->second;
    }
  });
  // A via set record is 48 bytes and 12 per via; an MPLS via's about 70.
  s.viaSet.heapBytes = uint64_t{s.viaSet.capacity} * 64 + uint64_t{s.mplsVia.capacity} * 16;
  s.mplsVia.heapBytes = uint64_t{s.mplsVia.capacity} * 128;
  return s;
}

// Twice what the file holds: routes and via sets, and the vias of each via type the writer
// programs.
Capacities fileCapacities(const RouteList& routes) {
  uint64_t vias[viaTypeMax + 1] = {};
  routes.forEach([&](const RouteList::Route& r) { vias[r.viaType()] += r.vias(); });
  Capacities c{{"lfibRoute", roomFor(routes.size())}, {"viaSet", roomFor(routes.size())}};
  lfibViaTypeForEach([&](auto via) {
    if constexpr (ConsolidatedLfibRoute::carries<typename decltype(via)::Row>) {
      c.emplace(via.collection, roomFor(vias[via.viaType]));
    }
  });
  return c;
}

// The sizes for the file, but those of the tables that exist already.
LfibStatusSizing writerSizing(const std::string& name, const RouteList& routes) {
  return existingSizing(name, sizingFor(fileCapacities(routes)));
}

uint64_t rowCount(const LfibStatus& lfib) {
  uint64_t rows = 0;
  lfib.tableForEach([&](const auto& table) { rows += table.size(); });
  return rows;
}

// One bit per incoming label.
class LabelSet {
 public:
  LabelSet() : bits_((Netbase::MplsLabel::max + 1) / 64) {}
  void insert(uint32_t label) { bits_[label / 64] |= uint64_t{1} << (label % 64); }
  bool contains(uint32_t label) const { return (bits_[label / 64] >> (label % 64)) & 1; }

 private:
  std::vector<uint64_t> bits_;
};

// Refuses to write over damage that would stop the writer: a route it rewrites or deletes
// (the file's routes, then `gone`) must have its via set, and the set its vias. Returns
// how many of the file's routes the LFIB holds.
uint64_t refuseDamaged(const LfibStatus& lfib, const RouteList& file,
                       const std::vector<uint32_t>& gone, const std::string& name) {
  if (lfib.lfibRoutes() == 0) {
    return 0;
  }
  // The writer's own tables: nothing changes them under it, one read is enough.
  const auto* routes = lfib.lfibRouteTable();
  const auto* viaSets = lfib.viaSetTable();
  uint64_t held = 0;
  auto check = [&](const RouteKey& key) {
    LfibRoute route;
    if (!routes->find(key, route)) {
      return;
    }
    ++held;
    std::vector<LfibIntegrityProblem> problems;
    if (!viaSets->contains(route.viaSetKey())) {
      problems.push_back({LfibIntegrityProblem::Kind::viaSetMissing, key, route.viaSetKey(), {}});
    } else {
      problems = lfibViaSetProblems(lfib, route.viaSetKey());
    }
    if (!problems.empty()) {
      throw CommandError(fmt::format(
          "LFIB '{}' is damaged: {}: nothing loaded ('mplsctl check --lfib {}' lists the "
          "damage, 'mplsctl clear --lfib {}' removes the LFIB)",
          name, problemText(problems.front()), name, name));
    }
  };
  file.forEach([&](const RouteList::Route& r) { check(RouteKey(Netbase::MplsLabel(r.label()))); });
  const uint64_t inFile = held;
  for (uint32_t label : gone) {
    check(RouteKey(Netbase::MplsLabel(label)));
  }
  return inFile;
}

// What a file's routes add to the tables at most: a route and a via set per route, and its
// vias; the record of each row the writer stores as a record.
struct FileRows {
  uint64_t routes = 0;
  std::vector<uint32_t> viaSetRecords;
  uint64_t vias[viaTypeMax + 1] = {};
  std::vector<uint32_t> viaRecords[viaTypeMax + 1];
};

FileRows fileRows(const RouteList& routes) {
  FileRows rows;
  rows.routes = routes.size();
  rows.viaSetRecords.reserve(routes.size());
  routes.forEach([&](const RouteList::Route& r) {
    rows.viaSetRecords.push_back(LfibViaSet::kHeadLen +
                                 LfibViaSet::kViaKeyLen *
                                     std::min<uint32_t>(r.vias(), LfibViaKeyArray::capacity));
    rows.vias[r.viaType()] += r.vias();
    lfibViaTypeVisit(r.viaType(), [&](auto via) {
      using V = typename decltype(via)::Row;
      if constexpr (ConsolidatedLfibRoute::carries<V> && Pond::VariableRow<V>) {
        rows.viaRecords[via.viaType].insert(rows.viaRecords[via.viaType].end(), r.viaRecords(),
                                            r.viaRecordLen());
      }
    });
  });
  return rows;
}

uint64_t sum(const std::vector<uint32_t>& lengths) {
  uint64_t bytes = 0;
  for (uint32_t len : lengths) {
    bytes += len;
  }
  return bytes;
}

// Refuses a load that could fill a table half way: what the LFIB holds now plus all the
// file brings, as though nothing were rewritten in place, in rows and in record heap bytes.
// `held` of the file's routes are in the LFIB already; `deleted` routes go.
void checkRoom(const LfibStatus& lfib, const FileRows& file, uint64_t held, uint64_t deleted,
               const std::string& name) {
  auto refuse = [&](const std::string& shortfall) {
    throw CommandError(fmt::format("LFIB '{}' {}: nothing loaded (run 'mplsctl clear --lfib {}' "
                                   "and load again to size it for the file)",
                                   name, shortfall, name));
  };
  // Rows, and the records of each as the writer stores them.
  auto checkTable = [&](const auto& table, std::string_view what, uint64_t rows,
                        const std::vector<uint32_t>& records) {
    if (rows > table.capacity()) {
      refuse(fmt::format("has room for {} {}, this load may need {}", table.capacity(), what,
                         rows));
    }
    if (!table.heapHolds(records)) {
      refuse(fmt::format("has no room for {} bytes more of {} in the {}-byte record heap of "
                         "its table '{}'",
                         sum(records), what, table.heapBytes(), table.tableName()));
    }
  };
  checkTable(*lfib.lfibRouteTable(), "routes",
             uint64_t{lfib.lfibRoutes()} - deleted + (file.routes - held), {});
  checkTable(*lfib.viaSetTable(), "via sets", uint64_t{lfib.viaSets()} + file.routes,
             file.viaSetRecords);
  lfibViaTypeForEach([&](auto via) {
    if (const uint64_t added = file.vias[via.viaType]) {
      checkTable(*via.table(lfib), fmt::format("{} vias", via.label), via.size(lfib) + added,
                 file.viaRecords[via.viaType]);
    }
  });
}

// Backs the pages the file's rows will be written to in an empty LFIB, on a thread of its
// own while the writer reads the file's needs and then writes (see
// Pond::TableCore::populate): first what every table writes to whatever the rows (its
// chains' heads and change log), then, given the file's rows, their slots and records. The
// thread is joined when the object goes. (Into an LFIB that holds routes, most rows are
// rewritten in place: nothing is backed ahead.) Without a thread to be had, the pages come
// as they are written.
class Populating {
 public:
  Populating(const LfibStatus& lfib, bool empty) {
    if (!empty) {
      return;
    }
    try {
      thread_ = std::thread([this, &lfib] {
        lfib.tableForEach([](const auto& table) {
          if (table.table) {
            table.table->populate(0, 0);
          }
        });
        if (const FileRows* file = rows_.get_future().get()) {
          lfib.lfibRouteTable()->populate(static_cast<uint32_t>(file->routes), 0);
          lfib.viaSetTable()->populate(static_cast<uint32_t>(file->routes),
                                       sum(file->viaSetRecords));
          lfibViaTypeForEach([&](auto via) {
            if (const uint64_t added = file->vias[via.viaType]) {
              via.table(lfib)->populate(static_cast<uint32_t>(added),
                                        sum(file->viaRecords[via.viaType]));
            }
          });
        }
      });
    } catch (const std::system_error&) {
    }
  }
  // The rows to back pages for; `file` outlives this object.
  void rowsAre(const FileRows& file) {
    if (thread_.joinable() && !given_) {
      given_ = true;
      rows_.set_value(&file);
    }
  }
  ~Populating() {
    if (thread_.joinable()) {
      if (!given_) {
        rows_.set_value(nullptr);
      }
      thread_.join();
    }
  }
  Populating(const Populating&) = delete;
  Populating& operator=(const Populating&) = delete;

 private:
  std::promise<const FileRows*> rows_;
  bool given_ = false;
  std::thread thread_;
};

}  // namespace

int runLoad(const LoadOptions& options) {
  const RouteList routes = readRouteList(options.file);
  const std::string& name = options.lfib;

  const LfibStatusSizing sizing = writerSizing(name, routes);
  Kel::Ptr<Pond::MountGroup> group;
  try {
    group = Pond::MountGroup::writer(name);
  } catch (const Pond::WriterExistsError& e) {
    throw CommandError(fmt::format("LFIB '{}' has a live writer process: {}", name, e.what()));
  }
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(group, sizing);
  LfibWriter::Ptr writer = lfibWriterFactory(lfib);
  const bool wasEmpty = rowCount(*lfib) == 0;
  FileRows file;  // read by the populating thread until it is joined
  Populating populating(*lfib, wasEmpty);

  std::vector<uint32_t> gone;
  if (options.replace) {
    LabelSet inFile;
    routes.forEach([&](const RouteList::Route& r) { inFile.insert(r.label()); });
    lfib->lfibRouteForEach([&](const LfibRoute& r) {
      if (!inFile.contains(r.key().label().value())) {
        gone.push_back(r.key().label().value());
      }
    });
  }
  const uint64_t held = refuseDamaged(*lfib, routes, gone, name);
  file = fileRows(routes);
  checkRoom(*lfib, file, held, gone.size(), name);
  populating.rowsAre(file);

  uint32_t written = 0, unchanged = 0;
  {
    // A write the tables refuse after all (a record heap full) takes the load back whole:
    // through an undo log, or, into an empty LFIB, by emptying it again (a log of every
    // row would only say that none was there).
    std::optional<Pond::UndoLog> undo;
    if (!wasEmpty) {
      undo.emplace(group);
    }
    try {
      for (uint32_t label : gone) {
        writer->lfibRouteDel(RouteKey(Netbase::MplsLabel(label)));
      }
      Progress progress(routes.size());
      forEachLfibRoute(routes, [&](const ConsolidatedLfibRoute& route) {
        // Every change is logged: a route written as it stands logs none.
        const size_t before = undo ? undo->changes() : 0;
        writer->lfibRouteIs(route);
        if (undo) {
          (undo->changes() == before ? unchanged : written) += 1;
        }
        progress.step();
      });
      progress.done();
      if (!undo) {
        written = lfib->lfibRoutes();  // every route of the file is new
      }
    } catch (const std::exception& e) {
      if (undo) {
        undo->rollback();
      } else {
        writer->lfibRouteDelAll();
        lfibViaTypeForEach([&](auto via) { via.eraseAll(*lfib); });
      }
      group->publish();
      throw CommandError(fmt::format("{}: nothing loaded", e.what()));
    }
  }

  // mplsctl is the one writer of the LFIB, and a load its full pass: what a writer that
  // stopped mid-write left, and no route uses, goes now, whatever its source. A writer
  // that finishes leaves nothing of the kind: an LFIB empty before the load has none.
  if (!wasEmpty) {
    std::set<LFib::Source> sources;
    lfib->viaSetForEach([&](const LfibViaSet& set) { sources.insert(set.key().source()); });
    lfibViaTypeForEach([&](auto via) {
      via.forEach(*lfib, [&](const auto& row) { sources.insert(row.key().source()); });
    });
    const uint64_t rowsBefore = rowCount(*lfib);
    for (const LFib::Source source : sources) {
      const Kel::Ptr<LfibProducerGrState> state = lfibProducerGrStateFactory(source);
      writer->producerGrStateIs(state);
      state->inputReadyIs(true);
    }
    if (const uint64_t swept = rowsBefore - rowCount(*lfib)) {
      std::printf("LFIB '%s': %llu via sets and vias that no route used removed (a writer "
                  "stopped mid-write)\n",
                  name.c_str(), static_cast<unsigned long long>(swept));
    }
  }
  group->publish();
  std::printf("LFIB '%s': %u routes written, %u unchanged, %zu deleted\n", name.c_str(), written,
              unchanged, gone.size());
  return 0;
}

}  // namespace Mplsctl

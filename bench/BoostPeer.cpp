// Boost.Interprocess: a boost::unordered_map (the same hash as Pond's, sized for the rows)
// in a managed_shared_memory segment, guarded by an interprocess_sharable_mutex. The
// writer takes it exclusively for each insert; the reader, in another process, takes it
// sharable for each lookup.
#include <unistd.h>

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#include <functional>

#include "Stores.h"

namespace Bench {

namespace {

namespace bip = boost::interprocess;

using Segment = bip::managed_shared_memory;
using Allocator = bip::allocator<std::pair<const Key, Row>, Segment::segment_manager>;
using Map = boost::unordered_map<Key, Row, Kel::Hasher<Key>, std::equal_to<Key>, Allocator>;
using Mutex = bip::interprocess_sharable_mutex;

constexpr size_t kSegmentSize = size_t{1} << 30;  // sparse: only the pages used count

class BoostStore : public Store {
 public:
  explicit BoostStore(const Workload& w)
      : w_(w), name_("pondbench-" + std::to_string(::getpid()) + "-boost") {
    removeAtExit("/dev/shm/" + name_);
    bip::shared_memory_object::remove(name_.c_str());
    segment_ = std::make_unique<Segment>(bip::create_only, name_.c_str(), kSegmentSize);
    mutex_ = segment_->construct<Mutex>("mutex")();
    map_ = segment_->construct<Map>("map")(w.keys.size(), Kel::Hasher<Key>(), std::equal_to<Key>(),
                                           Allocator(segment_->get_segment_manager()));
  }
  ~BoostStore() override {
    reader_.reset();
    segment_.reset();
    bip::shared_memory_object::remove(name_.c_str());
  }

  std::string name() const override { return "boost"; }

  double insertAll() override {
    uint64_t t0 = monoNs();
    for (uint32_t i = 0; i < w_.keys.size(); ++i) {
      Row row = w_.rowOf(i);
      bip::scoped_lock<Mutex> lock(*mutex_);
      map_->emplace(w_.keys[i], row);
    }
    uint64_t t1 = monoNs();
    if (map_->size() != w_.keys.size()) {
      throw std::runtime_error("Boost: the map holds " + std::to_string(map_->size()) + " rows");
    }
    return double(w_.keys.size()) * 1e9 / double(t1 - t0);
  }

  void startLookups() override {
    std::string name = name_;
    reader_ = startReader(w_, "Boost.Interprocess reader", [name] {
      auto segment = std::make_shared<Segment>(bip::open_only, name.c_str());
      Map* map = segment->find<Map>("map").first;
      Mutex* mutex = segment->find<Mutex>("mutex").first;
      if (!map || !mutex) {
        throw std::runtime_error("Boost: the map or its mutex is missing from the segment");
      }
      return [segment, map, mutex](const Key& key, Row& row) {
        bip::sharable_lock<Mutex> lock(*mutex);
        auto it = map->find(key);
        if (it == map->end()) {
          return false;
        }
        row = it->second;
        return true;
      };
    });
  }
  LookupFigures lookupRound(uint32_t) override {
    return reader_->ask<LookupFigures>(kRoundTimeout);
  }
  void stopLookups() override {
    reader_->finish(std::chrono::seconds(30));
    reader_.reset();
  }

 private:
  const Workload& w_;
  std::string name_;
  std::unique_ptr<Segment> segment_;
  Mutex* mutex_ = nullptr;
  Map* map_ = nullptr;
  std::unique_ptr<Child> reader_;
};

}  // namespace

std::unique_ptr<Store> boostStore(const Workload& w) { return std::make_unique<BoostStore>(w); }

}  // namespace Bench

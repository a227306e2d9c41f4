// Hash maps in the benchmark's own process, reserved for the rows and hashed like Pond: no
// shared memory, no other process, no concurrency control. std::unordered_map is the
// floor the targets name; absl::flat_hash_map (open addressing, no node per row) shows
// what an in-process table does at best.
#include <absl/container/flat_hash_map.h>

#include <unordered_map>

#include "Stores.h"

namespace Bench {

namespace {

template <class Map>
class MapStore : public Store {
 public:
  MapStore(const Workload& w, std::string name) : w_(w), name_(std::move(name)) {}

  std::string name() const override { return name_; }

  double insertAll() override {
    map_.reserve(w_.keys.size());
    uint64_t t0 = monoNs();
    for (uint32_t i = 0; i < w_.keys.size(); ++i) {
      map_.emplace(w_.keys[i], w_.rowOf(i));
    }
    uint64_t t1 = monoNs();
    if (map_.size() != w_.keys.size()) {
      throw std::runtime_error(name_ + ": it holds " + std::to_string(map_.size()) + " rows");
    }
    return double(w_.keys.size()) * 1e9 / double(t1 - t0);
  }

  void startLookups() override { warmLookups(w_, name_.c_str(), lookup()); }
  LookupFigures lookupRound(uint32_t round) override {
    return timeLookups(w_, name_.c_str(), round, lookup());
  }
  void stopLookups() override {}

 private:
  auto lookup() {
    return [this](const Key& key, Row& row) {
      auto it = map_.find(key);
      if (it == map_.end()) {
        return false;
      }
      row = it->second;
      return true;
    };
  }

  const Workload& w_;
  std::string name_;
  Map map_;
};

}  // namespace

std::unique_ptr<Store> unorderedMapStore(const Workload& w) {
  return std::make_unique<MapStore<std::unordered_map<Key, Row, Kel::Hasher<Key>>>>(
      w, "unordered-map");
}

std::unique_ptr<Store> flatHashMapStore(const Workload& w) {
  return std::make_unique<MapStore<absl::flat_hash_map<Key, Row, Kel::Hasher<Key>>>>(
      w, "flat-hash-map");
}

}  // namespace Bench

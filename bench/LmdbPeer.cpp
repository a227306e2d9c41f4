// LMDB on /dev/shm: one write transaction per row (every row visible at once, as in Pond),
// MDB_NOSYNC | MDB_NOMETASYNC; the reader, in another process, reads through one read
// transaction per batch of lookups, renewed between batches.
#include <lmdb.h>
#include <unistd.h>

#include "Stores.h"

namespace Bench {

namespace {

constexpr size_t kMapSize = size_t{4} << 30;  // sparse on tmpfs: only the pages used count
constexpr uint32_t kBatch = 1000;             // lookups per read transaction

void check(int rc, const char* what) {
  if (rc != 0) {
    throw std::runtime_error(std::string("LMDB: ") + what + ": " + mdb_strerror(rc));
  }
}

class Env {
 public:
  Env(const std::string& path, unsigned flags) {
    check(mdb_env_create(&env_), "mdb_env_create");
    check(mdb_env_set_mapsize(env_, kMapSize), "mdb_env_set_mapsize");
    int rc = mdb_env_open(env_, path.c_str(), flags | MDB_NOSUBDIR, 0600);
    if (rc != 0) {
      mdb_env_close(env_);
      check(rc, "mdb_env_open");
    }
  }
  ~Env() { mdb_env_close(env_); }
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;
  MDB_env* get() const { return env_; }

 private:
  MDB_env* env_ = nullptr;
};

// A read transaction renewed every kBatch lookups.
class BatchedReader {
 public:
  explicit BatchedReader(const std::string& path) : env_(std::make_shared<Env>(path, MDB_RDONLY)) {
    check(mdb_txn_begin(env_->get(), nullptr, MDB_RDONLY, &txn_), "mdb_txn_begin");
    check(mdb_dbi_open(txn_, nullptr, 0, &dbi_), "mdb_dbi_open");
  }
  bool operator()(const Key& key, Row& row) {
    if (++inBatch_ == kBatch) {
      mdb_txn_reset(txn_);
      check(mdb_txn_renew(txn_), "mdb_txn_renew");
      inBatch_ = 0;
    }
    MDB_val k{sizeof(Key), const_cast<Key*>(&key)};
    MDB_val v;
    int rc = mdb_get(txn_, dbi_, &k, &v);
    if (rc == MDB_NOTFOUND) {
      return false;
    }
    check(rc, "mdb_get");
    if (v.mv_size != sizeof(Row)) {
      throw std::runtime_error("LMDB: a row of " + std::to_string(v.mv_size) + " bytes");
    }
    std::memcpy(&row, v.mv_data, sizeof(Row));
    return true;
  }

 private:
  std::shared_ptr<Env> env_;  // the reader lives in its child until the child exits
  MDB_txn* txn_ = nullptr;
  MDB_dbi dbi_ = 0;
  uint32_t inBatch_ = 0;
};

class LmdbStore : public Store {
 public:
  explicit LmdbStore(const Workload& w) : w_(w) {
    data_ = "/dev/shm/pondbench-" + std::to_string(::getpid()) + ".lmdb";
    lock_ = data_ + "-lock";
    removeAtExit(data_);
    removeAtExit(lock_);
    ::unlink(data_.c_str());
    ::unlink(lock_.c_str());
    env_ = std::make_unique<Env>(data_, MDB_NOSYNC | MDB_NOMETASYNC);
    MDB_txn* txn;
    check(mdb_txn_begin(env_->get(), nullptr, 0, &txn), "mdb_txn_begin");
    check(mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
    check(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~LmdbStore() override {
    reader_.reset();
    env_.reset();
    ::unlink(data_.c_str());
    ::unlink(lock_.c_str());
  }

  std::string name() const override { return "lmdb"; }

  double insertAll() override {
    uint64_t t0 = monoNs();
    for (uint32_t i = 0; i < w_.keys.size(); ++i) {
      Row row = w_.rowOf(i);
      MDB_txn* txn;
      check(mdb_txn_begin(env_->get(), nullptr, 0, &txn), "mdb_txn_begin");
      MDB_val k{sizeof(Key), const_cast<Key*>(&w_.keys[i])};
      MDB_val v{sizeof(Row), &row};
      int rc = mdb_put(txn, dbi_, &k, &v, 0);
      if (rc != 0) {
        mdb_txn_abort(txn);
        check(rc, "mdb_put");
      }
      check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    return double(w_.keys.size()) * 1e9 / double(monoNs() - t0);
  }

  void startLookups() override {
    std::string path = data_;
    reader_ = startReader(w_, "LMDB reader", [path] { return BatchedReader(path); });
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
  std::string data_;
  std::string lock_;
  std::unique_ptr<Env> env_;
  MDB_dbi dbi_ = 0;
  std::unique_ptr<Child> reader_;
};

}  // namespace

std::unique_ptr<Store> lmdbStore(const Workload& w) { return std::make_unique<LmdbStore>(w); }

}  // namespace Bench

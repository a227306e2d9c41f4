// Pond::MountGroup: a set of shared-memory tables with one writing process.
//
// The writer creates the group (or re-attaches to the one a previous writer left) and
// its tables; readers in other processes mount the group by name, whether or not the
// writer has created it yet, and follow it as it appears.
//
// Names: a group is named by a path, one or more names of 1 to 64 letters, digits, '_'
// and '-' separated by single '/', at most 255 characters in all ("lfib",
// "default/mpls/config"); a table by one such name. A group's segments are
// "/pond.<group>" and "/pond.<group>.<table>" under /dev/shm with '+' for every '/' of the
// path ("/pond.default+mpls+config.rows"; a path too long for a file name is shortened and
// followed by its hash), mode 0600 unless the writer names a group whose members may read
// them. Every function given a group's name throws SegmentError, quoting it, when it
// breaks these rules.
//
// Writer: exactly one live process per group; a second one gets WriterExistsError. Every
// writer that attaches starts a new incarnation, which readers see (they resynchronise).
// Changes become visible to readers at once, but sleeping readers are woken only when the
// writer publishes: publish() after a batch (an event loop does it after each iteration),
// and the group publishes by itself at the first change after a quiet spell and every 50
// microseconds during a burst.
//
// Reader: processChanges() opens what has appeared, follows every table's change log and
// delivers the tables' notifications; waitForChange() or changeFd() say when to call it.
// `ready` is true once the group and every table mounted in it are open.
//
// What a reader may observe: the writer's pid, start time and incarnation as one writer
// left them (a new writer stores them before its incarnation); a publish after the changes
// it announces.
//
// Threads: a group and its tables belong to one thread. changeFd() starts a helper thread
// of the group's own, which only waits and signals the fd. Where the kernel has io_uring's
// futex wait (Linux 6.7), the group's own thread has the kernel wait on the writer's
// publishes for it, and the fd signals without waking the helper, which then only watches
// for the group's segment appearing or being replaced: one wake-up per publish instead of
// two. A reader on an event loop (loopIs) has the loop itself wait on the writer's word
// (Kel::EventLoop::futexIs): the publish wakes the loop's thread in the system call it
// sleeps in, which also re-arms the wait, and the fd only tells of the segment.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/EventLoop.h"
#include "Pond/Exception.h"
#include "Pond/TableSizing.h"

namespace Pond {

enum class Role { writer, reader };

class UndoLog;

struct MountOptions {
  mode_t mode = 0600;
  // Segments belong to this group, whose members may read them (mode 0640).
  std::optional<gid_t> group;
};

namespace internal {
class GroupLink;
class GroupState;
class FutexRing;
struct GroupHeader;
struct SegmentOptions;

// What a group asks of each of its tables.
class TableBase {
 public:
  virtual const std::string& tableName() const = 0;
  virtual bool opened() const = 0;
  // Reader: opens the table if its segment exists; true when it is open.
  virtual bool tryOpen() = 0;
  // Reader: drops the mapping (the group was replaced); the next tryOpen resynchronises.
  virtual void close() = 0;
  // Reader: delivers the changes logged since the last call; returns how many.
  virtual size_t pollChanges() = 0;
  // Reader: delivers a notification for every row present and every row gone since the
  // last delivery, from the table itself; returns how many.
  virtual size_t resync() = 0;

 protected:
  ~TableBase() = default;
};
}  // namespace internal

class MountGroup : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<MountGroup>;

  class NotifieeConst : public Kel::NotifieeOf<MountGroup> {
   public:
    virtual void onReady() {}
    virtual void onWriterIncarnation() {}
  };

  // Creates the group, or re-attaches to the segments a previous writer left (removing the
  // half-made segments of writers killed while they created one). Throws
  // WriterExistsError when another live process writes the group, SegmentError when its
  // name or segment is bad.
  static Ptr writer(std::string_view name, const MountOptions& options = {});
  // Mounts the group for reading; its segments may appear later.
  static Ptr reader(std::string_view name);
  // Removes the segments of a group and its tables, and the half-made ones of processes
  // that died creating one; returns how many were removed.
  // Processes that have them mapped keep their mappings. Throws SegmentError, after
  // removing all it can, when a segment cannot be removed: "permission denied: cannot
  // remove shared-memory segment /pond.lfib.route (owner uid 0, mode 0600)".
  static size_t removeSegments(std::string_view name);
  // The sizes of the group's table `table` as its segment holds them, for a writer that
  // takes over a group whose tables exist, all or some (a writer killed while creating
  // them leaves some): its writer asks for the same sizes, and creates the missing tables.
  // nullopt when the table does not exist. Throws SegmentError when it cannot be read.
  static std::optional<TableSizing> tableSizing(std::string_view name, std::string_view table);
  // The names of the group's tables that exist now.
  static std::vector<std::string> tableNames(std::string_view name);
  // The groups whose segment exists now and whose path lies strictly under `prefix`
  // ("a/b" and "a/b/c" under "a"; not "a" itself, nor "ab/c"), sorted; every group for an
  // empty prefix. Half-made segments are not groups. Pond::GroupWatch follows the same set.
  static std::vector<std::string> groupsUnder(std::string_view prefix);

  ~MountGroup() override;

  const std::string& name() const noexcept { return name_; }
  Role role() const noexcept { return role_; }
  // Reader: the group and every table mounted in it are open. Writer: true.
  bool ready() const noexcept { return ready_; }
  // The incarnation of the writer (0 while a reader has not seen the group yet).
  uint64_t writerIncarnation() const noexcept;
  uint32_t writerPid() const noexcept;
  // Whether the group's writer process is alive (a reader checks its pid and start time,
  // so a recycled pid does not pass for it).
  bool writerAlive() const;

  // Writer: wakes the readers sleeping on the group if anything changed since the last
  // publish. Cheap when nothing did.
  void publish();
  // Reader: see above; returns the number of notifications delivered.
  size_t processChanges();
  // Reader: waits at most `timeout` for the writer to publish or the group's segment to
  // appear; true when something may have changed.
  bool waitForChange(std::chrono::milliseconds timeout);
  // Reader: an fd that polls readable when processChanges() has something to do. Reading
  // it is processChanges()'s business.
  int changeFd();
  // Whether changeFd() may use io_uring's futex wait where the kernel has it (default
  // true); for comparing the two ways in benchmarks and tests. Applies to later calls.
  static void futexRingAllowedIs(bool allowed) noexcept;
  // Lets `loop` drive the group: a writer publishes after every iteration of the loop, a
  // reader processes its changes whenever the writer publishes or the group's segment
  // appears or is replaced (the loop waits on the group's word itself where it can, on
  // changeFd() otherwise; changeFd() is then the loop's to poll). Null detaches. The loop
  // must outlive the group, or be detached first.
  void loopIs(Kel::EventLoop* loop);

  // Tables register here (Pond::PondMap does it); a reader opens the table at once if it
  // can.
  void tableIs(internal::TableBase* table);
  void tableDel(internal::TableBase* table);
  internal::GroupLink& link() noexcept;
  // Writer: a table was created or attached; readers waiting for it are woken.
  void tableAttached();
  // Writer: the log recording the group's changes (Pond/UndoLog.h); null when none.
  UndoLog* undoLog() const noexcept { return undoLog_; }

 private:
  MountGroup(std::string name, Role role, internal::SegmentOptions options);
  bool tryOpenGroup();
  void dropGroup();
  void readyIs(bool ready);
  void stopWaiter();
  // Reader, at the end of processChanges(): the change fd polls readable again only for what
  // comes after `wake` (the group's wake sequence read before its tables; none when the
  // group is not open).
  void changeFdQuiet(std::optional<uint32_t> wake);
  // Reader: starts the change fd and its helper thread, with a FutexRing when `ring`.
  void openChangeFd(bool ring);
  // Reader on a loop that can no longer wait on the group's word: the helper does.
  void loopWaitsNot();

  friend class internal::GroupState;
  friend class UndoLog;
  // Writer: a table logged a change.
  void noteChange();
  // The group segment's header; null while it is not mapped.
  const internal::GroupHeader* header() const noexcept;

  std::string name_;
  Role role_;
  // The group's segment, and what its tables ask of the group.
  std::unique_ptr<internal::GroupState> state_;
  std::vector<internal::TableBase*> tables_;
  bool ready_;
  uint64_t incarnation_ = 0;
  // Writer.
  uint64_t changes_ = 0;
  UndoLog* undoLog_ = nullptr;
  std::chrono::steady_clock::time_point lastPublish_{};
  // Reader.
  uint32_t lastWake_ = 0;
  std::chrono::steady_clock::time_point lastReplacedCheck_{};
  int inotifyFd_ = -1;
  int changeFd_ = -1;
  std::thread waiter_;
  std::atomic<bool> stopWaiter_{false};
  std::atomic<const uint32_t*> waiterWord_{nullptr};
  // changeFd() on io_uring: the pending futex wait, and whether the helper leaves the
  // waiting to it (it then sleeps on stopWord_ between its checks of the segment).
  std::unique_ptr<internal::FutexRing> ring_;
  std::atomic<bool> ringWaits_{false};
  // The helper saw the group's segment appear or be replaced since processChanges() looked.
  std::atomic<bool> segmentSignalled_{false};
  uint32_t stopWord_ = 0;
  Kel::EventLoop* loop_ = nullptr;
  Kel::EventLoop::HookId publishHook_ = Kel::EventLoop::HookId::none;
  // Reader: the loop's wait on the group's word, where the loop can wait on futex words.
  Kel::EventLoop::FutexId loopFutex_ = Kel::EventLoop::FutexId::none;
};

}  // namespace Pond

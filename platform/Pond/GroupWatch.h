// Pond::GroupWatch: follows which mount groups exist under a path, for a reader that mounts
// each group as it appears ("default/mpls/labelRequest" holds one group per client).
//
// The watch knows the groups under its prefix (as MountGroup::groupsUnder() gives them)
// from its construction on, and reports each change after that: a group whose segment
// appeared (its writer created it) or disappeared (MountGroup::removeSegments()). Tables
// and the half-made segments of writers creating one are not groups and are never
// reported. Reports follow the order of the changes, and each says the opposite of the
// last one for the same group: a group removed and created again between two calls of
// processEvents() is reported gone, then present. When the kernel drops changes (its
// queue of them overflowed), the watch lists the groups anew and reports the differences
// against what it knew, so that what it knows always ends equal to /dev/shm.
//
// Threads: a watch belongs to one thread; its handler runs on it, from processEvents().
#pragma once

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Kel/EventLoop.h"

namespace Pond {

class GroupWatch {
 public:
  using Handler = std::function<void(const std::string& group, bool present)>;

  // Watches the groups strictly under `prefix` (every group for ""). Throws SegmentError
  // when the prefix is not a group's path, or /dev/shm cannot be watched.
  explicit GroupWatch(std::string_view prefix);
  ~GroupWatch();
  GroupWatch(const GroupWatch&) = delete;
  GroupWatch& operator=(const GroupWatch&) = delete;

  const std::string& prefix() const noexcept { return prefix_; }
  // The groups the watch knows of, as reported so far, sorted.
  std::vector<std::string> groups() const { return {known_.begin(), known_.end()}; }
  // Polls readable when processEvents() has something to read (non-blocking, close-on-exec;
  // the watch owns it). Reading it is processEvents()'s business.
  int fd() const noexcept { return fd_; }

  // Called once for every change processEvents() finds; none is called while it is empty.
  // The handler may read groups(), which includes the change it is told of.
  void handlerIs(Handler handler) { handler_ = std::move(handler); }
  // Reads every change pending and reports those under the prefix. Never blocks. Throws
  // SegmentError when the fd cannot be read.
  void processEvents();
  // Lets `loop` call processEvents() whenever fd() polls readable. Null detaches. The loop
  // must outlive the watch, or be detached first.
  void loopIs(Kel::EventLoop* loop);

 private:
  // Records a group's presence; reports it when it differs from what was known.
  void groupIs(const std::string& group, bool present);
  // After lost changes: reports the differences between /dev/shm and what was known.
  void relist();

  std::string prefix_;
  int fd_ = -1;
  std::set<std::string> known_;
  // A batch was cut short (its handler threw): changes read may not have been reported.
  bool relistPending_ = false;
  Handler handler_;
  Kel::EventLoop* loop_ = nullptr;
};

}  // namespace Pond

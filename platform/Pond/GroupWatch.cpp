#include "Pond/GroupWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "Kel/Quote.h"
#include "Pond/Exception.h"
#include "Pond/MountGroup.h"
#include "Pond/internal/Segment.h"

namespace Pond {

using internal::Segment;

namespace {

// The prefix has been checked: it is short, and quoted whole.
[[noreturn]] void throwSystemError(std::string_view prefix, std::string_view what) {
  throw SegmentError(fmt::format("watch of the mount groups under {}: {}: {}",
                                 Kel::quoted(prefix, prefix.size()), what, std::strerror(errno)));
}

}  // namespace

GroupWatch::GroupWatch(std::string_view prefix) : prefix_(prefix) {
  if (!prefix_.empty()) {
    Segment::checkGroupName(prefix_);
  }
  fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd_ < 0) {
    throwSystemError(prefix_, "inotify_init1");
  }
  // Watching before listing: a group that appears in between is heard of, not missed (and
  // then not reported twice, being known).
  if (::inotify_add_watch(fd_, "/dev/shm", IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM) <
      0) {
    ::close(fd_);
    throwSystemError(prefix_, "cannot watch /dev/shm");
  }
  try {
    for (std::string& group : MountGroup::groupsUnder(prefix_)) {
      known_.insert(std::move(group));
    }
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

GroupWatch::~GroupWatch() {
  loopIs(nullptr);
  ::close(fd_);
}

void GroupWatch::processEvents() {
  // Until the batch is done, changes read from the fd may not all be reported yet (a
  // handler may throw): the next call lists the groups anew.
  const bool lost = std::exchange(relistPending_, true);
  bool overflowed = false;
  alignas(inotify_event) char buf[16384];
  for (;;) {
    ssize_t n = ::read(fd_, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && errno == EAGAIN) {
      break;
    }
    if (n <= 0) {
      throwSystemError(prefix_, "cannot read its inotify fd");
    }
    for (ssize_t at = 0; at < n;) {
      const auto* e = reinterpret_cast<const inotify_event*>(buf + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      // Changes were dropped: what follows is drained, and the listing below covers all.
      overflowed = overflowed || (e->mask & IN_Q_OVERFLOW) != 0;
      if (overflowed || e->len == 0) {
        continue;
      }
      auto what = Segment::parseFileName(e->name);
      if (!what || !what->table.empty() || what->creator != 0) {
        continue;  // a table's segment, a temporary, or not Pond's
      }
      const bool present = (e->mask & (IN_CREATE | IN_MOVED_TO)) != 0;
      // A segment named by its path's hash: its header names the group while it exists;
      // once it is gone, the known group of that stem is the one gone.
      std::optional<std::string> group;
      if (present) {
        group = Segment::groupOf(*what);
      } else if (!what->group.empty()) {
        group = what->group;
      } else if (auto known = std::find_if(
                     known_.begin(), known_.end(),
                     [&](const std::string& g) { return Segment::groupStem(g) == what->stem; });
                 known != known_.end()) {
        group = *known;
      }
      if (group && Segment::groupUnder(*group, prefix_)) {
        groupIs(*group, present);
      }
    }
  }
  if (lost || overflowed) {
    relist();
  }
  relistPending_ = false;
}

void GroupWatch::groupIs(const std::string& group, bool present) {
  if (present ? !known_.insert(group).second : known_.erase(group) == 0) {
    return;
  }
  if (handler_) {
    handler_(group, present);
  }
}

void GroupWatch::relist() {
  std::vector<std::string> now = MountGroup::groupsUnder(prefix_);
  std::vector<std::string> gone;
  std::set_difference(known_.begin(), known_.end(), now.begin(), now.end(),
                      std::back_inserter(gone));
  for (const std::string& group : gone) {
    groupIs(group, false);
  }
  for (const std::string& group : now) {
    groupIs(group, true);
  }
}

void GroupWatch::loopIs(Kel::EventLoop* loop) {
  if (loop_ == loop) {
    return;
  }
  if (loop_) {
    loop_->fdDel(fd_);
  }
  loop_ = loop;
  if (loop_) {
    loop_->fdIs(fd_, EPOLLIN, [this](uint32_t) { processEvents(); });
  }
}

}  // namespace Pond

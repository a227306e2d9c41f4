#include "Pond/MountGroup.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <fstream>

#include <fmt/format.h>

#include "Pond/internal/FutexRing.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"
#include "Pond/internal/TableEngine.h"

namespace Pond {

using internal::GroupHeader;
using internal::loadAcquire;
using internal::Segment;

namespace {

constexpr auto kPublishInterval = std::chrono::microseconds(50);
// How often a reader checks that its group's segments were not replaced by new ones.
constexpr auto kReplacedCheckInterval = std::chrono::milliseconds(100);

long futexWait(const uint32_t* word, uint32_t expected, std::chrono::milliseconds timeout) {
  struct timespec ts {};
  ts.tv_sec = timeout.count() / 1000;
  ts.tv_nsec = (timeout.count() % 1000) * 1000000;
  return ::syscall(SYS_futex, word, FUTEX_WAIT, expected, &ts, nullptr, 0);
}

void futexWakeAll(const uint32_t* word) {
  ::syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Calls f(file, what) for every file under /dev/shm that is a Pond segment or temporary.
template <class F>
void forEachShmFile(F&& f) {
  DIR* dir = ::opendir("/dev/shm");
  if (!dir) {
    return;
  }
  while (dirent* e = ::readdir(dir)) {
    std::string_view file(e->d_name);
    if (auto what = Segment::parseFileName(file)) {
      f(file, *what);
    }
  }
  ::closedir(dir);
}

// The same for the files of one group: its segments and its temporaries.
template <class F>
void forEachShmFile(std::string_view group, F&& f) {
  const std::string stem = Segment::groupStem(group);
  forEachShmFile([&](std::string_view file, const Segment::ShmFile& what) {
    if (what.stem == stem) {
      f(file, what);
    }
  });
}

// Removes the temporaries ("<segment>.tmp<pid>.<n>", see Segment::create) that processes
// which died while creating a segment left, and returns how many there were. A live
// process's temporary is its own business.
size_t removeDeadTemporaries(std::string_view group) {
  std::vector<std::string> dead;
  forEachShmFile(group, [&](std::string_view file, const Segment::ShmFile& what) {
    if (what.creator != 0 && ::kill(what.creator, 0) != 0 && errno == ESRCH) {
      dead.emplace_back(file);
    }
  });
  size_t removed = 0;
  for (const std::string& file : dead) {
    removed += ::shm_unlink(("/" + file).c_str()) == 0;
  }
  return removed;
}

// A process's start time in clock ticks since boot (field 22 of /proc/PID/stat), so that
// a recycled pid is not taken for the process that had it.
std::optional<uint64_t> processStartTime(uint32_t pid) {
  std::ifstream in(fmt::format("/proc/{}/stat", pid));
  std::string line;
  if (!std::getline(in, line)) {
    return std::nullopt;
  }
  auto paren = line.rfind(')');
  if (paren == std::string::npos) {
    return std::nullopt;
  }
  // After ") " come fields 3, 4, ...: field 22 is the 20th of them.
  size_t pos = paren + 2;
  for (int field = 3; field < 22; ++field) {
    pos = line.find(' ', pos);
    if (pos == std::string::npos) {
      return std::nullopt;
    }
    ++pos;
  }
  return std::strtoull(line.c_str() + pos, nullptr, 10);
}

// What the group header of every layout starts with (its magic, layout version and size):
// a segment of another layout is opened as far as that, to say which it is.
constexpr size_t kGroupHeaderStart = offsetof(GroupHeader, name);

void checkGroupHeader(const Segment& s, std::string_view name) {
  const auto* h = reinterpret_cast<const GroupHeader*>(s.base());
  auto bad = [&](const std::string& why) {
    throw SegmentError(fmt::format("mount group '{}' (segment {}) cannot be used: {}", name,
                                   s.name(), why));
  };
  if (h->magic != internal::kGroupMagic) {
    bad(fmt::format("not a Pond mount group (magic {:#x})", h->magic));
  }
  if (h->layoutVersion != internal::kLayoutVersion || h->headerSize != sizeof(GroupHeader)) {
    bad(fmt::format("layout version {} with a {}-byte header; this build reads version {} ({})",
                    h->layoutVersion, h->headerSize, internal::kLayoutVersion,
                    sizeof(GroupHeader)));
  }
  if (s.size() < sizeof(GroupHeader)) {
    bad(fmt::format("truncated: {} bytes, its header takes {}", s.size(), sizeof(GroupHeader)));
  }
  if (std::memchr(h->name, 0, sizeof(h->name)) == nullptr || name != h->name) {
    bad("its header names another group");
  }
}

}  // namespace

namespace internal {

// A group's segment, and the group as its tables' engines see it.
class GroupState final : public GroupLink {
 public:
  GroupState(MountGroup& group, SegmentOptions segmentOptions)
      : group_(group), options(std::move(segmentOptions)) {}

  const std::string& groupName() const override { return group_.name(); }
  const SegmentOptions& segmentOptions() const override { return options; }
  void noteChange() override { group_.noteChange(); }
  bool writerAlive() const override { return group_.writerAlive(); }
  uint32_t writerPid() const override { return group_.writerPid(); }

 private:
  MountGroup& group_;

 public:
  const SegmentOptions options;
  Segment segment;
};

}  // namespace internal

MountGroup::MountGroup(std::string name, Role role, internal::SegmentOptions options)
    : name_(std::move(name)),
      role_(role),
      state_(std::make_unique<internal::GroupState>(*this, std::move(options))),
      ready_(role == Role::writer) {}

internal::GroupLink& MountGroup::link() noexcept { return *state_; }

const GroupHeader* MountGroup::header() const noexcept {
  return reinterpret_cast<const GroupHeader*>(state_->segment.base());
}

MountGroup::Ptr MountGroup::writer(std::string_view name, const MountOptions& options) {
  Segment::checkGroupName(name);
  if ((options.mode & 0022) != 0) {
    throw SegmentError(fmt::format("mount group '{}': mode {:04o} lets others than the writer "
                                   "write its segments; readers would refuse them",
                                   name, options.mode));
  }
  internal::SegmentOptions segmentOptions{options.mode, options.group};
  Ptr group(new MountGroup(std::string(name), Role::writer, segmentOptions));
  std::string shm = Segment::groupShmName(name);
  // A new group appears with its first incarnation already stamped, so that a reader
  // that opens it before its writer is done attaching does not take that writer for a
  // second one. The group takes the segment only once it holds the lock: a writer refused
  // leaves the segment as it found it (its destructor would mark the group writerless).
  std::optional<Segment> segment;
  bool created = false;
  for (int attempt = 0; attempt < 3 && !segment; ++attempt) {
    segment = Segment::open(shm, true, kGroupHeaderStart);
    if (!segment) {
      segment = Segment::create(shm, sizeof(GroupHeader), segmentOptions, [&](uint8_t* base) {
        auto* h = reinterpret_cast<GroupHeader*>(base);
        h->magic = internal::kGroupMagic;
        h->layoutVersion = internal::kLayoutVersion;
        h->headerSize = sizeof(GroupHeader);
        h->incarnation = 1;
        std::memcpy(h->name, name.data(), name.size());
      });
      created = segment.has_value();
    }
  }
  if (!segment) {
    throw SegmentError(fmt::format("mount group '{}': its segment keeps appearing and "
                                   "disappearing", name));
  }
  checkGroupHeader(*segment, name);
  // The lock goes with the process: a writer that dies leaves the group to the next one.
  if (::flock(segment->fd(), LOCK_EX | LOCK_NB) != 0) {
    // acquire: as in writerPid(); only for the message.
    throw WriterExistsError(fmt::format(
        "mount group '{}' has a writer already (pid {})", name,
        loadAcquire(&reinterpret_cast<const GroupHeader*>(segment->base())->writerPid)));
  }
  group->state_->segment = std::move(*segment);
  auto* h = reinterpret_cast<GroupHeader*>(group->state_->segment.base());
  uint32_t pid = static_cast<uint32_t>(::getpid());
  // The pid is cleared while the start time changes, so that a reader never pairs the new
  // start time with the old pid. release, all three: each is seen after the one before.
  internal::storeRelease(&h->writerPid, 0);
  internal::storeRelease(&h->writerStartTime, processStartTime(pid).value_or(0));
  internal::storeRelease(&h->writerPid, pid);
  if (!created) {
    // release: a reader that sees the new incarnation sees the new writer's pid too.
    internal::storeRelease(&h->incarnation, h->incarnation + 1);
  }
  group->incarnation_ = h->incarnation;
  group->changes_ = 1;
  // What a writer killed while it created a table left.
  removeDeadTemporaries(name);
  group->publish();
  return group;
}

MountGroup::Ptr MountGroup::reader(std::string_view name) {
  Segment::checkGroupName(name);
  Ptr group(new MountGroup(std::string(name), Role::reader, {}));
  group->tryOpenGroup();
  return group;
}

MountGroup::~MountGroup() {
  loopIs(nullptr);
  stopWaiter();
  if (role_ == Role::writer && state_->segment.base()) {
    // A clean exit: no writer is attached any more. release: the writer's last changes are
    // published before readers see it gone.
    internal::storeRelease(&reinterpret_cast<GroupHeader*>(state_->segment.base())->writerPid, 0);
    futexWakeAll(&header()->wakeSeq);
  }
  if (inotifyFd_ >= 0) {
    ::close(inotifyFd_);
  }
}

size_t MountGroup::removeSegments(std::string_view name) {
  Segment::checkGroupName(name);
  size_t removed = 0;
  std::optional<SegmentError> failed;
  auto remove = [&](const std::string& shm) {
    try {
      removed += Segment::unlink(shm);
    } catch (const SegmentError& e) {
      failed = failed.value_or(e);
    }
  };
  for (const std::string& table : tableNames(name)) {
    remove(Segment::tableShmName(name, table));
  }
  remove(Segment::groupShmName(name));
  removed += removeDeadTemporaries(name);
  if (failed) {
    throw *failed;
  }
  return removed;
}

std::optional<TableSizing> MountGroup::tableSizing(std::string_view name, std::string_view table) {
  Segment::checkGroupName(name);
  Segment::checkName("table", table);
  auto s = Segment::open(Segment::tableShmName(name, table), false, sizeof(internal::TableHeader));
  if (!s) {
    return std::nullopt;
  }
  internal::TableHeader h;
  std::memcpy(&h, s->base(), sizeof(h));
  if (h.magic != internal::kTableMagic || h.layoutVersion != internal::kLayoutVersion) {
    throw SegmentError(fmt::format("table '{}' of mount group '{}' (segment {}) is not a Pond "
                                   "table of this layout version",
                                   table, name, s->name()));
  }
  TableSizing sizing;
  sizing.capacity = h.capacity;
  sizing.logEntries = h.logEntries;
  sizing.heapBytes = h.variable ? uint64_t{h.chunkCount} * h.chunkSize : 0;
  sizing.maxRecordLen = h.variable ? h.rowSize : 0;
  return sizing;
}

std::vector<std::string> MountGroup::tableNames(std::string_view name) {
  std::vector<std::string> out;
  forEachShmFile(name, [&](std::string_view, const Segment::ShmFile& what) {
    if (!what.table.empty() && what.creator == 0) {
      out.push_back(what.table);
    }
  });
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> MountGroup::groupsUnder(std::string_view prefix) {
  if (!prefix.empty()) {
    Segment::checkGroupName(prefix);
  }
  std::vector<std::string> out;
  forEachShmFile([&](std::string_view, const Segment::ShmFile& what) {
    if (what.table.empty() && what.creator == 0) {
      if (auto group = Segment::groupOf(what); group && Segment::groupUnder(*group, prefix)) {
        out.push_back(std::move(*group));
      }
    }
  });
  std::sort(out.begin(), out.end());
  return out;
}

uint64_t MountGroup::writerIncarnation() const noexcept {
  // acquire: pairs with the writer's release; the new writer's pid is read after it.
  return state_->segment.base() ? loadAcquire(&header()->incarnation) : 0;
}

uint32_t MountGroup::writerPid() const noexcept {
  // acquire: pairs with the writer's release stores of its pid and start time.
  return state_->segment.base() ? loadAcquire(&header()->writerPid) : 0;
}

bool MountGroup::writerAlive() const {
  if (role_ == Role::writer) {
    return true;
  }
  if (!state_->segment.base()) {
    return false;
  }
  // acquire: the start time is read after the pid it goes with (the writer stores the pid
  // last, with release).
  uint32_t pid = loadAcquire(&header()->writerPid);
  if (pid == 0) {
    return false;
  }
  auto start = processStartTime(pid);
  // acquire: ordered after the pid's load, as the writer ordered the stores.
  return start && *start == loadAcquire(&header()->writerStartTime);
}

void MountGroup::noteChange() {
  // The clock is read at the first change after a publish and then every 16th: a lone
  // change after a quiet spell wakes readers at once, a burst wakes them every 50 us.
  if (++changes_ != 1 && (changes_ & 15) != 0) {
    return;
  }
  if (std::chrono::steady_clock::now() - lastPublish_ >= kPublishInterval) {
    publish();
  }
}

void MountGroup::publish() {
  if (role_ != Role::writer || changes_ == 0) {
    return;
  }
  auto* h = reinterpret_cast<GroupHeader*>(state_->segment.base());
  // release: a reader woken by the new value sees the changes it announces.
  internal::storeRelease(&h->wakeSeq, h->wakeSeq + 1);
  futexWakeAll(&h->wakeSeq);
  changes_ = 0;
  lastPublish_ = std::chrono::steady_clock::now();
}

void MountGroup::tableAttached() {
  ++changes_;
  publish();
}

void MountGroup::tableIs(internal::TableBase* table) {
  tables_.push_back(table);
  if (role_ == Role::reader && state_->segment.base()) {
    bool allOpen = true;
    for (internal::TableBase* t : tables_) {
      allOpen = t->tryOpen() && allOpen;
    }
    readyIs(allOpen);
  }
}

void MountGroup::tableDel(internal::TableBase* table) { std::erase(tables_, table); }

bool MountGroup::tryOpenGroup() {
  auto s = Segment::open(Segment::groupShmName(name_), false, kGroupHeaderStart);
  if (!s) {
    return false;
  }
  checkGroupHeader(*s, name_);
  state_->segment = std::move(*s);
  // acquire, both: pair with the writer's release stores; the tables are read after them.
  lastWake_ = loadAcquire(&header()->wakeSeq);
  incarnation_ = loadAcquire(&header()->incarnation);
  return true;
}

void MountGroup::dropGroup() {
  for (internal::TableBase* t : tables_) {
    t->close();  // reopened tables resynchronise
  }
  state_->segment = Segment();
  if (ring_) {
    // Its wait is on the segment gone: a new ring waits on the next one.
    ring_ = internal::FutexRing::create(changeFd_);
    if (!ring_) {
      ringWaits_.store(false);
      futexWakeAll(&stopWord_);  // the helper waits on the word again
    }
  }
}

void MountGroup::readyIs(bool ready) {
  if (ready_ == ready) {
    return;
  }
  ready_ = ready;
  kelNotify(&NotifieeConst::onReady);
}

namespace {

void signalFd(int fd) {
  uint64_t one = 1;
  (void)!::write(fd, &one, sizeof(one));
}

void drainFd(int fd) {
  uint64_t drained;  // an eventfd: one read takes the whole count
  (void)!::read(fd, &drained, sizeof(drained));
}

}  // namespace

size_t MountGroup::processChanges() {
  if (role_ != Role::reader) {
    return 0;
  }
  if (changeFd_ >= 0 && !ring_ && loopFutex_ == Kel::EventLoop::FutexId::none) {
    // The helper signals every publish it sees: drained before the group is read, the fd
    // polls readable again for the publishes after.
    drainFd(changeFd_);
  }
  // A handler that throws leaves the rest of the changes to the next call: the change fd
  // asks for it at once.
  struct Retry {
    int fd;
    int exceptions = std::uncaught_exceptions();
    ~Retry() {
      if (fd >= 0 && std::uncaught_exceptions() > exceptions) {
        signalFd(fd);
      }
    }
  } retry{changeFd_};
  // seq_cst: see the waiter's store. The helper saw the segment appear or be replaced: the
  // check below is not put off.
  const bool segmentSignalled =
      changeFd_ >= 0 && segmentSignalled_.load() && segmentSignalled_.exchange(false);
  auto now = std::chrono::steady_clock::now();
  if (state_->segment.base() &&
      (segmentSignalled || now - lastReplacedCheck_ >= kReplacedCheckInterval)) {
    // A writer that found no segments (they were removed) made new ones: follow them.
    lastReplacedCheck_ = now;
    struct stat st {};
    if (::stat(Segment::pathOf(state_->segment.name()).c_str(), &st) != 0 ||
        st.st_ino != state_->segment.inode()) {
      dropGroup();
    }
  }
  if (!state_->segment.base() && !tryOpenGroup()) {
    changeFdQuiet(std::nullopt);
    readyIs(false);
    return 0;
  }
  // acquire: a publish after this load ends the ring's wait at once (see changeFdQuiet).
  const uint32_t wake = loadAcquire(&header()->wakeSeq);
  size_t delivered = 0;
  bool allOpen = true;
  for (internal::TableBase* t : tables_) {
    allOpen = t->tryOpen() && allOpen;
  }
  // acquire: pairs with the new writer's release store; its tables are read after it.
  uint64_t incarnation = loadAcquire(&header()->incarnation);
  bool newWriter = incarnation != incarnation_;
  incarnation_ = incarnation;
  // A new writer may have changed rows without logging them (its predecessor died between
  // a change and its log entry): hear everything from the tables themselves.
  for (internal::TableBase* t : tables_) {
    if (t->opened()) {
      delivered += newWriter ? t->resync() : t->pollChanges();
    }
  }
  changeFdQuiet(wake);
  readyIs(allOpen);
  if (newWriter) {
    kelNotify(&NotifieeConst::onWriterIncarnation);
  }
  return delivered;
}

void MountGroup::changeFdQuiet(std::optional<uint32_t> wake) {
  if (loopFutex_ != Kel::EventLoop::FutexId::none) {
    // Armed after the handlers, off the way to them: the kernel sees the wait when the loop
    // next sleeps, and ends it at once if a publish came since `wake`. (A handler that
    // throws has the change fd signalled: the next call arms it.)
    if (wake && !loop_->futexArm(loopFutex_, &header()->wakeSeq, *wake)) {
      loopWaitsNot();
    }
    return;
  }
  if (!ring_) {
    return;  // drained before the group was read
  }
  if (wake && !ring_->arm(&header()->wakeSeq, *wake)) {
    ring_.reset();  // the helper waits on the word again
    ringWaits_.store(false);
    futexWakeAll(&stopWord_);
    signalFd(changeFd_);  // and the next call, without the ring, drains the fd first
    return;
  }
  // Drained after the ring was armed, so that the signal of the wait that arm() completed
  // goes with it; a wait that ended since, or a segment the helper saw, signals again.
  drainFd(changeFd_);
  // seq_cst: see the waiter's store.
  if ((wake && ring_->ended()) || segmentSignalled_.load()) {
    signalFd(changeFd_);
  }
}

void MountGroup::loopWaitsNot() {
  loop_->futexDel(loopFutex_);
  loopFutex_ = Kel::EventLoop::FutexId::none;
  // The helper waits on the word again, and signals the fd for the loop.
  ringWaits_.store(false);
  futexWakeAll(&stopWord_);
  loop_->fdIs(changeFd_, EPOLLIN, [this](uint32_t) { processChanges(); });
  signalFd(changeFd_);
}

bool MountGroup::waitForChange(std::chrono::milliseconds timeout) {
  if (role_ != Role::reader) {
    return false;
  }
  if (!state_->segment.base()) {
    // Nothing to sleep on yet: watch /dev/shm for the group's segment.
    if (inotifyFd_ < 0) {
      inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
      if (inotifyFd_ < 0 ||
          ::inotify_add_watch(inotifyFd_, "/dev/shm", IN_CREATE | IN_MOVED_TO) < 0) {
        throw SegmentError(fmt::format("mount group '{}': cannot watch /dev/shm: {}", name_,
                                       std::strerror(errno)));
      }
    }
    // Any file created in /dev/shm wakes the watch; only this group's segment counts.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (tryOpenGroup()) {
        return true;
      }
      auto left = std::chrono::ceil<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return false;
      }
      pollfd p{inotifyFd_, POLLIN, 0};
      int n = ::poll(&p, 1, static_cast<int>(left.count()));
      char buf[4096];
      while (::read(inotifyFd_, buf, sizeof(buf)) > 0) {
      }
      if (n <= 0) {
        return tryOpenGroup();
      }
    }
  }
  const uint32_t* word = &header()->wakeSeq;
  // acquire, both: pair with publish()'s release; the changes it announces are read after.
  uint32_t seen = loadAcquire(word);
  if (seen == lastWake_) {
    futexWait(word, seen, timeout);
    seen = loadAcquire(word);
  }
  bool changed = seen != lastWake_;
  lastWake_ = seen;
  return changed;
}

namespace {
std::atomic<bool> gFutexRingAllowed{true};
}  // namespace

void MountGroup::futexRingAllowedIs(bool allowed) noexcept { gFutexRingAllowed.store(allowed); }

int MountGroup::changeFd() {
  if (changeFd_ < 0 && role_ == Role::reader) {
    openChangeFd(gFutexRingAllowed.load());
  }
  return changeFd_;
}

void MountGroup::openChangeFd(bool ring) {
  changeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (changeFd_ < 0) {
    throw SegmentError(fmt::format("mount group '{}': eventfd: {}", name_, std::strerror(errno)));
  }
  if (ring) {
    ring_ = internal::FutexRing::create(changeFd_);
  }
  ringWaits_.store(ring_ != nullptr || loopFutex_ != Kel::EventLoop::FutexId::none);
  // The thread maps the group on its own, so that it never touches the mapping this thread
  // may drop, and turns every publish of the writer into a readable fd (with a ring or a
  // loop that waits on the word: only the segment appearing or being replaced).
  waiter_ = std::thread([this, fd = changeFd_, name = name_] {
    auto signal = [fd] { signalFd(fd); };
    // The group's segment appeared or was replaced: processChanges() looks at it at once.
    // seq_cst, the flag's store here and its loads in processChanges(), which drains the fd
    // and then loads the flag: either it sees the flag or the fd stays signalled.
    auto segmentSignal = [this, fd] {
      segmentSignalled_.store(true);
      signalFd(fd);
    };
    std::optional<Segment> own;
    uint32_t seen = 0;
    while (!stopWaiter_.load()) {  // seq_cst: see stopWaiter()
      if (!own) {
        try {
          own = Segment::open(Segment::groupShmName(name), false, sizeof(GroupHeader));
        } catch (const PondException&) {
          own.reset();
        }
        if (!own) {
          ::usleep(20000);
          continue;
        }
        const uint32_t* word = &reinterpret_cast<const GroupHeader*>(own->base())->wakeSeq;
        waiterWord_.store(word);  // seq_cst: read by stopWaiter(), to wake this thread
        // acquire: as below. The reader opens the group, or follows it to this segment.
        seen = loadAcquire(word);
        segmentSignal();
      }
      const uint32_t* word = &reinterpret_cast<const GroupHeader*>(own->base())->wakeSeq;
      bool quiet = false;
      if (ringWaits_.load()) {
        quiet = futexWait(&stopWord_, 0, std::chrono::milliseconds(200)) < 0 && errno == ETIMEDOUT;
      } else {
        // acquire: pairs with publish()'s release (the fd only signals; the reader reads
        // the tables itself).
        uint32_t now = loadAcquire(word);
        if (now != seen) {
          seen = now;
          signal();
        }
        quiet = futexWait(word, now, std::chrono::milliseconds(200)) < 0 && errno == ETIMEDOUT;
      }
      if (quiet) {
        struct stat st {};
        if (::stat(Segment::pathOf(own->name()).c_str(), &st) != 0 || st.st_ino != own->inode()) {
          waiterWord_.store(nullptr);  // seq_cst: as above
          own.reset();
          segmentSignal();
        }
      }
    }
  });
}

void MountGroup::loopIs(Kel::EventLoop* loop) {
  if (loop_ == loop) {
    return;
  }
  if (loop_) {
    if (role_ == Role::writer) {
      loop_->afterIterationHookDel(publishHook_);
    } else if (changeFd_ >= 0) {
      loop_->fdDel(changeFd_);
      if (loopFutex_ != Kel::EventLoop::FutexId::none) {
        loop_->futexDel(loopFutex_);
        loopFutex_ = Kel::EventLoop::FutexId::none;
        if (!ring_) {
          ringWaits_.store(false);  // the helper waits on the word again
          futexWakeAll(&stopWord_);
        }
      }
    }
  }
  loop_ = loop;
  if (!loop_) {
    return;
  }
  if (role_ == Role::writer) {
    publishHook_ = loop_->afterIterationHookIs([this] { publish(); });
    return;
  }
  if (gFutexRingAllowed.load()) {
    loopFutex_ = loop_->futexIs([this] { processChanges(); });
  }
  if (loopFutex_ == Kel::EventLoop::FutexId::none) {
    loop_->fdIs(changeFd(), EPOLLIN, [this](uint32_t) { processChanges(); });
    return;
  }
  // The loop waits on the writer's publishes itself (processChanges() arms each wait); the
  // change fd only hears of the group's segment from the helper, and is drained here.
  if (changeFd_ < 0) {
    openChangeFd(false);
  } else if (ring_) {
    ring_.reset();  // the helper goes on watching the segment only
  }
  loop_->fdIs(changeFd_, EPOLLIN, [this](uint32_t) {
    drainFd(changeFd_);
    processChanges();
  });
  signalFd(changeFd_);  // the first wait is armed by the first call
}

void MountGroup::stopWaiter() {
  if (!waiter_.joinable()) {
    return;
  }
  // seq_cst, this store and the load below, as the waiter's store of the word and load of
  // the flag: either this thread sees the word and wakes the waiter, or the waiter sees the
  // flag before it sleeps again (a store-then-load order that only seq_cst gives).
  stopWaiter_.store(true);
  if (const uint32_t* word = waiterWord_.load()) {
    futexWakeAll(word);  // waking needs no write access to the word
  }
  futexWakeAll(&stopWord_);
  waiter_.join();
  ring_.reset();
  ::close(changeFd_);
  changeFd_ = -1;
}

}  // namespace Pond

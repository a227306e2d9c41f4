// A POSIX shared-memory segment, mapped whole. Internal to platform/Pond.
//
// Segments are named "/pond.<stem>" and "/pond.<stem>.<table>". A group's stem is its path
// written with '+' for '/' ("/pond.default+mpls+config"): no name holds a '+' or a '.', so
// a file under /dev/shm reads back as one group and table only. A path too long for that
// (a file name holds 255 bytes, a temporary's included) has the stem "<the first 146
// bytes of that>~<the path's 64-bit hash in hex>", and its group's header names it. Names
// are checked against a safe character set before any system call.
//
// A new segment is created under a temporary name, filled by its creator and only then
// linked under its real name, so that nobody ever opens a half-initialised segment, and
// two creators cannot both succeed.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Pond::internal {

struct MappingState;

struct SegmentOptions {
  mode_t mode = 0600;
  // When set, segments belong to this group and its members may read them (mode 0640).
  std::optional<gid_t> group;
};

class Segment {
 public:
  Segment() = default;
  Segment(Segment&& o) noexcept;
  Segment& operator=(Segment&& o) noexcept;
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;
  ~Segment();

  // Throws Pond::SegmentError unless `name` is 1 to 64 of [A-Za-z0-9_-]. `what` names the
  // kind of name in the message ("table").
  static void checkName(std::string_view what, std::string_view name);
  // Throws Pond::SegmentError unless `name` is a mount group's path: one or more names as
  // above separated by single '/', at most 255 characters in all.
  static void checkGroupName(std::string_view name);
  static bool validGroupName(std::string_view name) noexcept;
  // Whether `group` lies strictly under the path `prefix` ("a/b" under "a", not "ab/c" nor
  // "a" itself); every group lies under the empty prefix.
  static bool groupUnder(std::string_view group, std::string_view prefix) noexcept;
  // The group's stem, as above.
  static std::string groupStem(std::string_view group);
  static std::string groupShmName(std::string_view group);
  static std::string tableShmName(std::string_view group, std::string_view table);

  // What a file under /dev/shm is to Pond: a group's segment, a table's, or the temporary
  // of either (see create()).
  struct ShmFile {
    std::string stem;
    std::string group;  // the group's path; empty when the stem is a hash
    std::string table;  // empty for the group's own segment
    pid_t creator = 0;  // a temporary's creating process; 0 for a published segment
  };
  // The file named `file` ("pond.a+b.rows", no directory); nullopt for a name Pond does not
  // make.
  static std::optional<ShmFile> parseFileName(std::string_view file);
  // The path of the group whose segment is `file` (a published group segment): from its
  // name, or when that holds a hash from its header. nullopt when the header cannot be
  // read, or names a group of another stem.
  static std::optional<std::string> groupOf(const ShmFile& file);
  // The file behind a shared-memory name ("/dev/shm/pond.lfib").
  static std::string pathOf(std::string_view shmName);

  // Creates the segment, zero-filled and writable, runs `init` on it, then publishes it
  // under its name. Returns nullopt when a segment of that name exists already. Throws
  // Pond::SegmentError on a system error.
  static std::optional<Segment> create(const std::string& shmName, uint64_t size,
                                       const SegmentOptions& options,
                                       const std::function<void(uint8_t*)>& init);
  // Opens and maps an existing segment, read-only unless `writable`. Returns nullopt when
  // there is none. Never blocks (a FIFO in its place is refused, not waited on). Throws
  // Pond::SegmentError on another error ("permission denied: ..." when access is denied),
  // or when it is not a regular file (symbolic links are not followed) of at least
  // `minSize` bytes, or when group or others may write it, or, `writable`, when this
  // process's effective uid does not own it.
  static std::optional<Segment> open(const std::string& shmName, bool writable, size_t minSize);
  // Removes the name (an empty directory in its place too); mappings stay valid until they
  // are dropped. False when absent. Throws Pond::SegmentError when it cannot be removed
  // ("permission denied: ..." when that is why).
  static bool unlink(const std::string& shmName);

  uint8_t* base() const noexcept { return base_; }
  uint64_t size() const noexcept { return size_; }
  int fd() const noexcept { return fd_; }
  ino_t inode() const noexcept { return inode_; }
  bool writable() const noexcept { return writable_; }
  const std::string& name() const noexcept { return name_; }
  // Whether the file was found truncated under the mapping (see MappingGuard.h): the
  // mapping's tail is zero pages now. The flag, for a cheap load in hot paths; the file's
  // size when the damage was found.
  bool damaged() const noexcept;
  const std::atomic<uint32_t>* damagedFlag() const noexcept;
  uint64_t fileSizeFound() const noexcept;

 private:
  void reset() noexcept;

  std::string name_;
  uint8_t* base_ = nullptr;
  uint64_t size_ = 0;
  int fd_ = -1;
  ino_t inode_ = 0;
  bool writable_ = false;
  MappingState* guard_ = nullptr;
};

}  // namespace Pond::internal

#include "ShmBytes.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "Pond/MountGroup.h"
#include "Pond/internal/Segment.h"

namespace Bench {

namespace {

// Resident bytes of a whole shared-memory segment, mapped read-only for the count.
uint64_t residentBytes(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || st.st_size == 0) {
    if (fd >= 0) ::close(fd);
    return 0;
  }
  void* base = ::mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED, fd, 0);
  ::close(fd);
  if (base == MAP_FAILED) {
    return 0;
  }
  const long page = ::sysconf(_SC_PAGESIZE);
  std::vector<unsigned char> vec((st.st_size + page - 1) / page);
  ::mincore(base, st.st_size, vec.data());
  ::munmap(base, st.st_size);
  uint64_t resident = 0;
  for (unsigned char v : vec) resident += v & 1;
  return resident * page;
}

}  // namespace

uint64_t groupResidentBytes(
    const std::string& group,
    const std::function<void(const std::string& table, uint64_t bytes)>& perTable) {
  using Pond::internal::Segment;
  uint64_t total = residentBytes(Segment::pathOf(Segment::groupShmName(group)));
  for (const std::string& table : Pond::MountGroup::tableNames(group)) {
    const uint64_t bytes = residentBytes(Segment::pathOf(Segment::tableShmName(group, table)));
    if (perTable) {
      perTable(table, bytes);
    }
    total += bytes;
  }
  return total;
}

}  // namespace Bench

// Fuzzes the row decoders of the LFIB's tables as a reader meets them. A writer makes each
// table once (routes: fixed rows; via sets and MPLS vias: serialised records); each input
// picks a table by its first byte and patches that table's image after its header (buckets,
// slots, change log, records) with the rest: (offset: 2 bytes, length: 1 byte, bytes)...
// A reader then looks every key up, iterates and follows the change log: it must report
// what is damaged as corruption and read everything else, never crash or leak an exception.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "Pond/PondMap.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"

namespace {

using namespace Mpls;

constexpr uint32_t kRows = 8;

std::string groupName() { return "lfibfuzz" + std::to_string(::getpid()); }

std::string tablePath(const std::string& table) {
  return Pond::internal::Segment::pathOf(
      Pond::internal::Segment::tableShmName(groupName(), table));
}

LfibViaKey viaKey(uint32_t i) { return LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, i); }
LfibViaSetKey viaSetKey(uint32_t i) {
  return LfibViaSetKey(LFib::sourceStatic, i, viaTypeMplsIp, viaSetTypeEcmp);
}

struct Table {
  std::string name;
  std::string image;  // the segment as the writer left it
  std::function<void()> read;
};

template <class K, class T>
Table makeTable(const Kel::Ptr<Pond::MountGroup>& writer, const std::string& name,
                const std::function<K(uint32_t)>& key, const std::function<T(uint32_t)>& row) {
  Pond::TableSizing sizing;
  sizing.capacity = kRows;
  sizing.logEntries = 16;
  sizing.heapBytes = 16 * 4096;  // a chunk per size class in use
  {
    Pond::PondMap<K, T> table(writer, name, sizing);
    for (uint32_t i = 0; i < kRows; ++i) {
      table.upsert(row(i));
    }
  }
  Table t{name, {}, {}};
  int fd = ::open(tablePath(name).c_str(), O_RDONLY);
  char buf[65536];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) {
    t.image.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  t.read = [name, key] {
    auto reader = Pond::MountGroup::reader(groupName());
    try {
      Pond::PondMap<K, T> table(reader, name);
      table.corruptionHandlerIs([](const std::string&) {});
      table.changeHandlerIs([&](const K& k) { table.lookup(k); });
      for (uint32_t i = 0; i < kRows + 2; ++i) {
        table.lookup(key(i));
      }
      table.forEach([](const T& r) { (void)r.pondString(); });
      reader->processChanges();
    } catch (const Pond::SegmentError&) {
      // refused: fine
    }
  };
  return t;
}

std::vector<Table>& tables() {
  static std::vector<Table> all = [] {
    Pond::MountGroup::removeSegments(groupName());
    std::atexit([] { Pond::MountGroup::removeSegments(groupName()); });
    auto writer = Pond::MountGroup::writer(groupName());
    std::vector<Table> t;
    t.push_back(makeTable<RouteKey, LfibRoute>(
        writer, "lfibRoute", [](uint32_t i) { return RouteKey(Netbase::MplsLabel(100 + i)); },
        [](uint32_t i) {
          return LfibRoute(RouteKey(Netbase::MplsLabel(100 + i)), viaSetKey(i), LFib::sourceStatic,
                           FwdEqvClass(), RouteMetric(i));
        }));
    t.push_back(makeTable<LfibViaSetKey, LfibViaSet>(
        writer, "viaSet", viaSetKey, [](uint32_t i) {
          LfibViaSet set(viaSetKey(i));
          for (uint32_t v = 0; v <= i; ++v) {
            set.viaKeyIs(LfibViaIndexRange(v), viaKey(v));
          }
          return set;
        }));
    t.push_back(makeTable<LfibViaKey, LfibMplsVia>(writer, "mplsVia", viaKey, [](uint32_t i) {
      Netbase::MplsLabelStack stack;
      for (uint32_t l = 0; l <= i % 4; ++l) {
        stack.push_back(Netbase::MplsLabel(200 + l));
      }
      return LfibMplsVia(viaKey(i), Netbase::IpGenAddr::ipv4(0x0a000001 + i),
                         Netbase::labelActionSwap,
                         Netbase::UnboundedMplsLabelOperation(Netbase::labelActionSwap, stack),
                         false);
    }));
    return t;
  }();
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) {
    return 0;
  }
  Table& table = tables()[data[0] % tables().size()];
  std::string image = table.image;
  const size_t body = sizeof(Pond::internal::TableHeader);
  for (size_t at = 1; at + 3 <= size;) {
    const size_t offset = body + (data[at] | (size_t{data[at + 1]} << 8)) % (image.size() - body);
    const size_t len = std::min<size_t>(data[at + 2], size - at - 3);
    at += 3;
    for (size_t i = 0; i < len && offset + i < image.size(); ++i) {
      image[offset + i] = static_cast<char>(data[at + i]);
    }
    at += len;
  }
  int fd = ::open(tablePath(table.name).c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
  if (fd < 0 || ::write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size())) {
    std::abort();
  }
  ::close(fd);
  table.read();
  return 0;
}

// Fuzzes what a Pond reader trusts: a table segment's image, header and body, as a writer
// that is buggy or hostile could leave it. Each input becomes the whole segment of a table
// ("fixed" or "var", by its first byte); a reader must refuse it with SegmentError, or read
// it (lookups, an iteration, the change log) without ever leaving the segment or looping.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Pond/PondMap.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/Segment.h"
#include "PondTestTypes.h"

namespace {

std::string groupName() {
  static const std::string name = [] {
    std::string n = "fuzz" + std::to_string(::getpid());
    Pond::MountGroup::removeSegments(n);
    Pond::MountGroup::writer(n);  // leaves the group segment, with no writer attached
    std::atexit([] { Pond::MountGroup::removeSegments("fuzz" + std::to_string(::getpid())); });
    return n;
  }();
  return name;
}

template <class Row>
void readAll(const std::string& table) {
  auto reader = Pond::MountGroup::reader(groupName());
  try {
    Pond::PondMap<PondTest::Key, Row> t(reader, table);
    t.corruptionHandlerIs([](const std::string&) {});
    t.changeHandlerIs([](const PondTest::Key&) {});
    for (uint32_t k = 0; k < 16; ++k) {
      t.lookup(PondTest::Key(k));
    }
    uint32_t rows = 0;
    t.forEach([&](const Row&) { ++rows; });
    reader->processChanges();
  } catch (const Pond::SegmentError&) {
    // refused: fine
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) {
    return 0;
  }
  bool variable = data[0] & 1;
  std::string table = variable ? "var" : "fixed";
  std::string path = Pond::internal::Segment::pathOf(
      Pond::internal::Segment::tableShmName(groupName(), table));
  // The image names the group and table it belongs to; a reader checks them first. Stamp
  // ours into it, so that the fuzzer spends its time past that check.
  std::string image(reinterpret_cast<const char*>(data + 1), size - 1);
  using Pond::internal::TableHeader;
  if (image.size() >= sizeof(TableHeader)) {
    auto* h = reinterpret_cast<TableHeader*>(image.data());
    std::memset(h->group, 0, sizeof(h->group));
    std::memcpy(h->group, groupName().data(), groupName().size());
    std::memset(h->table, 0, sizeof(h->table));
    std::memcpy(h->table, table.data(), table.size());
  }
  int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
  if (fd < 0 || ::write(fd, image.data(), image.size()) != static_cast<ssize_t>(image.size())) {
    std::abort();
  }
  ::close(fd);
  if (variable) {
    readAll<PondTest::VarRow>(table);
  } else {
    readAll<PondTest::Row>(table);
  }
  return 0;
}

// A table set (KEL_POND_TABLE_SET) of two tables: what every set gets from its list of
// tables, for a writer and a reader of one group.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Pond/KelPond.h"
#include "PondTestTypes.h"

namespace {

using PondTest::Key;
using PondTest::Row;
using PondTest::VarRow;
using Events = std::vector<std::string>;

// Adding a table to a set is one more line here.
#define POND_TEST_TABLES(T)                           \
  T(row, Row, Key, Row, checkRow, 64)                 \
  T(varRow, VarRow, Key, VarRow, kelNoCheck, 16)

class TestTables : public Kel::Entity {
 public:
  class NotifieeConst : public Kel::NotifieeOf<TestTables> {
   public:
    KEL_POND_TABLE_NOTIFIEES(POND_TEST_TABLES)
  };
  KEL_POND_TABLE_SET(POND_TEST_TABLES)

  // Refuses row 0 (after storing it).
  void checkRow(const Key& key) const {
    if (key.id() == 0) {
      throw std::invalid_argument("row 0");
    }
  }
};

struct Watch : TestTables::NotifieeConst {
  explicit Watch(const Kel::Ptr<TestTables>& t) { notifierIs(t); }
  void onRow(const Key& k) override { events.push_back("row " + std::to_string(k.id())); }
  void onVarRow(const Key& k) override { events.push_back("varRow " + std::to_string(k.id())); }
  void onMountGroup() override { events.push_back("mountGroup"); }
  Events events;
};

// "<name>:<capacity>:<size>" of every table, in declaration order.
Events tablesOf(const TestTables& t) {
  Events out;
  t.tableForEach([&](const auto& ref) {
    out.push_back(std::string(ref.name) + ":" + std::to_string(ref.capacity()) + ":" +
                  std::to_string(ref.size()));
  });
  return out;
}

std::string dump(const TestTables& t) {
  Kel::DumpContext context;
  t.dumpTables(context, 1);
  return context.text();
}

TEST(KelPondTableSet, EveryTableMountedSizedAnnouncedWalkedAndDumped) {
  PondTest::ScopedGroupName name("tableSet");
  static_assert(TestTables::kelTableCount == 2);
  auto writer = Kel::make<TestTables>();
  Watch writes(writer);
  EXPECT_EQ(tablesOf(*writer), (Events{"row:0:0", "varRow:0:0"}));
  EXPECT_THROW(writer->rowIs(Row::of(1, 1)), Pond::NotWriterError);

  // The sizing is per table; a reader takes the writer's.
  TestTables::Sizing sizing;
  sizing.varRow.capacity = 32;
  EXPECT_EQ(TestTables::sizingFor(Pond::Role::reader).row.capacity, 0u);
  writer->mountGroupIs(Pond::MountGroup::writer(*name), sizing);
  writer->mountGroupIs(writer->mountGroup(), sizing);  // the same group: nothing
  auto reader = Kel::make<TestTables>();
  Watch reads(reader);
  reader->mountGroupIs(Pond::MountGroup::reader(*name));
  EXPECT_EQ(tablesOf(*writer), (Events{"row:64:0", "varRow:32:0"}));
  EXPECT_EQ(tablesOf(*reader), tablesOf(*writer));

  // Each table announces its own keys, after its own check.
  writer->rowIs(Row::of(2, 20));
  writer->rowIs(Row::of(1, 10));
  writer->varRowIs(VarRow::of(3, 1, 2));
  writer->varRowIs(VarRow::of(0, 1, 1));  // no check
  EXPECT_THROW(writer->rowIs(Row::of(0, 5)), std::invalid_argument);
  writer->rowDel(Key(2));
  EXPECT_EQ(writes.events,
            (Events{"mountGroup", "row 2", "row 1", "varRow 3", "varRow 0", "row 2"}));
  reader->mountGroup()->processChanges();
  EXPECT_EQ(reads.events.front(), "mountGroup");
  const std::set<std::string> changed(reads.events.begin() + 1, reads.events.end());
  EXPECT_EQ(changed, (std::set<std::string>{"row 0", "row 1", "row 2", "varRow 0", "varRow 3"}));

  // Every table dumped in key order under its header, the same from both sides.
  EXPECT_EQ(dump(*writer),
            " rows #2\n   [0] 5\n   [1] 10\n varRows #2\n   [0] 1 words\n   [3] 2 words\n");
  EXPECT_EQ(dump(*reader), dump(*writer));
  EXPECT_EQ(tablesOf(*reader), (Events{"row:64:2", "varRow:32:2"}));
  EXPECT_THROW(reader->varRowDel(Key(3)), Pond::NotWriterError);

  // Detached, every table reads empty again.
  reader->mountGroupIs(nullptr);
  EXPECT_EQ(tablesOf(*reader), (Events{"row:0:0", "varRow:0:0"}));
}

}  // namespace

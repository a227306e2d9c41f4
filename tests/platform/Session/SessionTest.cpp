// Sessions: candidates taken from the running entities, commit through the handlers in
// registration order with the generic copy behind them, abort, and use after closing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kel/Exception.h"
#include "Session/Session.h"
#include "TestEntities.h"

namespace {

using namespace Cli::Session;
using namespace SessionTest;

// Logs "<name>:<path>" for every entity it is asked about; copies shelves when it accepts.
class LoggingHandler : public EntityCopyHandler {
 public:
  LoggingHandler(std::string name, bool accepts, std::vector<std::string>& log)
      : name_(std::move(name)), accepts_(accepts), log_(log) {}
  bool handleEntity(EntityCopy& entityCopy, const Kel::Ptr<Kel::Entity>& destination,
                    const Kel::Ptr<const Kel::Entity>& source, const std::string& path) override {
    log_.push_back(name_ + ":" + path);
    if (!accepts_ || !dynamic_cast<Shelf*>(destination.get())) {
      return false;
    }
    entityCopy.doCopyEntityAttrs(destination, source);
    return true;
  }

 private:
  std::string name_;
  bool accepts_;
  std::vector<std::string>& log_;
};

class HandlerDir : public EntityCopyHandlerDir {
 public:
  EntityCopyHandler::Ptr entityCopyHandler() const override { return handler; }
  EntityCopyHandler::Ptr handler;
};

struct SessionFixture : ::testing::Test {
  Kel::Ptr<HandlerDir> dirOf(const std::string& name, bool accepts) {
    auto dir = Kel::make<HandlerDir>();
    dir->handler = Kel::make<LoggingHandler>(name, accepts, log);
    copy->handlerDirIs(dir);
    return dir;
  }
  EntityCopy::Ptr copy = entityCopyFactory();
  Shelf::Ptr running = shelfOf(0);
  Session::Ptr session = sessionFactory("s1", copy);
  std::vector<std::string> log;
};

TEST_F(SessionFixture, CommitCopiesEditedCandidatesOntoRunning) {
  const ShelfState original = stateOf(*running);
  auto candidate = session->candidateIs("shelf", running);
  ASSERT_NE(candidate, running);
  EXPECT_EQ(stateOf(*candidate), original);
  EXPECT_EQ(session->candidateIs("shelf", running), candidate);
  EXPECT_EQ(session->candidate<Shelf>("shelf"), candidate);
  EXPECT_THROW(session->candidateIs("shelf", shelfOf(0)), Kel::InternalException);

  candidate->labelIs("edited");
  candidate->weightDel(0);
  candidate->leafDel(1);
  candidate->leaf(2)->colorIs(99);
  EXPECT_EQ(stateOf(*running), original) << "running sees nothing before the commit";

  EXPECT_EQ(session->commit(), (std::vector<CommitEntry>{{"shelf", false}}));
  EXPECT_EQ(stateOf(*running), stateOf(*candidate));
  EXPECT_EQ(session->state(), sessionCommitted);
  EXPECT_EQ(session->candidates(), 0u);
  EXPECT_THROW(session->candidateIs("shelf", running), Kel::InternalException);
  EXPECT_THROW(session->commit(), Kel::InternalException);
}

TEST_F(SessionFixture, HandlersAreAskedInOrderBeforeTheGenericCopy) {
  dirOf("declines", false);
  auto accepting = dirOf("accepts", true);
  copy->handlerDirIs(accepting);
  EXPECT_EQ(copy->handlerDirs(), 2u) << "a directory registers once";
  session->candidateIs("shelf", running)->labelIs("edited");
  EXPECT_EQ(session->commit(), (std::vector<CommitEntry>{{"shelf", true}}));
  EXPECT_EQ(log, (std::vector<std::string>{"declines:shelf", "accepts:shelf"}));
  EXPECT_EQ(running->label(), "edited");

  // Without the accepting handler the generic copy runs, and the nested entities it copies
  // meet the handlers under their own paths.
  accepting->handler = nullptr;
  log.clear();
  auto second = sessionFactory("s2", copy);
  second->candidateIs("shelf", running)->labelIs("again");
  EXPECT_EQ(second->commit(), (std::vector<CommitEntry>{{"shelf", false}}));
  std::sort(log.begin(), log.end());
  EXPECT_EQ(log, (std::vector<std::string>{"declines:shelf", "declines:shelf/0",
                                           "declines:shelf/1", "declines:shelf/2"}));
  EXPECT_EQ(running->label(), "again");
}

TEST_F(SessionFixture, AbortDropsCandidates) {
  const ShelfState original = stateOf(*running);
  session->candidateIs("shelf", running)->labelIs("edited");
  session->abort();
  EXPECT_EQ(session->state(), sessionAborted);
  EXPECT_EQ(session->candidates(), 0u);
  EXPECT_EQ(stateOf(*running), original);
  EXPECT_THROW(session->commit(), Kel::InternalException);
}

}  // namespace

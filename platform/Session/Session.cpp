#include "Session/Session.h"

#include <utility>

namespace Cli::Session {

Session::Session(std::string name, EntityCopy::Ptr entityCopy)
    : name_(std::move(name)), entityCopy_(std::move(entityCopy)) {
  KEL_ASSERT(entityCopy_, "null copy service");
}

void Session::checkOpen() const {
  KEL_ASSERT(state_ == sessionOpen, "session " + name_ + " is closed");
}

const Session::Entry* Session::entryOf(const std::string& path,
                                       const Kel::Entity* running) const {
  checkOpen();
  KEL_ASSERT(running, "null running entity for " + path);
  auto it = entries_.find(path);
  if (it == entries_.end()) {
    return nullptr;
  }
  KEL_ASSERT(it->second.running.get() == running,
             "path " + path + " holds the candidate of another entity");
  return &it->second;
}

Kel::Ptr<Kel::Entity> Session::candidate(const std::string& path) const {
  auto it = entries_.find(path);
  return it == entries_.end() ? nullptr : it->second.candidate;
}

void Session::candidateDel(const std::string& path) {
  checkOpen();
  entries_.erase(path);
}

std::vector<CommitEntry> Session::commit() {
  checkOpen();
  std::vector<CommitEntry> done;
  done.reserve(entries_.size());
  for (const auto& [path, entry] : entries_) {
    done.push_back({path, entityCopy_->copyEntity(entry.running, entry.candidate, path)});
  }
  entries_.clear();
  state_ = sessionCommitted;
  return done;
}

void Session::abort() {
  checkOpen();
  entries_.clear();
  state_ = sessionAborted;
}

}  // namespace Cli::Session

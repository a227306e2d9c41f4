// The MPLS agent: what `mplsd` runs. It mounts the MPLS configuration and the
// label-request directory from the state database, publishes the MPLS status, and runs
// the label manager on them, on the caller's event loop.
//
// Start-up waits (on the loop, at most `startPatience`) for the configuration, when one
// is published, and for the directory's entries that exist to be mounted: the label
// manager takes a client missing from the directory at start-up for one that has gone.
//
// Throws Statehub::PublisherExistsError when another agent publishes the status of the
// instance, Statehub::Error for a malformed instance name.
#pragma once

#include <chrono>
#include <string>

#include "Corekit/TimerWheel.h"
#include "Kel/EventLoop.h"
#include "Mpls/LabelManagerSm.h"
#include "Statehub/EntityManager.h"

namespace Mplsd {

class MplsAgent {
 public:
  MplsAgent(const std::string& statehub, Kel::EventLoop& loop,
            std::chrono::milliseconds startPatience = std::chrono::seconds(5));
  ~MplsAgent();
  MplsAgent(const MplsAgent&) = delete;
  MplsAgent& operator=(const MplsAgent&) = delete;

  const Mpls::LabelManagerSm::Ptr& labelManager() const noexcept { return labelManager_; }
  const Statehub::EntityManager::Ptr& entityManager() const noexcept { return manager_; }

 private:
  Statehub::EntityManager::Ptr manager_;
  Statehub::Mount<Mpls::Config>::Ptr config_;
  Mpls::Api::Status::Ptr status_;
  Statehub::Publication::Ptr publication_;
  Statehub::DirMount<Mpls::ClientLabelRequest>::Ptr requests_;
  Corekit::TimerWheel::Ptr timerWheel_;
  Mpls::LabelManagerSm::Ptr labelManager_;
};

// Runs the agent until SIGTERM or SIGINT; returns the exit status (1 with a message on
// stderr when it cannot start).
int runAgent(const std::string& statehub);

}  // namespace Mplsd

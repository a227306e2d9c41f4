// The MPLS agent: what `mplsd` runs, on the caller's event loop.
//
// Label manager: it mounts the MPLS configuration and the label-request directory from the
// state database, publishes the MPLS status, and runs the label manager on them.
//
// Configuration: it mounts the static route configuration (the command-line input at
// Mpls::routeConfigCliPath and the inputs that other agents publish under
// Mpls::routeConfigInputDirPath) and merges it with Mpls::RouteConfigMergerSm into the
// merged routes it publishes at Mpls::routeConfigMergedPath; likewise the VRF label
// configuration with Mpls::VrfLabelConfigMergeSm into Mpls::vrfLabelMergedPath. Given an
// LFIB name, it is that LFIB's writer and programs the merged routes and VRF labels into
// it (ConfigLfibSm), publishing the LFIB's changes after each iteration of the loop. The
// LFIB is sized for 131072 routes and via sets, 262144 MPLS vias and 65536 IP-lookup and
// pseudowire vias when the agent creates it; an existing one keeps its sizes.
//
// A restarted agent finds its merged routes where it left them: they stay untouched while
// the merger's start-up scans run, and only routes that no input holds any more are then
// removed, so an unchanged configuration changes nothing in the LFIB. The merged VRF labels
// are merged anew (their merge starts from an empty output), before the LFIB is touched.
//
// Start-up waits (on the loop, at most `startPatience`) for the configuration, when one
// is published, and for the directory's entries that exist to be mounted: the label
// manager takes a client missing from the directory at start-up for one that has gone.
//
// Throws Statehub::PublisherExistsError when another agent publishes the status of the
// instance, Statehub::Error for a malformed instance name, std::runtime_error when the
// LFIB has another live writer.
#pragma once

#include <chrono>
#include <string>

#include "Corekit/TimerWheel.h"
#include "Kel/EventLoop.h"
#include "Kiva/SmControl.h"
#include "Mpls/LabelManagerSm.h"
#include "Mpls/MplsLfibWriter.h"
#include "Mpls/MplsRouteConfigMergerSm.h"
#include "Mpls/VrfLabelConfigMergeSm.h"
#include "tools/mplsd/ConfigLfibSm.h"
#include "Statehub/EntityManager.h"

namespace Mplsd {

class MplsAgent {
 public:
  // `lfib`: the LFIB to program the configuration into; none when empty.
  MplsAgent(const std::string& statehub, Kel::EventLoop& loop,
            std::chrono::milliseconds startPatience = std::chrono::seconds(5),
            const std::string& lfib = "");
  ~MplsAgent();
  MplsAgent(const MplsAgent&) = delete;
  MplsAgent& operator=(const MplsAgent&) = delete;

  const Mpls::LabelManagerSm::Ptr& labelManager() const noexcept { return labelManager_; }
  const Statehub::EntityManager::Ptr& entityManager() const noexcept { return manager_; }
  const Mpls::RouteConfig::Ptr& mergedRoutes() const noexcept { return routeMerged_; }
  const Mpls::VrfLabelConfig::Ptr& mergedVrfLabels() const noexcept { return vrfMerged_; }
  // Null without an LFIB.
  const ConfigLfibSm::Ptr& configLfib() const noexcept { return configLfib_; }

 private:
  void startConfiguration(Kel::EventLoop& loop, const std::string& lfib);

  Statehub::EntityManager::Ptr manager_;
  Statehub::Mount<Mpls::Config>::Ptr config_;
  Mpls::Api::Status::Ptr status_;
  Statehub::Publication::Ptr publication_;
  Statehub::DirMount<Mpls::ClientLabelRequest>::Ptr requests_;
  Corekit::TimerWheel::Ptr timerWheel_;
  Mpls::LabelManagerSm::Ptr labelManager_;

  Statehub::Mount<Mpls::RouteConfigInput>::Ptr routeCli_;
  Statehub::DirMount<Mpls::RouteConfigInput>::Ptr routeInputs_;
  Mpls::RouteConfig::Ptr routeMerged_;
  Statehub::Publication::Ptr routeMergedPublication_;
  Statehub::Mount<Mpls::VrfLabelConfigInput>::Ptr vrfCli_;
  Statehub::DirMount<Mpls::VrfLabelConfigInput>::Ptr vrfInputs_;
  Mpls::VrfLabelConfig::Ptr vrfMerged_;
  Statehub::Publication::Ptr vrfMergedPublication_;
  Kiva::SmControl::Ptr kivaControl_;
  Mpls::RouteConfigMergerSm::Ptr routeMerger_;
  Mpls::VrfLabelConfigMergeSm::Ptr vrfLabelMerge_;
  Kel::EventLoop* loop_ = nullptr;
  Kel::Ptr<Pond::MountGroup> lfibGroup_;
  Kel::EventLoop::HookId lfibPublish_ = Kel::EventLoop::HookId::none;
  Mpls::LfibWriter::Ptr lfibWriter_;
  ConfigLfibSm::Ptr configLfib_;
};

// Runs the agent until SIGTERM or SIGINT; returns the exit status (1 with a message on
// stderr when it cannot start).
int runAgent(const std::string& statehub, const std::string& lfib = "");

}  // namespace Mplsd

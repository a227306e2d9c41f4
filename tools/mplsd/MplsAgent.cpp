#include "tools/mplsd/MplsAgent.h"

#include <cstdio>
#include <stdexcept>

#include "Kel/Log.h"
#include "Kel/SignalFd.h"
#include "Pond/Exception.h"
#include "Pond/MountGroup.h"

namespace Mplsd {

namespace {

KEL_LOG_MESSAGE(MPLS_AGENT_STARTED, "MPLS", "AGENT_STARTED", Kel::LogSeverity::notice, "{}",
                "The MPLS agent mounted its configuration and the label requests and hands out "
                "label blocks.",
                "None.");

// Whether every entry published under `path` has been mounted into `dir`.
bool dirMounted(const Statehub::EntityManager& manager, std::string_view path,
                const Kel::Dir& dir) {
  size_t entries = 0;
  const std::string prefix = std::string(path) + "/";
  for (const std::string& p : manager.paths(path)) {
    entries += p.find('/', prefix.size()) == std::string::npos;
  }
  return dir.entityPtrs() >= entries;
}

// Mounted, or nothing to mount.
bool mounted(const Statehub::EntityManager& manager, const Statehub::MountBase& mount) {
  return mount.status() != Statehub::mountPending || !manager.published(mount.path());
}

// The LFIB's sizes: the existing tables', else room for a configuration of 65536 routes and
// as many VRF labels.
Mpls::LfibStatusSizing lfibSizing(const std::string& lfib) {
  Mpls::LfibStatusSizing s;
  s.lfibRoute.capacity = s.viaSet.capacity = 131072;
  s.mplsVia.capacity = 262144;
  s.ipLookupVia.capacity = s.pwVia.capacity = 65536;
  s.viaSet.heapBytes = uint64_t{s.viaSet.capacity} * 64 + uint64_t{s.mplsVia.capacity} * 16;
  s.mplsVia.heapBytes = uint64_t{s.mplsVia.capacity} * 128;
  s.forEach([&](std::string_view table, Pond::TableSizing& t) {
    if (auto existing = Pond::MountGroup::tableSizing(lfib, table)) {
      t = *existing;
    }
  });
  return s;
}

}  // namespace

MplsAgent::MplsAgent(const std::string& statehub, Kel::EventLoop& loop,
                     std::chrono::milliseconds startPatience, const std::string& lfib)
    : manager_(Kel::make<Statehub::EntityManager>(statehub, &loop)),
      config_(manager_->mount<Mpls::Config>(Mpls::configPath)),
      status_(Mpls::Api::statusFactory()),
      publication_(manager_->publish(Mpls::Api::statusPath, status_)),
      requests_(manager_->mountDir<Mpls::ClientLabelRequest>(
          Mpls::labelRequestDirPath,
          [](const std::string& name) { return Mpls::clientLabelRequestFactory(name); })),
      routeCli_(manager_->mount<Mpls::RouteConfigInput>(
          Mpls::routeConfigCliPath, Mpls::routeConfigInputFactory("cli"))),
      routeInputs_(manager_->mountDir<Mpls::RouteConfigInput>(
          Mpls::routeConfigInputDirPath,
          [](const std::string& name) { return Mpls::routeConfigInputFactory(name); })),
      routeMerged_(Mpls::routeConfigFactory()),
      routeMergedPublication_(manager_->publish(Mpls::routeConfigMergedPath, routeMerged_)),
      vrfCli_(manager_->mount<Mpls::VrfLabelConfigInput>(
          Mpls::vrfLabelCliPath, Mpls::vrfLabelConfigInputFactory("cli"))),
      vrfInputs_(manager_->mountDir<Mpls::VrfLabelConfigInput>(
          Mpls::vrfLabelInputDirPath,
          [](const std::string& name) { return Mpls::vrfLabelConfigInputFactory(name); })),
      vrfMerged_(Mpls::vrfLabelConfigFactory()),
      vrfMergedPublication_(manager_->publish(Mpls::vrfLabelMergedPath, vrfMerged_)),
      loop_(&loop) {
  auto started = [&] {
    const Statehub::EntityManager& m = *manager_;
    return mounted(m, *config_) && mounted(m, *routeCli_) && mounted(m, *vrfCli_) &&
           dirMounted(m, Mpls::labelRequestDirPath, *requests_->dir()) &&
           dirMounted(m, Mpls::routeConfigInputDirPath, *routeInputs_->dir()) &&
           dirMounted(m, Mpls::vrfLabelInputDirPath, *vrfInputs_->dir());
  };
  loop.runUntil(started, startPatience);
  const Kel::Clock::Ptr clock = Kel::systemClock();
  timerWheel_ = Corekit::timerWheelFactory(clock, &loop);
  labelManager_ = Mpls::labelManagerSmFactory(timerWheel_, manager_, requests_->dir(),
                                              config_->entity(), status_, clock);
  publication_->flush();
  startConfiguration(loop, lfib);
  Kel::log(MPLS_AGENT_STARTED,
           fmt::format("statehub '{}': {} clients, dynamic label range {}{}", statehub,
                       requests_->dir()->entityPtrs(),
                       Kel::valueToStrep(status_->dynamicLabelRange()),
                       lfib.empty() ? "" : fmt::format(", configuration programmed into LFIB '{}'",
                                                       lfib)));
}

void MplsAgent::startConfiguration(Kel::EventLoop& loop, const std::string& lfib) {
  // The merged routes stay as an earlier agent left them while the merger reconciles; only
  // `ready` starts over. The VRF label merge starts from an empty output.
  routeMerged_->readyIs(false);
  vrfMerged_->vrfLabelDelAll();
  vrfMerged_->readyIs(false);
  kivaControl_ = Kiva::smControlFactory(&loop);
  routeMerger_ = Mpls::routeConfigMergerSmFactory(routeMerged_, routeInputs_->dir(),
                                                  routeCli_->entity(), kivaControl_);
  vrfLabelMerge_ = Mpls::vrfLabelConfigMergeSmFactory(vrfMerged_, vrfInputs_->dir(),
                                                      vrfCli_->entity());
  vrfLabelMerge_->handleInitialized();
  if (!lfib.empty()) {
    try {
      lfibGroup_ = Pond::MountGroup::writer(lfib);
    } catch (const Pond::WriterExistsError& e) {
      throw std::runtime_error(
          fmt::format("LFIB '{}' has a live writer process: {}", lfib, e.what()));
    }
    const Mpls::LfibStatus::Ptr status = Mpls::lfibStatusFactory();
    status->mountGroupIs(lfibGroup_, lfibSizing(lfib));
    lfibWriter_ = Mpls::lfibWriterFactory(status);
    lfibPublish_ = loop.afterIterationHookIs([group = lfibGroup_] { group->publish(); });
    configLfib_ = configLfibSmFactory(lfibWriter_, routeMerged_, vrfMerged_);
  }
  routeMergedPublication_->flush();
  vrfMergedPublication_->flush();
}

MplsAgent::~MplsAgent() {
  configLfib_ = nullptr;
  if (lfibPublish_ != Kel::EventLoop::HookId::none) {
    loop_->afterIterationHookDel(lfibPublish_);
    lfibGroup_->publish();
  }
  routeMerger_ = nullptr;  // the merged configuration stays as it is
  vrfLabelMerge_ = nullptr;
  labelManager_ = nullptr;  // leaves the published status as it is
  publication_->flush();
  routeMergedPublication_->flush();
  vrfMergedPublication_->flush();
}

int runAgent(const std::string& statehub, const std::string& lfib) {
  try {
    Kel::SignalFd signals;
    Kel::EventLoop loop;
    bool stop = false;
    loop.fdIs(signals.fd(), EPOLLIN, [&](uint32_t) { stop = signals.drain() || stop; });
    {
      MplsAgent agent(statehub, loop, std::chrono::seconds(5), lfib);
      loop.runUntil([&] { return stop; }, Kel::EventLoop::forever);
    }
    loop.fdDel(signals.fd());
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mplsd: %s\n", e.what());
    return 1;
  }
}

}  // namespace Mplsd

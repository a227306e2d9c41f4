#include "tools/mplsd/MplsAgent.h"

#include <cstdio>

#include "Kel/Log.h"
#include "Kel/SignalFd.h"

namespace Mplsd {

namespace {

KEL_LOG_MESSAGE(MPLS_AGENT_STARTED, "MPLS", "AGENT_STARTED", Kel::LogSeverity::notice, "{}",
                "The MPLS agent mounted its configuration and the label requests and hands out "
                "label blocks.",
                "None.");

}  // namespace

MplsAgent::MplsAgent(const std::string& statehub, Kel::EventLoop& loop,
                     std::chrono::milliseconds startPatience)
    : manager_(Kel::make<Statehub::EntityManager>(statehub, &loop)),
      config_(manager_->mount<Mpls::Config>(Mpls::configPath)),
      status_(Mpls::Api::statusFactory()),
      publication_(manager_->publish(Mpls::Api::statusPath, status_)),
      requests_(manager_->mountDir<Mpls::ClientLabelRequest>(
          Mpls::labelRequestDirPath,
          [](const std::string& name) { return Mpls::clientLabelRequestFactory(name); })) {
  const bool configured = manager_->published(Mpls::configPath);
  auto started = [&] {
    if (configured && config_->status() != Statehub::mountComplete) {
      return false;
    }
    size_t entries = 0;
    const std::string prefix = std::string(Mpls::labelRequestDirPath) + "/";
    for (const std::string& path : manager_->paths(Mpls::labelRequestDirPath)) {
      entries += path.find('/', prefix.size()) == std::string::npos;
    }
    return requests_->dir()->entityPtrs() >= entries;
  };
  loop.runUntil(started, startPatience);
  const Kel::Clock::Ptr clock = Kel::systemClock();
  timerWheel_ = Corekit::timerWheelFactory(clock, &loop);
  labelManager_ = Mpls::labelManagerSmFactory(timerWheel_, manager_, requests_->dir(),
                                              config_->entity(), status_, clock);
  publication_->flush();
  Kel::log(MPLS_AGENT_STARTED,
           fmt::format("statehub '{}': {} clients, dynamic label range {}", statehub,
                       requests_->dir()->entityPtrs(),
                       Kel::valueToStrep(status_->dynamicLabelRange())));
}

MplsAgent::~MplsAgent() {
  labelManager_ = nullptr;  // leaves the published status as it is
  publication_->flush();
}

int runAgent(const std::string& statehub) {
  try {
    Kel::SignalFd signals;
    Kel::EventLoop loop;
    bool stop = false;
    loop.fdIs(signals.fd(), EPOLLIN, [&](uint32_t) { stop = signals.drain() || stop; });
    {
      MplsAgent agent(statehub, loop);
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

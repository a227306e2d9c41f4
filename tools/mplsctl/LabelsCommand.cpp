// mplsctl labels: the label manager's configuration, requests and answers, through the
// state database, as an operator or a client agent sees them.
//
//   labels range NAME BASE SIZE     writes labelRange[NAME] of the MPLS configuration
//   labels request CLIENT ID        publishes a request as CLIENT would and waits for the
//                                   block the agent answers with
//   labels release CLIENT ID        withdraws the request (the agent takes the block back)
//   labels show                     the dynamic range and every client's blocks
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Kel/EventLoop.h"
#include "Mpls/LabelManagerSm.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/StateViews.h"
#include "types/Mpls/ClientLabelRequest.h"
#include "types/Mpls/MplsApiStatus.h"
#include "types/Mpls/MplsConfig.h"

namespace Mplsctl {

namespace {

constexpr uint32_t kBlockSize = Mpls::LabelBlock::size;
constexpr uint32_t kMaxLabel = Netbase::MplsLabel::max;

using Mpls::LabelManagerSm;

std::string blockText(const Mpls::LabelBlock& b) {
  return fmt::format("{}-{}", b.blockStart().value(), b.blockEnd());
}

// Request identifiers: short, and printable without quoting.
void checkId(const std::string& id) {
  const bool ok = !id.empty() && id.size() <= 48 &&
                  std::all_of(id.begin(), id.end(), [](char c) {
                    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' ||
                           c == '.' || c == ':';
                  });
  if (!ok) {
    throw CommandError(fmt::format("invalid request identifier '{}': use 1 to 48 letters, "
                                   "digits, '_', '-', '.' and ':'", id));
  }
}

std::string clientPath(Statehub::EntityManager& manager, const std::string& client) {
  const std::string path = std::string(Mpls::labelRequestDirPath) + "/" + client;
  if (client.find('/') != std::string::npos) {
    throw CommandError(fmt::format("invalid client name '{}': no '/'", client));
  }
  try {
    manager.describe(path);
  } catch (const Statehub::Error&) {
    throw CommandError(fmt::format("invalid client name '{}': use 1 to 64 letters, digits, "
                                   "'_' and '-'", client));
  }
  return path;
}

}  // namespace

int runLabelsRange(const LabelsOptions& options) {
  const Mpls::LabelRange range = [&] {
    try {
      return Mpls::LabelRange(options.base, options.size);
    } catch (const Kel::RangeException&) {
      throw CommandError(fmt::format("label range base {} is above the largest label, {}",
                                     options.base, kMaxLabel));
    }
  }();
  if (options.name.empty() || options.name.size() > 48) {
    throw CommandError(fmt::format("invalid range name '{}': 1 to 48 characters", options.name));
  }
  auto manager = managerOf(options.statehub, nullptr);
  auto config = Mpls::configFactory();
  auto publication = publishAs(*manager, Mpls::configPath, config);  // finds what is there
  config->labelRangeIs(Kel::String(options.name), range);
  publication->flush();
  const uint64_t blocks = LabelManagerSm::blocksIn(range);
  std::printf("label range '%s': base %u, size %u (%llu blocks of %u labels)\n",
              options.name.c_str(), options.base, options.size,
              static_cast<unsigned long long>(blocks), kBlockSize);
  return 0;
}

int runLabelsRequest(const LabelsOptions& options) {
  checkId(options.id);
  Kel::EventLoop loop;  // outlives the manager, its publication and its mount
  auto manager = managerOf(options.statehub, &loop);
  const std::string path = clientPath(*manager, options.client);
  auto request = Mpls::clientLabelRequestFactory(options.client);
  auto publication = publishAs(*manager, path, request);  // the client's earlier requests
  request->requestIs(Kel::String(options.id), true);
  publication->flush();

  auto status = manager->mount<Mpls::Api::Status>(Mpls::Api::statusPath);
  Mpls::LabelBlock block;
  auto answered = [&] {
    const auto allocation = status->entity()->labelBlockAllocation(Kel::String(options.client));
    if (status->status() != Statehub::mountComplete || !allocation ||
        !allocation->blockHas(Kel::String(options.id))) {
      return false;
    }
    block = allocation->block(Kel::String(options.id));
    return true;
  };
  loop.runUntil(answered, std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::duration<double>(options.timeout)));
  if (answered()) {
    std::printf("%s\n", blockText(block).c_str());
    return 0;
  }
  // Why not: no agent, or no block left.
  const std::string kept = "; the request stays published and is answered when ";
  if (status->status() != Statehub::mountComplete) {
    throw CommandError(fmt::format("no MPLS agent has published '{}' in statehub '{}' (is mplsd "
                                   "running?){}one starts",
                                   Mpls::Api::statusPath, options.statehub, kept));
  }
  const Mpls::Api::Status& s = *status->entity();
  uint64_t held = 0;
  for (const auto& [client, allocation] : s.labelBlockAllocationIter()) {
    held += allocation->blocks();
  }
  const uint64_t blocks = LabelManagerSm::blocksIn(s.dynamicLabelRange());
  if (held >= blocks) {
    throw CommandError(fmt::format(
        "the dynamic label range (base {}, size {}) is exhausted: its {} blocks are all handed "
        "out{}a block is released",
        s.dynamicLabelRange().base().value(), s.dynamicLabelRange().size(), blocks, kept));
  }
  throw CommandError(fmt::format("no answer from the MPLS agent within {:g} s (is mplsd "
                                 "running?){}it comes",
                                 options.timeout, kept));
}

int runLabelsRelease(const LabelsOptions& options) {
  checkId(options.id);
  auto manager = managerOf(options.statehub, nullptr);
  const std::string path = clientPath(*manager, options.client);
  if (!manager->published(path)) {
    throw CommandError(fmt::format("client '{}' has no label requests in statehub '{}'",
                                   options.client, options.statehub));
  }
  auto request = Mpls::clientLabelRequestFactory(options.client);
  auto publication = publishAs(*manager, path, request);
  if (!request->request(Kel::String(options.id))) {
    throw CommandError(fmt::format("client '{}' has no request '{}'", options.client, options.id));
  }
  request->requestDel(Kel::String(options.id));
  publication->flush();
  return 0;
}

int runLabelsShow(const LabelsOptions& options) {
  auto manager = managerOf(options.statehub, nullptr);
  const std::string what = manager->describe(Mpls::Api::statusPath);
  if (!manager->published(Mpls::Api::statusPath)) {
    throw CommandError(fmt::format("nothing is published at {} (has mplsd run?)", what));
  }
  auto status = manager->mount<Mpls::Api::Status>(Mpls::Api::statusPath);
  awaitMount(*status, what);
  const Mpls::Api::Status& s = *status->entity();
  std::vector<std::tuple<std::string, std::string, Mpls::LabelBlock>> rows;
  for (const auto& [client, allocation] : s.labelBlockAllocationIter()) {
    for (const auto& [id, block] : allocation->blockIter()) {
      rows.emplace_back(std::string(client.view()), std::string(id.view()), block);
    }
  }
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
    return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
  });
  const Mpls::LabelRange& range = s.dynamicLabelRange();
  const uint64_t blocks = LabelManagerSm::blocksIn(range);
  if (options.json) {
    nlohmann::json out = {{"dynamicLabelRange",
                           {{"base", range.base().value()},
                            {"size", range.size()},
                            {"blocks", blocks}}},
                          {"blocks", nlohmann::json::array()}};
    for (const auto& [client, id, block] : rows) {
      out["blocks"].push_back({{"client", client},
                               {"request", id},
                               {"first", block.blockStart().value()},
                               {"last", block.blockEnd()}});
    }
    std::printf("%s\n", out.dump(2).c_str());
    return 0;
  }
  std::printf("dynamic label range: base %u, size %u (%llu blocks, %zu handed out)\n",
              range.base().value(), range.size(), static_cast<unsigned long long>(blocks),
              rows.size());
  size_t width = 6;
  for (const auto& [client, id, block] : rows) {
    width = std::max(width, client.size());
  }
  for (const auto& [client, id, block] : rows) {
    std::printf("%-*s  %-*s  %s\n", static_cast<int>(width), client.c_str(), 10, id.c_str(),
                blockText(block).c_str());
  }
  return 0;
}

}  // namespace Mplsctl

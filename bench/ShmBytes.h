// The shared memory a Pond group costs: the resident bytes (pages touched, from mincore)
// of its segments. Pages never touched (capacity beyond the rows written) cost nothing and
// are not counted.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Bench {

// Every segment of `group`: its own and its tables'. `perTable`, when given, hears each
// table's bytes.
uint64_t groupResidentBytes(
    const std::string& group,
    const std::function<void(const std::string& table, uint64_t bytes)>& perTable = {});

}  // namespace Bench

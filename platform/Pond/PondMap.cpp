#include "Pond/PondMap.h"

#include "Kel/Hash.h"
#include "Kel/Log.h"

namespace Pond::internal {

KEL_LOG_MESSAGE(POND_TABLE_CORRUPTION, "POND", "TABLE_CORRUPTION", Kel::LogSeverity::error, "{}",
                "A process reading a shared-memory table found it inconsistent and treated the "
                "affected row as absent.",
                "Restart the agent that writes the table; if the message recurs, report it.");

void logCorruption(const std::string& text) { Kel::log(POND_TABLE_CORRUPTION, text); }

uint64_t fingerprintOf(const std::string& schema) {
  uint64_t hi = XXH32(schema.data(), schema.size(), 0x9e3779b9u);
  uint64_t lo = XXH32(schema.data(), schema.size(), 0x85ebca6bu);
  return (hi << 32) | lo;
}

}  // namespace Pond::internal

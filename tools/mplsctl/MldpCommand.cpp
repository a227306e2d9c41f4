// mplsctl mldp decode: prints the text of an mLDP opaque value given as hex octets.
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <cstdio>

#include "Mpls/MldpOpaqueValue.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

std::string octetsFromHex(std::string_view text) {
  std::string octets;
  // This Abseil has a string_view of its own.
  const absl::string_view all(text.data(), text.size());
  for (const absl::string_view piece :
       absl::StrSplit(all, absl::ByAnyChar(" \t\n\r:-,\\"), absl::SkipEmpty())) {
    const std::string_view group(piece.data(), piece.size());
    std::string_view digits = group;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
      digits.remove_prefix(2);
    } else if (digits.starts_with('x') || digits.starts_with('X')) {
      digits.remove_prefix(1);
    }
    constexpr std::string_view expected =
        "expected two hex digits per octet, optionally after 0x, separated by blanks, colons, "
        "dashes, commas or backslashes";
    for (char c : digits) {
      if (!std::isxdigit(static_cast<unsigned char>(c))) {
        throw CommandError(
            fmt::format("bad hex '{}': '{}' is not a hex digit ({})", group, c, expected));
      }
    }
    if (digits.empty() || digits.size() % 2 != 0) {
      throw CommandError(
          fmt::format("bad hex '{}': {} ({})", group,
                      digits.empty() ? "no hex digits" : "an odd number of hex digits", expected));
    }
    for (size_t i = 0; i < digits.size(); i += 2) {
      uint8_t octet = 0;
      std::from_chars(digits.data() + i, digits.data() + i + 2, octet, 16);
      octets += static_cast<char>(octet);
    }
  }
  if (octets.empty()) {
    throw CommandError(fmt::format("no octets to decode in '{}'", text));
  }
  return octets;
}

int runMldpDecode(const MldpDecodeOptions& options) {
  const std::string text = absl::StrJoin(options.hex, " ");
  const auto parser = Mpls::mldpOpaqueValTlvParserFactory(octetsFromHex(text));
  const std::string out = parser->getOpaqueString(options.summary, false);
  std::printf("%s\n", out.c_str());
  return 0;
}

}  // namespace Mplsctl

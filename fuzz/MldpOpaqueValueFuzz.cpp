// Fuzzes the mLDP opaque value parser (Mpls/MldpOpaqueValue.h): LDP peers send opaque
// values, and show commands print whatever arrived. Any octets must print, in both modes,
// without a crash or a sanitizer report, and keep the printer's promises:
//   - one-line text has no newline, and json always means one line;
//   - the text is bounded (nesting is cut at 16 levels, dumps at 128 octets);
//   - the summary has no empty line and every line after the first is indented;
//   - octets whose Type and Length do not describe exactly the input print as the dump of
//     their first 128 octets;
//   - parsing the same octets again prints the same text.
//
// Input: the opaque value's octets, as they are.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Kel/Exception.h"
#include "Mpls/MldpOpaqueValue.h"

namespace {

// Far above what 16 levels of the longest records and a full dump print.
constexpr size_t kMaxText = 8192;

[[noreturn]] void finding(const char* what, const std::string& text) {
  std::fprintf(stderr, "finding: %s\n%s\n", what, text.c_str());
  std::abort();
}

std::string dumpOf(std::string_view octets) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < octets.size() && i < 128; ++i) {
    const auto o = static_cast<uint8_t>(octets[i]);
    out += " x";
    out += kHex[o >> 4];
    out += kHex[o & 0xf];
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view in(reinterpret_cast<const char*>(data), size);
  std::string line;
  std::string summary;
  try {
    const auto parser = Mpls::mldpOpaqueValTlvParserFactory(in);
    line = parser->getOpaqueString(false, false);
    summary = parser->getOpaqueString(true, false);
    if (parser->getOpaqueString(true, true) != line) {
      finding("json in summary mode is not the one-line text", line);
    }
  } catch (const Kel::Exception& e) {
    finding("the parser threw", e.what());
  }

  if (line.find('\n') != std::string::npos) {
    finding("one-line text with a newline", line);
  }
  if (line.size() > kMaxText || summary.size() > kMaxText) {
    finding("text beyond its bound", line);
  }
  if (summary.starts_with('\n') || summary.find("\n\n") != std::string::npos ||
      summary.ends_with('\n')) {
    finding("summary with an empty line", summary);
  }
  for (size_t nl = summary.find('\n'); nl != std::string::npos; nl = summary.find('\n', nl + 1)) {
    if (nl + 1 >= summary.size() || summary[nl + 1] != ' ') {
      finding("summary line not indented", summary);
    }
  }
  const bool oneTlv = size >= 3 && size == 3 + ((size_t{data[1]} << 8) | data[2]);
  if (!oneTlv && line != dumpOf(in)) {
    finding("octets that are not one TLV did not print as their dump", line);
  }
  if (Mpls::mldpOpaqueValTlvParserFactory(in)->getOpaqueString(false, false) != line) {
    finding("the same octets printed differently", line);
  }
  return 0;
}

// Fuzzes the binding file parser of mplsctl (tools/mplsctl/BindingFile.h): any text must
// either be refused with a LineFileError or give entities that agree with the file's
// counts. Anything else (a crash, a sanitizer report, another exception escaping, counts
// that disagree) is a finding.
//
// Input: the file's text, as is.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/mplsctl/BindingFile.h"

namespace {

[[noreturn]] void finding(const char* what) {
  std::fprintf(stderr, "finding: %s\n", what);
  std::abort();
}

uint64_t labelsOf(const Mpls::LabelBindingTable& t) {
  uint64_t n = 0;
  for (auto&& [fec, b] : t.bindingIter()) {
    if (b->mplsLabels() == 0) {
      finding("a binding without a label");
    }
    n += b->mplsLabels();
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const Mplsctl::BindingFile f = Mplsctl::parseBindingFile(text, "fuzz.txt");
    uint64_t peerLabels = 0, filters = f.local->filteredFecs(), advertised = 0;
    for (auto&& [id, t] : f.peers->bindingTableIter()) {
      peerLabels += labelsOf(*t);
      filters += t->filteredFecs();
    }
    for (auto&& [fec, set] : f.advertisements->advertisedToIter()) {
      advertised += set->identifiers();
    }
    if (labelsOf(*f.local) != f.localLabels || peerLabels != f.peerLabels ||
        filters != f.filters || advertised != f.advertised) {
      finding("the counts disagree with the entities");
    }
  } catch (const Mplsctl::LineFileError&) {
  }
  return 0;
}

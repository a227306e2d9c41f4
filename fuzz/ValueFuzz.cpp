// Fuzzes the readers of outside input of the LFIB model: the strict text reader of every
// value type (operators and files hand it text), the interface-name and address parsers,
// and the binary decoders of the records other processes read from shared memory: the
// records of the LFIB's tables, and the binary form of any value (Kel/Codec.h) that the
// state database stores.
//
// Input: one selector byte, then the payload. Whatever the payload, a reader either
// refuses it with one of the framework's exceptions or returns a value that writes and
// reads back to itself; anything else (a crash, a sanitizer report, another exception, a
// value that does not round-trip) is a finding.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "Kel/Codec.h"
#include "Kel/Exception.h"
#include "Mpls/LfibViaKey.h"
#include "Mpls/LfibViaSetKey.h"
#include "Mpls/MplsLfib.h"
#include "Mpls/TunnelTapIntfId.h"

namespace {

[[noreturn]] void finding(const char* what) {
  std::fprintf(stderr, "finding: %s\n", what);
  std::abort();
}

template <class T>
void textRoundTrip(std::string_view text) {
  T v;
  try {
    v = Kel::strepToValue<T>(text);
  } catch (const Kel::Exception&) {
    return;  // refused: fine
  }
  std::string written = Kel::valueToStrep(v);
  T back;
  try {
    back = Kel::strepToValue<T>(written);
  } catch (const Kel::Exception& e) {
    finding(e.what());
  }
  if (!(back == v) || Kel::hashOf(back, 1) != Kel::hashOf(v, 1)) {
    finding("value read from text does not read back from its own text form");
  }
}

template <class T>
void binaryRoundTrip(const uint8_t* data, size_t len) {
  // A copy of exactly `len` bytes, so that any read past the record is caught.
  std::vector<uint8_t> in(data, data + len);
  T v;
  uint32_t used;
  try {
    used = v.deserialize(in.data(), in.size());
  } catch (const Kel::Exception&) {
    return;
  }
  if (used > len || used != T::deserializeLen(in.data(), in.size()) || used != v.serializeLen()) {
    finding("decoded length disagrees with the record");
  }
  std::vector<uint8_t> out(v.serializeLen());
  v.serialize(out.data());
  T back;
  back.deserialize(out.data(), out.size());
  if (!(back == v)) {
    finding("decoded record does not encode back to itself");
  }
}

template <class T>
void codecRoundTrip(std::string_view bytes) {
  T v;
  try {
    v = Kel::decoded<T>(std::string(bytes));  // a copy of exactly these bytes
  } catch (const Kel::Exception&) {
    return;
  }
  T back;
  try {
    back = Kel::decoded<T>(Kel::encoded(v));
  } catch (const Kel::Exception& e) {
    finding(e.what());
  }
  if (!(back == v)) {
    finding("a value's binary form does not read back to it");
  }
}

void intfName(std::string_view text) {
  Netbase::IntfId id;
  try {
    id = Netbase::IntfId(text);
  } catch (const Kel::ParseError&) {
    return;
  }
  if (!(Netbase::IntfId(id.stringValue()) == id)) {
    finding("interface name does not read back");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) {
    return 0;
  }
  const uint8_t* payload = data + 1;
  size_t len = size - 1;
  std::string_view text(reinterpret_cast<const char*>(payload), len);
  using namespace Mpls;
  switch (data[0] % 20) {
    case 0: textRoundTrip<LfibViaKey>(text); break;
    case 1: textRoundTrip<LfibViaSetKey>(text); break;
    case 2: textRoundTrip<LfibMplsVia>(text); break;
    case 3: textRoundTrip<LfibIpLookupVia>(text); break;
    case 4: textRoundTrip<LfibViaSet>(text); break;
    case 5: textRoundTrip<LfibRoute>(text); break;
    case 6: textRoundTrip<LfibPwVia>(text); break;
    case 7: textRoundTrip<LfibDot1qTagToVlanComposite>(text); break;
    case 8: textRoundTrip<Netbase::IpGenAddr>(text); break;
    case 9: textRoundTrip<Netbase::IpGenPrefix>(text); break;
    case 10: textRoundTrip<Netbase::TunnelTapIntfId>(text); break;
    case 11: textRoundTrip<L3::VrfName>(text); break;
    case 12: intfName(text); break;
    case 13: binaryRoundTrip<LfibViaSet>(payload, len); break;
    case 14: binaryRoundTrip<LfibMplsVia>(payload, len); break;
    case 15: binaryRoundTrip<LfibIpLookupVia>(payload, len); break;
    case 16: codecRoundTrip<LfibViaSet>(text); break;
    case 17: codecRoundTrip<LfibMplsVia>(text); break;
    case 18: codecRoundTrip<LfibIpLookupVia>(text); break;
    case 19: codecRoundTrip<LfibDot1qTagToVlanComposite>(text); break;
  }
  return 0;
}

#include "types/Netbase/IntfId.h"

#include <charconv>
#include <optional>

#include <fmt/format.h>

namespace Netbase {

namespace {

struct IntfKind {
  IntfType type;
  std::string_view name;
  std::string_view shortName;
  uint32_t maxNumbers;  // how many '/'-separated numbers the name may have
  bool subinterfaces;
  uint32_t firstMin;
  uint32_t firstMax;
};

constexpr uint32_t kFirstMax = 0xFFFFFF;
constexpr uint32_t kSecondMax = 1022;
constexpr uint32_t kThirdMax = 62;
constexpr uint32_t kSubMax = 0xFFFF;

constexpr IntfKind kKinds[] = {
    {intfTypeEthernet, "Ethernet", "Et", 3, true, 1, kFirstMax},
    {intfTypePortChannel, "Port-Channel", "Po", 1, true, 1, kFirstMax},
    {intfTypeVlan, "Vlan", "Vl", 1, false, 1, 4094},
    {intfTypeLoopback, "Loopback", "Lo", 1, false, 0, kFirstMax},
    {intfTypeManagement, "Management", "Ma", 2, false, 0, kFirstMax},
    {intfTypeTunnel, "Tunnel", "Tu", 1, false, 0, kFirstMax},
    {intfTypeVxlan, "Vxlan", "Vx", 1, false, 1, kFirstMax},
    {intfTypeNull, "Null", "Nu", 1, false, 0, 0},
    {intfTypeRecircChannel, "Recirc-Channel", "Rc", 1, false, 1, kFirstMax},
    {intfTypePseudowire, "Pseudowire", "Pw", 1, false, 1, kFirstMax},
    {intfTypeFabric, "Fabric", "Fa", 1, false, 1, kFirstMax},
    {intfTypeDps, "Dps", "Dps", 1, false, 1, kFirstMax},
    {intfTypeTunnelTap, "tunnelTap", "tunnelTap", 1, false, 0, kFirstMax},
};

bool equalNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    char y = b[i] >= 'A' && b[i] <= 'Z' ? static_cast<char>(b[i] - 'A' + 'a') : b[i];
    if (x != y) {
      return false;
    }
  }
  return true;
}

const IntfKind* kindOf(IntfType type) {
  for (const IntfKind& k : kKinds) {
    if (k.type == type) {
      return &k;
    }
  }
  return nullptr;
}

// Reads a decimal number at `pos`; nullopt when there is none, it has a leading zero or
// it does not fit 32 bits.
std::optional<uint32_t> number(std::string_view s, size_t& pos) {
  if (pos + 1 < s.size() && s[pos] == '0' && s[pos + 1] >= '0' && s[pos + 1] <= '9') {
    return std::nullopt;
  }
  uint32_t v = 0;
  auto r = std::from_chars(s.data() + pos, s.data() + s.size(), v);
  if (r.ec != std::errc() || r.ptr == s.data() + pos) {
    return std::nullopt;
  }
  pos = static_cast<size_t>(r.ptr - s.data());
  return v;
}

bool parseRawForm(std::string_view name, uint32_t& w0, uint32_t& w1) {
  // IntfId(0x<hex>,0x<hex>)
  if (name.substr(0, 9) != "IntfId(0x" || name.back() != ')') {
    return false;
  }
  size_t comma = name.find(",0x");
  if (comma == std::string_view::npos) {
    return false;
  }
  auto hex = [](std::string_view s, uint32_t& out) {
    auto r = std::from_chars(s.data(), s.data() + s.size(), out, 16);
    return r.ec == std::errc() && r.ptr == s.data() + s.size() && !s.empty();
  };
  return hex(name.substr(9, comma - 9), w0) &&
         hex(name.substr(comma + 3, name.size() - comma - 4), w1);
}

}  // namespace

void IntfId::handleInitialized(std::string_view name) {
  if (name.empty()) {
    word0_ = word1_ = 0;
    return;
  }
  auto bad = [&](std::string_view why) {
    throw Kel::ParseError(fmt::format("invalid interface name '{}': {}", name, why));
  };
  uint32_t w0 = 0;
  uint32_t w1 = 0;
  if (parseRawForm(name, w0, w1)) {
    word0_ = w0;
    word1_ = w1;
    return;
  }
  size_t typeEnd = 0;
  while (typeEnd < name.size() &&
         ((name[typeEnd] >= 'a' && name[typeEnd] <= 'z') ||
          (name[typeEnd] >= 'A' && name[typeEnd] <= 'Z') || name[typeEnd] == '-')) {
    ++typeEnd;
  }
  std::string_view typeName = name.substr(0, typeEnd);
  const IntfKind* kind = nullptr;
  for (const IntfKind& k : kKinds) {
    if (equalNoCase(typeName, k.name) || equalNoCase(typeName, k.shortName)) {
      kind = &k;
      break;
    }
  }
  if (!kind) {
    bad(typeName.empty() ? "expected an interface type such as Ethernet"
                         : "unknown interface type");
  }
  size_t pos = typeEnd;
  uint32_t numbers[3] = {0, 0, 0};
  uint32_t count = 0;
  do {
    if (count == kind->maxNumbers) {
      bad(fmt::format("{} takes at most {} number{}", kind->name, kind->maxNumbers,
                      kind->maxNumbers > 1 ? "s" : ""));
    }
    auto n = number(name, pos);
    if (!n) {
      bad("expected a number");
    }
    numbers[count++] = *n;
  } while (pos < name.size() && name[pos] == '/' && ++pos);
  uint32_t sub = 0;
  if (pos < name.size() && name[pos] == '.') {
    if (!kind->subinterfaces) {
      bad(fmt::format("{} interfaces have no subinterfaces", kind->name));
    }
    ++pos;
    auto n = number(name, pos);
    if (!n || *n < 1 || *n > kSubMax) {
      bad(fmt::format("subinterface numbers run from 1 to {}", kSubMax));
    }
    sub = *n;
  }
  if (pos != name.size()) {
    bad(fmt::format("unexpected '{}'", name.substr(pos)));
  }
  if (numbers[0] < kind->firstMin || numbers[0] > kind->firstMax) {
    bad(fmt::format("{} numbers run from {} to {}", kind->name, kind->firstMin, kind->firstMax));
  }
  if (count > 1 && numbers[1] > kSecondMax) {
    bad(fmt::format("the second number is at most {}", kSecondMax));
  }
  if (count > 2 && numbers[2] > kThirdMax) {
    bad(fmt::format("the third number is at most {}", kThirdMax));
  }
  word0_ = (static_cast<uint32_t>(kind->type) << 24) | numbers[0];
  word1_ = (count > 1 ? (numbers[1] + 1) << 22 : 0) | (count > 2 ? (numbers[2] + 1) << 16 : 0) |
           sub;
}

std::string IntfId::stringValue() const {
  if (!*this) {
    return {};
  }
  const IntfKind* kind = kindOf(type());
  uint32_t second = word1_ >> 22;
  uint32_t third = (word1_ >> 16) & 0x3f;
  uint32_t sub = word1_ & 0xffff;
  // Only canonical encodings print as names, so that every name reads back to the same
  // identifier.
  if (!kind || (second == 0 && third != 0) || (second && kind->maxNumbers < 2) ||
      (third && kind->maxNumbers < 3) || (sub && !kind->subinterfaces) ||
      (word0_ & kFirstMax) < kind->firstMin || (word0_ & kFirstMax) > kind->firstMax ||
      second > kSecondMax + 1 || third > kThirdMax + 1) {
    return fmt::format("IntfId(0x{:x},0x{:x})", word0_, word1_);
  }
  std::string out = fmt::format("{}{}", kind->name, word0_ & kFirstMax);
  if (second) {
    fmt::format_to(std::back_inserter(out), "/{}", second - 1);
  }
  if (third) {
    fmt::format_to(std::back_inserter(out), "/{}", third - 1);
  }
  if (sub) {
    fmt::format_to(std::back_inserter(out), ".{}", sub);
  }
  return out;
}

IntfId IntfId::kelReadStrep(Kel::StrepReader& r) {
  size_t start = r.position();
  std::string name = r.readQuoted();
  try {
    return IntfId(name);
  } catch (const Kel::ParseError& e) {
    r.failAt(start, fmt::format("an interface name ({})", e.what()));
  }
}

}  // namespace Netbase

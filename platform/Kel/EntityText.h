// The text form of an entity, derived from its attribute descriptors (Kel/Attribute.h):
// its type name, then one line per scalar and per collection element, elements in the
// order of their keys' text, nested entities indented under their key:
//
//   Mpls::Api::Status
//     ready: True
//     labelBlockAllocation["bgp"]
//       block[0]: Value('Mpls::LabelBlock', ** {...})
//
// What `mplsctl state show` prints, and what tests compare.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Attribute.h"
#include "Kel/Strep.h"

namespace Kel {

namespace internal {

template <class E>
void writeEntityText(std::string& out, const E& e, const std::string& indent) {
  forEachAttr<E>([&](auto a) {
    using A = decltype(a);
    const std::string name(A::name);
    if constexpr (A::kind == AttrKind::scalar) {
      out += indent + name + ": " + valueToStrep(A::get(e)) + "\n";
    } else {
      std::vector<std::pair<std::string, std::string>> lines;
      A::forEach(e, [&](const auto& k, const auto& v) {
        std::string line = indent + name + "[" + valueToStrep(k) + "]";
        if constexpr (A::kind == AttrKind::entityColl) {
          line += "\n";
          writeEntityText(line, *v, indent + "  ");
          line.pop_back();
        } else if constexpr (A::kind != AttrKind::set) {
          line += ": " + valueToStrep(v);
        }
        lines.emplace_back(valueToStrep(k), std::move(line));
      });
      std::sort(lines.begin(), lines.end());
      for (const auto& [key, line] : lines) {
        out += line + "\n";
      }
    }
  });
}

}  // namespace internal

template <DescribedEntity E>
std::string entityText(const E& e) {
  std::string out(E::kelTypeName);
  out += "\n";
  internal::writeEntityText(out, e, "  ");
  return out;
}

}  // namespace Kel

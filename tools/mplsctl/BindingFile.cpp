#include "tools/mplsctl/BindingFile.h"

#include <charconv>
#include <cmath>

namespace Mplsctl {

namespace {

using Mpls::FwdEqvClass;
using Mpls::LabelBindingTable;
using Netbase::MplsLabel;

Mpls::RouterId routerId(LineParser& p) {
  if (!p.atEnd()) {
    if (std::optional<Mpls::RouterId> r = Mpls::RouterId::parse(p.peek().text)) {
      p.take();
      return *r;
    }
  }
  p.expected("an LSR id and label space (LSR-ID:SPACE, as 10.0.0.1:0)");
}

FwdEqvClass fec(LineParser& p) {
  return FwdEqvClass(p.parsed<Netbase::IpGenPrefix>("a prefix (as 10.0.0.0/8)"));
}

double seconds(LineParser& p) {
  if (p.atEnd()) {
    p.expected("a time in seconds after 'updated'");
  }
  const Token t = p.peek();
  double value = 0;
  auto [end, ec] = std::from_chars(t.text.data(), t.text.data() + t.text.size(), value);
  if (ec != std::errc() || end != t.text.data() + t.text.size() || !std::isfinite(value) ||
      value < 0) {
    p.fail(t.column, fmt::format("expected a time in seconds (0 or more) after 'updated', found {}",
                                 Kel::quoted(t.text)));
  }
  p.take();
  return value;
}

void endOfLine(LineParser& p) {
  if (!p.atEnd()) {
    p.expected("end of line");
  }
}

// "LABEL [updated SECONDS]" or "filtered", for the binding of `f` in `table`.
void bindingFact(LineParser& p, LabelBindingTable& table, const FwdEqvClass& f,
                 uint64_t& labels, uint64_t& filters) {
  if (p.peekIs("filtered")) {
    p.take();
    endOfLine(p);
    if (!table.filteredFec(f)) {
      table.filteredFecIs(f, true);
      ++filters;
    }
    return;
  }
  const Token at = p.atEnd() ? Token{"", 0} : p.peek();
  const MplsLabel label(p.number("a label or 'filtered'", "label", 0, MplsLabel::max));
  std::optional<double> updated;
  if (p.peekIs("updated")) {
    p.take();
    updated = seconds(p);
  }
  endOfLine(p);
  Mpls::LabelBinding::Ptr b = table.bindingIs(f);
  if (b->mplsLabel(label)) {
    p.fail(at.column, fmt::format("label {} is already bound to {}", label.value(),
                                  f.prefix().stringValue()));
  }
  if (updated && *updated != 0) {
    if (b->hasLastUpdate() && b->lastUpdate() != *updated) {
      p.fail(at.column, fmt::format("{} was already updated at {}, not {}",
                                    f.prefix().stringValue(), b->lastUpdate(), *updated));
    }
    b->lastUpdateIs(*updated);
  }
  b->mplsLabelIs(label, true);
  ++labels;
}

}  // namespace

BindingFile parseBindingFile(std::string_view text, const std::string& fileName) {
  BindingFile file;
  forEachLine(text, fileName, "binding file", [&](LineParser& p) {
    const Token word = p.peek();
    if (word.text == "local") {
      p.take();
      const FwdEqvClass f = fec(p);
      bindingFact(p, *file.local, f, file.localLabels, file.filters);
    } else if (word.text == "peer") {
      p.take();
      const Mpls::RouterId r = routerId(p);
      const FwdEqvClass f = fec(p);
      bindingFact(p, *file.peers->bindingTableIs(r), f, file.peerLabels, file.filters);
    } else if (word.text == "advertised") {
      p.take();
      const FwdEqvClass f = fec(p);
      const Ldp::LdpIdentifier peer(routerId(p));
      endOfLine(p);
      Ldp::LdpIdentifierSet::Ptr set = file.advertisements->advertisedToIs(f);
      if (!set->identifier(peer)) {
        set->identifierIs(peer, true);
        ++file.advertised;
      }
    } else {
      p.expected("'local', 'peer' or 'advertised'");
    }
  });
  return file;
}

BindingFile readBindingFile(const std::string& path) {
  return parseLineFile(path, "binding file", [](std::string_view text, const std::string& name) {
    return parseBindingFile(text, name);
  });
}

}  // namespace Mplsctl

#include "Mpls/LfibSourceGrState.h"

namespace Mpls {

namespace {

const char* yesNo(bool v) { return v ? "yes" : "no"; }

// The first line of a dump: "<name> <source>", indented unless indent is 0.
void dumpHeader(Kel::DumpContext& context, int indent, const char* withIndent,
                const char* withoutIndent, LFib::Source source) {
  std::string s = Kel::valueToStrep(source);
  if (indent) {
    context.printf(withIndent, indent, ' ', s.c_str());
  } else {
    context.printf(withoutIndent, s.c_str());
  }
}

}  // namespace

void LibProducerGrState::dumpState(Kel::DumpContext& context, int indent) const {
  dumpHeader(context, indent, "%*cLibProducerGrState %s\n", "LibProducerGrState %s\n", source_);
  int i = indent + 2;
  context.printf("%*ctunnelProducer=%s\n", i, ' ', yesNo(tunnelProducer_));
  context.printf("%*cinputReady=%s\n", i, ' ', yesNo(inputReady_));
  context.printf("%*cfibSmReady=%s\n", i, ' ', yesNo(fibSmReady_));
  context.printf("%*clfibGenSmReady=%s\n", i, ' ', yesNo(lfibGenSmReady_));
  context.printf("%*cfibSmBacklogEmpty=%s\n", i, ' ', yesNo(fibSmBacklogEmpty_));
  context.printf("%*clfibGenSmBacklogEmpty=%s\n", i, ' ', yesNo(lfibGenSmBacklogEmpty_));
  context.printf("%*ctunnelTableSeqNum=%llu\n", i, ' ',
                 static_cast<unsigned long long>(tunnelTableSeqNum_));
}

void LfibProducerGrState::dumpState(Kel::DumpContext& context, int indent) const {
  dumpHeader(context, indent, "%*cLfibProducerGrState %s\n", "LfibProducerGrState %s\n",
             source_);
  context.printf("%*cinputReady=%s\n", indent + 2, ' ', yesNo(inputReady_));
}

Kel::Ptr<LibProducerGrState> libProducerGrStateFactory(LFib::Source source) {
  return Kel::make<LibProducerGrState>(source);
}

Kel::Ptr<LfibProducerGrState> lfibProducerGrStateFactory(LFib::Source source) {
  return Kel::make<LfibProducerGrState>(source);
}

}  // namespace Mpls

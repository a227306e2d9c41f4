#include "Pond/KelPond.h"

namespace KelPond {

void dumpHeader(Kel::DumpContext& context, int indent, std::string_view name, size_t count) {
  if (indent) {
    context.printf("%*c%ss #%u\n", indent, ' ', std::string(name), static_cast<unsigned>(count));
  } else {
    context.printf("%ss #%u\n", std::string(name), static_cast<unsigned>(count));
  }
}

}  // namespace KelPond

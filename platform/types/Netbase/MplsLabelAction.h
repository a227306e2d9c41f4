// Netbase::MplsLabelAction: what a label switching router does with the top label.
#pragma once

#include "Kel/Enum.h"

namespace Netbase {

KEL_ENUM(MplsLabelAction, "Netbase::MplsLabelAction",
         (labelActionNone, 0),   // no label operation
         (labelActionPush, 1),   // push the label stack on top of the packet's labels
         (labelActionPop, 2),    // remove the top label
         (labelActionSwap, 3));  // replace the top label by the label stack

}  // namespace Netbase

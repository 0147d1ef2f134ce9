// The demo piece that examples/quavix-demo.mid holds.
#ifndef QUAVIX_TOOLS_DEMO_H
#define QUAVIX_TOOLS_DEMO_H

#include "Smf.h"

namespace qxsmf {

File BuildDemo();

} // namespace qxsmf

#endif // QUAVIX_TOOLS_DEMO_H

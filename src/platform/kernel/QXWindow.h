// What the window service tells tests about itself.
#ifndef QUAVIX_PLATFORM_QXWINDOW_H
#define QUAVIX_PLATFORM_QXWINDOW_H

#include <cstddef>

namespace qxplat {

// Windows that exist in the whole process.
size_t LiveWindowCount();

} // namespace qxplat

#endif // QUAVIX_PLATFORM_QXWINDOW_H

#include "core/QXMessageLoop.h"

#include <quavix/QXNotify.h>

#include "platform/QXPlatform.h"

void QXRunMessageLoop([[maybe_unused]] const char* pszTrace)
{
    MSG msg;
    for (;;) {
        BOOL r = GetMessageA(&msg, nullptr, 0, 0);
        if (r == 0) return;
        if (r == -1) {
#ifndef NDEBUG
            QXTrace("%s", pszTrace);
#endif
            continue;
        }
        DispatchMessageA(&msg);
    }
}

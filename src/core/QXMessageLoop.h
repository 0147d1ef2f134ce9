// The message loop of the library's worker threads (devices and the manager).
#ifndef QUAVIX_CORE_QXMESSAGELOOP_H
#define QUAVIX_CORE_QXMESSAGELOOP_H

// Handles the calling thread's messages in order until WM_QUIT. A failing GetMessageA is
// skipped; debug builds trace pszTrace for it.
void QXRunMessageLoop(const char* pszTrace);

#endif // QUAVIX_CORE_QXMESSAGELOOP_H

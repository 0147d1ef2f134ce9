// Scheduling of the platform's own time-keeping threads.
#ifndef QUAVIX_PLATFORM_QXREALTIME_H
#define QUAVIX_PLATFORM_QXREALTIME_H

namespace qxplat {

// Names the calling thread and asks for real-time scheduling and a minimal timer slack.
// Precision is a wish: without the right to SCHED_FIFO the thread stays normal.
void MakeRealtimeThread(const char* pszName);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_QXREALTIME_H

#include "platform/kernel/QXRealtime.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

namespace qxplat {

void MakeRealtimeThread(const char* pszName)
{
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    sched_param sp{};
    sp.sched_priority = sched_get_priority_max(SCHED_FIFO) - 1;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp);
    pthread_setname_np(pthread_self(), pszName);
}

} // namespace qxplat

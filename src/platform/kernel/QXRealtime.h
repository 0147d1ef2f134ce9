// Scheduling of the platform's own time-keeping threads.
#ifndef QUAVIX_PLATFORM_QXREALTIME_H
#define QUAVIX_PLATFORM_QXREALTIME_H

namespace qxplat {

// Names the calling thread and asks for real-time scheduling and a minimal timer slack.
// Precision is a wish: without the right to SCHED_FIFO the thread stays normal.
void MakeRealtimeThread(const char* pszName);

// On a virtual machine whose CPUs idle by halting, a halted virtual CPU is woken by its
// host, sometimes many milliseconds after its timer expired; a CPU kept busy is not.
// While anything holds them, idle-priority pollers keep every CPU from halting, so
// time-keeping threads wake on time. QUAVIX_IDLE_POLL chooses: "auto" (the default:
// only on such a machine), "on" or "off". Holds nest.
void HoldCpusAwake();
void ReleaseCpusAwake();

// Whether holds start pollers in this process, and how many run now.
bool CpuPollingEnabled();
int CpuPollerCount();

// Whether "auto" polls on this machine: a hypervisor and no cpuidle driver.
bool IdlePollWanted(const char* pszMode, bool bHypervisor, const char* pszIdleDriver);

} // namespace qxplat

#endif // QUAVIX_PLATFORM_QXREALTIME_H

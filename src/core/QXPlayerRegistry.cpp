#include <quavix/QXPlayerRegistry.h>

#include "platform/kernel/QXClock.h"

#include <mutex>
#include <unordered_map>

namespace {

struct Entry {
    void* pPlayer;
    QX_PlayerSignalProc pSignal;
};

struct Registry {
    // Recursive: a signal function may unregister its own player.
    std::recursive_mutex mutex;
    qxplat::ClockCondition released;
    std::unordered_map<DWORD, Entry> byHandle;
    std::unordered_map<const void*, DWORD> byPlayer;
    // Pins by handle, all threads together; outlives the entry while pins remain.
    std::unordered_map<DWORD, int> pins;
    DWORD next = 0;
};

Registry& Reg()
{
    static Registry* s = new Registry; // reachable from callback threads during exit
    return *s;
}

// The pins the calling thread holds, by handle.
thread_local std::unordered_map<DWORD, int> t_pins;

int OwnPins(DWORD dwHandle)
{
    auto it = t_pins.find(dwHandle);
    return it == t_pins.end() ? 0 : it->second;
}

} // namespace

DWORD QXRegisterPlayer(void* pPlayer, QX_PlayerSignalProc pSignal)
{
    if (pPlayer == nullptr || pSignal == nullptr) return 0;
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    auto it = r.byPlayer.find(pPlayer);
    if (it != r.byPlayer.end()) return it->second;
    do {
        ++r.next; // skips 0, handles still in use and handles still pinned after a wrap
    } while (r.next == 0 || r.byHandle.count(r.next) != 0 || r.pins.count(r.next) != 0);
    r.byHandle[r.next] = {pPlayer, pSignal};
    r.byPlayer[pPlayer] = r.next;
    return r.next;
}

void QXUnregisterPlayer(void* pPlayer)
{
    Registry& r = Reg();
    std::unique_lock<std::recursive_mutex> lock(r.mutex);
    auto it = r.byPlayer.find(pPlayer);
    if (it == r.byPlayer.end()) return;
    const DWORD dwHandle = it->second;
    r.byHandle.erase(dwHandle);
    r.byPlayer.erase(it);
    // Withdrawn first, so no new pin can be taken; then the others' pins run out.
    // (A signal function that unregisters runs with the lock held twice, so it must
    // not meet another thread's pin: the start signal never unregisters.)
    r.released.Wait(lock, [&] {
        auto p = r.pins.find(dwHandle);
        return p == r.pins.end() || p->second <= OwnPins(dwHandle);
    });
}

DWORD QXPlayerHandle(const void* pPlayer)
{
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    auto it = r.byPlayer.find(pPlayer);
    return it == r.byPlayer.end() ? 0 : it->second;
}

bool QXSignalPlayer(DWORD dwHandle)
{
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    auto it = r.byHandle.find(dwHandle);
    if (it == r.byHandle.end()) return false;
    it->second.pSignal(it->second.pPlayer);
    return true;
}

void* QXAcquirePlayer(DWORD dwHandle)
{
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    auto it = r.byHandle.find(dwHandle);
    if (it == r.byHandle.end()) return nullptr;
    ++r.pins[dwHandle];
    ++t_pins[dwHandle];
    return it->second.pPlayer;
}

void QXReleasePlayer(DWORD dwHandle)
{
    Registry& r = Reg();
    {
        std::lock_guard<std::recursive_mutex> lock(r.mutex);
        auto own = t_pins.find(dwHandle);
        if (own == t_pins.end()) return; // not pinned by this thread
        if (--own->second == 0) t_pins.erase(own);
        auto p = r.pins.find(dwHandle);
        if (p != r.pins.end() && --p->second == 0) r.pins.erase(p);
    }
    r.released.NotifyAll();
}

size_t QXLivePlayerCount()
{
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    return r.byPlayer.size();
}

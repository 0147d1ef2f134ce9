#include <quavix/QXPlayerRegistry.h>

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
    std::unordered_map<DWORD, Entry> byHandle;
    std::unordered_map<const void*, DWORD> byPlayer;
    DWORD next = 0;
};

Registry& Reg()
{
    static Registry* s = new Registry; // reachable from callback threads during exit
    return *s;
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
        ++r.next; // skips 0 and handles still in use after a wrap
    } while (r.next == 0 || r.byHandle.count(r.next) != 0);
    r.byHandle[r.next] = {pPlayer, pSignal};
    r.byPlayer[pPlayer] = r.next;
    return r.next;
}

void QXUnregisterPlayer(void* pPlayer)
{
    Registry& r = Reg();
    std::lock_guard<std::recursive_mutex> lock(r.mutex);
    auto it = r.byPlayer.find(pPlayer);
    if (it == r.byPlayer.end()) return;
    r.byHandle.erase(it->second);
    r.byPlayer.erase(it);
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

#include "platform/QXFaults.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Fault {
    std::string op;
    DWORD result;
    int remaining; // calls still to pass before this one fails
};

std::mutex g_mutex;
std::vector<Fault> g_faults;
std::atomic<int> g_armed{0}; // keeps the unarmed path to one load

} // namespace

void QXFaultInject(const char* pszOperation, DWORD dwResult, int nCall)
{
    if (pszOperation == nullptr || nCall < 1) return;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_faults.push_back({pszOperation, dwResult, nCall - 1});
    g_armed.store(static_cast<int>(g_faults.size()));
}

void QXFaultClear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_faults.clear();
    g_armed.store(0);
}

bool QXFaultCheck(const char* pszOperation, DWORD* pdwResult)
{
    if (g_armed.load(std::memory_order_relaxed) == 0) return false;
    std::lock_guard<std::mutex> lock(g_mutex);
    bool fail = false;
    for (auto it = g_faults.begin(); it != g_faults.end();) {
        if (it->op != pszOperation) {
            ++it;
            continue;
        }
        if (it->remaining > 0 || fail) {
            --it->remaining;
            ++it;
            continue;
        }
        fail = true;
        if (pdwResult != nullptr) *pdwResult = it->result;
        it = g_faults.erase(it);
    }
    g_armed.store(static_cast<int>(g_faults.size()));
    return fail;
}

// A recorder of the callbacks of wave inputs and MIDI streams, shared by the platform tests.
#ifndef QUAVIX_TESTS_UNIT_PLATFORM_PLATFORMTESTUTIL_H
#define QUAVIX_TESTS_UNIT_PLATFORM_PLATFORMTESTUTIL_H

#include "platform/QXPlatform.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace plattest {

// Messages with their first parameter, the thread of each, and a header's offset at
// each MOM_POSITIONCB; then runs the hook, if any, outside the lock.
struct Calls {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::pair<UINT, DWORD_PTR>> seen;
    std::vector<std::thread::id> threads;
    std::vector<DWORD> offsets;
    std::function<void(UINT msg, DWORD_PTR p1)> hook;

    template <class Handle>
    static void CALLBACK Proc(Handle, UINT msg, DWORD_PTR inst, DWORD_PTR p1, DWORD_PTR)
    {
        auto* c = reinterpret_cast<Calls*>(inst);
        {
            std::lock_guard<std::mutex> lock(c->mutex);
            c->seen.emplace_back(msg, p1);
            c->threads.push_back(std::this_thread::get_id());
            if (msg == MOM_POSITIONCB) c->offsets.push_back(reinterpret_cast<MIDIHDR*>(p1)->dwOffset);
            c->cv.notify_all();
        }
        if (c->hook) c->hook(msg, p1);
    }
    bool WaitFor(UINT msg, size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(20), [&] { return CountLocked(msg) >= count; });
    }
    size_t Count(UINT msg)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return CountLocked(msg);
    }
    std::vector<std::pair<UINT, DWORD_PTR>> Seen()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

private:
    size_t CountLocked(UINT msg) const
    {
        size_t n = 0;
        for (auto& s : seen) n += s.first == msg;
        return n;
    }
};

template <class T> DWORD_PTR P(T* p) { return reinterpret_cast<DWORD_PTR>(p); }

} // namespace plattest

#endif // QUAVIX_TESTS_UNIT_PLATFORM_PLATFORMTESTUTIL_H

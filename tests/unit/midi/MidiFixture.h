// A manager on the virtual backend with two MIDI inputs and three outputs (output n
// loops back into input n), event builders, and recorders of what the callbacks and
// the outputs see.
#ifndef QUAVIX_TESTS_MIDIFIXTURE_H
#define QUAVIX_TESTS_MIDIFIXTURE_H

#include <quavix/Quavix.h>

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

using Msg = std::vector<BYTE>;
using Msgs = std::vector<Msg>;
using qxplat::QXVirtualTakeMidiOut;
using wavetest::Eventually;

inline CQXEventData* MidiEvent(DWORD dwMsg, DWORD dwTime, int nDevice = 0)
{
    auto* e = new CQXEventData;
    e->SetMidiData(dwMsg);
    e->SetTimeStamp(dwTime);
    e->SetDevice(nDevice);
    return e;
}

inline CQXEventData* SysExEvent(Msg bytes, DWORD dwTime)
{
    auto* e = new CQXEventData;
    e->SetSysExData(bytes.data(), DWORD(bytes.size()));
    e->SetTimeStamp(dwTime);
    return e;
}

// The bytes a short message puts on the wire.
inline Msg Bytes(DWORD dwMsg)
{
    const BYTE s = BYTE(dwMsg);
    Msg m{s, BYTE(dwMsg >> 8), BYTE(dwMsg >> 16)};
    m.resize(s >= 0xF8 ? 1 : (s & 0xE0) == 0xC0 ? 2 : 3);
    return m;
}

inline void Play(std::initializer_list<CQXEventData*> events)
{
    CQXEventList list;
    for (auto* e : events) list.AddTail(e);
    CQuavix::GetQuavix()->PlayBuffer(list);
}

// A performance: it notes the periods it is asked for and the sync codes it is told
// (with the stamps of the clocks), then runs fn.
struct Perf {
    std::function<int(int, DWORD, DWORD)> fn;
    std::mutex mutex;
    std::vector<std::pair<DWORD, DWORD>> periods;
    std::vector<int> codes;
    std::vector<DWORD> clocks;
    std::atomic<int> polls{0};
    static int Proc(DWORD_PTR user, int tag, DWORD s, DWORD e)
    {
        auto* p = reinterpret_cast<Perf*>(user);
        {
            std::lock_guard<std::mutex> lock(p->mutex);
            if (tag > 0) p->periods.emplace_back(s, e);
            if (tag < 0) p->codes.push_back(tag);
            if (tag == QX_SYNC_CLOCK) p->clocks.push_back(e);
        }
        if (tag > 0) ++p->polls;
        return p->fn ? p->fn(tag, s, e) : 1;
    }
    int Start(CQuavix* q, int bActive = 0) { return q->StartPerformance(Proc, DWORD_PTR(this), bActive, 0); }
    template <class T> T Get(const T& field)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return field;
    }
};

class MidiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QXFaultClear();
        qxplat::QXVirtualSetDevices(2, 3, 0, 0);
        for (int n = 0; n < 3; ++n) QXVirtualTakeMidiOut(n);
        q = CQuavix::InitQuavix();
        q->Initialize(QX_INIT_MIDI);
    }
    void TearDown() override
    {
        CQuavix::ExitQuavix();
        QXFaultClear();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    }
    // What output n sent, once it holds `count` messages or five seconds have passed.
    static std::vector<qxplat::VirtualMidiMessage> Sent(int n, size_t count = 0)
    {
        std::vector<qxplat::VirtualMidiMessage> v;
        Eventually([&] {
            for (auto& m : QXVirtualTakeMidiOut(n)) v.push_back(std::move(m));
            return v.size() >= count;
        });
        return v;
    }
    static Msgs Out(int n, size_t count = 0)
    {
        Msgs v;
        for (auto& m : Sent(n, count)) v.push_back(m.bytes);
        return v;
    }

    CQuavix* q = nullptr;
};

#endif // QUAVIX_TESTS_MIDIFIXTURE_H

// Virtual MIDI ports: output n records what it emits and loops it back into input n;
// inputs deliver on a thread of their own, as a device driver's callback would.
#include "platform/backends/virtual/QXVirtualPorts.h"

#include "platform/kernel/QXClock.h"
#include "platform/kernel/QXRealtime.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace qxplat {

namespace {

class VirtualMidiIn;

// Open ports and what the outputs emitted, reachable from every thread that sends.
struct MidiRegistry {
    std::mutex mutex;
    std::map<int, VirtualMidiIn*> inputs;
    std::map<int, bool> outputsOpen;
    std::map<int, std::deque<VirtualMidiMessage>> logs;
};

MidiRegistry& Reg()
{
    static MidiRegistry* s = new MidiRegistry;
    return *s;
}

class VirtualMidiIn final : public MidiInPort {
public:
    VirtualMidiIn(int n, MidiInSink* pSink) : m_n(n), m_pSink(pSink)
    {
        m_thread = StartClockThread([this] { Run(); });
    }

    ~VirtualMidiIn() override
    {
        {
            std::lock_guard<std::mutex> lock(Reg().mutex);
            Reg().inputs.erase(m_n);
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bQuit = true;
        }
        m_cv.NotifyOne();
        m_thread.join(); // the sink is called no more once the port is gone
    }

    void Deliver(const BYTE* pData, size_t cb, int64_t timeNs)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back({timeNs, timeNs, std::vector<BYTE>(pData, pData + cb)});
        }
        m_cv.NotifyOne();
    }

private:
    void Run()
    {
        MakeRealtimeThread("qx-virtual-in"); // as a driver's input callback thread runs
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_cv.Wait(lock, [this] { return m_bQuit || !m_queue.empty(); });
            if (m_bQuit) return;
            VirtualMidiMessage m = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            m_pSink->OnMidiData(m.bytes.data(), m.bytes.size(), m.timeNs);
            lock.lock();
        }
    }

    int m_n;
    MidiInSink* m_pSink;
    std::mutex m_mutex;
    ClockCondition m_cv;
    std::deque<VirtualMidiMessage> m_queue;
    bool m_bQuit = false;
    std::thread m_thread;
};

class VirtualMidiOut final : public MidiOutPort {
public:
    explicit VirtualMidiOut(int n) : m_n(n) {}
    ~VirtualMidiOut() override
    {
        std::lock_guard<std::mutex> lock(Reg().mutex);
        Reg().outputsOpen.erase(m_n);
    }

    // Handed over at its due time (no lead), so it is emitted at once.
    MMRESULT Send(const BYTE* pData, size_t cb, int64_t dueNs) override
    {
        if (pData == nullptr || cb == 0) return MMSYSERR_INVALPARAM;
        const int64_t now = NowNs();
        std::lock_guard<std::mutex> lock(Reg().mutex);
        auto& log = Reg().logs[m_n];
        if (log.size() >= kVirtualLogLimit) log.pop_front();
        log.push_back({now, dueNs, std::vector<BYTE>(pData, pData + cb)});
        auto it = Reg().inputs.find(m_n);
        if (it != Reg().inputs.end()) it->second->Deliver(pData, cb, now);
        return MMSYSERR_NOERROR;
    }

private:
    int m_n;
};

} // namespace

MMRESULT OpenVirtualMidiOut(int n, std::unique_ptr<MidiOutPort>& port)
{
    std::lock_guard<std::mutex> lock(Reg().mutex);
    if (Reg().outputsOpen.count(n) != 0) return MMSYSERR_ALLOCATED;
    Reg().outputsOpen[n] = true;
    port = std::make_unique<VirtualMidiOut>(n);
    return MMSYSERR_NOERROR;
}

MMRESULT OpenVirtualMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port)
{
    if (pSink == nullptr) return MMSYSERR_INVALPARAM;
    std::lock_guard<std::mutex> lock(Reg().mutex);
    if (Reg().inputs.count(n) != 0) return MMSYSERR_ALLOCATED;
    auto p = std::make_unique<VirtualMidiIn>(n, pSink);
    Reg().inputs[n] = p.get();
    port = std::move(p);
    return MMSYSERR_NOERROR;
}

std::vector<VirtualMidiMessage> QXVirtualTakeMidiOut(int n)
{
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto it = Reg().logs.find(n);
    if (it == Reg().logs.end()) return {};
    std::vector<VirtualMidiMessage> out(std::make_move_iterator(it->second.begin()),
                                        std::make_move_iterator(it->second.end()));
    it->second.clear();
    return out;
}

bool QXVirtualInjectMidiIn(int n, const BYTE* pData, size_t cb, int64_t timeNs)
{
    if (pData == nullptr || cb == 0) return false;
    std::lock_guard<std::mutex> lock(Reg().mutex);
    auto it = Reg().inputs.find(n);
    if (it == Reg().inputs.end()) return false;
    it->second->Deliver(pData, cb, timeNs != 0 ? timeNs : NowNs());
    return true;
}

} // namespace qxplat

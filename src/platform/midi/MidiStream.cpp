// MIDI output streams. Each stream has a thread that walks its queued MIDIEVENT
// buffers and hands every event to the backend's port at its due time. Due times are
// absolute: tick positions from the stream's origin, so consecutive buffers never
// accumulate drift however long the run; a pause shifts the origin by its length.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/kernel/QXClock.h"
#include "platform/kernel/QXRealtime.h"
#include "platform/backends/QXBackend.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

using qxplat::NowNs;

namespace {

// How long before a due time the thread stops sleeping and spins: sleeping to the very
// moment wakes it tens to hundreds of microseconds late.
constexpr int64_t kSpinNs = 200'000;
constexpr int64_t kRenderBatchNs = 20'000'000;

// Short-message length from its status byte (running status resolved by the caller).
size_t ShortLength(BYTE status)
{
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 2;
    case 0xF0:
        if (status == 0xF1 || status == 0xF3) return 2;
        if (status == 0xF2) return 3;
        return 1;
    default:
        return 3;
    }
}

class Stream {
public:
    Stream(std::unique_ptr<qxplat::MidiOutPort> port, DWORD fdwOpen, DWORD_PTR dwCallback, DWORD_PTR dwInstance)
        : m_port(std::move(port)), m_callbackType(fdwOpen & CALLBACK_TYPEMASK), m_dwCallback(dwCallback),
          m_dwInstance(dwInstance)
    {
    }

    void Start(HMIDISTRM h)
    {
        m_handle = h;
        m_thread = qxplat::StartClockThread([this] { Run(); });
        m_threadId = m_thread.get_id();
    }

    // Ends the thread; the stream must hold no buffers.
    void Shutdown()
    {
        std::lock_guard<std::mutex> control(m_controlMutex);
        HoldCpus(false);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bClosing = true;
        }
        m_cv.NotifyOne();
        if (m_thread.joinable()) m_thread.join();
    }

    bool Busy()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_queue.empty() || !m_finished.empty();
    }

    void Callback(UINT uMsg, DWORD_PTR p1, DWORD_PTR p2)
    {
        if (m_callbackType == CALLBACK_FUNCTION && m_dwCallback != 0)
            reinterpret_cast<MIDIOUTPROC>(m_dwCallback)(reinterpret_cast<HMIDIOUT>(m_handle), uMsg, m_dwInstance, p1,
                                                        p2);
        else if (m_callbackType == CALLBACK_WINDOW)
            PostMessageA(reinterpret_cast<HWND>(m_dwCallback), uMsg, reinterpret_cast<WPARAM>(m_handle),
                         static_cast<LPARAM>(p1));
    }

    MMRESULT SetTimeDiv(DWORD dwTimeDiv)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bRunning) return MIDIERR_NOTREADY;
        if (dwTimeDiv & 0x8000) {
            int fps = -static_cast<int8_t>((dwTimeDiv >> 8) & 0xFF);
            int res = static_cast<int>(dwTimeDiv & 0xFF);
            if ((fps != 24 && fps != 25 && fps != 29 && fps != 30) || res == 0) return MMSYSERR_INVALPARAM;
        } else if ((dwTimeDiv & 0x7FFF) == 0) {
            return MMSYSERR_INVALPARAM;
        }
        m_dwTimeDiv = dwTimeDiv;
        Rebase(m_posTicks);
        return MMSYSERR_NOERROR;
    }
    DWORD TimeDiv()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_dwTimeDiv;
    }
    MMRESULT SetTempo(DWORD dwTempo)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (dwTempo == 0) return MMSYSERR_INVALPARAM;
        Rebase(m_posTicks);
        m_dwTempo = dwTempo;
        return MMSYSERR_NOERROR;
    }
    DWORD Tempo()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_dwTempo;
    }

    MMRESULT Queue(MIDIHDR* pHdr)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            pHdr->dwFlags = (pHdr->dwFlags & ~MHDR_DONE) | MHDR_INQUEUE | MHDR_ISSTRM;
            pHdr->dwOffset = 0;
            m_queue.push_back(pHdr);
        }
        m_cv.NotifyOne();
        return MMSYSERR_NOERROR;
    }

    void Restart()
    {
        std::lock_guard<std::mutex> control(m_controlMutex);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_bRunning) return;
            const int64_t now = NowNs();
            if (m_bPaused)
                m_originNs += now - m_pausedAtNs;
            else
                m_originNs = now - TicksToNs(m_posTicks);
            m_bPaused = false;
            m_bRunning = true;
        }
        m_cv.NotifyOne();
        HoldCpus(true);
    }

    void Pause()
    {
        std::lock_guard<std::mutex> control(m_controlMutex);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_bRunning) return;
            m_bRunning = false;
            m_bPaused = true;
            m_pausedAtNs = NowNs();
            TakeBack();
        }
        HoldCpus(false);
    }

    // Returns every buffer, in order, and goes back to position 0.
    void Stop()
    {
        std::unique_lock<std::mutex> control(m_controlMutex);
        std::vector<MIDIHDR*> returned;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_bRunning = false;
            m_bPaused = false;
            for (auto& f : m_finished) returned.push_back(f.pHdr);
            for (MIDIHDR* p : m_queue) returned.push_back(p);
            m_finished.clear();
            m_callbacks.clear();
            m_handed.clear();
            m_queue.clear();
            m_dwOffset = 0;
            m_posTicks = 0;
            m_dwTempo = 500000;
            Rebase(0);
            m_port->Cancel();
            for (MIDIHDR* p : returned) p->dwFlags = (p->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
        }
        m_cv.NotifyOne();
        HoldCpus(false);
        control.unlock(); // a MOM_DONE handler may control the stream again
        // A position callback in progress reads its header, and the owner frees a header
        // once it is done: it is handed back only after that callback has returned. The
        // wait holds no control lock, so the callback may pause or restart the stream;
        // a callback that stops the stream itself is not waited for.
        if (!returned.empty() && std::this_thread::get_id() != m_threadId) {
            std::unique_lock<std::mutex> lock(m_mutex);
            const uint64_t seq = m_positionSeq;
            m_positionCv.Wait(lock, [&] { return !m_bInPosition || m_positionSeq != seq; });
        }
        for (MIDIHDR* p : returned) Callback(MOM_DONE, reinterpret_cast<DWORD_PTR>(p), 0);
    }

    DWORD PositionTicks()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<DWORD>(m_posTicks);
    }
    DWORD PositionMs()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<DWORD>(TicksToNs(m_posTicks) / 1'000'000);
    }

    MMRESULT SendShort(DWORD dwMsg)
    {
        BYTE bytes[3] = {static_cast<BYTE>(dwMsg), static_cast<BYTE>(dwMsg >> 8), static_cast<BYTE>(dwMsg >> 16)};
        BYTE status = bytes[0];
        size_t skip = 0;
        {
            std::lock_guard<std::mutex> lock(m_shortMutex);
            if (status < 0x80) { // running status: the data bytes come first
                if (m_runningStatus == 0) return MIDIERR_INVALIDSETUP;
                status = m_runningStatus;
                skip = 1;
            } else if (status < 0xF0) {
                m_runningStatus = status;
            } else if (status < 0xF8) {
                m_runningStatus = 0; // system common messages cancel running status
            }
        }
        BYTE msg[3] = {status, bytes[1 - skip], bytes[2 - skip]};
        if (status == 0xF0 || status == 0xF7) return MMSYSERR_INVALPARAM; // SysEx is a long message
        return m_port->Send(msg, ShortLength(status), 0);
    }

    MMRESULT SendLong(const BYTE* pData, size_t cb) { return m_port->Send(pData, cb, 0); }
    MMRESULT SetVolume(DWORD dwVolume) { return m_port->SetVolume(dwVolume); }
    MMRESULT GetVolume(DWORD* pdwVolume) const { return m_port->GetVolume(pdwVolume); }
    bool Alive() const { return m_port->Alive(); }

    ~Stream() { Shutdown(); }

private:
    struct Finished {
        int64_t endTick; // the buffer has played when this tick is reached
        MIDIHDR* pHdr;
    };
    struct Pending {
        int64_t tick;
        MIDIHDR* pHdr;
        DWORD dwOffset;
    };
    // An event handed to the port ahead of its time, and the walk's state before it.
    struct Handed {
        int64_t dueNs;
        int64_t dueTick;
        int64_t posTicks;
        MIDIHDR* pHdr;
        DWORD dwOffset;
        DWORD dwTempo;
        int64_t baseTick;
        int64_t baseNs;
    };

    // A pause takes back from the port what was handed ahead and is due after it, and
    // walks back to the first such event, so that nothing sounds while paused and
    // nothing is lost when the stream restarts.
    void TakeBack()
    {
        while (!m_handed.empty() && m_handed.front().dueNs <= m_pausedAtNs) m_handed.pop_front();
        if (m_handed.empty()) return;
        int64_t outBeforeNs = m_pausedAtNs;
        const bool bWithdrawn = m_port->Withdraw(&outBeforeNs);
        while (!m_handed.empty() && m_handed.front().dueNs < outBeforeNs) m_handed.pop_front();
        if (!bWithdrawn || m_handed.empty()) {
            m_handed.clear();
            return;
        }
        const Handed h = m_handed.front();
        m_handed.clear();
        while (!m_callbacks.empty() && m_callbacks.back().tick >= h.dueTick) m_callbacks.pop_back();
        // Buffers played through since then are not done yet: their end is still to come.
        while ((m_queue.empty() || m_queue.front() != h.pHdr) && !m_finished.empty()) {
            m_queue.push_front(m_finished.back().pHdr);
            m_finished.pop_back();
        }
        m_dwOffset = h.dwOffset;
        m_posTicks = h.posTicks;
        m_dwTempo = h.dwTempo;
        m_baseTick = h.baseTick;
        m_baseNs = h.baseNs;
    }

    // A running stream keeps the CPUs ready to wake its thread on time.
    void HoldCpus(bool bHold)
    {
        if (bHold == m_bHoldingCpus) return;
        m_bHoldingCpus = bHold;
        if (bHold)
            qxplat::HoldCpusAwake();
        else
            qxplat::ReleaseCpusAwake();
    }

    // Nanoseconds from the origin to a tick, over the rate that holds from m_baseTick on.
    int64_t TicksToNs(int64_t ticks) const
    {
        __int128 num, den;
        if (m_dwTimeDiv & 0x8000) {
            int fps = -static_cast<int8_t>((m_dwTimeDiv >> 8) & 0xFF);
            int res = static_cast<int>(m_dwTimeDiv & 0xFF);
            num = fps == 29 ? __int128{1'000'000'000} * 1001 : __int128{1'000'000'000};
            den = fps == 29 ? __int128{30000} * res : __int128{fps} * res;
        } else {
            num = __int128{m_dwTempo} * 1000;
            den = m_dwTimeDiv & 0x7FFF;
        }
        return m_baseNs + static_cast<int64_t>((__int128{ticks - m_baseTick} * num) / den);
    }
    // A new rate (tempo or division) applies from tick on.
    void Rebase(int64_t tick)
    {
        m_baseNs = TicksToNs(tick);
        m_baseTick = tick;
    }

    void Run()
    {
        qxplat::MakeRealtimeThread("qx-midistream");
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_bClosing) {
            if (!m_bRunning) {
                m_cv.Wait(lock);
                continue;
            }
            const int64_t now = NowNs();
            int64_t wakeNs = INT64_MAX;
            while (!m_handed.empty() && m_handed.front().dueNs <= now) m_handed.pop_front();
            if (!m_queue.empty()) {
                MIDIHDR* pHdr = m_queue.front();
                const auto* base = reinterpret_cast<const BYTE*>(pHdr->lpData);
                const DWORD cb = pHdr->dwBytesRecorded;
                if (base == nullptr || m_dwOffset + 12 > cb) {
                    // Played through (or malformed past here): done when its time is up.
                    m_queue.pop_front();
                    m_finished.push_back({m_posTicks, pHdr});
                    m_dwOffset = 0;
                    continue;
                }
                DWORD ev[3];
                std::memcpy(ev, base + m_dwOffset, sizeof ev);
                const bool bLong = (ev[2] & MEVT_F_LONG) != 0;
                const DWORD cbParms = bLong ? MEVT_EVENTPARM(ev[2]) : 0;
                const DWORD cbEvent = 12 + ((cbParms + 3) & ~3u);
                if (m_dwOffset + cbEvent > cb) {
                    m_dwOffset = cb; // a long event that overruns its buffer is not played
                    continue;
                }
                const int64_t dueTick = m_posTicks + ev[0];
                const int64_t dueNs = m_originNs + TicksToNs(dueTick);
                const bool bCallback = (ev[2] & MEVT_F_CALLBACK) != 0;
                const BYTE type = MEVT_EVENTTYPE(ev[2]) & static_cast<BYTE>(~(MEVT_F_CALLBACK >> 24));
                // Every event is taken one lead ahead, also those that only take time, so
                // that the next buffer's first message is not held back; what must happen
                // at the very moment (position callbacks, returned buffers) is queued.
                const int64_t leadNs = m_port->LeadNs();
                int64_t handNs = dueNs - leadNs;
                // A render hands them over a batch at a time, each a batch earlier: every
                // wake-up there is a hand-over between threads, and the port places
                // what it takes ahead by its due time anyway.
                if (leadNs > 0 && qxplat::RenderClockOn()) {
                    handNs -= kRenderBatchNs;
                    if (handNs > now) handNs = (handNs / kRenderBatchNs + 1) * kRenderBatchNs;
                }
                if (handNs > now) {
                    wakeNs = std::min(wakeNs, handNs);
                } else {
                    if (dueNs > now)
                        m_handed.push_back({dueNs, dueTick, m_posTicks, pHdr, m_dwOffset, m_dwTempo, m_baseTick, m_baseNs});
                    m_posTicks = dueTick;
                    const DWORD dwEventOffset = m_dwOffset;
                    m_dwOffset += cbEvent;
                    if (type == MEVT_SHORTMSG) {
                        BYTE msg[3] = {static_cast<BYTE>(ev[2]), static_cast<BYTE>(ev[2] >> 8),
                                       static_cast<BYTE>(ev[2] >> 16)};
                        if (msg[0] >= 0x80) m_port->Send(msg, ShortLength(msg[0]), dueNs);
                    } else if (type == MEVT_LONGMSG && cbParms > 0) {
                        m_port->Send(base + dwEventOffset + 12, cbParms, dueNs);
                    } else if (type == MEVT_TEMPO && MEVT_EVENTPARM(ev[2]) != 0) {
                        Rebase(dueTick);
                        m_dwTempo = MEVT_EVENTPARM(ev[2]);
                    }
                    if (bCallback) m_callbacks.push_back({dueTick, pHdr, dwEventOffset});
                    continue;
                }
            }
            // Position callbacks whose moment has come.
            if (!m_callbacks.empty()) {
                const int64_t atNs = m_originNs + TicksToNs(m_callbacks.front().tick);
                if (atNs <= now) {
                    Pending c = m_callbacks.front();
                    m_callbacks.pop_front();
                    c.pHdr->dwOffset = c.dwOffset;
                    m_bInPosition = true;
                    ++m_positionSeq;
                    lock.unlock();
                    Callback(MOM_POSITIONCB, reinterpret_cast<DWORD_PTR>(c.pHdr), 0);
                    lock.lock();
                    m_bInPosition = false;
                    m_positionCv.NotifyAll();
                    continue;
                }
                wakeNs = std::min(wakeNs, atNs);
            }
            // Then the buffers whose last event has played go back to their owner, once
            // their position callbacks have been made.
            if (!m_finished.empty() && (m_callbacks.empty() || m_callbacks.front().tick > m_finished.front().endTick)) {
                const int64_t doneNs = m_originNs + TicksToNs(m_finished.front().endTick);
                if (doneNs <= now) {
                    MIDIHDR* p = m_finished.front().pHdr;
                    m_finished.pop_front();
                    p->dwFlags = (p->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
                    lock.unlock();
                    Callback(MOM_DONE, reinterpret_cast<DWORD_PTR>(p), 0);
                    lock.lock();
                    continue;
                }
                wakeNs = std::min(wakeNs, doneNs);
            }
            if (wakeNs == INT64_MAX) {
                m_cv.Wait(lock);
            } else if (m_port->LeadNs() > 0 || qxplat::RenderClockOn()) {
                // A port that takes messages ahead places them itself: no need to spin,
                // and spinning at real-time priority would starve its server. A render's
                // time moves only while this thread waits.
                m_cv.WaitUntil(lock, wakeNs);
            } else if (wakeNs - now > kSpinNs) {
                m_cv.WaitUntil(lock, wakeNs - kSpinNs);
            } else {
                // Spin to the due time without the lock, so that control calls are not held up.
                lock.unlock();
                while (NowNs() < wakeNs) {
                }
                lock.lock();
            }
        }
    }

    std::unique_ptr<qxplat::MidiOutPort> m_port;
    const DWORD m_callbackType;
    const DWORD_PTR m_dwCallback;
    const DWORD_PTR m_dwInstance;
    HMIDISTRM m_handle = nullptr;

    std::mutex m_controlMutex; // serialises start, pause, stop and shutdown; taken before m_mutex
    bool m_bHoldingCpus = false;

    std::mutex m_mutex; // everything below but the short-message state
    qxplat::ClockCondition m_cv;
    std::deque<MIDIHDR*> m_queue; // front: the buffer being played
    std::deque<Finished> m_finished;
    std::deque<Pending> m_callbacks; // position callbacks, in time order
    std::deque<Handed> m_handed;     // events handed ahead whose time may not have come
    DWORD m_dwOffset = 0; // of the next event in the front buffer
    int64_t m_posTicks = 0;
    int64_t m_originNs = 0;
    int64_t m_pausedAtNs = 0;
    int64_t m_baseTick = 0;
    int64_t m_baseNs = 0;
    DWORD m_dwTimeDiv = 96; // a fresh stream counts 96 ticks per quarter note at 120 BPM
    DWORD m_dwTempo = 500000;
    bool m_bRunning = false;
    bool m_bPaused = false;
    bool m_bClosing = false;
    bool m_bInPosition = false; // a position callback is running, without the lock
    uint64_t m_positionSeq = 0; // position callbacks begun
    qxplat::ClockCondition m_positionCv;
    std::thread m_thread;
    std::thread::id m_threadId;

    std::mutex m_shortMutex;
    BYTE m_runningStatus = 0;
};

struct StreamTable {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Stream>> streams;
    uintptr_t next = 0x40000;
};

StreamTable& Table()
{
    static StreamTable* s = new StreamTable;
    return *s;
}

std::shared_ptr<Stream> Find(const void* h)
{
    std::lock_guard<std::mutex> lock(Table().mutex);
    auto it = Table().streams.find(reinterpret_cast<uintptr_t>(h));
    return it == Table().streams.end() ? nullptr : it->second;
}


} // namespace

MMRESULT midiStreamOpen(HMIDISTRM* phms, UINT* puDeviceID, DWORD cMidi, DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                        DWORD fdwOpen)
{
    MMRESULT r;
    if (phms == nullptr || puDeviceID == nullptr || cMidi != 1) return MMSYSERR_INVALPARAM;
    const DWORD type = fdwOpen & CALLBACK_TYPEMASK;
    if (type != CALLBACK_NULL && type != CALLBACK_FUNCTION && type != CALLBACK_WINDOW) return MMSYSERR_INVALFLAG;
    if (QXFaultCheck("midiStreamOpen", &r)) return r;
    std::unique_ptr<qxplat::MidiOutPort> port;
    r = qxplat::CurrentBackend().OpenMidiOut(static_cast<int>(*puDeviceID), port);
    if (r != MMSYSERR_NOERROR) return r;
    auto stream = std::make_shared<Stream>(std::move(port), fdwOpen, dwCallback, dwInstance);
    HMIDISTRM h;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().next += 4;
        h = reinterpret_cast<HMIDISTRM>(Table().next);
        Table().streams.emplace(Table().next, stream);
    }
    stream->Start(h);
    *phms = h;
    stream->Callback(MOM_OPEN, 0, 0);
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamClose(HMIDISTRM hms)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiStreamClose", &r)) return r;
    if (s->Busy()) return MIDIERR_STILLPLAYING;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().streams.erase(reinterpret_cast<uintptr_t>(hms));
    }
    s->Shutdown();
    s->Callback(MOM_CLOSE, 0, 0);
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamProperty(HMIDISTRM hms, LPBYTE lppropdata, DWORD dwProperty)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (lppropdata == nullptr) return MMSYSERR_INVALPARAM;
    const bool bSet = (dwProperty & MIDIPROP_SET) != 0, bGet = (dwProperty & MIDIPROP_GET) != 0;
    const DWORD which = dwProperty & ~(MIDIPROP_SET | MIDIPROP_GET);
    if (bSet == bGet || (which != MIDIPROP_TIMEDIV && which != MIDIPROP_TEMPO)) return MMSYSERR_INVALPARAM;
    if (QXFaultCheck("midiStreamProperty", &r)) return r;
    // Both records are two DWORDs: the size, then the value.
    DWORD rec[2];
    std::memcpy(rec, lppropdata, sizeof rec);
    if (rec[0] < sizeof rec) return MMSYSERR_INVALPARAM;
    if (bGet) {
        rec[1] = which == MIDIPROP_TIMEDIV ? s->TimeDiv() : s->Tempo();
        std::memcpy(lppropdata + sizeof(DWORD), &rec[1], sizeof(DWORD));
        return MMSYSERR_NOERROR;
    }
    return which == MIDIPROP_TIMEDIV ? s->SetTimeDiv(rec[1]) : s->SetTempo(rec[1]);
}

MMRESULT midiOutPrepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh)
{
    MMRESULT r;
    if (!Find(hmo)) return MMSYSERR_INVALHANDLE;
    if (pmh == nullptr || cbmh < sizeof(MIDIHDR) || pmh->lpData == nullptr ||
        pmh->dwBufferLength > MIDI_STREAM_MAX_BUFFER)
        return MMSYSERR_INVALPARAM;
    if (QXFaultCheck("midiOutPrepareHeader", &r)) return r;
    pmh->dwFlags |= MHDR_PREPARED;
    return MMSYSERR_NOERROR;
}

MMRESULT midiOutUnprepareHeader(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh)
{
    MMRESULT r;
    if (!Find(hmo)) return MMSYSERR_INVALHANDLE;
    if (pmh == nullptr || cbmh < sizeof(MIDIHDR)) return MMSYSERR_INVALPARAM;
    if (pmh->dwFlags & MHDR_INQUEUE) return MIDIERR_STILLPLAYING;
    if (QXFaultCheck("midiOutUnprepareHeader", &r)) return r;
    pmh->dwFlags &= ~MHDR_PREPARED;
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamOut(HMIDISTRM hms, LPMIDIHDR pmh, UINT cbmh)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (pmh == nullptr || cbmh < sizeof(MIDIHDR)) return MMSYSERR_INVALPARAM;
    if (!(pmh->dwFlags & MHDR_PREPARED)) return MIDIERR_UNPREPARED;
    if (pmh->dwFlags & MHDR_INQUEUE) return MIDIERR_STILLPLAYING;
    if (pmh->dwBytesRecorded > pmh->dwBufferLength || pmh->dwBytesRecorded % 4 != 0) return MMSYSERR_INVALPARAM;
    if (QXFaultCheck("midiStreamOut", &r)) return r;
    if (!s->Alive()) return MMSYSERR_NODRIVER;
    return s->Queue(pmh);
}

MMRESULT midiStreamRestart(HMIDISTRM hms)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiStreamRestart", &r)) return r;
    s->Restart();
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamPause(HMIDISTRM hms)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiStreamPause", &r)) return r;
    s->Pause();
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamStop(HMIDISTRM hms)
{
    MMRESULT r;
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiStreamStop", &r)) return r;
    s->Stop();
    return MMSYSERR_NOERROR;
}

MMRESULT midiStreamPosition(HMIDISTRM hms, LPMMTIME lpmmt, UINT cbmmt)
{
    auto s = Find(hms);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (lpmmt == nullptr || cbmmt < sizeof(MMTIME)) return MMSYSERR_INVALPARAM;
    if (lpmmt->wType == TIME_MS) {
        lpmmt->u.ms = s->PositionMs();
    } else {
        lpmmt->wType = TIME_TICKS;
        lpmmt->u.ticks = s->PositionTicks();
    }
    return MMSYSERR_NOERROR;
}

MMRESULT midiOutShortMsg(HMIDIOUT hmo, DWORD dwMsg)
{
    MMRESULT r;
    auto s = Find(hmo);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiOutShortMsg", &r)) return r;
    return s->SendShort(dwMsg);
}

MMRESULT midiOutLongMsg(HMIDIOUT hmo, LPMIDIHDR pmh, UINT cbmh)
{
    MMRESULT r;
    auto s = Find(hmo);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (pmh == nullptr || cbmh < sizeof(MIDIHDR) || pmh->lpData == nullptr || pmh->dwBufferLength == 0)
        return MMSYSERR_INVALPARAM;
    if (!(pmh->dwFlags & MHDR_PREPARED)) return MIDIERR_UNPREPARED;
    if (pmh->dwFlags & MHDR_INQUEUE) return MIDIERR_STILLPLAYING;
    if (QXFaultCheck("midiOutLongMsg", &r)) return r;
    r = s->SendLong(reinterpret_cast<const BYTE*>(pmh->lpData), pmh->dwBufferLength);
    pmh->dwFlags = (pmh->dwFlags & ~MHDR_ISSTRM) | MHDR_DONE;
    s->Callback(MOM_DONE, reinterpret_cast<DWORD_PTR>(pmh), 0);
    return r;
}

MMRESULT midiOutSetVolume(HMIDIOUT hmo, DWORD dwVolume)
{
    auto s = Find(hmo);
    if (!s) return MMSYSERR_INVALHANDLE;
    return s->SetVolume(dwVolume);
}

MMRESULT midiOutGetVolume(HMIDIOUT hmo, LPDWORD pdwVolume)
{
    auto s = Find(hmo);
    if (!s) return MMSYSERR_INVALHANDLE;
    if (pdwVolume == nullptr) return MMSYSERR_INVALPARAM;
    return s->GetVolume(pdwVolume);
}

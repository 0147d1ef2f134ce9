// Wave inputs: a capture thread per open input drains the backend port's ring, converts
// and fills the application's buffers. Everything the thread shares with the calls is
// under the input's lock, except the callbacks, which run with no lock held.
//
// A capture thread that comes late catches up: it takes from the ring only while a
// buffer is queued to take the frames, so a late application (or a late device thread
// handing its buffers on) costs nothing as long as the source's ring holds out. What
// the source drops on a full ring is told through WIM_OVERRUN.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/kernel/QXClock.h"

#ifdef QUAVIX_HAVE_SAMPLERATE
#include <samplerate.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

constexpr uint32_t kChunkFrames = 1024;
constexpr int64_t kPollEveryNs = 5'000'000;
// Once an overrun has been told, more of it waits this long before it is told again.
constexpr auto kOverrunEvery = std::chrono::seconds(1);

#ifdef QUAVIX_HAVE_SAMPLERATE
constexpr bool kCanResample = true;
#else
constexpr bool kCanResample = false;
#endif

bool FormatOk(const WAVEFORMATEX& f)
{
    if (f.nChannels != 1 && f.nChannels != 2) return false;
    if (f.nSamplesPerSec < 1000 || f.nSamplesPerSec > 192000) return false;
    const WORD bits = f.wBitsPerSample;
    const bool pcm = f.wFormatTag == WAVE_FORMAT_PCM && (bits == 8 || bits == 16 || bits == 24 || bits == 32);
    const bool flt = f.wFormatTag == WAVE_FORMAT_IEEE_FLOAT && bits == 32;
    if (!pcm && !flt) return false;
    const DWORD block = DWORD{f.nChannels} * bits / 8;
    return f.nBlockAlign == block && f.nAvgBytesPerSec == f.nSamplesPerSec * block;
}

template <typename T>
T Quantize(float x, double scale, double lo, double hi)
{
    return static_cast<T>(std::clamp(std::nearbyint(static_cast<double>(x) * scale), lo, hi));
}

class Input;
thread_local const Input* t_capturing = nullptr; // the input whose capture thread this is

struct Note {
    UINT msg;
    DWORD_PTR param1; // the header of a WIM_DATA, the frames of a WIM_OVERRUN
};

class Input {
public:
    Input(const WAVEFORMATEX& fmt, std::unique_ptr<qxplat::AudioInPort> port, DWORD fdwOpen, DWORD_PTR dwCallback,
          DWORD_PTR dwInstance)
        : m_fmt(fmt), m_block(fmt.nBlockAlign), m_port(std::move(port)),
          m_srcRate(m_port->Rate()), m_callbackType(fdwOpen & CALLBACK_TYPEMASK),
          m_dwCallback(dwCallback), m_dwInstance(dwInstance)
    {
    }

    ~Input()
    {
        if (m_thread.joinable()) Shutdown();
#ifdef QUAVIX_HAVE_SAMPLERATE
        if (m_src != nullptr) src_delete(m_src);
#endif
    }

    MMRESULT Init(HWAVEIN h)
    {
        m_handle = h;
        const double ratio = static_cast<double>(m_fmt.nSamplesPerSec) / m_srcRate;
        // Room for all a chunk converts to, so that a chunk read is a chunk converted.
        const size_t outFrames = 2 * static_cast<size_t>(std::ceil(kChunkFrames * ratio)) + 256;
        try {
            m_in.resize(2 * kChunkFrames);
            m_chan.resize(2 * kChunkFrames);
            m_out.resize(outFrames * m_fmt.nChannels);
#ifdef QUAVIX_HAVE_SAMPLERATE
            if (m_fmt.nSamplesPerSec != m_port->Rate()) {
                int err = 0;
                m_src = src_new(SRC_SINC_MEDIUM_QUALITY, m_fmt.nChannels, &err);
                if (m_src == nullptr) return MMSYSERR_NOMEM;
                m_ratio = ratio;
            }
#endif
            m_notes.push_back({WIM_OPEN, 0});
            const uint64_t target = ++m_notesQueued;
            m_thread = qxplat::StartClockThread([this] { Run(); });
            WaitDelivered(target);
        } catch (const std::exception&) {
            return MMSYSERR_NOMEM;
        }
        return MMSYSERR_NOERROR;
    }

    bool OnCaptureThread() const { return t_capturing == this; }

    // A queued header's flags change on the capture thread, so they are read and
    // written under the lock.
    DWORD Flags(LPWAVEHDR pwh)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return pwh->dwFlags;
    }

    void ChangeFlags(LPWAVEHDR pwh, DWORD set, DWORD clear)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        pwh->dwFlags = (pwh->dwFlags & ~clear) | set;
    }

    MMRESULT Add(LPWAVEHDR pwh)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_quit) return MMSYSERR_INVALHANDLE;
        if (pwh->dwFlags & WHDR_INQUEUE) return WAVERR_STILLPLAYING;
        pwh->dwFlags = (pwh->dwFlags & ~WHDR_DONE) | WHDR_INQUEUE;
        pwh->dwBytesRecorded = 0;
        pwh->lpNext = nullptr;
        m_queue.push_back(pwh);
        return MMSYSERR_NOERROR;
    }

    void Start()
    {
        std::lock_guard<std::mutex> ctl(m_ctl);
        {
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_started) return;
            m_started = true;
            // What the source left in the ring belongs to the previous run.
            m_port->Ring().Skip(m_port->Ring().Readable());
            m_pendingLeft = 0;
            m_overrunSeen = m_port->OverrunFrames();
            m_overrunUntold = 0;
            m_overrunToldEmpty = false;
#ifdef QUAVIX_HAVE_SAMPLERATE
            if (m_src != nullptr) src_reset(m_src);
#endif
        }
        m_port->Start();
        m_wake.NotifyAll();
    }

    // Stop: the buffer being filled comes back if it holds anything. Reset: all of them.
    void Halt(bool bReset)
    {
        std::lock_guard<std::mutex> ctl(m_ctl);
        uint64_t target;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_started = false;
            if (bReset) {
                while (!m_queue.empty()) Complete();
                m_position = 0;
                m_pendingLeft = 0;
            } else if (!m_queue.empty() && m_queue.front()->dwBytesRecorded > 0) {
                Complete();
            }
            target = m_notesQueued;
        }
        m_port->Stop();
        m_wake.NotifyAll();
        WaitDelivered(target);
    }

    bool Queued()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return !m_queue.empty();
    }

    // Ends the capture thread after it has delivered WIM_CLOSE.
    void Shutdown()
    {
        std::lock_guard<std::mutex> ctl(m_ctl);
        m_port->Stop();
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_started = false;
            m_quit = true;
            m_notes.push_back({WIM_CLOSE, 0});
            ++m_notesQueued;
        }
        m_wake.NotifyAll();
        m_thread.join();
    }

    uint64_t PositionFrames()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_position;
    }

    const WAVEFORMATEX& Format() const { return m_fmt; }

private:
    void Callback(UINT uMsg, DWORD_PTR p1)
    {
        switch (m_callbackType) {
        case CALLBACK_FUNCTION:
            if (m_dwCallback != 0) reinterpret_cast<WAVEINPROC>(m_dwCallback)(m_handle, uMsg, m_dwInstance, p1, 0);
            break;
        case CALLBACK_WINDOW:
            PostMessageA(reinterpret_cast<HWND>(m_dwCallback), uMsg, reinterpret_cast<WPARAM>(m_handle),
                         static_cast<LPARAM>(p1));
            break;
        case CALLBACK_THREAD:
            PostThreadMessageA(static_cast<DWORD>(m_dwCallback), uMsg, reinterpret_cast<WPARAM>(m_handle),
                               static_cast<LPARAM>(p1));
            break;
        case CALLBACK_EVENT:
            SetEvent(reinterpret_cast<HANDLE>(m_dwCallback));
            break;
        default:
            break;
        }
    }

    void WaitDelivered(uint64_t target)
    {
        if (OnCaptureThread()) return; // it delivers them once the callback returns
        std::unique_lock<std::mutex> lock(m_lock);
        m_delivered.Wait(lock, [&] { return m_notesDone >= target; });
    }

    // Under m_lock: the front buffer goes back with what it holds.
    void Complete()
    {
        LPWAVEHDR h = m_queue.front();
        m_queue.pop_front();
        h->dwFlags = (h->dwFlags & ~WHDR_INQUEUE) | WHDR_DONE;
        m_notes.push_back({WIM_DATA, reinterpret_cast<DWORD_PTR>(h)});
        ++m_notesQueued;
    }

    void Run()
    {
        t_capturing = this;
        std::vector<Note> batch;
        std::unique_lock<std::mutex> lock(m_lock);
        for (;;) {
            if (!m_notes.empty()) {
                batch.swap(m_notes);
                lock.unlock();
                for (const Note& n : batch) Callback(n.msg, n.param1);
                lock.lock();
                m_notesDone += batch.size();
                batch.clear();
                m_delivered.NotifyAll();
                continue;
            }
            if (m_quit) break;
            if (m_started) Pump();
            if (m_notes.empty())
                m_wake.WaitUntil(lock, qxplat::NowNs() + kPollEveryNs, [this] { return m_quit || !m_notes.empty(); });
        }
    }

    // Under m_lock: what the source has delivered, converted into the queued buffers.
    // Without a buffer to take them, the frames wait: converted ones here, the rest in
    // the ring.
    void Pump()
    {
        qxplat::AudioRing& ring = m_port->Ring();
        const WORD ch = m_fmt.nChannels;
        for (;;) {
            CountOverrun();
            if (m_pendingLeft > 0) {
                const uint32_t k = Emit(m_pending, m_pendingLeft);
                m_pending += size_t{k} * ch;
                m_pendingLeft -= k;
                if (m_pendingLeft > 0) return;
            }
            if (m_queue.empty()) return;
            const uint32_t n = ring.Read(m_in.data(), kChunkFrames);
            if (n == 0) return;
            Convert(n);
        }
    }

    // Under m_lock: n frames of m_in become the pending frames in the input's format.
    void Convert(uint32_t n)
    {
        const WORD ch = m_fmt.nChannels;
        const float* frames = m_in.data();
        if (ch == 1) {
            for (uint32_t i = 0; i < n; ++i) m_chan[i] = 0.5f * (m_in[2 * i] + m_in[2 * i + 1]);
            frames = m_chan.data();
        }
        m_pending = frames;
        m_pendingLeft = n;
#ifdef QUAVIX_HAVE_SAMPLERATE
        if (m_src == nullptr) return;
        const long outCap = static_cast<long>(m_out.size() / ch);
        long left = n, made = 0;
        while (left > 0 && made < outCap) {
            SRC_DATA d{};
            d.data_in = frames;
            d.input_frames = left;
            d.data_out = m_out.data() + size_t(made) * ch;
            d.output_frames = outCap - made;
            d.src_ratio = m_ratio;
            if (src_process(m_src, &d) != 0 || (d.input_frames_used == 0 && d.output_frames_gen == 0)) break;
            made += d.output_frames_gen;
            frames += d.input_frames_used * ch;
            left -= d.input_frames_used;
        }
        m_pending = m_out.data();
        m_pendingLeft = static_cast<uint32_t>(made);
#endif
    }

    // Under m_lock: frames in the input's channel count go into the queued buffers, as
    // many as they take; returns how many did.
    uint32_t Emit(const float* samples, uint32_t nFrames)
    {
        const WORD ch = m_fmt.nChannels;
        uint32_t done = 0;
        while (done < nFrames && !m_queue.empty()) {
            LPWAVEHDR h = m_queue.front();
            const DWORD cap = h->dwBufferLength / m_block * m_block;
            const uint32_t k = std::min<uint32_t>((cap - h->dwBytesRecorded) / m_block, nFrames - done);
            BYTE* out = reinterpret_cast<BYTE*>(h->lpData) + h->dwBytesRecorded;
            Encode(samples + size_t{done} * ch, size_t{k} * ch, out);
            h->dwBytesRecorded += k * m_block;
            done += k;
            if (h->dwBytesRecorded + m_block > cap) Complete();
        }
        m_position += done;
        return done;
    }

    // Under m_lock: frames the source dropped are told with a WIM_OVERRUN (param1: how
    // many, at the input's rate) ahead of the buffers filled after them. While no buffer
    // is queued the first loss is told at once and the rest once one is queued again;
    // while buffers are, a lasting overrun is told at most once every kOverrunEvery.
    void CountOverrun()
    {
        const uint64_t total = m_port->OverrunFrames();
        if (total != m_overrunSeen) {
            m_overrunUntold += std::max<uint64_t>((total - m_overrunSeen) * m_fmt.nSamplesPerSec / m_srcRate, 1);
            m_overrunSeen = total;
        }
        const bool bEmpty = m_queue.empty();
        const bool bRequeued = !bEmpty && m_overrunToldEmpty;
        if (!bEmpty) m_overrunToldEmpty = false;
        if (m_overrunUntold == 0) return;
        const auto now = std::chrono::steady_clock::now();
        if (bEmpty) {
            if (m_overrunToldEmpty) return;
            m_overrunToldEmpty = true;
        } else if (!bRequeued && m_overrunTold != std::chrono::steady_clock::time_point{} &&
                   now - m_overrunTold < kOverrunEvery) {
            return;
        }
        m_overrunTold = now;
        m_notes.push_back({WIM_OVERRUN, static_cast<DWORD_PTR>(std::min<uint64_t>(m_overrunUntold, 0xFFFFFFFFu))});
        m_overrunUntold = 0;
        ++m_notesQueued;
    }

    void Encode(const float* s, size_t nSamples, BYTE* out) const
    {
        switch (m_fmt.wBitsPerSample) {
        case 8:
            for (size_t i = 0; i < nSamples; ++i) out[i] = static_cast<BYTE>(Quantize<int>(s[i], 128, -128, 127) + 128);
            break;
        case 16:
            for (size_t i = 0; i < nSamples; ++i) {
                const int v = Quantize<int>(s[i], 32768, -32768, 32767);
                out[2 * i] = static_cast<BYTE>(v);
                out[2 * i + 1] = static_cast<BYTE>(v >> 8);
            }
            break;
        case 24:
            for (size_t i = 0; i < nSamples; ++i) {
                const int32_t v = Quantize<int32_t>(s[i], 8388608.0, -8388608.0, 8388607.0);
                out[3 * i] = static_cast<BYTE>(v);
                out[3 * i + 1] = static_cast<BYTE>(v >> 8);
                out[3 * i + 2] = static_cast<BYTE>(v >> 16);
            }
            break;
        default:
            if (m_fmt.wFormatTag == WAVE_FORMAT_IEEE_FLOAT) {
                std::memcpy(out, s, nSamples * sizeof(float));
            } else {
                for (size_t i = 0; i < nSamples; ++i) {
                    const int32_t v = Quantize<int32_t>(s[i], 2147483648.0, -2147483648.0, 2147483647.0);
                    std::memcpy(out + 4 * i, &v, 4);
                }
            }
            break;
        }
    }

    const WAVEFORMATEX m_fmt;
    const DWORD m_block;
    const std::unique_ptr<qxplat::AudioInPort> m_port;
    const DWORD m_srcRate;
    const DWORD m_callbackType;
    const DWORD_PTR m_dwCallback;
    const DWORD_PTR m_dwInstance;
    HWAVEIN m_handle = nullptr;
#ifdef QUAVIX_HAVE_SAMPLERATE
    SRC_STATE* m_src = nullptr;
    double m_ratio = 1.0;
#endif

    std::mutex m_ctl; // orders Start, Halt and Shutdown with the port's Start and Stop
    std::mutex m_lock;
    qxplat::ClockCondition m_wake;
    qxplat::ClockCondition m_delivered;
    // Under m_lock:
    std::deque<LPWAVEHDR> m_queue;
    std::vector<Note> m_notes;
    uint64_t m_notesQueued = 0;
    uint64_t m_notesDone = 0;
    uint64_t m_position = 0; // frames put into buffers, at the input's rate
    bool m_started = false;
    // Converted frames that found no buffer yet (in m_chan or m_out).
    const float* m_pending = nullptr;
    uint32_t m_pendingLeft = 0;
    uint64_t m_overrunSeen = 0;   // the port's count at the last look
    uint64_t m_overrunUntold = 0; // frames at the input's rate
    std::chrono::steady_clock::time_point m_overrunTold{};
    bool m_overrunToldEmpty = false; // told while no buffer was queued
    bool m_quit = false;
    // The capture thread's scratch, used under m_lock.
    std::vector<float> m_in, m_chan, m_out;
    std::thread m_thread;
};

struct InputTable {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Input>> inputs;
    uintptr_t next = 0x70000;
};

InputTable& Table()
{
    static InputTable* s = new InputTable;
    return *s;
}

std::shared_ptr<Input> Find(HWAVEIN h)
{
    std::lock_guard<std::mutex> lock(Table().mutex);
    auto it = Table().inputs.find(reinterpret_cast<uintptr_t>(h));
    return it == Table().inputs.end() ? nullptr : it->second;
}

} // namespace

MMRESULT waveInOpen(HWAVEIN* phwi, UINT uDeviceID, LPCWAVEFORMATEX pwfx, DWORD_PTR dwCallback, DWORD_PTR dwInstance,
                    DWORD fdwOpen)
{
    MMRESULT r;
    const bool bQuery = (fdwOpen & WAVE_FORMAT_QUERY) != 0;
    if (pwfx == nullptr || (!bQuery && phwi == nullptr)) return MMSYSERR_INVALPARAM;
    const DWORD type = fdwOpen & CALLBACK_TYPEMASK;
    if (type != CALLBACK_NULL && type != CALLBACK_FUNCTION && type != CALLBACK_WINDOW && type != CALLBACK_THREAD &&
        type != CALLBACK_EVENT)
        return MMSYSERR_INVALFLAG;
    if (fdwOpen & ~(CALLBACK_TYPEMASK | WAVE_FORMAT_QUERY | WAVE_ALLOWSYNC | WAVE_MAPPED | WAVE_FORMAT_DIRECT))
        return MMSYSERR_INVALFLAG;
    if (QXFaultCheck("waveInOpen", &r)) return r;
    if (!FormatOk(*pwfx)) return WAVERR_BADFORMAT;
    const int n = uDeviceID == WAVE_MAPPER ? 0 : static_cast<int>(uDeviceID);
    std::unique_ptr<qxplat::AudioInPort> port;
    r = qxplat::CurrentBackend().OpenAudioIn(n, port);
    if (r != MMSYSERR_NOERROR) return r;
    if (!kCanResample && pwfx->nSamplesPerSec != port->Rate()) return WAVERR_BADFORMAT;
    if (bQuery) return MMSYSERR_NOERROR;
    std::shared_ptr<Input> input;
    HWAVEIN h;
    try {
        input = std::make_shared<Input>(*pwfx, std::move(port), fdwOpen, dwCallback, dwInstance);
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().next += 4;
        h = reinterpret_cast<HWAVEIN>(Table().next);
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
    r = input->Init(h);
    if (r != MMSYSERR_NOERROR) return r;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().inputs.emplace(reinterpret_cast<uintptr_t>(h), input);
    }
    *phwi = h;
    return MMSYSERR_NOERROR;
}

MMRESULT waveInClose(HWAVEIN hwi)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("waveInClose", &r)) return r;
    if (in->OnCaptureThread()) return MMSYSERR_HANDLEBUSY;
    if (in->Queued()) return WAVERR_STILLPLAYING;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        if (Table().inputs.erase(reinterpret_cast<uintptr_t>(hwi)) == 0) return MMSYSERR_INVALHANDLE;
    }
    in->Shutdown();
    return MMSYSERR_NOERROR;
}

MMRESULT waveInPrepareHeader(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (pwh == nullptr || cbwh < sizeof(WAVEHDR) || pwh->lpData == nullptr) return MMSYSERR_INVALPARAM;
    if (QXFaultCheck("waveInPrepareHeader", &r)) return r;
    in->ChangeFlags(pwh, WHDR_PREPARED, 0);
    return MMSYSERR_NOERROR;
}

MMRESULT waveInUnprepareHeader(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (pwh == nullptr || cbwh < sizeof(WAVEHDR)) return MMSYSERR_INVALPARAM;
    if (in->Flags(pwh) & WHDR_INQUEUE) return WAVERR_STILLPLAYING;
    if (QXFaultCheck("waveInUnprepareHeader", &r)) return r;
    in->ChangeFlags(pwh, 0, WHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

MMRESULT waveInAddBuffer(HWAVEIN hwi, LPWAVEHDR pwh, UINT cbwh)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (pwh == nullptr || cbwh < sizeof(WAVEHDR) || pwh->lpData == nullptr ||
        pwh->dwBufferLength < in->Format().nBlockAlign)
        return MMSYSERR_INVALPARAM;
    const DWORD flags = in->Flags(pwh);
    if (!(flags & WHDR_PREPARED)) return WAVERR_UNPREPARED;
    if (flags & WHDR_INQUEUE) return WAVERR_STILLPLAYING;
    if (QXFaultCheck("waveInAddBuffer", &r)) return r;
    return in->Add(pwh);
}

MMRESULT waveInStart(HWAVEIN hwi)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("waveInStart", &r)) return r;
    in->Start();
    return MMSYSERR_NOERROR;
}

MMRESULT waveInStop(HWAVEIN hwi)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("waveInStop", &r)) return r;
    in->Halt(false);
    return MMSYSERR_NOERROR;
}

MMRESULT waveInReset(HWAVEIN hwi)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("waveInReset", &r)) return r;
    in->Halt(true);
    return MMSYSERR_NOERROR;
}

MMRESULT waveInGetPosition(HWAVEIN hwi, LPMMTIME pmmt, UINT cbmmt)
{
    MMRESULT r;
    auto in = Find(hwi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (pmmt == nullptr || cbmmt < sizeof(MMTIME)) return MMSYSERR_INVALPARAM;
    if (QXFaultCheck("waveInGetPosition", &r)) return r;
    const uint64_t frames = in->PositionFrames();
    const WAVEFORMATEX& f = in->Format();
    switch (pmmt->wType) {
    case TIME_SAMPLES:
        pmmt->u.sample = static_cast<DWORD>(frames);
        break;
    case TIME_MS:
        pmmt->u.ms = static_cast<DWORD>(frames * 1000 / f.nSamplesPerSec);
        break;
    default:
        pmmt->wType = TIME_BYTES;
        pmmt->u.cb = static_cast<DWORD>(frames * f.nBlockAlign);
        break;
    }
    return MMSYSERR_NOERROR;
}

// What the capture tests share: a recording made through the platform's waveIn calls, and
// the inputs by name.
#ifndef QUAVIX_TESTS_INTEGRATION_CAPTURE_TAKE_H
#define QUAVIX_TESTS_INTEGRATION_CAPTURE_TAKE_H

#include "harness.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace capture {

inline WAVEFORMATEX Pcm16(DWORD rate, WORD channels)
{
    WAVEFORMATEX f{};
    f.wFormatTag = WAVE_FORMAT_PCM;
    f.nChannels = channels;
    f.nSamplesPerSec = rate;
    f.wBitsPerSample = 16;
    f.nBlockAlign = static_cast<WORD>(channels * 2);
    f.nAvgBytesPerSec = rate * f.nBlockAlign;
    return f;
}

// A 16-bit wave input. Full buffers come back through WIM_DATA on the capture thread,
// which may not call waveIn functions: it only queues them, and the test's thread copies
// them out and adds them again.
class Take {
public:
    Take() = default;
    Take(const Take&) = delete;
    Take& operator=(const Take&) = delete;
    ~Take() { Close(); }

    MMRESULT Open(UINT device, DWORD rate, WORD channels, int buffers = 8, int bufferMs = 50)
    {
        m_fmt = Pcm16(rate, channels);
        MMRESULT r = waveInOpen(&m_h, device, &m_fmt, reinterpret_cast<DWORD_PTR>(&Take::Proc),
                                reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
        if (r != MMSYSERR_NOERROR) {
            m_h = nullptr;
            return r;
        }
        const DWORD bytes = rate * bufferMs / 1000 * m_fmt.nBlockAlign;
        for (int i = 0; i < buffers; ++i) {
            auto b = std::make_unique<Buffer>(bytes);
            if ((r = waveInPrepareHeader(m_h, &b->hdr, sizeof(WAVEHDR))) != MMSYSERR_NOERROR) return r;
            if ((r = waveInAddBuffer(m_h, &b->hdr, sizeof(WAVEHDR))) != MMSYSERR_NOERROR) return r;
            m_buffers.push_back(std::move(b));
        }
        return MMSYSERR_NOERROR;
    }

    HWAVEIN Handle() const { return m_h; }
    MMRESULT Start() { return waveInStart(m_h); }

    // Collects until the take holds `frames` frames, or the limit passes.
    bool Collect(size_t frames, std::chrono::milliseconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (m_samples.size() < frames * m_fmt.nChannels) {
            if (std::chrono::steady_clock::now() > end) return false;
            Drain(true, std::chrono::milliseconds(50));
        }
        return true;
    }

    // Ends the recording: the buffers come back, what they hold joins the take, and the
    // input closes. Each result is kept for the test to check.
    void Close()
    {
        if (m_h == nullptr) return;
        m_stopResult = waveInStop(m_h);
        m_resetResult = waveInReset(m_h);
        Drain(false, std::chrono::milliseconds(0));
        for (auto& b : m_buffers) waveInUnprepareHeader(m_h, &b->hdr, sizeof(WAVEHDR));
        m_closeResult = waveInClose(m_h);
        m_h = nullptr;
    }

    MMRESULT StopResult() const { return m_stopResult; }
    MMRESULT ResetResult() const { return m_resetResult; }
    MMRESULT CloseResult() const { return m_closeResult; }

    size_t Frames() const { return m_samples.size() / m_fmt.nChannels; }
    // Every channel, interleaved, as float.
    std::vector<float> Samples() const
    {
        std::vector<float> out(m_samples.size());
        for (size_t i = 0; i < out.size(); ++i) out[i] = m_samples[i] / 32768.0f;
        return out;
    }
    // One channel as float.
    std::vector<float> Channel(int ch) const
    {
        std::vector<float> out(Frames());
        for (size_t i = 0; i < out.size(); ++i) out[i] = m_samples[i * m_fmt.nChannels + ch] / 32768.0f;
        return out;
    }

private:
    struct Buffer {
        explicit Buffer(DWORD bytes) : data(bytes)
        {
            hdr.lpData = data.data();
            hdr.dwBufferLength = bytes;
        }
        std::vector<char> data;
        WAVEHDR hdr{};
    };

    static void CALLBACK Proc(HWAVEIN, UINT msg, DWORD_PTR inst, DWORD_PTR p1, DWORD_PTR)
    {
        if (msg != WIM_DATA) return;
        auto* self = reinterpret_cast<Take*>(inst);
        std::lock_guard<std::mutex> lock(self->m_lock);
        self->m_done.push_back(reinterpret_cast<WAVEHDR*>(p1));
        self->m_wake.notify_all();
    }

    void Drain(bool bRequeue, std::chrono::milliseconds wait)
    {
        std::deque<WAVEHDR*> done;
        {
            std::unique_lock<std::mutex> lock(m_lock);
            m_wake.wait_for(lock, wait, [this] { return !m_done.empty(); });
            done.swap(m_done);
        }
        for (WAVEHDR* h : done) {
            const auto* s = reinterpret_cast<const int16_t*>(h->lpData);
            m_samples.insert(m_samples.end(), s, s + h->dwBytesRecorded / 2);
            if (bRequeue) waveInAddBuffer(m_h, h, sizeof(WAVEHDR));
        }
    }

    WAVEFORMATEX m_fmt{};
    HWAVEIN m_h = nullptr;
    std::vector<std::unique_ptr<Buffer>> m_buffers;
    std::vector<int16_t> m_samples;
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<WAVEHDR*> m_done; // under m_lock
    MMRESULT m_stopResult = MMSYSERR_NOERROR, m_resetResult = MMSYSERR_NOERROR, m_closeResult = MMSYSERR_NOERROR;
};

// The name of wave input n, as waveInGetDevCapsA gives it; empty when there is none.
inline std::string InputName(UINT n)
{
    WAVEINCAPSA caps{};
    return waveInGetDevCapsA(n, &caps, sizeof caps) == MMSYSERR_NOERROR ? std::string(caps.szPname) : std::string();
}

// The first wave input whose name contains `part`; -1 when none does.
inline int FindInput(const std::string& part)
{
    const UINT n = waveInGetNumDevs();
    for (UINT i = 0; i < n; ++i)
        if (InputName(i).find(part) != std::string::npos) return static_cast<int>(i);
    return -1;
}

// The port's own contract: frames flow only between Start and Stop. What comes after a
// Stop can only be looked for after a while.
inline void ExpectStopEndsDeliveryAndStartResumesIt(qxplat::AudioInPort& port)
{
    qxplat::AudioRing& ring = port.Ring();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(ring.Readable(), 0u) << "frames before Start";
    for (int round = 0; round < 3; ++round) {
        port.Start();
        EXPECT_TRUE(harness::Await([&] { return ring.Readable() >= port.Rate() / 10; }))
            << "round " << round << ": nothing comes after Start";
        port.Stop();
        ring.Skip(ring.Readable());
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_EQ(ring.Readable(), 0u) << "round " << round << ": frames after Stop returned";
    }
}

} // namespace capture

#endif // QUAVIX_TESTS_INTEGRATION_CAPTURE_TAKE_H

// Raw ALSA PCM playback and capture, for machines where no sound server runs. Each open
// output has a thread of its own that writes whole periods from the ring into the
// device, in the device's native format (float, 32- or 16-bit), and pads with silence
// when the ring runs dry; each running input has one that reads whole periods and puts
// them into its ring as float stereo (a mono device as L=R). The device is opened
// non-blocking and the thread waits on it with a time-out, so Stop never waits for a
// device that stopped moving.
#include "platform/backends/SinkClock.h"
#include "platform/backends/alsa/QXAlsa.h"

#include "platform/kernel/QXRealtime.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

constexpr unsigned kPeriodUs = 10'000;  // the device's period
constexpr unsigned kPeriods = 3;        // periods in its buffer: 30 ms
// A capture buffer adds no latency, only room for a reader that was held up.
constexpr unsigned kCapturePeriods = 8;
constexpr int kWaitMs = 50;             // how long the thread waits for the device at most
constexpr uint32_t kPreferredRate = 48000;

std::atomic<uint64_t> g_underrunFramesAll{0};

void SilentError(const char*, int, const char*, int, const char*, ...) {}

struct PcmEntry {
    std::string name;
    std::string description;
};

// Names that list the same outputs again (channel layouts, digital passthrough, the
// mixing and sharing plugins behind "default") or none at all.
bool Listed(const std::string& name)
{
    static const char* const skip[] = {"null",      "default",  "sysdefault", "surround", "front:",  "rear:",
                                       "center_lfe", "side:",   "iec958:",    "dmix",     "dsnoop",  "hw:",
                                       "usbstream:", "upmix",   "vdownmix",   "a52",      "lavrate", "samplerate",
                                       "speex",     "oss",      "jack"};
    for (const char* s : skip)
        if (name.rfind(s, 0) == 0) return false;
    return true;
}

std::vector<PcmEntry> ListPcms(bool bCapture)
{
    const char* const io = bCapture ? "Input" : "Output";
    std::vector<PcmEntry> out{{"default", bCapture ? "Default ALSA input" : "Default ALSA output"}};
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) < 0 || hints == nullptr) return out;
    for (void** h = hints; *h != nullptr; ++h) {
        char* name = snd_device_name_get_hint(*h, "NAME");
        char* desc = snd_device_name_get_hint(*h, "DESC");
        char* ioid = snd_device_name_get_hint(*h, "IOID");
        if (name != nullptr && (ioid == nullptr || std::strcmp(ioid, io) == 0) && Listed(name)) {
            std::string text = desc != nullptr ? desc : name;
            std::replace(text.begin(), text.end(), '\n', ' ');
            out.push_back({name, text + " (" + name + ")"});
        }
        std::free(name);
        std::free(desc);
        std::free(ioid);
    }
    snd_device_name_free_hint(hints);
    return out;
}

class AlsaPcmOut final : public AudioOutPort {
public:
    explicit AlsaPcmOut(std::string name) : m_name(std::move(name)), m_ring(16384), m_clock(kPreferredRate) {}

    ~AlsaPcmOut() override
    {
        Stop();
        if (m_pcm != nullptr) snd_pcm_close(m_pcm);
    }

    MMRESULT Open()
    {
        if (snd_pcm_open(&m_pcm, m_name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) {
            m_pcm = nullptr;
            return MMSYSERR_ALLOCATED; // busy, or not there
        }
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        if (snd_pcm_hw_params_any(m_pcm, hw) < 0 ||
            snd_pcm_hw_params_set_access(m_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) < 0 ||
            snd_pcm_hw_params_set_channels(m_pcm, hw, 2) < 0)
            return MMSYSERR_ERROR;
        m_format = SND_PCM_FORMAT_UNKNOWN;
        for (snd_pcm_format_t f : {SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S16_LE}) {
            if (snd_pcm_hw_params_test_format(m_pcm, hw, f) == 0) {
                m_format = f;
                break;
            }
        }
        unsigned rate = kPreferredRate, period = kPeriodUs, buffer = kPeriodUs * kPeriods;
        int dir = 0;
        if (m_format == SND_PCM_FORMAT_UNKNOWN || snd_pcm_hw_params_set_format(m_pcm, hw, m_format) < 0 ||
            snd_pcm_hw_params_set_rate_near(m_pcm, hw, &rate, &dir) < 0 ||
            snd_pcm_hw_params_set_buffer_time_near(m_pcm, hw, &buffer, &dir) < 0 ||
            snd_pcm_hw_params_set_period_time_near(m_pcm, hw, &period, &dir) < 0 || snd_pcm_hw_params(m_pcm, hw) < 0)
            return MMSYSERR_ERROR;
        snd_pcm_uframes_t periodFrames = 0, bufferFrames = 0;
        snd_pcm_hw_params_get_period_size(hw, &periodFrames, &dir);
        snd_pcm_hw_params_get_buffer_size(hw, &bufferFrames);
        snd_pcm_sw_params_t* sw;
        snd_pcm_sw_params_alloca(&sw);
        if (periodFrames == 0 || periodFrames > 8192 || snd_pcm_sw_params_current(m_pcm, sw) < 0 ||
            snd_pcm_sw_params_set_avail_min(m_pcm, sw, periodFrames) < 0 ||
            snd_pcm_sw_params_set_start_threshold(m_pcm, sw, bufferFrames > periodFrames ? bufferFrames - periodFrames
                                                                                          : periodFrames) < 0 ||
            snd_pcm_sw_params(m_pcm, sw) < 0)
            return MMSYSERR_ERROR;
        m_rate = rate;
        m_clock.SetRate(rate);
        m_periodFrames = static_cast<uint32_t>(periodFrames);
        m_bufferFrames = static_cast<uint32_t>(bufferFrames);
        m_mix.assign(size_t{m_periodFrames} * 2, 0.0f);
        m_native.assign(size_t{m_periodFrames} * 2 * 4, 0);
        return MMSYSERR_NOERROR;
    }

    DWORD Rate() const override { return m_rate; }
    // One period and one mix block (5 ms) on top of what the device holds.
    uint32_t TargetFrames() const override { return std::min(m_periodFrames + m_rate / 200, m_ring.Capacity() / 2); }
    AudioRing& Ring() override { return m_ring; }

    void Start() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (m_thread.joinable() || m_dead.load()) return;
        m_quit.store(false);
        m_primed = false;
        m_clock.Reset();
        snd_pcm_prepare(m_pcm);
        m_running.store(true);
        m_thread = std::thread([this] { Run(); });
    }

    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (!m_thread.joinable()) return;
        m_quit.store(true);
        m_running.store(false);
        m_thread.join();
        snd_pcm_drop(m_pcm);
    }

    uint64_t UnderrunFrames() const override { return m_underrunFrames.load(); }

    // The ring's frames are placed by when the device's delay says they will be heard.
    // Between a start's ring position and the last frame mixed lie at most the ring's
    // target, one mix block and the device's whole buffer.
    uint32_t LatencyFrames() const override
    {
        return WholeMsFrames(TargetFrames() + m_rate / 200 + m_bufferFrames, m_rate);
    }
    bool HasClock() const override { return true; }
    bool RingPositionAt(int64_t ns, int64_t* pFrame) const override
    {
        return m_running.load() && m_clock.PositionAt(ns, pFrame);
    }

private:
    void Run()
    {
        MakeRealtimeThread("qx-alsapcm");
        while (!m_quit.load()) {
            const snd_pcm_sframes_t avail = snd_pcm_avail_update(m_pcm);
            if (avail < 0) {
                if (!Recover(static_cast<int>(avail))) break;
                continue;
            }
            if (static_cast<snd_pcm_uframes_t>(avail) < m_periodFrames) {
                // A device whose buffer is smaller than its start threshold thinks would never start.
                if (snd_pcm_state(m_pcm) == SND_PCM_STATE_PREPARED) snd_pcm_start(m_pcm);
                const int w = snd_pcm_wait(m_pcm, kWaitMs);
                if (w < 0 && !Recover(w)) break;
                continue;
            }
            const uint32_t got = m_ring.Read(m_mix.data(), m_periodFrames);
            // The frames written now are heard after what the device still holds; a
            // device that has not started yet says nothing about when.
            snd_pcm_sframes_t delay = 0;
            if (got > 0 && snd_pcm_state(m_pcm) == SND_PCM_STATE_RUNNING && snd_pcm_delay(m_pcm, &delay) == 0)
                m_clock.Observe(static_cast<int64_t>(m_readTotal), NowNs() + int64_t{delay} * 1'000'000'000 / m_rate);
            m_readTotal += got;
            if (got < m_periodFrames) {
                std::fill(m_mix.begin() + 2 * got, m_mix.end(), 0.0f);
                if (m_primed) Underrun(m_periodFrames - got);
            }
            if (got > 0) m_primed = true;
            Convert();
            snd_pcm_uframes_t done = 0;
            while (done < m_periodFrames && !m_quit.load()) {
                const size_t at = done * 2 * static_cast<size_t>(snd_pcm_format_physical_width(m_format) / 8);
                const snd_pcm_sframes_t w = snd_pcm_writei(m_pcm, m_native.data() + at, m_periodFrames - done);
                if (w == -EAGAIN) {
                    snd_pcm_wait(m_pcm, kWaitMs);
                } else if (w < 0) {
                    if (!Recover(static_cast<int>(w))) return Lost();
                    break; // the rest of this period is gone with the underrun
                } else {
                    done += static_cast<snd_pcm_uframes_t>(w);
                }
            }
        }
        if (m_dead.load()) Lost();
    }

    void Underrun(uint32_t frames)
    {
        m_underrunFrames.fetch_add(frames);
        g_underrunFramesAll.fetch_add(frames);
    }

    // Clips the mix into the device's format.
    void Convert()
    {
        const size_t n = m_mix.size();
        if (m_format == SND_PCM_FORMAT_FLOAT_LE) {
            auto* out = reinterpret_cast<float*>(m_native.data());
            for (size_t i = 0; i < n; ++i) out[i] = std::clamp(m_mix[i], -1.0f, 1.0f);
        } else if (m_format == SND_PCM_FORMAT_S32_LE) {
            auto* out = reinterpret_cast<int32_t*>(m_native.data());
            for (size_t i = 0; i < n; ++i)
                out[i] = static_cast<int32_t>(static_cast<double>(std::clamp(m_mix[i], -1.0f, 1.0f)) * 2147483647.0);
        } else {
            auto* out = reinterpret_cast<int16_t*>(m_native.data());
            for (size_t i = 0; i < n; ++i) {
                const float s = std::clamp(m_mix[i], -1.0f, 1.0f);
                out[i] = static_cast<int16_t>(s < 0 ? s * 32768.0f - 0.5f : s * 32767.0f + 0.5f);
            }
        }
    }

    // An underrun or a suspend is recovered; false when the device is gone.
    bool Recover(int err)
    {
        if (err == -EPIPE) {
            Underrun(m_periodFrames);
            return snd_pcm_prepare(m_pcm) == 0;
        }
        if (err == -ESTRPIPE) {
            for (int i = 0; i < 20 && snd_pcm_resume(m_pcm) == -EAGAIN && !m_quit.load(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
            return snd_pcm_prepare(m_pcm) == 0;
        }
        if (err == -EINTR || err == -EAGAIN) return true;
        m_dead.store(true);
        return false;
    }

    // The device went away (unplugged, or the plugin's server ended): reported once,
    // then the thread waits for Stop without touching the device.
    void Lost()
    {
        m_dead.store(true);
        if (!m_reported.exchange(true)) RaiseBackendEvent(BackendEvent::ServerLost, -1, m_name.c_str());
        while (!m_quit.load()) std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
    }

    const std::string m_name;
    snd_pcm_t* m_pcm = nullptr;
    snd_pcm_format_t m_format = SND_PCM_FORMAT_UNKNOWN;
    DWORD m_rate = kPreferredRate;
    uint32_t m_periodFrames = 480;
    AudioRing m_ring;
    // The thread's own while it runs:
    std::vector<float> m_mix;
    std::vector<unsigned char> m_native;
    bool m_primed = false;
    uint64_t m_readTotal = 0; // frames read from the ring
    uint32_t m_bufferFrames = 0;
    SinkClock m_clock;

    std::atomic<bool> m_running{false};
    std::atomic<uint64_t> m_underrunFrames{0};
    std::atomic<bool> m_quit{false};
    std::atomic<bool> m_dead{false};
    std::atomic<bool> m_reported{false};
    std::mutex m_ownerLock; // Start and Stop
    std::thread m_thread;
};

// Capture. The thread reads a period whenever one is there; an overrun of the device is
// recovered with snd_pcm_recover and its lost period counted with the ring's overruns.
class AlsaPcmIn final : public AudioInPort {
public:
    explicit AlsaPcmIn(std::string name) : m_name(std::move(name)), m_ring(32768) {}

    ~AlsaPcmIn() override
    {
        Stop();
        if (m_pcm != nullptr) snd_pcm_close(m_pcm);
    }

    MMRESULT Open()
    {
        const int e = snd_pcm_open(&m_pcm, m_name.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
        if (e < 0) {
            m_pcm = nullptr;
            return e == -EBUSY || e == -EAGAIN ? MMSYSERR_ALLOCATED : MMSYSERR_NODRIVER;
        }
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        if (snd_pcm_hw_params_any(m_pcm, hw) < 0 ||
            snd_pcm_hw_params_set_access(m_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) < 0)
            return MMSYSERR_ERROR;
        m_channels = snd_pcm_hw_params_test_channels(m_pcm, hw, 2) == 0 ? 2 : 1;
        m_format = SND_PCM_FORMAT_UNKNOWN;
        for (snd_pcm_format_t f : {SND_PCM_FORMAT_FLOAT_LE, SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S16_LE}) {
            if (snd_pcm_hw_params_test_format(m_pcm, hw, f) == 0) {
                m_format = f;
                break;
            }
        }
        unsigned rate = kPreferredRate, period = kPeriodUs, buffer = kPeriodUs * kCapturePeriods;
        int dir = 0;
        if (m_format == SND_PCM_FORMAT_UNKNOWN || snd_pcm_hw_params_set_channels(m_pcm, hw, m_channels) < 0 ||
            snd_pcm_hw_params_set_format(m_pcm, hw, m_format) < 0 ||
            snd_pcm_hw_params_set_rate_near(m_pcm, hw, &rate, &dir) < 0 ||
            snd_pcm_hw_params_set_buffer_time_near(m_pcm, hw, &buffer, &dir) < 0 ||
            snd_pcm_hw_params_set_period_time_near(m_pcm, hw, &period, &dir) < 0 || snd_pcm_hw_params(m_pcm, hw) < 0)
            return MMSYSERR_ERROR;
        snd_pcm_uframes_t periodFrames = 0;
        snd_pcm_hw_params_get_period_size(hw, &periodFrames, &dir);
        snd_pcm_sw_params_t* sw;
        snd_pcm_sw_params_alloca(&sw);
        if (periodFrames == 0 || periodFrames > 8192 || snd_pcm_sw_params_current(m_pcm, sw) < 0 ||
            snd_pcm_sw_params_set_avail_min(m_pcm, sw, periodFrames) < 0 || snd_pcm_sw_params(m_pcm, sw) < 0)
            return MMSYSERR_ERROR;
        m_rate = rate;
        m_periodFrames = static_cast<uint32_t>(periodFrames);
        m_native.assign(size_t{m_periodFrames} * m_channels * 4, 0);
        m_frames.assign(size_t{m_periodFrames} * 2, 0.0f);
        return MMSYSERR_NOERROR;
    }

    DWORD Rate() const override { return m_rate; }
    AudioRing& Ring() override { return m_ring; }
    uint64_t OverrunFrames() const override { return m_overrunFrames.load(); }

    void Start() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (m_thread.joinable() || m_dead.load()) return;
        m_quit.store(false);
        snd_pcm_prepare(m_pcm);
        m_thread = std::thread([this] { Run(); });
    }

    // Joined: the thread writes nothing once this returns. What the device still holds
    // is dropped with it.
    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (!m_thread.joinable()) return;
        m_quit.store(true);
        m_thread.join();
        snd_pcm_drop(m_pcm);
    }

private:
    void Run()
    {
        MakeRealtimeThread("qx-alsain");
        while (!m_quit.load()) {
            // Prepared: at Start, or after a recovery.
            if (snd_pcm_state(m_pcm) == SND_PCM_STATE_PREPARED) {
                const int e = snd_pcm_start(m_pcm);
                if (e < 0 && !Recover(e)) return Lost();
            }
            const snd_pcm_sframes_t avail = snd_pcm_avail_update(m_pcm);
            if (avail < 0) {
                if (!Recover(static_cast<int>(avail))) return Lost();
                continue;
            }
            if (static_cast<snd_pcm_uframes_t>(avail) < m_periodFrames) {
                const int w = snd_pcm_wait(m_pcm, kWaitMs);
                if (w < 0 && !Recover(w)) return Lost();
                continue;
            }
            const snd_pcm_sframes_t got = snd_pcm_readi(m_pcm, m_native.data(), m_periodFrames);
            if (got == -EAGAIN) continue;
            if (got < 0) {
                if (!Recover(static_cast<int>(got))) return Lost();
                continue;
            }
            Put(static_cast<uint32_t>(got));
        }
    }

    // The device's frames as float stereo into the ring.
    void Put(uint32_t n)
    {
        const size_t samples = size_t{n} * m_channels;
        float* out = m_frames.data();
        if (m_channels == 2 && m_format == SND_PCM_FORMAT_FLOAT_LE) {
            std::memcpy(out, m_native.data(), samples * sizeof(float));
        } else {
            for (size_t i = 0; i < samples; ++i) {
                const float v = Sample(i);
                if (m_channels == 2) {
                    out[i] = v;
                } else {
                    out[2 * i] = v;
                    out[2 * i + 1] = v;
                }
            }
        }
        const uint32_t put = m_ring.Write(out, n);
        if (put < n) m_overrunFrames.fetch_add(n - put);
    }

    float Sample(size_t i) const
    {
        const unsigned char* p = m_native.data();
        if (m_format == SND_PCM_FORMAT_FLOAT_LE) {
            float f;
            std::memcpy(&f, p + 4 * i, 4);
            return f;
        }
        if (m_format == SND_PCM_FORMAT_S32_LE) {
            int32_t v;
            std::memcpy(&v, p + 4 * i, 4);
            return static_cast<float>(v / 2147483648.0);
        }
        int16_t v;
        std::memcpy(&v, p + 2 * i, 2);
        return v / 32768.0f;
    }

    // An overrun or a suspend is recovered (a lost period counted); false when the device
    // is gone.
    bool Recover(int err)
    {
        if (err == -EINTR || err == -EAGAIN) return true;
        if (err == -EPIPE) {
            m_overrunFrames.fetch_add(m_periodFrames);
            if (snd_pcm_recover(m_pcm, err, 1) == 0) return true;
        } else if (err == -ESTRPIPE) {
            // snd_pcm_recover would wait for the resume as long as the suspend lasts.
            for (int i = 0; i < 20 && snd_pcm_resume(m_pcm) == -EAGAIN && !m_quit.load(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
            if (snd_pcm_prepare(m_pcm) == 0) return true;
        }
        m_dead.store(true);
        return false;
    }

    // As the output's: reported once, then the thread waits for Stop.
    void Lost()
    {
        m_dead.store(true);
        if (!m_reported.exchange(true)) RaiseBackendEvent(BackendEvent::ServerLost, -1, m_name.c_str());
        while (!m_quit.load()) std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
    }

    const std::string m_name;
    snd_pcm_t* m_pcm = nullptr;
    snd_pcm_format_t m_format = SND_PCM_FORMAT_UNKNOWN;
    unsigned m_channels = 2;
    DWORD m_rate = kPreferredRate;
    uint32_t m_periodFrames = 480;
    AudioRing m_ring;
    // The thread's own while it runs:
    std::vector<unsigned char> m_native;
    std::vector<float> m_frames;

    std::atomic<uint64_t> m_overrunFrames{0};
    std::atomic<bool> m_quit{false};
    std::atomic<bool> m_dead{false};
    std::atomic<bool> m_reported{false};
    std::mutex m_ownerLock; // Start and Stop
    std::thread m_thread;
};

class AlsaPcmBackend final : public Backend {
public:
    const char* Name() const override { return "alsa-pcm"; }

    int Count(DeviceKind kind) override
    {
        if (kind != DeviceKind::WaveOut && kind != DeviceKind::WaveIn) return 0;
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<PcmEntry>& list = kind == DeviceKind::WaveIn ? m_captures : m_pcms;
        list = ListPcms(kind == DeviceKind::WaveIn);
        return static_cast<int>(list.size());
    }

    std::string DeviceName(DeviceKind kind, int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (kind != DeviceKind::WaveOut && kind != DeviceKind::WaveIn) return {};
        const std::vector<PcmEntry>& list = kind == DeviceKind::WaveIn ? m_captures : m_pcms;
        if (n < 0 || static_cast<size_t>(n) >= list.size()) return {};
        return list[static_cast<size_t>(n)].description;
    }

    MMRESULT OpenMidiOut(int, std::unique_ptr<MidiOutPort>&) override { return MMSYSERR_BADDEVICEID; }
    MMRESULT OpenMidiIn(int, MidiInSink*, std::unique_ptr<MidiInPort>&) override { return MMSYSERR_BADDEVICEID; }

    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override
    {
        std::string name;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (n < 0 || static_cast<size_t>(n) >= m_pcms.size()) return MMSYSERR_BADDEVICEID;
            name = m_pcms[static_cast<size_t>(n)].name;
        }
        std::unique_ptr<AlsaPcmOut> p;
        try {
            p = std::make_unique<AlsaPcmOut>(name);
        } catch (const std::bad_alloc&) {
            return MMSYSERR_NOMEM;
        }
        const MMRESULT r = p->Open();
        if (r != MMSYSERR_NOERROR) return r;
        port = std::move(p);
        return MMSYSERR_NOERROR;
    }

    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override
    {
        std::string name;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // waveInOpen may come without a count before it: the list is read then.
            if (m_captures.empty()) m_captures = ListPcms(true);
            if (n < 0 || static_cast<size_t>(n) >= m_captures.size()) return MMSYSERR_BADDEVICEID;
            name = m_captures[static_cast<size_t>(n)].name;
        }
        std::unique_ptr<AlsaPcmIn> p;
        try {
            p = std::make_unique<AlsaPcmIn>(name);
        } catch (const std::bad_alloc&) {
            return MMSYSERR_NOMEM;
        }
        const MMRESULT r = p->Open();
        if (r != MMSYSERR_NOERROR) return r;
        port = std::move(p);
        return MMSYSERR_NOERROR;
    }

private:
    std::mutex m_mutex;
    std::vector<PcmEntry> m_pcms;     // playback
    std::vector<PcmEntry> m_captures; // capture
};

AlsaPcmBackend& PcmInstance()
{
    static AlsaPcmBackend* s_backend = new AlsaPcmBackend; // reachable from threads during exit
    return *s_backend;
}

} // namespace

Backend* AlsaPcmIfDevices()
{
    snd_pcm_t* pcm = nullptr;
    snd_lib_error_set_handler(SilentError); // a machine without sound cards is no error
    const int r = snd_pcm_open(&pcm, "default", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    snd_lib_error_set_handler(nullptr);
    if (r < 0) return nullptr;
    snd_pcm_close(pcm);
    return &PcmInstance();
}

uint64_t AlsaPcmUnderrunFramesAll()
{
    return g_underrunFramesAll.load();
}

Backend& AlsaPcmAlways()
{
    return PcmInstance();
}

} // namespace qxplat

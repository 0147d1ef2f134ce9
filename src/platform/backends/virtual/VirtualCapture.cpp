// The virtual backend's audio inputs: a source thread paced by the steady clock writes
// the chosen signal into the port's ring, as a sound card's capture would.
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/backends/virtual/QXVirtualAudio.h"
#include "platform/mmio/QXMmio.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace qxplat {

namespace {

constexpr int64_t kTickNs = 5'000'000;
constexpr double kTwoPi = 6.283185307179586476925286766559;

struct Signal {
    enum Kind { Silence, Sine, File, Loopback } kind = Sine;
    double hz = 440.0;
    std::string path;
};

Signal ParseSource(const char* pszText, int n)
{
    Signal sig;
    if (pszText == nullptr || *pszText == '\0') return sig;
    const std::string text(pszText);
    if (text == "silence") {
        sig.kind = Signal::Silence;
        return sig;
    }
    if (text == "loopback") {
        sig.kind = Signal::Loopback;
        return sig;
    }
    if (text.rfind("sine:", 0) == 0) {
        char* stop = nullptr;
        const double hz = std::strtod(text.c_str() + 5, &stop);
        if (stop != text.c_str() + 5 && *stop == '\0' && hz > 0 && hz < 96000) {
            sig.hz = hz;
            return sig;
        }
    } else if (text.rfind("file:", 0) == 0 && text.size() > 5) {
        sig.kind = Signal::File;
        sig.path = VirtualCapturePath(text.c_str() + 5, n);
        return sig;
    }
    std::fprintf(stderr, "quavix: ignoring QUAVIX_VIRTUAL_WAVE_IN_SOURCE \"%s\"; using sine:440\n", pszText);
    return sig;
}

float SampleAt(const BYTE* p, WORD tag, WORD bits)
{
    switch (bits) {
    case 8:
        return (static_cast<int>(p[0]) - 128) / 128.0f;
    case 16:
        return static_cast<int16_t>(p[0] | (p[1] << 8)) / 32768.0f;
    case 24: {
        const int32_t v = static_cast<int32_t>((uint32_t{p[0]} << 8) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 24));
        return static_cast<float>((v >> 8) / 8388608.0);
    }
    default: {
        uint32_t u;
        std::memcpy(&u, p, 4);
        if (tag == WAVE_FORMAT_IEEE_FLOAT) {
            float f;
            std::memcpy(&f, &u, 4);
            return f;
        }
        return static_cast<float>(static_cast<int32_t>(u) / 2147483648.0);
    }
    }
}

// Reads a whole WAV file into stereo float frames; false (with a reason on stderr) when
// it is not one this source plays.
bool ReadWav(const std::string& path, std::vector<float>& frames, DWORD& rate)
{
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    HMMIO h = mmioOpenA(name.data(), nullptr, MMIO_READ | MMIO_ALLOCBUF);
    const char* why = "cannot open it";
    bool ok = false;
    if (h != nullptr) {
        MMCKINFO riff{}, ck{};
        WAVEFORMATEX fmt{};
        riff.fccType = mmioFOURCC('W', 'A', 'V', 'E');
        why = "not a WAV file";
        if (mmioDescend(h, &riff, nullptr, MMIO_FINDRIFF) == MMSYSERR_NOERROR) {
            ck.ckid = mmioFOURCC('f', 'm', 't', ' ');
            if (mmioDescend(h, &ck, &riff, MMIO_FINDCHUNK) == MMSYSERR_NOERROR && ck.cksize >= 16 &&
                mmioRead(h, reinterpret_cast<char*>(&fmt), 16) == 16 && mmioAscend(h, &ck, 0) == MMSYSERR_NOERROR) {
                const WORD tag = fmt.wFormatTag, bits = fmt.wBitsPerSample;
                const bool intOk = bits == 8 || bits == 16 || bits == 24 || bits == 32;
                why = "a sample format other than PCM 8/16/24/32-bit or 32-bit float, mono or stereo";
                if (((tag == WAVE_FORMAT_PCM && intOk) || (tag == WAVE_FORMAT_IEEE_FLOAT && bits == 32)) &&
                    (fmt.nChannels == 1 || fmt.nChannels == 2) && fmt.nSamplesPerSec >= 1000 &&
                    fmt.nSamplesPerSec <= 192000) {
                    ck.ckid = mmioFOURCC('d', 'a', 't', 'a');
                    why = "no data chunk";
                    if (mmioDescend(h, &ck, &riff, MMIO_FINDCHUNK) == MMSYSERR_NOERROR) {
                        std::vector<BYTE> data(ck.cksize);
                        const LONG got = data.empty() ? 0
                                                      : mmioRead(h, reinterpret_cast<char*>(data.data()),
                                                                 static_cast<LONG>(data.size()));
                        why = "a read error";
                        if (got >= 0) {
                            const size_t bps = fmt.wBitsPerSample / 8, block = bps * fmt.nChannels;
                            const size_t n = static_cast<size_t>(got) / block;
                            frames.resize(2 * n);
                            for (size_t i = 0; i < n; ++i) {
                                const BYTE* p = data.data() + i * block;
                                frames[2 * i] = SampleAt(p, tag, fmt.wBitsPerSample);
                                frames[2 * i + 1] = fmt.nChannels == 2 ? SampleAt(p + bps, tag, fmt.wBitsPerSample)
                                                                       : frames[2 * i];
                            }
                            rate = fmt.nSamplesPerSec;
                            ok = true;
                        }
                    }
                }
            }
        }
        mmioClose(h, 0);
    }
    if (!ok) std::fprintf(stderr, "quavix: virtual wave input source \"%s\": %s\n", path.c_str(), why);
    return ok;
}

class VirtualAudioIn final : public AudioInPort {
public:
    VirtualAudioIn(const Signal& sig, DWORD rate, std::vector<float> file, VirtualLoopbackTap* pTap)
        : m_sig(sig), m_rate(rate), m_ring(rate / 2), m_file(std::move(file)), m_tap(pTap), m_chunk(2 * 1024)
    {
    }

    ~VirtualAudioIn() override { Stop(); }

    DWORD Rate() const override { return m_rate; }
    AudioRing& Ring() override { return m_ring; }
    uint64_t OverrunFrames() const override { return m_overruns.load(); }

    void Start() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (m_running) return;
        m_running = true;
        m_tapped = m_tap != nullptr && m_tap->AttachInput(this);
        m_tapFresh = true;
        m_pacer.Start(nullptr, [this, produced = uint64_t{0}](int64_t, uint64_t due) mutable { Produce(due, produced); });
    }

    void Stop() override
    {
        std::lock_guard<std::mutex> lock(m_ownerLock);
        if (!m_running) return;
        m_pacer.Stop();
        m_running = false;
        if (m_tapped) m_tap->DetachInput(this);
        m_tapped = false;
    }

private:
    // The next frames of the signal; the position runs on across Stop and Start.
    void Generate(float* out, uint32_t n)
    {
        for (uint32_t i = 0; i < n; ++i, ++m_pos) {
            float l = 0.0f, r = 0.0f;
            if (m_sig.kind == Signal::Sine) {
                const double cycles = std::fmod(static_cast<double>(m_pos) * m_sig.hz / m_rate, 1.0);
                l = r = static_cast<float>(0.5 * std::sin(kTwoPi * cycles));
            } else if (m_sig.kind == Signal::File && !m_file.empty()) {
                const size_t at = static_cast<size_t>(m_pos % (m_file.size() / 2));
                l = m_file[2 * at];
                r = m_file[2 * at + 1];
            }
            out[2 * i] = l;
            out[2 * i + 1] = r;
        }
    }

    // The next frames of the output this input listens to, and how many there are. It
    // takes them a fixed two ticks behind the output, which absorbs the phase of the two
    // pacers. While the output is there nothing is dropped or padded: frames the output
    // has not fed yet (its thread came late) are waited for, not replaced. Silence only
    // while there is no output (stopped or not open), then it waits for two ticks again.
    uint32_t TakeLooped(float* out, uint32_t n)
    {
        AudioRing& ring = m_tap->Ring();
        if (m_tapFresh) {
            ring.Skip(ring.Readable()); // left by an earlier listener
            m_tapFresh = false;
            m_primed = false;
        }
        const bool bOutput = m_tap->OutputRate() == m_rate;
        if (!bOutput) ring.Skip(ring.Readable()); // nothing to take at this rate
        if (!m_primed && bOutput && ring.Readable() >= m_rate / 100) m_primed = true;
        if (m_primed) {
            const uint32_t got = ring.Read(out, n);
            if (got == n || bOutput) return got;
            m_primed = false; // the output went: what it left, then silence
            std::fill(out + 2 * got, out + 2 * n, 0.0f);
            return n;
        }
        if (bOutput) return 0; // the output has begun: its first frames are on the way
        std::fill(out, out + 2 * n, 0.0f);
        return n;
    }

    // A generated signal whose thread came late catches up: what finds the ring full
    // stays due for a later tick. Only when more than a ring's worth is owed as well has
    // the consumer stayed away longer than a card's buffer would wait: then the oldest
    // owed frames are lost, and counted. A loopback takes what the output fed; what does
    // not fit the ring is lost, and counted.
    void Produce(uint64_t due, uint64_t& produced)
    {
        const bool bLooped = m_sig.kind == Signal::Loopback && m_tapped;
        while (produced < due) {
            uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(due - produced, 1024));
            if (!bLooped) n = std::min(n, m_ring.Writable());
            if (n == 0) break;
            const uint32_t want = n;
            if (bLooped)
                n = TakeLooped(m_chunk.data(), n);
            else
                Generate(m_chunk.data(), n);
            const uint32_t put = m_ring.Write(m_chunk.data(), n);
            if (put < n) m_overruns.fetch_add(n - put);
            produced += n;
            if (n < want) break; // the rest comes at a later tick
        }
        const uint64_t owed = due - produced;
        if (!bLooped && owed > m_ring.Capacity()) {
            const uint64_t lost = owed - m_ring.Capacity();
            m_pos += lost;
            produced += lost;
            m_overruns.fetch_add(lost);
        }
    }

    const Signal m_sig;
    const DWORD m_rate;
    AudioRing m_ring;
    const std::vector<float> m_file; // stereo frames
    VirtualLoopbackTap* const m_tap; // for a loopback source
    std::vector<float> m_chunk;      // the source thread's
    uint64_t m_pos = 0;              // the source thread's while it runs
    std::atomic<uint64_t> m_overruns{0};

    std::mutex m_ownerLock; // Start and Stop
    bool m_running = false; // under m_ownerLock
    // Set by the owner before the pacer starts, then the source thread's.
    bool m_tapped = false;
    bool m_tapFresh = false;
    bool m_primed = false;

    VirtualPacer m_pacer{m_rate, kTickNs}; // last: stopped first
};

} // namespace

MMRESULT OpenVirtualAudioIn(int n, std::unique_ptr<AudioInPort>& port)
{
    const Signal sig = ParseSource(std::getenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE"), n);
    DWORD rate = VirtualAudioRate();
    std::vector<float> file;
    try {
        if (sig.kind == Signal::File && !ReadWav(sig.path, file, rate)) return MMSYSERR_ERROR;
        VirtualLoopbackTap* tap = sig.kind == Signal::Loopback ? VirtualLoopback(n) : nullptr;
        port = std::make_unique<VirtualAudioIn>(sig, rate, std::move(file), tap);
    } catch (const std::bad_alloc&) {
        return MMSYSERR_NOMEM;
    }
    return MMSYSERR_NOERROR;
}

} // namespace qxplat

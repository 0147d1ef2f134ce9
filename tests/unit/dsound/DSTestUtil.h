// Helpers of the DirectSound tests: offline devices, buffers filled with signals, and
// measurements of what the mixer rendered.
#ifndef QUAVIX_TESTS_UNIT_DSOUND_DSTESTUTIL_H
#define QUAVIX_TESTS_UNIT_DSOUND_DSTESTUTIL_H

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace dstest {

// Set before any test runs: every device here is the virtual backend's.
inline const int kVirtualBackendSet = setenv("QUAVIX_BACKEND", "virtual", 1);

constexpr DWORD kAllControls =
    DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLPAN | DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLPOSITIONNOTIFY | DSBCAPS_GETCURRENTPOSITION2;

inline WAVEFORMATEX Pcm(DWORD rate, WORD channels, WORD bits, WORD tag = WAVE_FORMAT_PCM)
{
    WAVEFORMATEX f{};
    f.wFormatTag = tag;
    f.nChannels = channels;
    f.nSamplesPerSec = rate;
    f.wBitsPerSample = bits;
    f.nBlockAlign = static_cast<WORD>(channels * bits / 8);
    f.nAvgBytesPerSec = rate * f.nBlockAlign;
    return f;
}

struct Offline {
    LPDIRECTSOUND ds = nullptr;
    explicit Offline(DWORD rate = 48000, qxplat::Resampler r = qxplat::Resampler::Cubic)
    {
        EXPECT_EQ(qxplat::DirectSoundCreateOffline(rate, r, &ds), DS_OK);
    }
    ~Offline()
    {
        if (ds != nullptr) ds->Release();
    }
    std::vector<float> Render(DWORD frames)
    {
        std::vector<float> out(size_t{frames} * 2);
        EXPECT_TRUE(qxplat::DirectSoundRenderOffline(ds, out.data(), frames));
        return out;
    }
};

inline DSBUFFERDESC Desc(DWORD flags, DWORD bytes = 0, WAVEFORMATEX* pFormat = nullptr)
{
    DSBUFFERDESC d{};
    d.dwSize = sizeof d;
    d.dwFlags = flags;
    d.dwBufferBytes = bytes;
    d.lpwfxFormat = pFormat;
    return d;
}

inline LPDIRECTSOUNDBUFFER MakeBuffer(LPDIRECTSOUND ds, const WAVEFORMATEX& wfx, DWORD bytes,
                                      DWORD flags = kAllControls)
{
    WAVEFORMATEX f = wfx;
    DSBUFFERDESC d = Desc(flags, bytes, &f);
    LPDIRECTSOUNDBUFFER b = nullptr;
    EXPECT_EQ(ds->CreateSoundBuffer(&d, &b, nullptr), DS_OK);
    return b;
}

// Sets the notification positions; the interface goes again (it shares the buffer's count).
inline HRESULT Notify(LPDIRECTSOUNDBUFFER b, std::vector<DSBPOSITIONNOTIFY> positions)
{
    LPDIRECTSOUNDNOTIFY n = nullptr;
    HRESULT hr = b->QueryInterface(IID_IDirectSoundNotify, reinterpret_cast<LPVOID*>(&n));
    if (hr != DS_OK) return hr;
    hr = n->SetNotificationPositions(static_cast<DWORD>(positions.size()), positions.data());
    n->Release();
    return hr;
}

struct Driver { bool hasGuid; GUID guid; std::string description, module; };

inline BOOL CALLBACK Collect(LPGUID pGuid, LPCSTR pszDescription, LPCSTR pszModule, LPVOID pContext)
{
    auto* list = static_cast<std::vector<Driver>*>(pContext);
    list->push_back({pGuid != nullptr, pGuid != nullptr ? *pGuid : GUID_NULL, pszDescription, pszModule});
    return TRUE;
}

// Writes the whole buffer through Lock/Unlock.
inline void Fill(LPDIRECTSOUNDBUFFER b, const std::function<void(BYTE*, DWORD)>& write)
{
    LPVOID p1 = nullptr, p2 = nullptr;
    DWORD b1 = 0, b2 = 0;
    ASSERT_EQ(b->Lock(0, 0, &p1, &b1, &p2, &b2, DSBLOCK_ENTIREBUFFER), DS_OK);
    write(static_cast<BYTE*>(p1), b1);
    ASSERT_EQ(b->Unlock(p1, b1, p2, b2), DS_OK);
}

// 16-bit samples of one level from p for n bytes.
inline void Level16(void* p, DWORD n, int16_t v)
{
    for (DWORD i = 0; i < n; i += 2) std::memcpy(static_cast<BYTE*>(p) + i, &v, 2);
}

inline std::vector<float> Channel(const std::vector<float>& stereo, int ch, size_t from = 0)
{
    std::vector<float> out;
    for (size_t i = 2 * from + ch; i < stereo.size(); i += 2) out.push_back(stereo[i]);
    return out;
}

// Frequency from the interpolated times of the upward zero crossings.
inline double MeasureFrequency(const std::vector<float>& x, double rate)
{
    double first = -1, last = -1;
    int crossings = 0;
    for (size_t i = 1; i < x.size(); ++i) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            const double t = (i - 1) + x[i - 1] / (x[i - 1] - x[i]);
            if (first < 0) first = t;
            last = t;
            ++crossings;
        }
    }
    if (crossings < 2) return 0;
    return (crossings - 1) / (last - first) * rate;
}

// Signal-to-noise ratio (dB) of a tone of known frequency: the best fitting sinusoid
// against everything else.
inline double ToneSnr(const std::vector<float>& x, double freq, double rate)
{
    double ss = 0, sc = 0, cc = 0, xs = 0, xc = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double w = 2 * M_PI * freq * i / rate, s = std::sin(w), c = std::cos(w);
        ss += s * s, sc += s * c, cc += c * c, xs += x[i] * s, xc += x[i] * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det, b = (xc * ss - xs * sc) / det;
    double sig = 0, noise = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double w = 2 * M_PI * freq * i / rate;
        const double fit = a * std::sin(w) + b * std::cos(w);
        sig += fit * fit;
        noise += (x[i] - fit) * (x[i] - fit);
    }
    return 10 * std::log10(sig / std::max(noise, 1e-30));
}

inline bool Signalled(HANDLE h) { return WaitForSingleObject(h, 0) == WAIT_OBJECT_0; }

} // namespace dstest

#endif // QUAVIX_TESTS_UNIT_DSOUND_DSTESTUTIL_H

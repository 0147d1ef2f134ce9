#include "platform/dsound/QXMixer.h"

#include "platform/QXPlatform.h"
#include "platform/kernel/QXRealtime.h"
#include "platform/backends/QXBackend.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qxplat {

Resampler ResamplerFromEnvironment()
{
    const char* want = std::getenv("QUAVIX_RESAMPLER");
    if (want == nullptr || *want == '\0' || std::strcmp(want, "cubic") == 0) return Resampler::Cubic;
    if (std::strcmp(want, "linear") == 0) return Resampler::Linear;
    if (std::strcmp(want, "sinc") == 0) return Resampler::Sinc;
    std::fprintf(stderr, "quavix: unknown QUAVIX_RESAMPLER \"%s\"; using cubic\n", want);
    return Resampler::Cubic;
}

namespace ds {

namespace {

std::atomic<uint64_t> g_lateStarts{0};
constexpr DWORD kMinRate = DSBFREQUENCY_MIN;
constexpr DWORD kMaxRate = DSBFREQUENCY_MAX;

// The largest |sample| of each channel of a stereo block (NaN aside).
void PeakOf(const float* p, uint32_t nFrames, float& left, float& right)
{
    const size_t n = size_t{nFrames} * 2;
    size_t i = 0;
    float l = 0.0f, r = 0.0f;
#if defined(__SSE2__)
    // Four chains, so that the max latency does not bind; lanes 0 and 2 are left.
    const __m128 abs = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 m0 = _mm_setzero_ps(), m1 = _mm_setzero_ps(), m2 = _mm_setzero_ps(), m3 = _mm_setzero_ps();
    for (; i + 16 <= n; i += 16) {
        m0 = _mm_max_ps(m0, _mm_and_ps(_mm_loadu_ps(p + i), abs));
        m1 = _mm_max_ps(m1, _mm_and_ps(_mm_loadu_ps(p + i + 4), abs));
        m2 = _mm_max_ps(m2, _mm_and_ps(_mm_loadu_ps(p + i + 8), abs));
        m3 = _mm_max_ps(m3, _mm_and_ps(_mm_loadu_ps(p + i + 12), abs));
    }
    for (; i + 4 <= n; i += 4) m0 = _mm_max_ps(m0, _mm_and_ps(_mm_loadu_ps(p + i), abs));
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, _mm_max_ps(_mm_max_ps(m0, m1), _mm_max_ps(m2, m3)));
    l = std::max(lanes[0], lanes[2]);
    r = std::max(lanes[1], lanes[3]);
#endif
    for (; i < n; i += 2) {
        l = std::max(l, std::fabs(p[i]));
        r = std::max(r, std::fabs(p[i + 1]));
    }
    left = l;
    right = r;
}

// Bits of non-negative floats order as the numbers do: an integer max does.
void RaiseTo(std::atomic<uint32_t>& peak, uint32_t value)
{
    uint32_t now = peak.load(std::memory_order_relaxed);
    while (value > now && !peak.compare_exchange_weak(now, value, std::memory_order_relaxed)) {
    }
}

// The windowed sinc: half-width in zero crossings at unit scale, and the narrowest
// scale (downsampling by more than 4 aliases somewhat rather than growing the kernel).
constexpr int kSincHalf = 16;
constexpr float kSincMinScale = 0.25f;
constexpr int kSincResolution = 512;

struct SincTable {
    std::vector<float> k; // k[i] = kernel at i / kSincResolution zero crossings
    SincTable()
    {
        const double beta = 9.5;
        auto bessel0 = [](double x) {
            double sum = 1.0, term = 1.0;
            for (int m = 1; m < 40; ++m) {
                term *= (x / (2.0 * m)) * (x / (2.0 * m));
                sum += term;
            }
            return sum;
        };
        const int n = kSincHalf * kSincResolution;
        k.resize(n + 2, 0.0f);
        for (int i = 0; i <= n; ++i) {
            const double x = static_cast<double>(i) / kSincResolution;
            const double sinc = i == 0 ? 1.0 : std::sin(M_PI * x) / (M_PI * x);
            const double r = x / kSincHalf;
            const double w = bessel0(beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / bessel0(beta);
            k[i] = static_cast<float>(sinc * w);
        }
    }
};

const SincTable& Sinc()
{
    static const SincTable table;
    return table;
}

// ---- Conversion of source frames into float (mono, or stereo interleaved) ----

template <SampleKind K>
inline float Sample(const BYTE* p)
{
    if constexpr (K == SampleKind::U8) {
        return (static_cast<int>(p[0]) - 128) * (1.0f / 128.0f);
    } else if constexpr (K == SampleKind::S16) {
        int16_t s;
        std::memcpy(&s, p, 2);
        return s * (1.0f / 32768.0f);
    } else if constexpr (K == SampleKind::S24) {
        const int32_t s = static_cast<int32_t>((uint32_t{p[0]} << 8) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 24));
        return static_cast<float>(s) * (1.0f / 2147483648.0f);
    } else if constexpr (K == SampleKind::S32) {
        int32_t s;
        std::memcpy(&s, p, 4);
        return static_cast<float>(s) * (1.0f / 2147483648.0f);
    } else {
        float s;
        std::memcpy(&s, p, 4);
        return s;
    }
}

template <SampleKind K>
constexpr int Width()
{
    return K == SampleKind::U8 ? 1 : K == SampleKind::S16 ? 2 : K == SampleKind::S24 ? 3 : 4;
}

using ConvertFn = void (*)(const BYTE* src, uint32_t frames, int channels, float* dst);

template <SampleKind K>
void ConvertMono(const BYTE* src, uint32_t frames, int, float* dst)
{
    constexpr int w = Width<K>();
    for (uint32_t i = 0; i < frames; ++i) dst[i] = Sample<K>(src + size_t{i} * w);
}

template <SampleKind K>
void ConvertStereo(const BYTE* src, uint32_t frames, int, float* dst)
{
    constexpr int w = Width<K>();
    for (uint32_t i = 0; i < 2 * frames; ++i) dst[i] = Sample<K>(src + size_t{i} * w);
}

// Channels in the WAVE order (front left, front right, centre, LFE, then left/right
// pairs) folded to stereo: centre and the other pairs at -3 dB, LFE dropped.
template <SampleKind K>
void ConvertFold(const BYTE* src, uint32_t frames, int channels, float* dst)
{
    constexpr int w = Width<K>();
    constexpr float h = 0.70710678f;
    for (uint32_t i = 0; i < frames; ++i) {
        const BYTE* f = src + size_t{i} * channels * w;
        float l = Sample<K>(f), r = Sample<K>(f + w);
        if (channels > 2) {
            const float c = Sample<K>(f + 2 * w) * h;
            l += c;
            r += c;
        }
        for (int ch = 4; ch < channels; ++ch) {
            const float s = Sample<K>(f + ch * w) * h;
            if (ch % 2 == 0)
                l += s;
            else
                r += s;
        }
        dst[2 * i] = l;
        dst[2 * i + 1] = r;
    }
}

template <SampleKind K>
ConvertFn PickConvert(int channels)
{
    if (channels == 1) return &ConvertMono<K>;
    if (channels == 2) return &ConvertStereo<K>;
    return &ConvertFold<K>;
}

ConvertFn ConverterFor(const SourceFormat& f)
{
    switch (f.kind) {
    case SampleKind::U8: return PickConvert<SampleKind::U8>(f.channels);
    case SampleKind::S16: return PickConvert<SampleKind::S16>(f.channels);
    case SampleKind::S24: return PickConvert<SampleKind::S24>(f.channels);
    case SampleKind::S32: return PickConvert<SampleKind::S32>(f.channels);
    case SampleKind::F32: return PickConvert<SampleKind::F32>(f.channels);
    }
    return nullptr;
}

// ---- Resampling kernels: src holds converted frames, pos is 32.32 into src ----

constexpr float kFracScale = 1.0f / 16777216.0f;

inline float Frac(uint64_t pos)
{
    return static_cast<float>(static_cast<uint32_t>(pos) >> 8) * kFracScale;
}

template <int CH>
void MixLinear(const float* __restrict src, uint64_t pos, uint64_t step, uint32_t n, float gl, float gr,
               float* __restrict out)
{
    for (uint32_t i = 0; i < n; ++i, pos += step) {
        const size_t idx = static_cast<size_t>(pos >> 32);
        const float f = Frac(pos);
        if constexpr (CH == 1) {
            const float a = src[idx], b = src[idx + 1];
            const float s = a + f * (b - a);
            out[2 * i] += gl * s;
            out[2 * i + 1] += gr * s;
        } else {
            const float* p = src + 2 * idx;
            const float l = p[0] + f * (p[2] - p[0]);
            const float r = p[1] + f * (p[3] - p[1]);
            out[2 * i] += gl * l;
            out[2 * i + 1] += gr * r;
        }
    }
}

// Catmull-Rom spline through the frames before and after the two neighbours.
template <int CH>
void MixCubic(const float* __restrict src, uint64_t pos, uint64_t step, uint32_t n, float gl, float gr,
              float* __restrict out)
{
    for (uint32_t i = 0; i < n; ++i, pos += step) {
        const size_t idx = static_cast<size_t>(pos >> 32);
        const float f = Frac(pos);
        const float f2 = f * f;
        const float w0 = f * (-0.5f + f * (1.0f - 0.5f * f));
        const float w1 = 1.0f + f2 * (-2.5f + 1.5f * f);
        const float w2 = f * (0.5f + f * (2.0f - 1.5f * f));
        const float w3 = f2 * (-0.5f + 0.5f * f);
        if constexpr (CH == 1) {
            const float* p = src + idx - 1;
            const float s = w0 * p[0] + w1 * p[1] + w2 * p[2] + w3 * p[3];
            out[2 * i] += gl * s;
            out[2 * i + 1] += gr * s;
        } else {
            const float* p = src + 2 * (idx - 1);
            const float l = w0 * p[0] + w1 * p[2] + w2 * p[4] + w3 * p[6];
            const float r = w0 * p[1] + w1 * p[3] + w2 * p[5] + w3 * p[7];
            out[2 * i] += gl * l;
            out[2 * i + 1] += gr * r;
        }
    }
}

#if defined(__SSE2__)
// The same spline with SSE: the four weights come out of one polynomial in the
// fraction, evaluated on all four lanes at once.
struct CubicWeights {
    __m128 a0 = _mm_setr_ps(0.0f, 1.0f, 0.0f, 0.0f);
    __m128 a1 = _mm_setr_ps(-0.5f, 0.0f, 0.5f, 0.0f);
    __m128 a2 = _mm_setr_ps(1.0f, -2.5f, 2.0f, -0.5f);
    __m128 a3 = _mm_setr_ps(-0.5f, 1.5f, -1.5f, 0.5f);
    __m128 At(float frac) const
    {
        const __m128 f = _mm_set1_ps(frac);
        return _mm_add_ps(a0, _mm_mul_ps(f, _mm_add_ps(a1, _mm_mul_ps(f, _mm_add_ps(a2, _mm_mul_ps(f, a3))))));
    }
};

template <>
void MixCubic<1>(const float* __restrict src, uint64_t pos, uint64_t step, uint32_t n, float gl, float gr,
                 float* __restrict out)
{
    const CubicWeights cw;
    const __m128 g = _mm_setr_ps(gl, gr, 0.0f, 0.0f);
    for (uint32_t i = 0; i < n; ++i, pos += step) {
        const size_t idx = static_cast<size_t>(pos >> 32);
        const __m128 p = _mm_mul_ps(cw.At(Frac(pos)), _mm_loadu_ps(src + idx - 1));
        __m128 t = _mm_add_ps(p, _mm_movehl_ps(p, p));
        t = _mm_add_ss(t, _mm_shuffle_ps(t, t, 1));
        const __m128 v = _mm_shuffle_ps(t, t, 0);
        __m128 o = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(out + 2 * i));
        o = _mm_add_ps(o, _mm_mul_ps(v, g));
        _mm_storel_pi(reinterpret_cast<__m64*>(out + 2 * i), o);
    }
}

template <>
void MixCubic<2>(const float* __restrict src, uint64_t pos, uint64_t step, uint32_t n, float gl, float gr,
                 float* __restrict out)
{
    const CubicWeights cw;
    const __m128 g = _mm_setr_ps(gl, gr, 0.0f, 0.0f);
    for (uint32_t i = 0; i < n; ++i, pos += step) {
        const size_t idx = static_cast<size_t>(pos >> 32);
        const float* p = src + 2 * (idx - 1);
        const __m128 w = cw.At(Frac(pos));
        const __m128 w01 = _mm_shuffle_ps(w, w, _MM_SHUFFLE(1, 1, 0, 0));
        const __m128 w23 = _mm_shuffle_ps(w, w, _MM_SHUFFLE(3, 3, 2, 2));
        const __m128 acc = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(p), w01), _mm_mul_ps(_mm_loadu_ps(p + 4), w23));
        const __m128 lr = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
        __m128 o = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(out + 2 * i));
        o = _mm_add_ps(o, _mm_mul_ps(lr, g));
        _mm_storel_pi(reinterpret_cast<__m64*>(out + 2 * i), o);
    }
}
#endif

// Kaiser-windowed sinc, low-passed at the lower of the two Nyquist frequencies. Its
// weights come from polyphase tables, one per cutoff scale (the next lower one is used,
// so a ratio between two scales loses a little treble but never aliases), with the
// weights interpolated linearly between neighbouring phases.
struct SincBank {
    static constexpr int kPhases = 256;
    static constexpr int kTables = 7;
    struct Table {
        float scale;
        int half; // the kernel reaches half - 1 frames back and half frames ahead
        int taps; // a multiple of four
        std::vector<float> w; // (kPhases + 1) rows of taps
    };
    Table tables[kTables];

    SincBank()
    {
        const float scales[kTables] = {1.0f, 0.8f, 0.64f, 0.5f, 0.4f, 0.32f, kSincMinScale};
        const std::vector<float>& k = Sinc().k;
        for (int i = 0; i < kTables; ++i) {
            Table& t = tables[i];
            t.scale = scales[i];
            t.half = static_cast<int>(std::ceil(kSincHalf / t.scale));
            t.taps = (2 * t.half + 3) / 4 * 4;
            t.w.assign(static_cast<size_t>(kPhases + 1) * t.taps, 0.0f);
            for (int ph = 0; ph <= kPhases; ++ph) {
                float* row = &t.w[static_cast<size_t>(ph) * t.taps];
                const double frac = static_cast<double>(ph) / kPhases;
                double sum = 0;
                for (int j = 0; j < t.taps; ++j) {
                    const double d = std::fabs((j + 1 - t.half) - frac) * t.scale * kSincResolution;
                    const int di = static_cast<int>(d);
                    if (di >= kSincHalf * kSincResolution) continue;
                    const double v = k[di] + (d - di) * (k[di + 1] - k[di]);
                    row[j] = static_cast<float>(v);
                    sum += v;
                }
                for (int j = 0; j < t.taps; ++j) row[j] = static_cast<float>(row[j] / sum); // unity at DC
            }
        }
    }

    const Table& For(uint64_t step) const
    {
        const double ratio = static_cast<double>(step) / 4294967296.0;
        const double scale = ratio > 1.0 ? 1.0 / ratio : 1.0;
        for (const Table& t : tables)
            if (t.scale <= scale + 1e-9) return t;
        return tables[kTables - 1];
    }
};

const SincBank& Bank()
{
    static const SincBank bank;
    return bank;
}

template <int CH>
void MixSinc(const float* __restrict src, uint64_t pos, uint64_t step, uint32_t n, float gl, float gr,
             float* __restrict out)
{
    const SincBank::Table& tb = Bank().For(step);
    const int taps = tb.taps;
    const ptrdiff_t first = 1 - tb.half;
    for (uint32_t i = 0; i < n; ++i, pos += step) {
        const ptrdiff_t idx = static_cast<ptrdiff_t>(pos >> 32);
        const float ph = Frac(pos) * SincBank::kPhases;
        const int pi = std::min(static_cast<int>(ph), SincBank::kPhases - 1);
        const float pf = ph - static_cast<float>(pi);
        const float* r0 = &tb.w[static_cast<size_t>(pi) * taps];
        const float* r1 = r0 + taps;
        const float* s = src + (idx + first) * CH;
#if defined(__SSE2__)
        const __m128 pfv = _mm_set1_ps(pf);
        __m128 acc = _mm_setzero_ps();
        for (int t = 0; t < taps; t += 4) {
            const __m128 a = _mm_loadu_ps(r0 + t);
            const __m128 w = _mm_add_ps(a, _mm_mul_ps(pfv, _mm_sub_ps(_mm_loadu_ps(r1 + t), a)));
            if constexpr (CH == 1) {
                acc = _mm_add_ps(acc, _mm_mul_ps(w, _mm_loadu_ps(s + t)));
            } else {
                acc = _mm_add_ps(acc, _mm_mul_ps(_mm_unpacklo_ps(w, w), _mm_loadu_ps(s + 2 * t)));
                acc = _mm_add_ps(acc, _mm_mul_ps(_mm_unpackhi_ps(w, w), _mm_loadu_ps(s + 2 * t + 4)));
            }
        }
        float l, r;
        if constexpr (CH == 1) {
            __m128 t2 = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
            t2 = _mm_add_ss(t2, _mm_shuffle_ps(t2, t2, 1));
            l = r = _mm_cvtss_f32(t2);
        } else {
            const __m128 lr = _mm_add_ps(acc, _mm_movehl_ps(acc, acc));
            l = _mm_cvtss_f32(lr);
            r = _mm_cvtss_f32(_mm_shuffle_ps(lr, lr, 1));
        }
#else
        float l = 0.0f, r = 0.0f;
        for (int t = 0; t < taps; ++t) {
            const float w = r0[t] + pf * (r1[t] - r0[t]);
            l += w * s[t * CH];
            if constexpr (CH == 2) r += w * s[2 * t + 1];
        }
        if constexpr (CH == 1) r = l;
#endif
        out[2 * i] += gl * l;
        out[2 * i + 1] += gr * r;
    }
}

using KernelFn = void (*)(const float*, uint64_t, uint64_t, uint32_t, float, float, float*);

KernelFn KernelFor(Resampler mode, int channels)
{
    const bool mono = channels == 1;
    switch (mode) {
    case Resampler::Linear: return mono ? &MixLinear<1> : &MixLinear<2>;
    case Resampler::Sinc: return mono ? &MixSinc<1> : &MixSinc<2>;
    case Resampler::Cubic: break;
    }
    return mono ? &MixCubic<1> : &MixCubic<2>;
}

float DbToGain(LONG hundredths)
{
    if (hundredths <= DSBVOLUME_MIN) return 0.0f;
    return static_cast<float>(std::pow(10.0, hundredths / 2000.0));
}

// Fires the events of the offsets the cursor passed moving from byte c0 (below size)
// by span bytes.
void FirePassed(const std::vector<DSBPOSITIONNOTIFY>& notes, uint64_t c0, uint64_t span, uint64_t size)
{
    for (const DSBPOSITIONNOTIFY& n : notes) {
        uint64_t d = (n.dwOffset + size - c0) % size;
        if (d == 0) d = size;
        if (d <= span) SetEvent(n.hEventNotify);
    }
}

} // namespace

bool ParseFormat(const WAVEFORMATEX* pf, SourceFormat& out)
{
    if (pf == nullptr) return false;
    WORD tag = pf->wFormatTag;
    if (tag == WAVE_FORMAT_EXTENSIBLE) {
        if (pf->cbSize < 22) return false;
        WAVEFORMATEXTENSIBLE ext;
        std::memcpy(&ext, pf, sizeof ext);
        const GUID& sub = ext.SubFormat;
        // KSDATAFORMAT_SUBTYPE_PCM and _IEEE_FLOAT share everything but Data1.
        static constexpr uint8_t tail[8] = {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        if (sub.Data2 != 0x0000 || sub.Data3 != 0x0010 || std::memcmp(sub.Data4, tail, 8) != 0) return false;
        if (sub.Data1 != WAVE_FORMAT_PCM && sub.Data1 != WAVE_FORMAT_IEEE_FLOAT) return false;
        if (ext.Samples.wValidBitsPerSample != 0 && ext.Samples.wValidBitsPerSample > pf->wBitsPerSample) return false;
        tag = static_cast<WORD>(sub.Data1);
    }
    const int bits = pf->wBitsPerSample;
    SourceFormat f;
    if (tag == WAVE_FORMAT_PCM) {
        switch (bits) {
        case 8: f.kind = SampleKind::U8; break;
        case 16: f.kind = SampleKind::S16; break;
        case 24: f.kind = SampleKind::S24; break;
        case 32: f.kind = SampleKind::S32; break;
        default: return false;
        }
    } else if (tag == WAVE_FORMAT_IEEE_FLOAT) {
        if (bits != 32) return false;
        f.kind = SampleKind::F32;
    } else {
        return false;
    }
    if (pf->nChannels < 1 || pf->nChannels > 8) return false;
    if (pf->nSamplesPerSec < kMinRate || pf->nSamplesPerSec > kMaxRate) return false;
    f.channels = pf->nChannels;
    f.bytesPerSample = bits / 8;
    f.blockAlign = static_cast<DWORD>(f.channels * f.bytesPerSample);
    if (pf->nBlockAlign != f.blockAlign) return false;
    f.rate = pf->nSamplesPerSec;
    out = f;
    return true;
}

void PanGains(LONG lVolume, LONG lPan, float& left, float& right)
{
    left = DbToGain(lVolume - std::max<LONG>(lPan, 0));
    right = DbToGain(lVolume + std::min<LONG>(lPan, 0));
}

// ---- Voice ----

Voice::Voice(const SourceFormat& format, DWORD dwBytes)
    : m_format(format), m_bytes(dwBytes), m_frames(dwBytes / format.blockAlign), m_data(new BYTE[dwBytes])
{
    std::memset(m_data.get(), format.kind == SampleKind::U8 ? 0x80 : 0x00, dwBytes);
}

Voice::~Voice() = default;

bool Voice::Play(bool bLooping, int64_t startNs)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_looping = bLooping;
    if (m_playing) return false;
    m_playing = true;
    ++m_generation;
    m_startNs = startNs;
    m_startPending = true;
    return true;
}

bool Voice::Stop()
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_playing) return false;
    m_playing = false;
    ++m_generation;
    if (m_stopEvent != nullptr) SetEvent(m_stopEvent);
    return true;
}

bool Voice::Playing() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_playing;
}

bool Voice::Looping() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_looping;
}

void Voice::GetPositions(DWORD leadFrames, DWORD* pdwPlay, DWORD* pdwWrite) const
{
    std::lock_guard<std::mutex> lock(m_lock);
    const uint64_t frame = m_pos >> 32;
    if (pdwPlay != nullptr) *pdwPlay = static_cast<DWORD>(frame * m_format.blockAlign);
    if (pdwWrite != nullptr) {
        const uint64_t lead = m_playing ? std::min<uint64_t>(leadFrames, m_frames - 1) : 0;
        *pdwWrite = static_cast<DWORD>(((frame + lead) % m_frames) * m_format.blockAlign);
    }
}

void Voice::SetPosition(DWORD dwBytes)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_pos = uint64_t{dwBytes / m_format.blockAlign} << 32;
    ++m_generation;
}

void Voice::SetVolume(LONG lVolume)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_volume = lVolume;
    PanGains(m_volume, m_pan, m_gainL, m_gainR);
}

void Voice::SetPan(LONG lPan)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_pan = lPan;
    PanGains(m_volume, m_pan, m_gainL, m_gainR);
}

void Voice::SetFrequency(DWORD dwHz)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_freq = dwHz;
}

LONG Voice::Volume() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_volume;
}

LONG Voice::Pan() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_pan;
}

DWORD Voice::Frequency() const
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_freq == 0 ? m_format.rate : m_freq;
}

bool Voice::SetNotifications(const DSBPOSITIONNOTIFY* pItems, DWORD nItems)
{
    std::vector<DSBPOSITIONNOTIFY> notes;
    HANDLE stop = nullptr;
    for (DWORD i = 0; i < nItems; ++i) {
        if (pItems[i].dwOffset == DSBPN_OFFSETSTOP)
            stop = pItems[i].hEventNotify;
        else
            notes.push_back(pItems[i]);
    }
    std::stable_sort(notes.begin(), notes.end(),
                     [](const DSBPOSITIONNOTIFY& a, const DSBPOSITIONNOTIFY& b) { return a.dwOffset < b.dwOffset; });
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_playing) return false;
    m_notes.swap(notes);
    m_stopEvent = stop;
    return true;
}

void Voice::Published()
{
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_publishCount;
}

// ---- Mixer ----

Mixer::Mixer(DWORD dwRate, Resampler resampler)
    : m_rate(std::clamp<DWORD>(dwRate, 8000, 384000)), m_mode(resampler)
{
    m_blockFrames = std::max<uint32_t>(1, m_rate / 200);
    switch (m_mode) {
    case Resampler::Linear: m_history = 0, m_lookahead = 1; break;
    case Resampler::Cubic: m_history = 1, m_lookahead = 2; break;
    case Resampler::Sinc:
        m_history = static_cast<int>(std::ceil(kSincHalf / kSincMinScale));
        m_lookahead = m_history + 4; // the last table's taps are rounded up to fours
        (void)Bank();
        break;
    }
    const uint64_t maxStep = (uint64_t{kMaxRate} << 32) / m_rate + 1;
    const uint64_t span = ((maxStep * m_blockFrames) >> 32) + static_cast<uint64_t>(m_history + m_lookahead) + 4;
    m_scratch.assign(span * 2, 0.0f);
    m_ramped.assign(size_t{m_blockFrames} * 2, 0.0f);
    m_busMix.assign(size_t{m_blockFrames} * 2, 0.0f);
    m_snapshot.reserve(kMaxVoices);
    m_busSnapshot.reserve(kMaxVoices);
    m_voices.reserve(kMaxVoices);
    m_sources.reserve(kMaxSources);
    m_sourceSnapshot.reserve(kMaxSources);
}

Mixer::~Mixer()
{
    StopThread();
}

bool Mixer::AddVoice(Voice* pVoice, Bus* pBus)
{
    std::lock_guard<std::mutex> lock(m_listLock);
    if (m_voices.size() >= kMaxVoices) return false;
    pVoice->m_bus = pBus != nullptr ? pBus : &m_ownBus;
    m_voices.push_back(pVoice);
    return true;
}

bool Mixer::AddSource(MixSource* pSource)
{
    std::lock_guard<std::mutex> lock(m_listLock);
    if (m_sources.size() >= kMaxSources) return false;
    m_sources.push_back(pSource);
    return true;
}

void Mixer::RemoveSource(MixSource* pSource)
{
    std::unique_lock<std::mutex> lock(m_listLock);
    auto it = std::find(m_sources.begin(), m_sources.end(), pSource);
    if (it != m_sources.end()) m_sources.erase(it);
    WaitForBlock(lock);
}

uint64_t LateStarts()
{
    return g_lateStarts.load(std::memory_order_relaxed);
}

bool BlockClock::OffsetOf(int64_t ns, int64_t* pOffset) const
{
    int64_t frame = 0;
    if (!port->RingPositionAt(ns, &frame)) return false;
    *pOffset = frame + port->LatencyFrames() - firstFrame;
    return true;
}

void Mixer::RemoveVoice(Voice* pVoice)
{
    std::unique_lock<std::mutex> lock(m_listLock);
    auto it = std::find(m_voices.begin(), m_voices.end(), pVoice);
    if (it != m_voices.end()) {
        *it = m_voices.back();
        m_voices.pop_back();
    }
    WaitForBlock(lock);
}

// Only the block in progress can hold what left the lists; later ones took their lists
// after it went, so waiting for that one block is enough (no starving behind a busy mixer).
void Mixer::WaitForBlock(std::unique_lock<std::mutex>& lock)
{
    if (m_inBlock) {
        const uint64_t serial = m_blocksDone;
        m_blockDone.Wait(lock, [this, serial] { return m_blocksDone != serial; });
    }
}

size_t Mixer::VoiceCount() const
{
    std::lock_guard<std::mutex> lock(m_listLock);
    return m_voices.size();
}

void Mixer::SetMasterGains(float left, float right)
{
    m_ownBus.gainL.store(left, std::memory_order_relaxed);
    m_ownBus.gainR.store(right, std::memory_order_relaxed);
}

void Mixer::Render(float* pOut, uint32_t nFrames)
{
    while (nFrames > 0) {
        const uint32_t n = std::min(nFrames, m_blockFrames);
        MixBlock(pOut, n);
        pOut += size_t{n} * 2;
        nFrames -= n;
    }
}

void Mixer::MixBlock(float* pOut, uint32_t nFrames, const BlockClock* pClock)
{
    {
        std::lock_guard<std::mutex> lock(m_listLock);
        m_snapshot.assign(m_voices.begin(), m_voices.end());
        m_sourceSnapshot.assign(m_sources.begin(), m_sources.end());
        m_inBlock = true;
    }
    std::fill(pOut, pOut + size_t{nFrames} * 2, 0.0f);
    // Each bus is mixed on its own and scaled once; a bus at unity goes straight in.
    m_busSnapshot.clear();
    for (Voice* v : m_snapshot)
        if (std::find(m_busSnapshot.begin(), m_busSnapshot.end(), v->m_bus) == m_busSnapshot.end())
            m_busSnapshot.push_back(v->m_bus);
    bool mixed = false;
    for (Bus* bus : m_busSnapshot) {
        if (bus->paused.load(std::memory_order_relaxed)) continue;
        mixed = true;
        const float gl = bus->gainL.load(std::memory_order_relaxed), gr = bus->gainR.load(std::memory_order_relaxed);
        const bool unity = gl == 1.0f && gr == 1.0f;
        float* into = unity ? pOut : m_busMix.data();
        if (!unity) std::fill(into, into + size_t{nFrames} * 2, 0.0f);
        for (Voice* v : m_snapshot)
            if (v->m_bus == bus) MixVoice(*v, into, nFrames, pClock);
        if (!unity) {
            for (uint32_t i = 0; i < nFrames; ++i) {
                pOut[2 * i] += into[2 * i] * gl;
                pOut[2 * i + 1] += into[2 * i + 1] * gr;
            }
        }
    }
    for (MixSource* source : m_sourceSnapshot) source->MixInto(pOut, nFrames, pClock);
    mixed = mixed || !m_sourceSnapshot.empty();
    // Only once someone reads the meter; and a silent block (nothing to mix) cannot
    // raise the peak.
    if (m_peakWanted.load(std::memory_order_relaxed) && mixed) {
        float peakL = 0.0f, peakR = 0.0f;
        PeakOf(pOut, nFrames, peakL, peakR);
        uint32_t bitsL, bitsR;
        std::memcpy(&bitsL, &peakL, sizeof bitsL);
        std::memcpy(&bitsR, &peakR, sizeof bitsR);
        RaiseTo(m_peakL, bitsL);
        RaiseTo(m_peakR, bitsR);
    }
    {
        std::lock_guard<std::mutex> lock(m_listLock);
        m_inBlock = false;
        ++m_blocksDone;
    }
    m_blockDone.NotifyAll();
    m_framesMixed.fetch_add(nFrames, std::memory_order_relaxed);
}

void Mixer::TakePeak(float& left, float& right)
{
    m_peakWanted.store(true, std::memory_order_relaxed);
    const uint32_t l = m_peakL.exchange(0, std::memory_order_relaxed), r = m_peakR.exchange(0, std::memory_order_relaxed);
    std::memcpy(&left, &l, sizeof left);
    std::memcpy(&right, &r, sizeof right);
}

void Mixer::MixVoice(Voice& v, float* pOut, uint32_t nFrames, const BlockClock* pClock)
{
    uint32_t generation;
    uint64_t pos;
    bool looping;
    float gl, gr;
    DWORD freq;
    bool starting;
    int64_t startNs;
    {
        std::lock_guard<std::mutex> lock(v.m_lock);
        if (!v.m_playing) return;
        generation = v.m_generation;
        pos = v.m_pos;
        looping = v.m_looping;
        gl = v.m_gainL;
        gr = v.m_gainR;
        freq = v.m_freq == 0 ? v.m_format.rate : v.m_freq;
        starting = v.m_startPending;
        startNs = v.m_startNs;
    }
    // A voice's first frame goes where the port will sound it a constant latency after
    // its start: later in this block, or in a later one (its cursor waits till then). A
    // start already past (a paused mix, a late mixer) sounds at once.
    int64_t offset = 0;
    if (starting && pClock != nullptr && pClock->OffsetOf(startNs, &offset)) {
        if (offset < 0) g_lateStarts.fetch_add(1, std::memory_order_relaxed);
        if (offset >= static_cast<int64_t>(nFrames)) return;
        if (offset > 0) {
            pOut += 2 * offset;
            nFrames -= static_cast<uint32_t>(offset);
        }
    }
    const SourceFormat& fmt = v.m_format;
    const uint64_t frames = v.m_frames;
    const uint64_t endFixed = frames << 32;
    const uint64_t step = (uint64_t{freq} << 32) / m_rate;
    uint32_t n = nFrames;
    bool ended = false;
    if (!looping) {
        const uint64_t need = (endFixed - pos + step - 1) / step;
        if (need <= n) {
            n = static_cast<uint32_t>(need);
            ended = true;
        }
    }

    // A volume or pan change moves the gains across one block instead of stepping.
    const bool ramp = v.m_mixedGeneration == generation && (v.m_mixedL != gl || v.m_mixedR != gr);
    const float startL = ramp ? v.m_mixedL : gl, startR = ramp ? v.m_mixedR : gr;
    v.m_mixedL = gl;
    v.m_mixedR = gr;
    v.m_mixedGeneration = generation;
    if (n > 0 && (gl != 0.0f || gr != 0.0f || startL != 0.0f || startR != 0.0f)) {
        // Convert the source frames the kernel reads into the scratch buffer.
        const int outCh = fmt.channels == 1 ? 1 : 2;
        const int64_t first = static_cast<int64_t>(pos >> 32) - m_history;
        const uint64_t lastPos = pos + step * (n - 1);
        uint64_t count = (lastPos >> 32) - (pos >> 32) + static_cast<uint64_t>(m_history + m_lookahead) + 1;
        count = std::min<uint64_t>(count, m_scratch.size() / 2);
        const ConvertFn convert = ConverterFor(fmt);
        float* dst = m_scratch.data();
        int64_t at = first;
        uint64_t left = count;
        const BYTE* data = v.m_data.get();
        while (left > 0) {
            uint64_t run;
            if (looping) {
                int64_t idx = at % static_cast<int64_t>(frames);
                if (idx < 0) idx += static_cast<int64_t>(frames);
                run = std::min<uint64_t>(left, frames - static_cast<uint64_t>(idx));
                convert(data + static_cast<uint64_t>(idx) * fmt.blockAlign, static_cast<uint32_t>(run), fmt.channels,
                        dst);
            } else if (at < 0 || at >= static_cast<int64_t>(frames)) {
                run = at < 0 ? std::min<uint64_t>(left, static_cast<uint64_t>(-at)) : left;
                std::fill(dst, dst + run * outCh, 0.0f);
            } else {
                run = std::min<uint64_t>(left, frames - static_cast<uint64_t>(at));
                convert(data + static_cast<uint64_t>(at) * fmt.blockAlign, static_cast<uint32_t>(run), fmt.channels,
                        dst);
            }
            dst += run * outCh;
            at += static_cast<int64_t>(run);
            left -= run;
        }
        const uint64_t local = (uint64_t(m_history) << 32) | (pos & 0xFFFFFFFFu);
        if (!ramp) {
            KernelFor(m_mode, outCh)(m_scratch.data(), local, step, n, gl, gr, pOut);
        } else {
            float* tmp = m_ramped.data();
            std::fill(tmp, tmp + size_t{n} * 2, 0.0f);
            KernelFor(m_mode, outCh)(m_scratch.data(), local, step, n, 1.0f, 1.0f, tmp);
            const float dl = (gl - startL) / static_cast<float>(n), dr = (gr - startR) / static_cast<float>(n);
            for (uint32_t i = 0; i < n; ++i) {
                const float k = static_cast<float>(i + 1);
                pOut[2 * i] += tmp[2 * i] * (startL + dl * k);
                pOut[2 * i + 1] += tmp[2 * i + 1] * (startR + dr * k);
            }
        }
    }

    const uint64_t newPos = pos + step * n;
    std::lock_guard<std::mutex> lock(v.m_lock);
    if (v.m_generation != generation) return; // stopped, restarted or moved meanwhile
    v.m_startPending = false;
    const uint64_t ba = fmt.blockAlign, size = frames * ba;
    const uint64_t c0 = (pos >> 32) * ba;
    if (ended) {
        FirePassed(v.m_notes, c0, size - c0, size);
        v.m_playing = false;
        ++v.m_generation;
        v.m_pos = 0;
        if (v.m_stopEvent != nullptr) SetEvent(v.m_stopEvent);
        return;
    }
    const uint64_t c1 = (newPos >> 32) * ba;
    if (c1 > c0) FirePassed(v.m_notes, c0, c1 - c0, size);
    v.m_pos = newPos % endFixed;
}

void Mixer::StartThread(AudioOutPort* pPort)
{
    if (m_thread.joinable() || pPort == nullptr) return;
    {
        std::lock_guard<std::mutex> lock(m_threadLock);
        m_quit = false;
    }
    m_thread = StartClockThread([this, pPort] { ThreadMain(pPort); });
}

void Mixer::StopThread()
{
    if (!m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_threadLock);
        m_quit = true;
    }
    m_threadWake.NotifyAll();
    m_thread.join();
}

namespace {
constexpr uint32_t kMinMixFrames = 64;
} // namespace

void Mixer::ThreadMain(AudioOutPort* pPort)
{
    MakeRealtimeThread("qx-mixer");
    AudioRing& ring = pPort->Ring();
    // The port's target may grow while it runs (a sound server that asks for more at a
    // time than it said), so it is asked again before every top-up.
    auto target = [&] { return std::min(std::max(pPort->TargetFrames(), m_blockFrames), ring.Capacity() - m_blockFrames); };
    std::vector<float> block(size_t{m_blockFrames} * 2);
    // Half a block, or a render's step.
    const bool bRender = RenderClockOn();
    const int64_t napNs = std::max<int64_t>(500'000, int64_t{m_blockFrames} * 500'000'000 / m_rate);
    // Every block goes into the ring whole (the target leaves a block free), so the
    // frames written are the ring's write position.
    BlockClock clock{pPort, 0};
    std::unique_lock<std::mutex> lock(m_threadLock);
    while (!m_quit) {
        // In a render, after whatever else happens at this moment: the output has taken
        // its frames, and a message or a start handed over now is in the next block,
        // whatever the threads' order.
        m_threadWake.Settle(lock);
        if (m_quit) break;
        if (bRender) pPort->RenderStep(NowNs());
        const uint32_t readable = ring.Readable(), want = target();
        if (readable < want) {
            // Only what the target lacks (in steps of at least a few dozen frames): a
            // whole block on top of a nearly full ring would add up to 5 ms of latency.
            const uint32_t n = std::min(m_blockFrames, std::max(want - readable, std::min(kMinMixFrames, m_blockFrames)));
            lock.unlock();
            MixBlock(block.data(), n, &clock);
            clock.firstFrame += ring.Write(block.data(), n);
            lock.lock();
            continue;
        }
        m_threadWake.WaitUntil(lock, bRender ? NextRenderStep(NowNs()) : NowNs() + napNs, [this] { return m_quit; });
    }
}

} // namespace ds
} // namespace qxplat

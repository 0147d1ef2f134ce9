// The DirectSound mixer rendering 1 to 512 looping voices offline (16-bit mono and stereo
// at rates from 8 to 96 kHz, into 48 kHz stereo float), beside OpenAL Soft rendering the
// same voices through its loopback device with the matching resampler; then the
// resamplers' quality: SNR of 1 kHz and 8 kHz tones converted from 22050 to 48000 Hz.
//
//   mixer_voices [seconds of audio per run, default 2]
#include "platform/dsound/QXDSound.h"

#include "BenchStats.h"

#ifdef QUAVIX_HAVE_OPENAL
#include <AL/al.h>
#include <AL/alc.h>
#include <AL/alext.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr DWORD kOutRate = 48000;
constexpr DWORD kBlock = 240; // 5 ms
const DWORD kRates[] = {8000, 11025, 16000, 22050, 32000, 44100, 48000, 96000};

struct VoiceSetup {
    DWORD rate = 22050;
    int channels = 1;
    double tone = 1000.0;
    LONG volume = 0, pan = 0;
    std::vector<int16_t> pcm; // one second, interleaved
};

std::vector<VoiceSetup> MakeVoices(int n)
{
    std::vector<VoiceSetup> v;
    for (int i = 0; i < n; ++i) {
        VoiceSetup s;
        s.rate = kRates[i % 8];
        s.channels = 1 + (i / 8) % 2;
        s.tone = 110.0 * (1 + i % 13);
        s.volume = -(i % 7) * 100 - 2400; // keep the sum of 512 voices modest
        s.pan = (i % 11) * 2000 - 10000;
        s.pcm.resize(size_t{s.rate} * s.channels);
        for (DWORD f = 0; f < s.rate; ++f)
            for (int c = 0; c < s.channels; ++c)
                s.pcm[size_t{f} * s.channels + c] = static_cast<int16_t>(
                    12000.0 * std::sin(2 * M_PI * s.tone * (c + 1) * f / s.rate));
        v.push_back(std::move(s));
    }
    return v;
}

struct Result {
    double nsPerVoiceFrame = 0;
    double coreShare = 0; // render time over audio time
    double meanShare = 0;
    std::vector<double> blockUs;
};

template <class RenderFn>
Result TimeRender(int voices, double seconds, RenderFn render)
{
    std::vector<float> out(kBlock * 2);
    for (int i = 0; i < 40; ++i) render(out.data(), kBlock); // warm up
    const int blocks = static_cast<int>(seconds * kOutRate / kBlock);
    Result r;
    r.blockUs.reserve(blocks);
    double total = 0;
    for (int i = 0; i < blocks; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        render(out.data(), kBlock);
        const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
        r.blockUs.push_back(ns / 1000.0);
        total += ns;
    }
    // From the median block: the machine is shared, and preempted blocks say nothing
    // about the mixer. The mean is printed beside it.
    std::vector<double> sorted = r.blockUs;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted[sorted.size() / 2] * 1000.0;
    r.nsPerVoiceFrame = median / (double{kBlock} * voices);
    r.coreShare = median / (double{kBlock} / kOutRate * 1e9);
    r.meanShare = total / (static_cast<double>(blocks) * kBlock / kOutRate * 1e9);
    return r;
}

// ---- Ours ----

struct Ours {
    LPDIRECTSOUND ds = nullptr;
    std::vector<LPDIRECTSOUNDBUFFER> bufs;

    Ours(const std::vector<VoiceSetup>& voices, qxplat::Resampler mode)
    {
        if (qxplat::DirectSoundCreateOffline(kOutRate, mode, &ds) != DS_OK) std::abort();
        for (const VoiceSetup& s : voices) {
            WAVEFORMATEX f{};
            f.wFormatTag = WAVE_FORMAT_PCM;
            f.nChannels = static_cast<WORD>(s.channels);
            f.nSamplesPerSec = s.rate;
            f.wBitsPerSample = 16;
            f.nBlockAlign = static_cast<WORD>(2 * s.channels);
            f.nAvgBytesPerSec = s.rate * f.nBlockAlign;
            DSBUFFERDESC d{};
            d.dwSize = sizeof d;
            d.dwFlags = DSBCAPS_CTRLVOLUME | DSBCAPS_CTRLPAN | DSBCAPS_CTRLFREQUENCY;
            d.dwBufferBytes = static_cast<DWORD>(s.pcm.size() * 2);
            d.lpwfxFormat = &f;
            LPDIRECTSOUNDBUFFER b = nullptr;
            if (ds->CreateSoundBuffer(&d, &b, nullptr) != DS_OK) std::abort();
            LPVOID p1, p2;
            DWORD b1, b2;
            b->Lock(0, 0, &p1, &b1, &p2, &b2, DSBLOCK_ENTIREBUFFER);
            std::memcpy(p1, s.pcm.data(), b1);
            b->Unlock(p1, b1, p2, b2);
            b->SetVolume(s.volume);
            b->SetPan(s.pan);
            b->Play(0, 0, DSBPLAY_LOOPING);
            bufs.push_back(b);
        }
    }
    ~Ours()
    {
        for (LPDIRECTSOUNDBUFFER b : bufs) b->Release();
        ds->Release();
    }
    void Render(float* out, DWORD n) { qxplat::DirectSoundRenderOffline(ds, out, n); }
};

// ---- OpenAL Soft ----

#ifdef QUAVIX_HAVE_OPENAL
LPALCLOOPBACKOPENDEVICESOFT p_alcLoopbackOpenDeviceSOFT;
LPALCRENDERSAMPLESSOFT p_alcRenderSamplesSOFT;
LPALGETSTRINGISOFT p_alGetStringiSOFT;

struct OpenAl {
    ALCdevice* dev = nullptr;
    ALCcontext* ctx = nullptr;
    std::vector<ALuint> sources, buffers;
    bool ok = false;

    OpenAl(const std::vector<VoiceSetup>& voices, const char* resampler)
    {
        p_alcLoopbackOpenDeviceSOFT = reinterpret_cast<LPALCLOOPBACKOPENDEVICESOFT>(
            alcGetProcAddress(nullptr, "alcLoopbackOpenDeviceSOFT"));
        p_alcRenderSamplesSOFT =
            reinterpret_cast<LPALCRENDERSAMPLESSOFT>(alcGetProcAddress(nullptr, "alcRenderSamplesSOFT"));
        if (p_alcLoopbackOpenDeviceSOFT == nullptr || p_alcRenderSamplesSOFT == nullptr) return;
        dev = p_alcLoopbackOpenDeviceSOFT(nullptr);
        if (dev == nullptr) return;
        const ALCint attrs[] = {ALC_FORMAT_CHANNELS_SOFT, ALC_STEREO_SOFT, ALC_FORMAT_TYPE_SOFT, ALC_FLOAT_SOFT,
                                ALC_FREQUENCY, static_cast<ALCint>(kOutRate), ALC_MONO_SOURCES, 512,
                                ALC_STEREO_SOURCES, 512, 0};
        ctx = alcCreateContext(dev, attrs);
        if (ctx == nullptr || !alcMakeContextCurrent(ctx)) return;
        p_alGetStringiSOFT = reinterpret_cast<LPALGETSTRINGISOFT>(alGetProcAddress("alGetStringiSOFT"));
        ALint index = -1;
        if (p_alGetStringiSOFT != nullptr) {
            const ALint count = alGetInteger(AL_NUM_RESAMPLERS_SOFT);
            for (ALint i = 0; i < count; ++i)
                if (std::strcmp(p_alGetStringiSOFT(AL_RESAMPLER_NAME_SOFT, i), resampler) == 0) index = i;
        }
        if (index < 0) {
            std::printf("OpenAL Soft has no resampler \"%s\"\n", resampler);
            return;
        }
        for (const VoiceSetup& s : voices) {
            ALuint buf = 0, src = 0;
            alGenBuffers(1, &buf);
            alBufferData(buf, s.channels == 1 ? AL_FORMAT_MONO16 : AL_FORMAT_STEREO16, s.pcm.data(),
                         static_cast<ALsizei>(s.pcm.size() * 2), static_cast<ALsizei>(s.rate));
            alGenSources(1, &src);
            if (alGetError() != AL_NO_ERROR) {
                std::printf("OpenAL Soft made only %zu sources\n", sources.size());
                return;
            }
            alSourcei(src, AL_BUFFER, static_cast<ALint>(buf));
            alSourcei(src, AL_LOOPING, AL_TRUE);
            alSourcei(src, AL_SOURCE_RELATIVE, AL_TRUE);
            alSource3f(src, AL_POSITION, 0.0f, 0.0f, 0.0f);
            alSourcef(src, AL_GAIN, static_cast<ALfloat>(std::pow(10.0, s.volume / 2000.0)));
            alSourcei(src, AL_SOURCE_RESAMPLER_SOFT, index);
            alSourcePlay(src);
            buffers.push_back(buf);
            sources.push_back(src);
        }
        ok = alGetError() == AL_NO_ERROR;
    }
    ~OpenAl()
    {
        if (!sources.empty()) alDeleteSources(static_cast<ALsizei>(sources.size()), sources.data());
        if (!buffers.empty()) alDeleteBuffers(static_cast<ALsizei>(buffers.size()), buffers.data());
        alcMakeContextCurrent(nullptr);
        if (ctx != nullptr) alcDestroyContext(ctx);
        if (dev != nullptr) alcCloseDevice(dev);
    }
    void Render(float* out, DWORD n) { p_alcRenderSamplesSOFT(dev, out, static_cast<ALCsizei>(n)); }
};
#endif

// Power of the best fitting sinusoid at freq, and the residual's.
void Fit(const std::vector<float>& x, double freq, double rate, double& sig, double& noise)
{
    double ss = 0, sc = 0, cc = 0, xs = 0, xc = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double w = 2 * M_PI * freq * i / rate, s = std::sin(w), c = std::cos(w);
        ss += s * s, sc += s * c, cc += c * c, xs += x[i] * s, xc += x[i] * c;
    }
    const double det = ss * cc - sc * sc, a = (xs * cc - xc * sc) / det, b = (xc * ss - xs * sc) / det;
    sig = noise = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double w = 2 * M_PI * freq * i / rate, fit = a * std::sin(w) + b * std::cos(w);
        sig += fit * fit;
        noise += (x[i] - fit) * (x[i] - fit);
    }
}

// SNR (dB) of a tone near freq: the sinusoid that fits best (its frequency searched
// within 0.2 %, since a resampler may shift pitch) against the rest. *pFound gets its
// frequency.
double ToneSnr(const std::vector<float>& x, double freq, double rate, double* pFound)
{
    double lo = freq * 0.998, hi = freq * 1.002;
    double best = freq, bestSig = -1;
    for (int round = 0; round < 3; ++round) {
        const double step = (hi - lo) / 40;
        for (double f = lo; f <= hi; f += step) {
            double sig, noise;
            Fit(x, f, rate, sig, noise);
            if (sig > bestSig) bestSig = sig, best = f;
        }
        lo = best - step, hi = best + step;
    }
    double sig, noise;
    Fit(x, best, rate, sig, noise);
    *pFound = best;
    return 10 * std::log10(sig / std::max(noise, 1e-30));
}

// A one-voice tone at 22050 Hz rendered to 48 kHz; the left channel after a settling time.
template <class Engine, class... Args>
double QualityOf(double tone, double* pFound, Args&&... args)
{
    VoiceSetup s;
    s.rate = 22050;
    s.channels = 1;
    s.volume = 0;
    s.pan = 0;
    s.pcm.resize(22050);
    for (DWORD f = 0; f < 22050; ++f) s.pcm[f] = static_cast<int16_t>(16000.0 * std::sin(2 * M_PI * tone * f / 22050));
    Engine e({s}, std::forward<Args>(args)...);
    std::vector<float> out(2 * 48000);
    for (DWORD at = 0; at < 48000; at += kBlock) e.Render(out.data() + 2 * at, kBlock);
    std::vector<float> left;
    for (size_t i = 2 * 1000; i < out.size(); i += 2) left.push_back(out[i]);
    return ToneSnr(left, tone, 48000, pFound);
}

void PrintResult(const char* who, const char* mode, int voices, const Result& r)
{
    char what[192];
    std::snprintf(what, sizeof what,
                  "%-6s %-6s %3d voices: %6.2f ns/voice-frame, %5.1f %% of a core (mean %5.1f %%); 5 ms block", who,
                  mode, voices, r.nsPerVoiceFrame, 100.0 * r.coreShare, 100.0 * r.meanShare);
    PrintStats(what, r.blockUs);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::max(0.1, std::atof(argv[1])) : 2.0;
#ifdef QUAVIX_HAVE_OPENAL
    // OpenAL Soft's source limit comes from its configuration; raise it for 512 voices.
    const std::string conf = "/tmp/quavix-bench-alsoft-" + std::to_string(getpid()) + ".conf";
    if (FILE* f = std::fopen(conf.c_str(), "w")) {
        std::fputs("[general]\nsources = 1100\n", f);
        std::fclose(f);
        setenv("ALSOFT_CONF", conf.c_str(), 1);
    }
#endif
    struct Mode {
        const char* name;
        qxplat::Resampler ours;
        const char* openal;
    };
    const Mode modes[] = {{"linear", qxplat::Resampler::Linear, "Linear"},
                          {"cubic", qxplat::Resampler::Cubic, "Cubic"},
                          {"sinc", qxplat::Resampler::Sinc, "23rd order Sinc"}};
    std::printf("mixer_voices: %.1f s of 48 kHz stereo per run, in 5 ms blocks; voices 16-bit mono and stereo, "
                "8-96 kHz, looping\n",
                seconds);
    for (const Mode& m : modes) {
        for (int voices : {1, 16, 64, 256, 512}) {
            if (m.ours == qxplat::Resampler::Sinc && voices != 64) continue; // the sinc mode is for few voices
            const std::vector<VoiceSetup> setups = MakeVoices(voices);
            Result ours;
            {
                Ours e(setups, m.ours);
                ours = TimeRender(voices, seconds, [&](float* out, DWORD n) { e.Render(out, n); });
            }
            PrintResult("quavix", m.name, voices, ours);
#ifdef QUAVIX_HAVE_OPENAL
            OpenAl al(setups, m.openal);
            if (al.ok) {
                const Result theirs = TimeRender(voices, seconds, [&](float* out, DWORD n) { al.Render(out, n); });
                PrintResult("openal", m.name, voices, theirs);
                std::printf("ratio  %-6s %3d voices: quavix/openal time = %.2f\n", m.name, voices,
                            ours.nsPerVoiceFrame / theirs.nsPerVoiceFrame);
            }
#endif
        }
    }
    for (const Mode& m : modes) {
        double f1, f8;
        const double q1 = QualityOf<Ours>(1000.0, &f1, m.ours), q8 = QualityOf<Ours>(8000.0, &f8, m.ours);
        std::printf("quality %-6s 22050->48000 Hz: SNR 1 kHz %.1f dB, 8 kHz %.1f dB (quavix, tones at %.2f / %.2f Hz)",
                    m.name, q1, q8, f1, f8);
#ifdef QUAVIX_HAVE_OPENAL
        const double a1 = QualityOf<OpenAl>(1000.0, &f1, m.openal), a8 = QualityOf<OpenAl>(8000.0, &f8, m.openal);
        std::printf("; %.1f dB, %.1f dB (openal \"%s\", tones at %.2f / %.2f Hz)", a1, a8, m.openal, f1, f8);
#endif
        std::printf("\n");
    }
#ifdef QUAVIX_HAVE_OPENAL
    std::remove(conf.c_str());
#endif
    return 0;
}

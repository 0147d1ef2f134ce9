// Recording one wave input on the virtual backend (48 kHz stereo float source) through
// the manager: the CPU share with and without conversion to 22,050 Hz 16-bit mono, the
// conversion's SNR for a 1 kHz tone, and how long a sample takes from the source to
// the recording callback.
#include <quavix/Quavix.h>

#include "BenchStats.h"

#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <numbers>
#include <thread>
#include <vector>

namespace {

int64_t NowUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double CpuSeconds()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

QX_DevFormat Format(WORD tag, DWORD rate, WORD channels, WORD bits)
{
    const auto block = static_cast<WORD>(channels * bits / 8);
    return QX_DevFormat{tag, channels, rate, rate * block, block, bits, 0};
}

struct Take {
    std::mutex mutex;
    std::vector<BYTE> bytes;
    std::vector<int64_t> arrivedUs; // when each buffer reached the callback
    static int Proc(DWORD_PTR user, int, CQXEventData* e)
    {
        if (e->m_nType != QX_EVENT_WAVEHEADER) return 1;
        const int64_t now = NowUs();
        auto* t = reinterpret_cast<Take*>(user);
        const auto* h = reinterpret_cast<const WAVEHDR*>(e->m_dwData);
        std::lock_guard<std::mutex> lock(t->mutex);
        t->bytes.insert(t->bytes.end(), h->lpData, h->lpData + h->dwBytesRecorded);
        t->arrivedUs.push_back(now);
        return 1;
    }
};

struct Run {
    double cpuShare = 0;
    int64_t startUs = 0;
    Take take;
};

void Record(QX_DevFormat format, double seconds, Run& run)
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &format);
    const int tag = q->StartRecording(Take::Proc, reinterpret_cast<DWORD_PTR>(&run.take), 1);
    q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0);
    const double cpu0 = CpuSeconds();
    run.startUs = NowUs();
    if (!q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)) {
        std::fprintf(stderr, "wave_record: cannot start wave input 0\n");
        std::exit(1);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpu = CpuSeconds() - cpu0, wall = static_cast<double>(NowUs() - run.startUs) / 1e6;
    q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0);
    q->StopRecording(tag);
    CQuavix::ExitQuavix();
    run.cpuShare = cpu / wall;
}

// A fitted 1 kHz sine against what is left over, in dB; past the converter's start.
double SnrDb(const std::vector<double>& s, double rate)
{
    const size_t from = static_cast<size_t>(rate / 10), n = static_cast<size_t>(rate) * 4; // whole cycles
    if (s.size() < from + n) return 0;
    double c = 0, si = 0;
    for (size_t i = from; i < from + n; ++i) {
        const double w = 2 * std::numbers::pi * 1000.0 * static_cast<double>(i) / rate;
        c += s[i] * std::cos(w);
        si += s[i] * std::sin(w);
    }
    c *= 2.0 / static_cast<double>(n);
    si *= 2.0 / static_cast<double>(n);
    double signal = 0, noise = 0;
    for (size_t i = from; i < from + n; ++i) {
        const double w = 2 * std::numbers::pi * 1000.0 * static_cast<double>(i) / rate;
        const double fit = c * std::cos(w) + si * std::sin(w);
        signal += fit * fit;
        noise += (s[i] - fit) * (s[i] - fit);
    }
    return 10 * std::log10(signal / std::max(noise, 1e-30));
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10.0;
    setenv("QUAVIX_BACKEND", "virtual", 1);
    setenv("QUAVIX_VIRTUAL_DEVICES", "wave-in=1,wave-out=0", 1);
    setenv("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "sine:1000", 1);
    std::printf("wave_record: one virtual wave input, 48 kHz stereo float source (a 1 kHz sine at -6 dBFS), %.0f s a run\n",
                seconds);

    Run plain, converted, precise;
    Record(Format(WAVE_FORMAT_PCM, 48000, 2, 16), seconds, plain);
    Record(Format(WAVE_FORMAT_PCM, 22050, 1, 16), seconds, converted);
    Record(Format(WAVE_FORMAT_IEEE_FLOAT, 22050, 1, 32), 5.0, precise);
    std::printf("CPU share of one core (whole process, the virtual source included):\n");
    std::printf("  48000 Hz 16-bit stereo (no rate conversion):  %.2f %%\n", 100 * plain.cpuShare);
    std::printf("  22050 Hz 16-bit mono (libsamplerate):         %.2f %%\n", 100 * converted.cpuShare);
    std::printf("  the conversion's own share:                   %.2f %%\n",
                100 * (converted.cpuShare - plain.cpuShare));

    std::vector<double> s16, s32;
    for (size_t i = 0; i + 1 < converted.take.bytes.size(); i += 2)
        s16.push_back(static_cast<int16_t>(converted.take.bytes[i] | (converted.take.bytes[i + 1] << 8)) / 32768.0);
    for (size_t i = 0; i + 3 < precise.take.bytes.size(); i += 4) {
        float f;
        std::memcpy(&f, &precise.take.bytes[i], 4);
        s32.push_back(f);
    }
    std::printf("SNR of the 1 kHz tone converted 48000 -> 22050 Hz: %.1f dB as 32-bit float (the converter), "
                "%.1f dB as 16-bit (with its quantisation)\n",
                SnrDb(s32, 22050), SnrDb(s16, 22050));

    // Buffer k holds source samples [k, k+1) half seconds after the start: its last
    // sample entered the source then, its first half a second before.
    std::vector<double> last, first;
    for (size_t k = 0; k < converted.take.arrivedUs.size(); ++k) {
        const double endUs = static_cast<double>(converted.startUs) + (static_cast<double>(k) + 1) * 500000.0;
        last.push_back(static_cast<double>(converted.take.arrivedUs[k]) - endUs);
        first.push_back(static_cast<double>(converted.take.arrivedUs[k]) - endUs + 500000.0);
    }
    PrintStats("source to callback, a buffer's last sample", last);
    PrintStats("source to callback, a buffer's first sample", first);
    return 0;
}

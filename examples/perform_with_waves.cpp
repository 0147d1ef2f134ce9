// Wave files as events of a performance: each wave event names a file, a track of the
// performance and the time it starts, so that the sound keeps time with the MIDI that
// the same callback hands over. Here a tone sounds at 0 and its octave at 400 ms, each
// under a MIDI note; the performance ends once both have played.
//
//   QUAVIX_BACKEND=virtual ./perform_with_waves
#include <quavix/Quavix.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A quarter of a second of a sine, 16-bit mono at 22.05 kHz, as plain RIFF bytes.
bool WriteTone(const std::string& path, double hz)
{
    const uint32_t rate = 22050, frames = rate / 4, bytes = frames * 2;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const uint32_t riff = 36 + bytes, fmtSize = 16, byteRate = rate * 2;
    const uint16_t pcm = 1, channels = 1, align = 2, bits = 16;
    std::fwrite("RIFF", 1, 4, f);
    std::fwrite(&riff, 4, 1, f); // the file is little-endian, like the machine
    std::fwrite("WAVEfmt ", 1, 8, f);
    std::fwrite(&fmtSize, 4, 1, f);
    std::fwrite(&pcm, 2, 1, f);
    std::fwrite(&channels, 2, 1, f);
    std::fwrite(&rate, 4, 1, f);
    std::fwrite(&byteRate, 4, 1, f);
    std::fwrite(&align, 2, 1, f);
    std::fwrite(&bits, 2, 1, f);
    std::fwrite("data", 1, 4, f);
    std::fwrite(&bytes, 4, 1, f);
    for (uint32_t i = 0; i < frames; ++i) {
        const auto s = static_cast<int16_t>(12000 * std::sin(2 * M_PI * hz * i / rate));
        std::fwrite(&s, 2, 1, f);
    }
    return std::fclose(f) == 0;
}

struct Cue {
    DWORD at;        // ms of performance time
    std::string path;
    BYTE key;        // the MIDI note under it
    bool handed = false;
};

struct Show {
    CQuavix* manager;
    std::vector<Cue> cues;
};

// Called on the engine's thread for [start, end) in ms of performance time.
int OnPeriod(DWORD_PTR user, int tag, DWORD /*start*/, DWORD end)
{
    auto* show = reinterpret_cast<Show*>(user);
    if (tag < 0) return 1; // a sync notification: only in slave mode
    CQXEventList events;
    for (size_t i = 0; i < show->cues.size(); ++i) {
        Cue& cue = show->cues[i];
        if (cue.handed || cue.at >= end) continue;
        cue.handed = true;
        auto* params = new QX_WaveParams{};
        params->nPerformance = tag; // the performance's players leave with it
        params->nTrack = int(i) + 1; // a track each: one file does not cut off another
        params->dsParams.lpszFileName = cue.path.c_str();
        params->dsParams.lVolume = -300; // hundredths of a dB
        auto* wave = new CQXEventData;
        wave->SetWaveData(params); // the event owns the parameters
        wave->SetTimeStamp(cue.at);
        wave->SetDevice(0); // wave output 0
        events.AddTail(wave);
        auto* on = new CQXEventData;
        on->SetMidiData(0x90 | (cue.key << 8) | (90 << 16));
        on->SetTimeStamp(cue.at);
        auto* off = new CQXEventData;
        off->SetMidiData(0x80 | (cue.key << 8));
        off->SetTimeStamp(cue.at + 250);
        events.AddTail(on);
        events.AddTail(off);
    }
    show->manager->PlayBuffer(events);
    // Ending the performance would stop its players: it runs until they have played.
    return 1;
}

} // namespace

int main()
{
    const std::string base = "/tmp/quavix-example-" + std::to_string(getpid());
    Show show{nullptr, {{0, base + "-a.wav", 57}, {400, base + "-b.wav", 69}}};
    if (!WriteTone(show.cues[0].path, 220.0) || !WriteTone(show.cues[1].path, 440.0)) {
        std::fprintf(stderr, "perform_with_waves: cannot write the tones\n");
        return 1;
    }
    CQuavix* q = CQuavix::InitQuavix();
    show.manager = q;
    q->Initialize(QX_INIT_MIDI | QX_INIT_WAVE);
    int status = 1;
    if (q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT) == 0 || q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT) == 0) {
        std::fprintf(stderr, "perform_with_waves: needs a wave output and a MIDI output\n");
    } else {
        // Only MIDI output 0 and wave output 0 take part in the group transport.
        for (int n = 0; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_IN); ++n)
            q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, n, 0);
        for (int n = 1; n < q->GetDeviceCount(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT); ++n)
            q->EnableDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, n, 0);
        for (int n = 1; n < q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT); ++n)
            q->EnableDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, n, 0);
        const int tag = q->StartPerformance(OnPeriod, reinterpret_cast<DWORD_PTR>(&show), 1, 0);
        // The periods written on opening are asked of no performance: their events go
        // in first.
        OnPeriod(reinterpret_cast<DWORD_PTR>(&show), tag, 0, q->GetPerformanceLatency());
        q->OpenDevices();
        q->StartDevices(); // MIDI output 0 paces the engine; the wave output keeps time with it

        // Each player takes its track when it starts and leaves it when it has played.
        auto* out = dynamic_cast<CWaveOut*>(q->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0));
        const DWORD last = show.cues.back().at + DWORD(CWaveFile::FileDuration(show.cues.back().path.c_str()));
        bool sounding = true;
        while (q->GetElapsedPlayTime() < last + 300 || sounding) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            sounding = false;
            for (size_t i = 0; i < show.cues.size(); ++i)
                if (out != nullptr && out->GetTrackParameters(tag, int(i) + 1, nullptr)) sounding = true;
            if (q->GetElapsedPlayTime() > last + 5000) break; // never hang
        }
        std::printf("played %zu wave events and %zu notes in %.1f s\n", show.cues.size(), show.cues.size(),
                    q->GetElapsedPlayTime() / 1000.0);
        q->StopPerformance(tag);
        q->CloseDevices();
        status = 0;
    }
    CQuavix::ExitQuavix();
    for (const Cue& cue : show.cues) std::remove(cue.path.c_str());
    return status;
}

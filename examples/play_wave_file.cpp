// A wave file played at once: PlayWaveFile starts it on a wave output, the player
// streams it from disk, calls back when it has played out and then deletes itself.
// The example writes its own short tone first, with the library's wave file writer
// (to a temporary file, or to TONE.wav, which it then keeps).
//
//   QUAVIX_BACKEND=virtual ./play_wave_file [TONE.wav]
#include <quavix/Quavix.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Half a second of A (440 Hz), 16-bit mono at 44.1 kHz, at half of full scale.
bool WriteTone(const std::string& path)
{
    QX_DevFormat format{WAVE_FORMAT_PCM, 1, 44100, 44100 * 2, 2, 16, 0};
    std::vector<int16_t> samples(44100 / 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<int16_t>(16384 * std::sin(2 * M_PI * 440.0 * double(i) / 44100.0));
    CWaveFileWrite file;
    file.SetFilename(path.c_str());
    file.SetFormat(&format);
    if (!file.Open(0)) return false;
    WAVEHDR header{};
    header.lpData = reinterpret_cast<LPSTR>(samples.data());
    header.dwBytesRecorded = DWORD(samples.size() * sizeof(int16_t));
    const bool ok = file.Write(&header) == long(header.dwBytesRecorded);
    return file.Close() == 1 && ok;
}

std::atomic<bool> g_done{false};

// Called on one of the player's threads once it has stopped.
void OnPlayed(DWORD_PTR /*user*/, DWORD player)
{
    std::printf("player %u has played the file\n", unsigned(player));
    g_done = true;
}

} // namespace

int main(int argc, char** argv)
{
    const bool keep = argc > 1;
    const std::string path = keep ? argv[1] : "/tmp/quavix-example-tone-" + std::to_string(getpid()) + ".wav";
    if (!WriteTone(path)) {
        std::fprintf(stderr, "play_wave_file: cannot write %s\n", path.c_str());
        return 1;
    }
    std::printf("%s: %ld ms\n", path.c_str(), CWaveFile::FileDuration(path.c_str()));

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    int status = 1;
    if (q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT) == 0) {
        std::fprintf(stderr, "play_wave_file: no wave output\n");
    } else {
        // The output's mix runs while it is started.
        q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0);
        q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0);
        if (q->PlayWaveFile(path.c_str(), 0, OnPlayed, 0) == 0) {
            std::fprintf(stderr, "play_wave_file: wave output 0 cannot play %s\n", path.c_str());
        } else {
            for (int i = 0; i < 100 && !g_done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            status = g_done ? 0 : 1;
        }
        q->CloseDevices();
    }
    CQuavix::ExitQuavix();
    if (!keep) std::remove(path.c_str());
    return status;
}

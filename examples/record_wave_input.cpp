// A few seconds of wave input 0 recorded to a file: the recording callback gets every
// filled buffer as a wave-header event and hands it straight to the wave file writer.
// Buffers come every half second on the input's own thread.
//
//   QUAVIX_BACKEND=virtual ./record_wave_input [TAKE.wav] [SECONDS]
#include <quavix/Quavix.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<long> g_bytes{0};
std::atomic<bool> g_failed{false};

int OnRecorded(DWORD_PTR user, int /*tag*/, CQXEventData* event)
{
    if (event->m_nType != QX_EVENT_WAVEHEADER) return 1; // MIDI input would come here too
    auto* file = reinterpret_cast<CWaveFileWrite*>(user);
    auto* header = reinterpret_cast<WAVEHDR*>(event->m_dwData);
    // The buffer is the input's again once this returns: write it now.
    const long written = file->Write(header);
    if (written < 0) g_failed = true;
    else g_bytes += written;
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    const bool keep = argc > 1;
    const std::string path = keep ? argv[1] : "/tmp/quavix-example-take-" + std::to_string(getpid()) + ".wav";
    const double seconds = argc > 2 ? std::atof(argv[2]) : 2.0;

    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    if (q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_IN) == 0) {
        std::fprintf(stderr, "record_wave_input: no wave input\n");
        CQuavix::ExitQuavix();
        return 1;
    }
    // 44.1 kHz 16-bit stereo; the input converts from whatever the sound system gives.
    QX_DevFormat format{WAVE_FORMAT_PCM, 2, 44100, 44100 * 4, 4, 16, 0};
    q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &format);

    CWaveFileWrite file;
    file.SetFilename(path.c_str());
    file.SetFormat(&format);
    if (!file.Open(0)) {
        std::fprintf(stderr, "record_wave_input: cannot write %s\n", path.c_str());
        CQuavix::ExitQuavix();
        return 1;
    }
    const int tag = q->StartRecording(OnRecorded, reinterpret_cast<DWORD_PTR>(&file), 1);
    if (!q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0) || !q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0)) {
        std::fprintf(stderr, "record_wave_input: cannot record from wave input 0\n");
        CQuavix::ExitQuavix();
        return 1;
    }
    const long want = long(seconds * format.nAvgBytesPerSec);
    while (g_bytes < want && !g_failed) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    q->CloseDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0); // no callback comes after this
    q->StopRecording(tag);
    file.Close();
    CQuavix::ExitQuavix();

    std::printf("%s: %ld ms recorded\n", path.c_str(), CWaveFile::FileDuration(path.c_str()));
    if (!keep) unlink(path.c_str());
    return g_failed || g_bytes < want ? 1 : 0;
}

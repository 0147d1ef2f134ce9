// Injects channel messages into a virtual MIDI input at random intervals with MIDI thru
// on, and reports how long each took to come out of the thru output and to reach the
// recording callback.
//
//   midi_thru [--messages N]
#include <quavix/Quavix.h>

#include "BenchStats.h"
#include "platform/QXPlatform.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

using qxplat::NowNs;

struct Received {
    std::vector<int64_t> at; // indexed by message number, written on the input's thread
    std::atomic<int> count{0};
};

DWORD MessageFor(int i)
{
    // Channel, key and velocity together name the message (velocity 1..127: never an off).
    return 0x90u | static_cast<DWORD>(i % 16) | static_cast<DWORD>((i / 16) % 128) << 8 |
           static_cast<DWORD>(1 + (i / 2048) % 127) << 16;
}

int Index(DWORD msg)
{
    int ch = msg & 0x0F, key = (msg >> 8) & 0x7F, vel = (msg >> 16) & 0x7F;
    return ch + 16 * key + 2048 * (vel - 1);
}

int RecordProc(DWORD_PTR user, int, CQXEventData* e)
{
    auto* r = reinterpret_cast<Received*>(user);
    int i = Index(static_cast<DWORD>(e->m_dwData));
    if (i >= 0 && static_cast<size_t>(i) < r->at.size()) r->at[static_cast<size_t>(i)] = NowNs();
    ++r->count;
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    int n = 10000;
    for (int i = 1; i + 1 < argc; i += 2)
        if (std::strcmp(argv[i], "--messages") == 0) n = std::atoi(argv[i + 1]);
    if (n < 1 || n > 16 * 128 * 127) n = 10000;

    qxplat::QXVirtualSetDevices(1, 2, 0, 0);
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_MIDI);
    Received rec;
    rec.at.assign(static_cast<size_t>(n), 0);
    q->StartRecording(RecordProc, reinterpret_cast<DWORD_PTR>(&rec), 1);
    q->EnableMidiThru(1);
    q->ConnectMidiThru(1, -1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_OUT, 1);
    q->OpenDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    q->StartDevice(QX_DEVTYPE_MIDI, QX_DEVDIR_IN, 0);
    qxplat::QXVirtualTakeMidiOut(1);

    std::vector<int64_t> sent(static_cast<size_t>(n));
    std::mt19937 rng(42);
    std::uniform_int_distribution<int> gapUs(100, 2000);
    for (int i = 0; i < n; ++i) {
        const DWORD msg = MessageFor(i);
        const BYTE bytes[3] = {static_cast<BYTE>(msg), static_cast<BYTE>(msg >> 8), static_cast<BYTE>(msg >> 16)};
        const int64_t now = NowNs();
        sent[static_cast<size_t>(i)] = now;
        qxplat::QXVirtualInjectMidiIn(0, bytes, 3, now);
        std::this_thread::sleep_for(std::chrono::microseconds(gapUs(rng)));
    }
    for (int i = 0; i < 3000 && rec.count.load() < n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    q->StopDevices(); // the recordings are all in once the input has stopped
    auto out = qxplat::QXVirtualTakeMidiOut(1);

    std::vector<double> thru, record;
    size_t lost = 0;
    std::vector<char> seen(static_cast<size_t>(n), 0);
    for (auto& m : out) {
        if (m.bytes.size() != 3) continue;
        int i = Index(m.bytes[0] | DWORD{m.bytes[1]} << 8 | DWORD{m.bytes[2]} << 16);
        if (i < 0 || i >= n || seen[static_cast<size_t>(i)]) continue;
        seen[static_cast<size_t>(i)] = 1;
        thru.push_back((m.timeNs - sent[static_cast<size_t>(i)]) / 1000.0);
    }
    for (int i = 0; i < n; ++i) {
        if (!seen[static_cast<size_t>(i)]) ++lost;
        if (rec.at[static_cast<size_t>(i)] != 0)
            record.push_back((rec.at[static_cast<size_t>(i)] - sent[static_cast<size_t>(i)]) / 1000.0);
    }
    std::printf("messages=%d thru-out=%zu recorded=%d lost-on-thru=%zu\n", n, thru.size(), rec.count.load(), lost);
    PrintStats("injection to thru output", thru);
    PrintStats("injection to recording callback", record);
    CQuavix::ExitQuavix();
    return lost == 0 && rec.count.load() == n ? 0 : 1;
}

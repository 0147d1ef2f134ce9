// Recording through the wave input device on a real JACK server (dummy driver), with our
// own wave output as the source: its ports are connected to our input ports, a file is
// played with PlayWaveFile, and what the recording callbacks receive is compared with
// the file. A continuous sine for a minute checks that no sample is lost or repeated
// between buffers; a sweep checks that the recording is the file.
//
// Environment (set by CTest): JACK_DEFAULT_SERVER names the fixture's server,
// QUAVIX_BACKEND=jack.
#include <quavix/Quavix.h>

#include "analysis.h"
#include "harness.h"
#include "jack_clients.h"

#include <gtest/gtest.h>
#include <jack/jack.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr DWORD kRate = 48000; // the fixture server's

std::string WriteWav(const std::string& name, const std::vector<int16_t>& samples)
{
    const std::string path = "/tmp/quavix-jack-record-" + std::to_string(getpid()) + "-" + name;
    QX_DevFormat f{WAVE_FORMAT_PCM, 1, kRate, kRate * 2, 2, 16, 0};
    CWaveFileWrite file;
    file.SetFilename(path.c_str());
    file.SetFormat(&f);
    EXPECT_EQ(file.Open(0), 1);
    WAVEHDR h{};
    h.lpData = reinterpret_cast<LPSTR>(const_cast<int16_t*>(samples.data()));
    h.dwBytesRecorded = static_cast<DWORD>(samples.size() * 2);
    EXPECT_EQ(file.Write(&h), static_cast<long>(h.dwBytesRecorded));
    EXPECT_EQ(file.Close(), 1);
    return path;
}

struct Take {
    std::mutex mutex;
    std::vector<int16_t> samples;
    static int Proc(DWORD_PTR user, int, CQXEventData* e)
    {
        if (e->m_nType != QX_EVENT_WAVEHEADER) return 1;
        auto* t = reinterpret_cast<Take*>(user);
        const auto* h = reinterpret_cast<const WAVEHDR*>(e->m_dwData);
        const auto* p = reinterpret_cast<const int16_t*>(h->lpData);
        std::lock_guard<std::mutex> lock(t->mutex);
        t->samples.insert(t->samples.end(), p, p + h->dwBytesRecorded / 2);
        return 1;
    }
    size_t Size()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return samples.size();
    }
};

// Plays a file on wave output 0 into wave input 0 and records until `seconds` of sound
// have come (48 kHz 16-bit mono); the take starts before the sound does.
std::vector<int16_t> PlayAndRecord(const std::string& file, double seconds)
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_IN), 1);
    EXPECT_EQ(q->GetDeviceCount(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT), 1);
    QX_DevFormat f{WAVE_FORMAT_PCM, 1, kRate, kRate * 2, 2, 16, 0};
    q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &f);
    Take take;
    const int tag = q->StartRecording(Take::Proc, reinterpret_cast<DWORD_PTR>(&take), 1);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    const jackclients::Probe probe;
    for (const char* side : {"1", "2"}) // nothing but our output into our input
        EXPECT_TRUE(probe.ConnectOnly(probe.Find(std::string("^quavix[^:]*:out_") + side + "$", JackPortIsOutput),
                                      probe.Find(std::string("^quavix[^:]*:in_") + side + "$", JackPortIsInput)));
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_NE(q->PlayWaveFile(file.c_str(), 0, nullptr, 0), 0);
    const size_t want = static_cast<size_t>((seconds + 1.0) * kRate);
    harness::Await([&] { return take.Size() >= want; }, std::chrono::seconds(static_cast<int>(seconds) + 10));
    q->CloseDevices();
    q->StopRecording(tag);
    CQuavix::ExitQuavix();
    std::lock_guard<std::mutex> lock(take.mutex);
    EXPECT_GE(take.samples.size(), want);
    return take.samples;
}

size_t Onset(const std::vector<int16_t>& s)
{
    for (size_t i = 0; i < s.size(); ++i)
        if (std::abs(s[i]) > 1000) return i;
    return s.size();
}

} // namespace

// A minute of a 1 kHz sine from our output comes back through our input with every
// sample where it belongs: one lost or repeated sample would shift the phase by 7.5°,
// thousands of steps of 16 bits.
TEST(JackRecord, AMinuteOfSineFromOurOutputHasNoGap)
{
    const int kSeconds = 60;
    std::vector<int16_t> sine(static_cast<size_t>(kSeconds + 3) * kRate);
    for (size_t i = 0; i < sine.size(); ++i)
        sine[i] = static_cast<int16_t>(std::lround(16384 * std::sin(2 * std::numbers::pi * 1000.0 * double(i) / kRate)));
    const std::string file = WriteWav("sine.wav", sine);
    const std::vector<int16_t> s = PlayAndRecord(file, kSeconds);
    unlink(file.c_str());
    size_t from = Onset(s) + 4800; // past the first cycles
    const size_t end = from + static_cast<size_t>(kSeconds - 2) * kRate;
    ASSERT_LT(end, s.size()) << "the sound did not come";
    // The phase of one second (a whole number of cycles), then every sample against the
    // sine it continues. A break with silence in it is our output running dry under load
    // (the server's dummy driver does not wait for us): the check starts again after it.
    // A break without silence is a sample lost or repeated by the input: a failure.
    // The end of the first run of at least 16 quiet samples in [a, b), or 0 for none;
    // a run that goes on past b is followed to its end.
    auto quietEnd = [&](size_t a, size_t b) -> size_t {
        for (size_t i = a, run = 0; i < s.size(); ++i) {
            run = std::abs(s[i]) < 50 ? run + 1 : 0;
            if (run == 0 && i >= b) return 0;
            if (run >= 16 && (i + 1 == s.size() || std::abs(s[i + 1]) >= 50)) return i + 1;
        }
        return 0;
    };
    size_t underruns = 0, breaks = 0;
    while (from + kRate < end) {
        if (const size_t q = quietEnd(from, from + kRate)) { // no phase to fit across a dropout
            ++underruns;
            from = q + 4800;
            continue;
        }
        double c = 0, si = 0;
        for (size_t i = from; i < from + kRate; ++i) {
            const double w = 2 * std::numbers::pi * 1000.0 * double(i) / kRate;
            c += s[i] * std::cos(w);
            si += s[i] * std::sin(w);
        }
        const double phase = std::atan2(c, si), amp = 2 * std::hypot(c, si) / double(kRate);
        EXPECT_NEAR(amp, 16384, 50);
        size_t bad = end;
        for (size_t i = from; i < end && bad == end; ++i)
            if (std::abs(s[i] - amp * std::sin(2 * std::numbers::pi * 1000.0 * double(i) / kRate + phase)) > 8) bad = i;
        if (bad == end) break;
        if (const size_t q = quietEnd(bad > 512 ? bad - 512 : 0, bad + 4096)) {
            ++underruns;
            from = q + 4800;
        } else {
            ++breaks;
            ADD_FAILURE() << "a sample lost or repeated at " << double(bad) / kRate << " s of the take";
            from = bad + 4800;
        }
    }
    EXPECT_EQ(breaks, 0u);
    if (underruns > 0)
        std::printf("note: our output ran dry %zu times (machine load); the input lost nothing\n", underruns);
}

// A sweep from our output is what our input records: between any dropouts of our output
// (runs of silence; its ring runs dry when the loaded machine wakes the mixer late), each
// stretch of the take matches the sweep with a normalised cross-correlation of at least
// 0.99 at one offset, and is the sweep there sample by sample; a sample the input lost or
// repeated would shift the rest of its stretch. A dropout may only move the offset on by
// up to its own length.
TEST(JackRecord, ASweepFromOurOutputIsWhatOurInputRecords)
{
    std::vector<int16_t> sweep(3 * kRate);
    double phase = 0;
    for (size_t i = 0; i < sweep.size(); ++i) {
        const double hz = 100.0 * std::pow(120.0, double(i) / double(sweep.size())); // 100 Hz to 12 kHz
        phase += 2 * std::numbers::pi * hz / kRate;
        sweep[i] = static_cast<int16_t>(std::lround(12000 * std::sin(phase)));
    }
    const std::string file = WriteWav("sweep.wav", sweep);
    const std::vector<int16_t> s = PlayAndRecord(file, 3.5);
    unlink(file.c_str());
    const size_t onset = Onset(s);
    ASSERT_LT(onset, s.size()) << "the sound did not come";
    // Correlation of take[from, to) with the sweep shifted by `lag` (take index − sweep
    // index), over the part the sweep covers.
    const std::vector<float> take(s.begin(), s.end()), src(sweep.begin(), sweep.end());
    auto correlate = [&](size_t from, size_t to, ptrdiff_t lag) {
        const ptrdiff_t a = std::max<ptrdiff_t>(0, ptrdiff_t(from) - lag), b = std::max(a, ptrdiff_t(to) - lag);
        return analysis::Correlation(take, src, lag, size_t(a), size_t(b));
    };
    // The first loud sample is within a few samples of the sweep's start.
    ptrdiff_t lo = ptrdiff_t(onset) - 200, hi = ptrdiff_t(onset) + 200;
    size_t from = onset, checked = 0, dropouts = 0;
    while (from < s.size()) {
        // The stretch ends at the next run of 16 quiet samples.
        size_t to = from, run = 0;
        for (; to < s.size() && run < 16; ++to) run = std::abs(s[to]) < 50 ? run + 1 : 0;
        if (run >= 16) to -= 16;
        size_t quietEnd = to;
        while (quietEnd < s.size() && std::abs(s[quietEnd]) < 50) ++quietEnd;
        if (to - from < kRate / 20) { // too short to tell one offset from another
            if (quietEnd == s.size()) break;
            ++dropouts;
            hi += ptrdiff_t(quietEnd - from);
            from = quietEnd;
            continue;
        }
        double best = -1;
        ptrdiff_t bestLag = lo;
        for (ptrdiff_t lag = lo; lag <= hi; ++lag)
            if (const double r = correlate(from, to, lag); r > best) best = r, bestLag = lag;
        EXPECT_GE(best, 0.99) << "stretch " << double(from) / kRate << "–" << double(to) / kRate
                              << " s of the take, at offset " << bestLag;
        // And sample by sample: at 100 Hz a sample lost shifts the rest by 150 steps.
        for (size_t i = from; i < to; ++i) {
            const ptrdiff_t k = ptrdiff_t(i) - bestLag;
            if (k < 0 || k >= ptrdiff_t(sweep.size()) || std::abs(s[i] - sweep[size_t(k)]) <= 8) continue;
            ADD_FAILURE() << "sample " << double(i) / kRate << " s into the take is " << s[i] << ", not "
                          << sweep[size_t(k)];
            break;
        }
        checked += to - from;
        // The stretch that reaches the sweep's end (or the take's) is the last.
        if (ptrdiff_t(to) - bestLag >= ptrdiff_t(sweep.size()) - 16 || quietEnd == s.size()) break;
        ++dropouts;
        lo = bestLag - 16;
        hi = bestLag + ptrdiff_t(quietEnd - to) + 16;
        from = quietEnd;
    }
    EXPECT_GE(checked, sweep.size() / 2) << "too little of the sweep came between dropouts to judge";
    if (dropouts > 0)
        std::printf("note: our output ran dry %zu times (machine load); every stretch matched\n", dropouts);
}

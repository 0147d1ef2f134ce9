// The wave input device recording our own wave output on a real JACK server: a sweep
// played with PlayWaveFile must come back sample for sample, over a take long enough
// for every ring and buffer on the way to wrap many times.
#include <quavix/Quavix.h>

#include "analysis.h"
#include "harness.h"
#include "devices.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>

namespace {

constexpr DWORD kRate = 48000; // the fixture server's

std::atomic<int> g_overruns{0};

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
};

// Plays a file on wave output 0, connected alone to wave input 0, and records 48 kHz
// 16-bit mono until `seconds` have come; the take starts before the sound does.
std::vector<int16_t> PlayAndRecord(const std::string& file, double seconds)
{
    CQuavix* q = CQuavix::InitQuavix();
    q->Initialize(QX_INIT_WAVE);
    q->SetNotificationCallback([](DWORD code, DWORD, DWORD_PTR) { g_overruns += code == QXN_WAVEIN_OVERRUN; }, 0);
    QX_DevFormat f{WAVE_FORMAT_PCM, 1, kRate, kRate * 2, 2, 16, 0};
    q->SetDeviceFormat(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0, &f);
    Take take;
    const int tag = q->StartRecording(Take::Proc, reinterpret_cast<DWORD_PTR>(&take), 1);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(q->OpenDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    const dev::Probe probe;
    for (const char* side : {"1", "2"})
        EXPECT_TRUE(probe.ConnectOnly(probe.Find(std::string("^quavix[^:]*:out_") + side + "$", JackPortIsOutput),
                                      probe.Find(std::string("^quavix[^:]*:in_") + side + "$", JackPortIsInput)));
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, 0), 1);
    EXPECT_EQ(q->StartDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_IN, 0), 1);
    EXPECT_NE(q->PlayWaveFile(file.c_str(), 0, nullptr, 0), 0);
    const size_t want = static_cast<size_t>((seconds + 1.0) * kRate);
    EXPECT_TRUE(harness::Await([&] {
        std::lock_guard<std::mutex> lock(take.mutex);
        return take.samples.size() >= want;
    }, std::chrono::seconds(static_cast<int>(seconds) + 20)));
    q->CloseDevices();
    q->StopRecording(tag);
    CQuavix::ExitQuavix();
    return take.samples;
}

} // namespace

// Between dropouts of our output (runs of silence: its ring ran dry on a loaded machine,
// and the dummy driver does not wait) each stretch is the sweep at one offset, sample for
// sample; a dropout moves the offset on by its own length at most. A sample the input
// lost or repeated shifts the rest of its stretch: a failure, unless the input reported
// an overrun.
TEST(JackRecord, ASweepFromOurOutputComesBackSampleForSample)
{
    std::vector<int16_t> sweep(8 * kRate);
    std::vector<float> x(sweep.size());
    double phase = 0;
    for (size_t i = 0; i < sweep.size(); ++i) {
        phase += 2 * analysis::kPi * 100.0 * std::pow(120.0, double(i) / double(sweep.size())) / kRate; // to 12 kHz
        sweep[i] = static_cast<int16_t>(std::lround(12000 * std::sin(phase)));
        x[i] = static_cast<float>(sweep[i] / 32767.0);
    }
    const harness::TempFile file("sweep.wav");
    ASSERT_TRUE(analysis::WriteWav(file, kRate, 1, x));
    const std::vector<int16_t> s = PlayAndRecord(file, 8.5);
    auto quiet = [&](size_t i) { return std::abs(s[i]) < 50; };
    size_t from = 0;
    while (from < s.size() && std::abs(s[from]) <= 1000) ++from;
    ASSERT_LT(from, s.size()) << "the sound did not come";
    const std::vector<float> take(s.begin(), s.end()), src(sweep.begin(), sweep.end());
    ptrdiff_t lo = ptrdiff_t(from) - 200, hi = ptrdiff_t(from) + 200;
    size_t checked = 0, dropouts = 0;
    while (from < s.size()) {
        size_t to = from, run = 0; // the stretch ends at the next 16 quiet samples
        for (; to < s.size() && run < 16; ++to) run = quiet(to) ? run + 1 : 0;
        if (run >= 16) to -= 16;
        size_t quietEnd = to;
        while (quietEnd < s.size() && quiet(quietEnd)) ++quietEnd;
        if (to - from >= kRate / 20) { // long enough to tell one offset from another
            double best = -1;
            ptrdiff_t lag = lo;
            for (ptrdiff_t l = lo; l <= hi; ++l) {
                const size_t a = size_t(std::max<ptrdiff_t>(0, ptrdiff_t(from) - l));
                if (const double r = analysis::Correlation(take, src, l, a, a + kRate / 20); r > best) best = r, lag = l;
            }
            EXPECT_GE(best, 0.99) << "at " << double(from) / kRate << " s of the take";
            for (size_t i = from; i < to; ++i) {
                const ptrdiff_t k = ptrdiff_t(i) - lag;
                if (k < 0 || k >= ptrdiff_t(sweep.size()) || std::abs(s[i] - sweep[size_t(k)]) <= 8) continue;
                if (g_overruns == 0)
                    ADD_FAILURE() << "sample " << double(i) / kRate << " s into the take is " << s[i] << ", not "
                                  << sweep[size_t(k)] << ": lost or repeated samples";
                to = i;
                break;
            }
            checked += to - from;
            if (ptrdiff_t(to) - lag >= ptrdiff_t(sweep.size()) - 16 || quietEnd == s.size()) break;
            lo = lag - 16;
            hi = lag + ptrdiff_t(quietEnd - to) + 16;
        } else {
            if (quietEnd == s.size()) break;
            hi += ptrdiff_t(quietEnd - from);
        }
        ++dropouts;
        from = std::max(quietEnd, to + 1);
    }
    EXPECT_GE(checked, sweep.size() / 2) << "too little of the sweep came between dropouts to judge";
    std::printf("%zu of %zu samples checked; %zu dropouts of our output, %d overruns reported\n", checked,
                sweep.size(), dropouts, g_overruns.load());
}

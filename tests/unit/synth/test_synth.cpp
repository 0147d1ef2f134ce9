// The built-in GM synth on the virtual backend, through the MIDI calls: stopping, panic and
// a system reset silence it within a period, a pause takes back what was handed ahead,
// volume scales it, its threads end with it, and without a SoundFont it is absent. Where notes start, and what programs sound like, the tests of
// `quavix perform` judge with tools of others.
#include "platform/QXPlatform.h"
#include "platform/backends/synth/QXSynth.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/kernel/QXClock.h"
#include "platform/dsound/QXDSound.h"
#include "platform/midi/QXMidiCalls.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const int kVirtual = setenv("QUAVIX_BACKEND", "virtual", 1);
constexpr const char* kFont = "/usr/share/sounds/sf2/TimGM6mb.sf2";
// Short messages at absolute ms times.
using Events = std::vector<std::pair<DWORD, DWORD>>;

// The synth opened as a stream with 1 ms ticks, wave output 0 captured to a file; the
// capture is read once the stream is closed (then the output closes its file).
class SynthRun {
public:
    SynthRun()
    {
        setenv("QUAVIX_SOUNDFONT", kFont, 1);
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
        m_base = "/tmp/qx-synth-" + std::to_string(getpid()) + "-" + std::to_string(s_runs++);
        setenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE", (m_base + "-%d.wav").c_str(), 1);
        UINT dev = midiOutGetNumDevs() - 1;
        m_opened = midiStreamOpen(&m_h, &dev, 1, 0, 0, CALLBACK_NULL);
        unsetenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE");
        if (m_opened != MMSYSERR_NOERROR) return;
        MIDIPROPTIMEDIV td{sizeof td, 0xFFFFE728u};
        midiStreamProperty(m_h, reinterpret_cast<LPBYTE>(&td), MIDIPROP_SET | MIDIPROP_TIMEDIV);
    }
    ~SynthRun() { Close(); }
    bool Opened() const { return m_opened == MMSYSERR_NOERROR; }

    // Queues the events in one buffer and starts the stream.
    void Play(const Events& events)
    {
        DWORD last = 0;
        for (const auto& [at, msg] : events) {
            m_words.insert(m_words.end(), {at - last, 0, msg});
            last = at;
        }
        m_hdr.lpData = reinterpret_cast<LPSTR>(m_words.data());
        m_hdr.dwBufferLength = m_hdr.dwBytesRecorded = static_cast<DWORD>(m_words.size() * 4);
        ASSERT_EQ(midiOutPrepareHeader(Out(), &m_hdr, sizeof m_hdr), 0u);
        ASSERT_EQ(midiStreamOut(m_h, &m_hdr, sizeof m_hdr), 0u);
        ASSERT_EQ(midiStreamRestart(m_h), 0u);
    }
    HMIDIOUT Out() const { return reinterpret_cast<HMIDIOUT>(m_h); }

    // Closes the stream after tailMs and returns the left channel heard, and the frame
    // at which the output was mixing at whenNs in *pAt.
    std::vector<float> Heard(int tailMs, int64_t whenNs, long* pAt, std::vector<float>* pRight = nullptr)
    {
        qxplat::ClockSleepFor(int64_t{tailMs} * 1'000'000);
        const int64_t closedNs = qxplat::NowNs();
        Close();
        const std::string path = m_base + "-0.wav", f = wavetest::Slurp(path);
        std::remove(path.c_str());
        std::vector<int16_t> frames(f.size() > 44 ? (f.size() - 44) / 2 : 0);
        std::memcpy(frames.data(), f.data() + 44, frames.size() * 2);
        std::vector<float> left;
        for (size_t i = 0; i + 1 < frames.size(); i += 2) {
            left.push_back(frames[i] / 32768.0f);
            if (pRight != nullptr) pRight->push_back(frames[i + 1] / 32768.0f);
        }
        *pAt = static_cast<long>(left.size()) - static_cast<long>((closedNs - whenNs) * 48 / 1'000'000);
        return left;
    }

private:
    void Close()
    {
        if (!Opened()) return;
        midiStreamStop(m_h);
        EXPECT_EQ(midiStreamClose(m_h), MMSYSERR_NOERROR);
        m_opened = MMSYSERR_ERROR;
    }

    static inline int s_runs = 0;
    std::string m_base;
    HMIDISTRM m_h = nullptr;
    MMRESULT m_opened = MMSYSERR_ERROR;
    std::vector<DWORD> m_words;
    MIDIHDR m_hdr{};
};

float Peak(const std::vector<float>& x, long from, long to)
{
    float p = 0;
    for (long i = std::max(from, 0L); i < std::min(to, static_cast<long>(x.size())); ++i) p = std::max(p, std::fabs(x[i]));
    return p;
}

} // namespace

// A held organ note (no reverb or chorus sent), then one way of ending it: the fall starts
// within a period (100 ms) of the output mixing on from then (the capture's end maps to the
// close, to some tens of ms), and is down 20 dB a period later, long before the note-off.
TEST(Synth, StopPanicAndResetSilenceAHeldNoteWithinAPeriod)
{
    ASSERT_EQ(kVirtual, 0);
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    const size_t threads = wavetest::ThreadCount();
    const struct {
        const char* how;
        std::vector<DWORD> msgs; // none: the stream stops
    } cases[] = {{"stopping the stream", {}},
                 {"the panic's all sound off and all notes off", {0x78B0, 0x7BB0}},
                 {"a system reset, the panic's last message", {0xFF}}};
    for (const auto& c : cases) {
        SynthRun run;
        ASSERT_TRUE(run.Opened());
        run.Play({{0, 0x10C0}, {40, 0x005BB0}, {40, 0x005DB0}, {50, 0x6E3C90}, {3050, 0x003C80}});
        qxplat::ClockSleepFor(500'000'000);
        const int64_t sentNs = qxplat::NowNs();
        for (DWORD m : c.msgs) EXPECT_EQ(midiOutShortMsg(run.Out(), m), 0u);
        EXPECT_EQ(c.msgs.empty() ? midiStreamStop(reinterpret_cast<HMIDISTRM>(run.Out())) : 0u, 0u);
        long at = 0;
        const std::vector<float> x = run.Heard(800, sentNs, &at);
        const float held = Peak(x, at - 9600, at - 2400);
        long fall = at - 9600;
        while (fall < static_cast<long>(x.size()) && Peak(x, fall, fall + 480) > held / 2) fall += 480;
        EXPECT_GT(held, 0.01f) << c.how << ": no note before";
        EXPECT_LT(fall, at + 4800) << c.how << ": still sounding a period on";
        EXPECT_LT(Peak(x, fall + 4800, 1L << 30), held / 10) << c.how << ": a slow fall";
        EXPECT_LT(Peak(x, static_cast<long>(x.size()) - 9600, 1L << 30), 0.001f) << c.how << ": something rings on";
    }
    EXPECT_TRUE(wavetest::Eventually([&] { return wavetest::ThreadCount() == threads; })) << "a thread outlived the synth";
}

// A paused stream is silent at once, also for a note handed to the synth ahead of its
// time, and plays that note when restarted.
TEST(Synth, APauseSilencesItAndTheRestartPlaysWhatItTookBack)
{
    ASSERT_EQ(kVirtual, 0);
    SynthRun run;
    ASSERT_TRUE(run.Opened());
    const int64_t startNs = qxplat::NowNs();
    run.Play({{0, 0x10C0}, {40, 0x005BB0}, {40, 0x005DB0}, {50, 0x6E3C90}, {535, 0x6E4390}, {3050, 0x003C80}});
    qxplat::ClockSleepFor(500'000'000); // the note at 535 ms is handed over by now
    const auto stream = reinterpret_cast<HMIDISTRM>(run.Out());
    EXPECT_EQ(midiStreamPause(stream), 0u);
    const int64_t pausedNs = qxplat::NowNs();
    const bool bBeforeTheNote = pausedNs - startNs < 530'000'000; // else a busy machine was late
    qxplat::ClockSleepFor(800'000'000);
    EXPECT_EQ(midiStreamRestart(stream), 0u);
    long at = 0;
    const std::vector<float> x = run.Heard(400, pausedNs, &at);
    // The pause as heard: the longest run of silent 10 ms blocks after the first note.
    long on = 0, gap = 0, gapEnd = 0;
    while (on < static_cast<long>(x.size()) && std::fabs(x[on]) < 0.01f) ++on;
    for (long b = on, run = 0; b + 480 <= static_cast<long>(x.size()); b += 480) {
        run = Peak(x, b, b + 480) < 0.001f ? run + 480 : 0;
        if (run > gap) gap = run, gapEnd = b + 480;
    }
    ASSERT_LT(on, static_cast<long>(x.size())) << "no note before the pause";
    EXPECT_GT(gap, 48 * 600) << "sounding while paused";
    if (bBeforeTheNote) {
        EXPECT_GT(Peak(x, gapEnd, gapEnd + 14400), 0.01f) << "the note taken back was not played";
    }
}

// The same piano note before and after the volume changes: the device volume halves the
// left side only, the GM master volume both.
TEST(Synth, DeviceAndMasterVolumeScaleItsSound)
{
    ASSERT_EQ(kVirtual, 0);
    const BYTE halfMaster[] = {0xF0, 0x7F, 0x7F, 0x04, 0x01, 0x00, 0x40, 0xF7};
    for (bool device : {true, false}) {
        SynthRun run;
        ASSERT_TRUE(run.Opened());
        MIDIOUTCAPSA caps{};
        ASSERT_EQ(midiOutGetDevCapsA(midiOutGetNumDevs() - 1, &caps, sizeof caps), 0u);
        EXPECT_EQ(caps.dwSupport & (MIDICAPS_VOLUME | MIDICAPS_LRVOLUME), MIDICAPS_VOLUME | MIDICAPS_LRVOLUME);
        const int64_t startNs = qxplat::NowNs();
        run.Play({{40, 0x005BB0}, {40, 0x005DB0}, {100, 0x644590}, {400, 0x4580}, {900, 0x644590}, {1200, 0x4580}});
        qxplat::ClockSleepFor(650'000'000);
        if (device) {
            EXPECT_EQ(midiOutSetVolume(run.Out(), 0xFFFF8000u), 0u);
            DWORD v = 0;
            EXPECT_EQ(midiOutGetVolume(run.Out(), &v), 0u);
            EXPECT_EQ(v, 0xFFFF8000u);
        } else {
            MIDIHDR hdr{};
            hdr.lpData = reinterpret_cast<LPSTR>(const_cast<BYTE*>(halfMaster));
            hdr.dwBufferLength = sizeof halfMaster;
            ASSERT_EQ(midiOutPrepareHeader(run.Out(), &hdr, sizeof hdr), 0u);
            EXPECT_EQ(midiOutLongMsg(run.Out(), &hdr, sizeof hdr), 0u);
        }
        const int64_t changedNs = qxplat::NowNs();
        long at = 0;
        std::vector<float> right;
        const std::vector<float> left = run.Heard(900, changedNs, &at, &right);
        if (changedNs - startNs > 850'000'000) continue; // a busy machine changed it too late to judge
        const std::pair<const std::vector<float>*, float> sides[] = {{&left, 0.5f}, {&right, device ? 1.0f : 0.5f}};
        for (const auto& [x, expected] : sides) {
            // Each note from where it is first heard (a starved output may have moved them).
            long first = 0, second = 0;
            while (first < static_cast<long>(x->size()) && std::fabs((*x)[first]) < 0.02f) ++first;
            for (second = first + 24000; second < static_cast<long>(x->size()) && std::fabs((*x)[second]) < 0.01f;) ++second;
            const float ratio = Peak(*x, second, second + 14400) / Peak(*x, first, first + 14400);
            EXPECT_NEAR(ratio, expected, 0.03f) << (device ? "device volume" : "master volume") << (x == &left ? ", left" : ", right");
        }
    }
}

TEST(Synth, AbsentOrBrokenSoundFontLeavesNoDeviceOrFailsTheOpenCleanly)
{
    ASSERT_EQ(kVirtual, 0);
    const std::string empty = "/tmp/qx-synth-empty-" + std::to_string(getpid()) + ".sf2";
    std::ofstream(empty).flush();
    // Only the readable file that is no SoundFont is listed (and then does not load).
    const struct {
        std::string font;
        int waveOuts;
    } cases[] = {{"/nonexistent/font.sf2", 1}, {"/tmp", 1}, {kFont, 0}, {empty, 1}};
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    const size_t threads = wavetest::ThreadCount(), live = qxplat::LiveDirectSoundObjects();
    for (const auto& c : cases) {
        setenv("QUAVIX_SOUNDFONT", c.font.c_str(), 1);
        qxplat::QXVirtualSetDevices(1, 1, 1, c.waveOuts);
        const bool listed = c.font == empty;
        EXPECT_EQ(midiOutGetNumDevs(), listed ? 2u : 1u) << c.font;
        EXPECT_EQ(qxplat::SynthUnavailableReason().empty(), listed) << c.font; // quavix devices says why
        MIDIOUTCAPSA caps{};
        UINT dev = 1;
        HMIDISTRM h = nullptr;
        EXPECT_EQ(midiOutGetDevCapsA(1, &caps, sizeof caps), listed ? MMSYSERR_NOERROR : MMSYSERR_BADDEVICEID);
        EXPECT_STREQ(caps.szPname, listed ? "Quavix GM Synth" : "");
        EXPECT_EQ(midiStreamOpen(&h, &dev, 1, 0, 0, CALLBACK_NULL), listed ? MMSYSERR_NODRIVER : MMSYSERR_BADDEVICEID);
        EXPECT_EQ(h, nullptr);
    }
    std::remove(empty.c_str());
    qxplat::QXVirtualSetDevices(1, 1, 1, 1);
    EXPECT_TRUE(wavetest::Eventually([&] { return wavetest::ThreadCount() == threads; }));
    EXPECT_EQ(qxplat::LiveDirectSoundObjects(), live);
}

// The built-in GM synth on the virtual backend: what a stream sends it is heard in wave
// output 0's capture at the frames the stream's times map to, SysEx and program changes
// reach FluidSynth, stopping and panic silence it, and without a SoundFont it is absent.
#include "platform/QXPlatform.h"
#include "platform/backends/synth/QXSynth.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/dsound/QXDSound.h"
#include "platform/midi/QXMidiCalls.h"
#include "unit/dsound/DSTestUtil.h"
#include "unit/wavefile/WaveTestUtil.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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
constexpr double kRate = 48000;

// Messages at absolute ms times: SysEx, or a short message in three bytes.
using Events = std::vector<std::pair<DWORD, std::vector<BYTE>>>;
// No reverb or chorus on the channels the tests play, so that notes end in silence; sent
// after the stream's start, as a message due at it comes too late for its frame.
const Events kDry = {{40, {0xB9, 91, 0}}, {40, {0xB9, 93, 0}}, {40, {0xB0, 91, 0}}, {40, {0xB0, 93, 0}}};

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
        m_opened = midiStreamOpen(&m_h, &dev, 1, reinterpret_cast<DWORD_PTR>(&OnDone), reinterpret_cast<DWORD_PTR>(this),
                                  CALLBACK_FUNCTION);
        unsetenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE");
        if (m_opened != MMSYSERR_NOERROR) return;
        MIDIPROPTIMEDIV td{sizeof td, 0xFFFFE728u};
        midiStreamProperty(m_h, reinterpret_cast<LPBYTE>(&td), MIDIPROP_SET | MIDIPROP_TIMEDIV);
    }
    ~SynthRun() { Close(); }
    bool Opened() const { return m_opened == MMSYSERR_NOERROR; }

    // Queues kDry and the events in one buffer and starts the stream.
    void Play(Events events)
    {
        events.insert(events.begin(), kDry.begin(), kDry.end());
        std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        DWORD last = 0;
        for (const auto& [at, b] : events) {
            const bool sysex = b[0] == 0xF0;
            m_words.insert(m_words.end(), {at - last, 0, sysex ? (MEVT_LONGMSG << 24) | DWORD(b.size()) : b[0] | b[1] << 8 | b[2] << 16});
            m_words.resize(m_words.size() + (sysex ? (b.size() + 3) / 4 : 0), 0);
            if (sysex) std::memcpy(&m_words[m_words.size() - (b.size() + 3) / 4], b.data(), b.size());
            last = at;
        }
        m_hdr.lpData = reinterpret_cast<LPSTR>(m_words.data());
        m_hdr.dwBufferLength = m_hdr.dwBytesRecorded = static_cast<DWORD>(m_words.size() * 4);
        ASSERT_EQ(midiOutPrepareHeader(Out(), &m_hdr, sizeof m_hdr), 0u);
        ASSERT_EQ(midiStreamOut(m_h, &m_hdr, sizeof m_hdr), 0u);
        ASSERT_EQ(midiStreamRestart(m_h), 0u);
        // The output's first blocks may find its ring empty: that is before any sound.
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        m_dryFrom = qxplat::VirtualAudioUnderrunFramesAll();
    }
    // Frames the output played dry while the stream played (its start aside).
    uint64_t DryFrames() const { return m_dryFrames; }
    HMIDIOUT Out() const { return reinterpret_cast<HMIDIOUT>(m_h); }

    // Closes the stream (after its buffer played, when asked) and the sound's tail, and
    // returns the left channel heard (and the right one in *pRight).
    std::vector<float> Heard(int tailMs, bool bWholeBuffer = true, std::vector<float>* pRight = nullptr)
    {
        EXPECT_TRUE(!bWholeBuffer || wavetest::Eventually([&] { return m_done.load(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(tailMs));
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
        return left;
    }

private:
    static void CALLBACK OnDone(HMIDIOUT, UINT msg, DWORD_PTR inst, DWORD_PTR, DWORD_PTR)
    {
        if (msg == MOM_DONE) reinterpret_cast<SynthRun*>(inst)->m_done = true;
    }
    void Close()
    {
        if (!Opened()) return;
        m_dryFrames = qxplat::VirtualAudioUnderrunFramesAll() - m_dryFrom;
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
    std::atomic<bool> m_done{false};
    uint64_t m_dryFrom = 0, m_dryFrames = 0;
};

// Frames where the level first passes 0.02 after at least 50 ms below it.
std::vector<long> Onsets(const std::vector<float>& x)
{
    std::vector<long> at;
    for (long i = 0, quiet = 1 << 20; i < static_cast<long>(x.size()); ++i, ++quiet) {
        if (std::fabs(x[i]) <= 0.02f) continue;
        if (quiet >= 2400) at.push_back(i);
        quiet = -1;
    }
    return at;
}

// Where around frame near the sound that starts at frame ref starts again: the shift that
// best matches its first 1000 frames (the tail of what sounded before aside, the same
// note is the same samples).
long Align(const std::vector<float>& x, long ref, long near)
{
    long best = near;
    double bestDot = -1e30;
    for (long at = near - 128; at <= near + 128; ++at) {
        double dot = 0;
        for (long i = -64; i < 1000 && at + i < static_cast<long>(x.size()); ++i) dot += double(x[ref + i]) * x[at + i];
        if (dot > bestDot) bestDot = dot, best = at;
    }
    return best;
}

// The amplitude of frequency f over 100 ms from frame from.
double Level(const std::vector<float>& x, double f, long from)
{
    double re = 0, im = 0;
    for (long i = 0; i < 4800 && from + i < static_cast<long>(x.size()); ++i) {
        re += x[from + i] * std::cos(2 * M_PI * f * i / kRate);
        im += x[from + i] * std::sin(2 * M_PI * f * i / kRate);
    }
    return 2 * std::hypot(re, im) / 4800;
}

// The amplitudes of the first ten harmonics of f0 over 100 ms from frame from, unit length.
std::vector<double> Harmonics(const std::vector<float>& x, long from, double f0)
{
    std::vector<double> h(10);
    double norm = 0;
    for (int k = 0; k < 10; ++k) {
        h[k] = Level(x, (k + 1) * f0, from);
        norm += h[k] * h[k];
    }
    for (double& v : h) v /= std::sqrt(norm);
    return h;
}

float Peak(const std::vector<float>& x, size_t from, size_t to)
{
    float p = 0;
    for (size_t i = from; i < to; ++i) p = std::max(p, std::fabs(x[i]));
    return p;
}

double Distance(const std::vector<double>& a, const std::vector<double>& b)
{
    double s = 0;
    for (size_t i = 0; i < a.size(); ++i) s += (a[i] - b[i]) * (a[i] - b[i]);
    return std::sqrt(s);
}

} // namespace

TEST(Synth, NotesStartOnFluidSynthsGridAtTheFramesTheirTimesMapTo)
{
    ASSERT_EQ(kVirtual, 0);
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    const size_t threads = wavetest::ThreadCount();
    // Claves on the drum channel, at steps that are not whole 64-frame blocks apart.
    const DWORD times[] = {100, 401, 703, 1006, 1310, 1501};
    Events events;
    for (DWORD t : times) events.push_back({t, {0x99, 75, 127}});
    // A run the machine held up (a message late, an output starved) says so and is
    // judged again; one that reports nothing must be exact.
    for (int attempt = 0;; ++attempt) {
        const uint64_t late = qxplat::SynthLateMessages();
        SynthRun run;
        ASSERT_TRUE(run.Opened());
        run.Play(events);
        const std::vector<float> x = run.Heard(300);
        EXPECT_TRUE(wavetest::Eventually([&] { return wavetest::ThreadCount() == threads; })) << "a thread outlived the synth";
        if (qxplat::SynthLateMessages() != late || run.DryFrames() != 0) {
            if (attempt == 2) GTEST_SKIP() << "every run was held up by the machine";
            continue;
        }
        std::vector<long> onsets = Onsets(x);
        ASSERT_EQ(onsets.size(), std::size(times));
        for (long& at : onsets) at = Align(x, onsets[0], at);
        // FluidSynth starts a voice at its next 64-frame block: with the first note's
        // phase in that grid unknown, one phase must explain every onset exactly.
        int phases = 0;
        for (long p = 0; p < 64; ++p) {
            bool all = true;
            for (size_t i = 1; i < onsets.size(); ++i) {
                const long due = p + static_cast<long>((times[i] - times[0]) * kRate / 1000);
                all = all && onsets[i] - onsets[0] == (due + 63) / 64 * 64 - (p + 63) / 64 * 64;
            }
            phases += all;
        }
        std::string heard;
        for (long at : onsets) heard += " " + std::to_string(at - onsets[0]);
        EXPECT_GT(phases, 0) << "an onset is off its frame; frames from the first:" << heard;
        return;
    }
}

TEST(Synth, ProgramChangeAndGMResetChangeTheSound)
{
    ASSERT_EQ(kVirtual, 0);
    SynthRun run;
    ASSERT_TRUE(run.Opened());
    const std::vector<BYTE> gmReset = {0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7};
    // Middle A three times: piano, square lead after a program change, piano after a reset
    // (which brings back the default reverb and chorus).
    Events events;
    for (DWORD t : {100u, 700u, 1300u}) {
        if (t == 700) events.push_back({t, {0xC0, 80, 0}});
        if (t == 1300) events.insert(events.end(), {{t, gmReset}, {t, kDry[2].second}, {t, kDry[3].second}});
        events.insert(events.end(), {{t, {0x90, 69, 100}}, {t + 300, {0x80, 69, 0}}});
    }
    run.Play(events);
    const std::vector<float> x = run.Heard(500);
    const std::vector<long> onsets = Onsets(x);
    ASSERT_EQ(onsets.size(), 3u);
    std::vector<double> h[3];
    for (int i = 0; i < 3; ++i) h[i] = Harmonics(x, onsets[i] + 960, 440.0);
    // Piano against square lead: about 0.3 apart; the same piano: a thousandth.
    EXPECT_GT(Distance(h[0], h[1]), 0.15) << "the program change did not change the sound";
    EXPECT_LT(Distance(h[0], h[2]), 0.03) << "the GM reset did not restore the piano";
}

// The same piano note before and after the volume is halved, by the device volume or by
// the GM master volume in the stream: the second sounds at half the level.
TEST(Synth, DeviceAndMasterVolumeScaleItsSound)
{
    ASSERT_EQ(kVirtual, 0);
    const std::vector<BYTE> halfMaster = {0xF0, 0x7F, 0x7F, 0x04, 0x01, 0x00, 0x40, 0xF7};
    for (bool device : {true, false}) {
        SynthRun run;
        ASSERT_TRUE(run.Opened());
        MIDIOUTCAPSA caps{};
        ASSERT_EQ(midiOutGetDevCapsA(midiOutGetNumDevs() - 1, &caps, sizeof caps), 0u);
        EXPECT_EQ(caps.dwSupport & (MIDICAPS_VOLUME | MIDICAPS_LRVOLUME), MIDICAPS_VOLUME | MIDICAPS_LRVOLUME);
        Events events = {{100, {0x90, 69, 100}}, {400, {0x80, 69, 0}}, {700, {0x90, 69, 100}}, {1000, {0x80, 69, 0}}};
        if (!device) events.push_back({550, halfMaster});
        run.Play(events);
        if (device) {
            std::this_thread::sleep_for(std::chrono::milliseconds(490)); // 550 ms into the stream
            EXPECT_EQ(midiOutSetVolume(run.Out(), 0x80008000u), 0u);
            DWORD v = 0;
            EXPECT_EQ(midiOutGetVolume(run.Out(), &v), 0u);
            EXPECT_EQ(v, 0x80008000u);
        }
        std::vector<float> right;
        const std::vector<float> left = run.Heard(600, true, &right);
        ASSERT_GT(left.size(), 48u * 1200);
        const std::vector<float>* sides[] = {&left, &right};
        for (const std::vector<float>* x : sides) {
            const float ratio = Peak(*x, 48 * 650, 48 * 1200) / Peak(*x, 0, 48 * 600);
            EXPECT_NEAR(ratio, 0.5f, 0.03f) << (device ? "device volume" : "master volume");
        }
    }
}

// A held organ note, then one way of ending it: it must fall silent long before its
// note-off, due two seconds later, and stay so. A paused stream also takes back a note
// handed to the synth ahead of its time, and plays it once restarted.
TEST(Synth, StopPausePanicSilenceAHeldNote)
{
    ASSERT_EQ(kVirtual, 0);
    enum How { kStop, kPanic, kPause };
    const char* names[] = {"stopping the stream", "all notes off on every channel", "pausing the stream"};
    for (How how : {kStop, kPanic, kPause}) {
        SynthRun run;
        ASSERT_TRUE(run.Opened());
        Events events = {{0, {0xC0, 16, 0}}, {50, {0x90, 60, 110}}, {2050, {0x80, 60, 0}}};
        if (how == kPause) events.push_back({490, {0x90, 67, 110}}); // handed at about 445 ms
        run.Play(events);
        std::this_thread::sleep_for(std::chrono::milliseconds(400)); // 460 ms into the stream
        const auto stream = reinterpret_cast<HMIDISTRM>(run.Out());
        for (DWORD ch = 0; ch < 16 && how == kPanic; ++ch) EXPECT_EQ(midiOutShortMsg(run.Out(), 0xB0 | ch | 123 << 8), 0u);
        EXPECT_EQ(how == kStop ? midiStreamStop(stream) : how == kPause ? midiStreamPause(stream) : 0u, 0u);
        if (how == kPause) {
            std::this_thread::sleep_for(std::chrono::milliseconds(800));
            EXPECT_EQ(midiStreamRestart(stream), 0u);
        }
        const std::vector<float> x = run.Heard(how == kPause ? 400 : 800, false);
        const size_t after = 48 * 660; // 200 ms after the stop, pause or panic
        ASSERT_GT(x.size(), after + 9600) << names[how];
        EXPECT_GT(Peak(x, 0, 14400), 0.01f) << names[how];
        const size_t quietTo = how == kPause ? 48 * 1200 : x.size();
        EXPECT_LT(Peak(x, after, quietTo), 0.001f) << names[how] << ": still sounding";
        if (how == kPause) {
            EXPECT_GT(Peak(x, 48 * 1350, x.size()), 0.01f) << "the note taken back was not played";
        }
    }
}

// A click on output 0 (left), started as a wave event of a stream time is, a latency
// early, and a note of the synth at that time (right): both are in the capture the
// synth's output began (one mixer and one sink), and they sound together, within
// FluidSynth's grid and the note's attack.
TEST(Synth, AWaveStartAndANoteOfOneTimeSoundTogetherOnOneMixer)
{
    ASSERT_EQ(kVirtual, 0);
    SynthRun run;
    ASSERT_TRUE(run.Opened());
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    LPDIRECTSOUNDBUFFER click = dstest::MakeBuffer(ds, dstest::Pcm(48000, 2, 16), 48000);
    dstest::Fill(click, [](BYTE* p, DWORD n) {
        for (DWORD i = 0; i < 240 && 4 * i < n; ++i) dstest::Level16(p + 4 * i, 2, 16384);
    });
    DWORD rate = 0;
    const DWORD latency = qxplat::DirectSoundOutputLatencyFrames(ds, &rate);
    ASSERT_GT(rate, 0u);
    const int64_t latencyNs = int64_t{latency} * 1'000'000'000 / rate;
    const int64_t t0 = qxplat::NowNs();
    run.Play({{0, {0xB9, 10, 127}}, {500, {0x99, 75, 127}}});
    ASSERT_EQ(qxplat::DirectSoundPlayBufferAt(click, 0, t0 + 500'000'000 - latencyNs), DS_OK);
    DWORD status = DSBSTATUS_PLAYING;
    EXPECT_TRUE(wavetest::Eventually([&] { return click->GetStatus(&status) == DS_OK && !(status & DSBSTATUS_PLAYING); }));
    click->Release();
    EXPECT_EQ(ds->Release(), 0u);
    std::vector<float> right;
    const std::vector<float> left = run.Heard(300, true, &right);
    const std::vector<long> clicks = Onsets(left), notes = Onsets(right);
    ASSERT_EQ(clicks.size(), 1u) << "the wave buffer is not in the synth's output";
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_NEAR(notes[0], clicks[0], 200) << "the note and the wave start of one time sound apart";
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

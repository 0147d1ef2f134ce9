// Wave files for play and perform --audio: checked before anything sounds, played at
// once or as wave events of a performance, and watched until they have played; the
// output's peak meter; --render on the virtual backend.
#ifndef QUAVIX_TOOLS_WAVES_H
#define QUAVIX_TOOLS_WAVES_H

#include "Cli.h"

#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace qxcli {

struct WaveItem {
    enum State { kWaiting = 0, kSounding = 1, kDone = 2 };

    std::string path;
    double volumeDb = 0; // 0 … -100
    double pan = 0;      // -1 (left only) … 1 (right only)
    double rate = 1;     // playing speed as a factor of the file's own rate
    long atMs = -1;      // performance time; -1 plays at once

    // Filled by CheckWaveFile.
    QX_DevFormat format{};
    long durationMs = 0; // at the file's own rate
    double playMs = 0;   // at the chosen rate
    LONG lFrequency = 0; // the output's relative rate control for that rate
    int nTrack = 0;      // its track in the performance (files with a time)
    std::string warning; // what is wrong with a file that plays all the same
    std::atomic<int> state{kWaiting};
    bool bFailed = false;
};
using WaveItems = std::vector<std::unique_ptr<WaveItem>>;

// Reads the file's format and asks wave output nOutput's mixer whether it takes it;
// false with the reason (the reader's or the mixer's) in why.
bool CheckWaveFile(int nOutput, WaveItem& item, std::string& why);
std::string DescribeWave(const WaveItem& item);
QX_DSParams ParamsOf(const WaveItem& item);

// Starts a file at once (PlayWaveFile, or a player of its own when it has a volume, pan
// or rate, so that they hold from its first sample); false with the reason.
bool PlayWaveNow(CQuavix* q, int nOutput, WaveItem& item, std::string& why);

// The files with a time, handed to a performance as wave events, each on a track of its
// own. AddDue runs on the engine's thread; Watch on the main thread.
class WaveSchedule {
public:
    // Files play leadMs later than their times: room for the output's latency, for which
    // every start is made early, so that a file at 0 keeps its distance from the others.
    WaveSchedule(const WaveItems& items, int nTag, int nOutput, long leadMs = 0);
    bool Empty() const { return m_items.empty(); }
    int Tag() const { return m_nTag; }
    // Adds the events of the files that start before dwEnd.
    void AddDue(CQXEventList& list, DWORD dwEnd);
    // Follows each file on its track; true once every one has played.
    bool Watch(CQuavix* q, double performanceMs);
    double EndMs() const; // when the last one ends, in performance time (lead included)

private:
    std::vector<WaveItem*> m_items; // by time
    int m_nTag;
    int m_nOutput;
    long m_leadMs;
    size_t m_next = 0;
};

// The largest sample level of an output's mix since the last read.
class PeakMeter {
public:
    explicit PeakMeter(int nOutput) : m_nOutput(nOutput) {}
    void Read();
    std::string Text() const; // "L -6.0 R -12.1 dBFS" of the last few reads
    double MaxDb(int channel) const { return ToDb(m_max[channel]); }
    static double ToDb(float level) { return level > 0 ? 20.0 * std::log10(static_cast<double>(level)) : -1e9; }
    static std::string FormatDb(double db);

private:
    int m_nOutput;
    float m_recent[2][6] = {};
    int m_at = 0;
    float m_max[2] = {};
};

// --render OUT.wav: the virtual wave output's capture, pointed at a temporary file
// before the manager starts and put in place at the end.
class WaveRender {
public:
    // Before the manager starts (see Session::Begin); false after one line on stderr.
    bool Prepare(const std::string& command, const std::string& path);
    bool Active() const { return !m_file.Path().empty(); }
    // After the devices closed: checks what the output wrote and puts it in place.
    bool Finish(std::string& error, double& seconds);
    const std::string& Path() const { return m_file.Path(); }
    // What Finish found, e.g. "16-bit stereo".
    const std::string& Format() const { return m_format; }

private:
    OutputFile m_file;
    std::string m_written;
    std::string m_format;
};

} // namespace qxcli

#endif // QUAVIX_TOOLS_WAVES_H

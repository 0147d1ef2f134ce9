// Where an audio output's ring frames are heard, for a sink that reports its delay (a
// sound server's stream latency, an ALSA device's delay) rather than running on a frame
// clock of its own. One writer (the sink's thread), any number of readers, under a
// sequence count (sequentially consistent throughout: the sanitizers know no fences).
#ifndef QUAVIX_PLATFORM_BACKENDS_SINKCLOCK_H
#define QUAVIX_PLATFORM_BACKENDS_SINKCLOCK_H

#include <atomic>
#include <cstdint>
#include <numeric>

namespace qxplat {

class SinkClock {
public:
    explicit SinkClock(uint32_t rate) : m_rate(rate) {}
    // Before the first report.
    void SetRate(uint32_t rate) { m_rate = rate; }

    // The sink's thread: ring frame ringFrame (frames read from the ring so far) is heard
    // at heardNs. Each report has the delay's own noise (a period's granularity on some
    // devices, a server's interpolation), so the mapping keeps its slope (exact frame
    // distances) and moves only an eighth of the way towards a report, unless it is
    // further off than a stall or an underrun can explain.
    void Observe(int64_t ringFrame, int64_t heardNs)
    {
        int64_t anchorNs = heardNs, anchorFrame = ringFrame;
        if (m_ownValid) {
            const int64_t predicted = m_ownFrame + (heardNs - m_ownNs) * m_rate / 1'000'000'000;
            const int64_t err = ringFrame - predicted;
            if (err < m_rate / 100 && -err < m_rate / 100) {
                anchorNs = m_ownNs;
                anchorFrame = m_ownFrame + err / 8;
            }
        }
        m_ownValid = true;
        m_ownNs = anchorNs;
        m_ownFrame = anchorFrame;
        const uint32_t seq = m_seq.load();
        m_seq.store(seq + 1);
        m_ns.store(anchorNs);
        m_frame.store(anchorFrame);
        m_valid.store(true);
        m_seq.store(seq + 2);
    }

    // The sink's owner, while its thread does not report (at a start): no clock until
    // the next report.
    void Reset()
    {
        m_ownValid = false;
        const uint32_t seq = m_seq.load();
        m_seq.store(seq + 1);
        m_valid.store(false);
        m_seq.store(seq + 2);
    }

    // The ring frame heard at time ns; false before the first report since Reset.
    bool PositionAt(int64_t ns, int64_t* pFrame) const
    {
        for (int tries = 0; tries < 64; ++tries) {
            const uint32_t seq = m_seq.load();
            if (seq & 1) continue;
            const int64_t at = m_ns.load(), frame = m_frame.load();
            const bool valid = m_valid.load();
            if (m_seq.load() != seq) continue;
            if (!valid) return false;
            *pFrame = frame + (ns - at) * m_rate / 1'000'000'000;
            return true;
        }
        return false;
    }

private:
    int64_t m_rate;
    // The writer's own copy.
    bool m_ownValid = false;
    int64_t m_ownNs = 0, m_ownFrame = 0;
    std::atomic<uint32_t> m_seq{0};
    std::atomic<int64_t> m_ns{0}, m_frame{0};
    std::atomic<bool> m_valid{false};
};

// Whole milliseconds of frames at least as long as frames: a start moved earlier by a
// latency in ms then lands on its frame.
inline uint32_t WholeMsFrames(uint32_t frames, uint32_t rate)
{
    const uint32_t step = rate / std::gcd(rate, 1000u);
    return (frames + step - 1) / step * step;
}

} // namespace qxplat

#endif // QUAVIX_PLATFORM_BACKENDS_SINKCLOCK_H

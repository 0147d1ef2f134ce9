// The analysis of a recorded test tone that the audio tests against real servers share.
// On a loaded machine a server, a player or our own output may leave gaps in what is
// recorded; the frequency and level then come from the longest unbroken stretch, so a
// gap never reads as a wrong pitch. Whether gaps may be there at all is the test's call,
// from the continuity figures and what the servers counted.
#ifndef QUAVIX_TESTS_INTEGRATION_TONE_H
#define QUAVIX_TESTS_INTEGRATION_TONE_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace tone {

struct Report {
    bool found = false;
    double frequency = 0;  // over the steady stretch
    double amplitude = 0;  // first channel, from its RMS over the steady stretch
    double rightToLeft = 0; // second channel's RMS over the first's, stereo only
    double steadySeconds = 0; // the longest stretch of whole, even cycles in the window
    double worstStep = 0;  // largest deviation from the sine recurrence, relative to the amplitude
    size_t longestQuiet = 0; // longest run of frames below 1 % of the amplitude
    int jumps = 0;           // deviations of more than 2 % of the amplitude
    int jumpsBesidePadding = 0; // of them, those next to frames of exact silence
};

// `x` holds `channels` interleaved channels. From the first frame of the first channel
// above `onset`, 50 ms on, over `seconds`: upward zero crossings whose spacing stays
// within 2 % of the median make the steady stretch; the recurrence
// x[n+1] = 2 cos(w) x[n] - x[n-1], which a pure sine meets exactly, finds any gap, repeat
// or click in the whole window.
inline Report Analyse(const std::vector<float>& x, int channels, unsigned rate, double nominalHz, double seconds,
                      float onset = 0.02f)
{
    Report r;
    const size_t stride = static_cast<size_t>(channels), frames = x.size() / stride;
    auto at = [&](size_t i) { return double{x[i * stride]}; };
    size_t first = 0;
    while (first < frames && std::fabs(at(first)) < onset) ++first;
    const size_t begin = first + rate / 20, end = begin + static_cast<size_t>(seconds * rate);
    if (first == frames || end > frames) return r;

    std::vector<double> crossings;
    for (size_t i = begin; i < end; ++i)
        if (const double p = at(i - 1), c = at(i); p < 0 && c >= 0) crossings.push_back(double(i - 1) + p / (p - c));
    if (crossings.size() < 3) return r;
    std::vector<double> gaps(crossings.size() - 1);
    for (size_t k = 0; k + 1 < crossings.size(); ++k) gaps[k] = crossings[k + 1] - crossings[k];
    std::vector<double> sorted = gaps;
    std::nth_element(sorted.begin(), sorted.begin() + ptrdiff_t(sorted.size() / 2), sorted.end());
    const double median = sorted[sorted.size() / 2];
    size_t bestFrom = 0, bestLen = 0;
    for (size_t k = 0, from = 0; k <= gaps.size(); ++k) {
        if (k < gaps.size() && std::fabs(gaps[k] - median) <= 0.02 * median) continue;
        if (k - from > bestLen) bestFrom = from, bestLen = k - from;
        from = k + 1;
    }
    if (bestLen == 0) return r;
    r.found = true;
    const double t0 = crossings[bestFrom], t1 = crossings[bestFrom + bestLen];
    r.frequency = double(bestLen) * rate / (t1 - t0);
    r.steadySeconds = (t1 - t0) / rate;
    double sum = 0, sumR = 0;
    const size_t i0 = static_cast<size_t>(std::ceil(t0)), i1 = static_cast<size_t>(std::ceil(t1));
    for (size_t i = i0; i < i1; ++i) {
        sum += at(i) * at(i);
        if (channels >= 2) sumR += double{x[i * stride + 1]} * x[i * stride + 1];
    }
    r.amplitude = std::sqrt(2 * sum / double(i1 - i0));
    if (channels >= 2 && sum > 0) r.rightToLeft = std::sqrt(sumR / sum);

    const double c = 2 * std::cos(2 * 3.14159265358979323846 * nominalHz / rate);
    size_t quiet = 0;
    for (size_t i = begin + 1; i + 1 < end; ++i) {
        const double step = std::fabs(at(i + 1) - (c * at(i) - at(i - 1))) / std::max(r.amplitude, 1e-6);
        r.worstStep = std::max(r.worstStep, step);
        if (step > 0.02) {
            ++r.jumps;
            bool padded = false;
            for (size_t k = i - 1; k <= i + 2 && k < frames; ++k) padded = padded || at(k) == 0.0;
            r.jumpsBesidePadding += padded ? 1 : 0;
        }
        quiet = std::fabs(at(i)) < 0.01 * r.amplitude ? quiet + 1 : 0;
        r.longestQuiet = std::max(r.longestQuiet, quiet);
    }
    return r;
}

} // namespace tone

#endif // QUAVIX_TESTS_INTEGRATION_TONE_H

// The analysis of what the audio tests record: a tone's frequency, level and continuity,
// a recording's match with its source, and the WAV files that carry them.
// Frequency and level come from the longest unbroken stretch, so that a gap a loaded
// machine leaves never reads as a wrong pitch; whether gaps may be there is the test's call.
#ifndef QUAVIX_TESTS_INTEGRATION_ANALYSIS_H
#define QUAVIX_TESTS_INTEGRATION_ANALYSIS_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace analysis {

constexpr double kPi = 3.14159265358979323846;

struct Report {
    bool found = false;
    double frequency = 0;  // over the steady stretch
    double amplitude = 0;  // first channel, from its RMS over the steady stretch
    double rightToLeft = 0; // second channel's RMS over the first's, stereo only
    double steadySeconds = 0; // the longest stretch of whole, even cycles in the window
    double worstStep = 0;  // largest deviation from the sine recurrence, relative to the amplitude
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

    const double c = 2 * std::cos(2 * kPi * nominalHz / rate);
    for (size_t i = begin + 1; i + 1 < end; ++i)
        r.worstStep = std::max(r.worstStep, std::fabs(at(i + 1) - (c * at(i) - at(i - 1))) / std::max(r.amplitude, 1e-6));
    return r;
}

// `seconds` of a sine, the same on each of `channels` interleaved channels.
inline std::vector<float> Sine(unsigned rate, int channels, double hz, double amplitude, double seconds)
{
    std::vector<float> x;
    for (size_t i = 0; i < static_cast<size_t>(seconds * rate); ++i)
        x.insert(x.end(), static_cast<size_t>(channels), static_cast<float>(amplitude * std::sin(2 * kPi * hz * double(i) / rate)));
    return x;
}

// A 16-bit PCM WAV file of `x` (interleaved, in [-1, 1]).
inline bool WriteWav(const std::string& path, unsigned rate, int channels, const std::vector<float>& x)
{
    std::ofstream f(path, std::ios::binary);
    auto put = [&](uint32_t v, int bytes) {
        for (int k = 0; k < bytes; ++k) f.put(static_cast<char>(v >> (8 * k) & 0xFF));
    };
    const auto bytes = static_cast<uint32_t>(x.size() * 2), align = static_cast<uint32_t>(2 * channels);
    f << "RIFF";
    put(36 + bytes, 4);
    f << "WAVEfmt ";
    for (const auto& [v, n] : {std::pair<uint32_t, int>{16, 4}, {1, 2}, {align / 2, 2}, {rate, 4}, {rate * align, 4}, {align, 2}, {16, 2}})
        put(v, n);
    f << "data";
    put(bytes, 4);
    for (float v : x) put(static_cast<uint16_t>(static_cast<int16_t>(std::lround(v * 32767.0))), 2);
    return f.good();
}

// A PCM WAV file (16, 24 or 32-bit): its lengths as the header says, and every sample
// from the data chunk to the end of the file (past the header's length too) as float.
struct Wav {
    unsigned rate = 0, channels = 0, bits = 0;
    uint32_t riffLength = 0, dataLength = 0;
    size_t dataOffset = 0; // 0: no data chunk
    std::vector<float> x;  // interleaved
    double Seconds() const { return channels != 0 ? double(x.size()) / channels / rate : 0; }
};

inline Wav ReadWav(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    const std::vector<unsigned char> d((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    auto le = [&](size_t at, unsigned n) {
        uint32_t v = 0;
        for (unsigned k = n; k-- > 0;) v = v << 8 | d[at + k];
        return v;
    };
    Wav w;
    if (d.size() < 12 || std::memcmp(d.data(), "RIFF", 4) != 0 || std::memcmp(d.data() + 8, "WAVE", 4) != 0) return w;
    w.riffLength = le(4, 4);
    for (size_t at = 12; at + 8 <= d.size();) {
        const uint32_t size = le(at + 4, 4);
        if (std::memcmp(&d[at], "fmt ", 4) == 0 && size >= 16 && at + 24 <= d.size()) {
            w.channels = le(at + 10, 2);
            w.rate = le(at + 12, 4);
            w.bits = le(at + 22, 2);
        } else if (std::memcmp(&d[at], "data", 4) == 0) {
            w.dataLength = size;
            w.dataOffset = at + 8;
            const unsigned bytes = w.bits / 8;
            for (size_t p = at + 8; bytes >= 2 && bytes <= 4 && p + bytes <= d.size(); p += bytes)
                w.x.push_back(static_cast<float>(static_cast<int32_t>(le(p, bytes) << (32 - w.bits)) / 2147483648.0));
            return w;
        }
        at += 8 + size + (size & 1);
    }
    return w;
}

// A tone's amplitude on one channel over [fromMs, toMs).
inline double Level(const Wav& w, unsigned channel, double hz, double fromMs, double toMs)
{
    const auto a = static_cast<size_t>(fromMs * w.rate / 1000), b = static_cast<size_t>(toMs * w.rate / 1000);
    const double step = 2 * kPi * hz / w.rate;
    double re = 0, im = 0;
    for (size_t i = a; i < b && (i + 1) * w.channels <= w.x.size(); ++i) {
        re += w.x[i * w.channels + channel] * std::cos(step * double(i));
        im += w.x[i * w.channels + channel] * std::sin(step * double(i));
    }
    return 2 * std::hypot(re, im) / double(b - a);
}

inline float Peak(const std::vector<float>& x)
{
    float p = 0;
    for (float v : x) p = std::max(p, std::fabs(v));
    return p;
}

// The normalised cross-correlation of rec[lag + i] with src[i] over i in [from, to);
// frames outside the recording count as silence.
inline double Correlation(const std::vector<float>& rec, const std::vector<float>& src, long lag, size_t from, size_t to)
{
    double rs = 0, rr = 0, ss = 0;
    for (size_t i = from; i < to && i < src.size(); ++i) {
        const long j = lag + static_cast<long>(i);
        const double r = j >= 0 && static_cast<size_t>(j) < rec.size() ? rec[static_cast<size_t>(j)] : 0, s = src[i];
        rs += r * s;
        rr += r * r;
        ss += s * s;
    }
    return rr > 0 && ss > 0 ? rs / std::sqrt(rr * ss) : 0;
}

// The first channel of a recording, less the padding that an output that ran dry inserts
// (runs of two or more frames of exact silence between the first and last audible
// frames): it delays what follows and loses nothing. *pPadding counts what went.
inline std::vector<float> WithoutPadding(const std::vector<float>& x, unsigned channels, size_t* pPadding)
{
    const size_t frames = x.size() / channels;
    auto silent = [&](size_t i) {
        return std::all_of(&x[i * channels], &x[i * channels] + channels, [](float v) { return v == 0.0f; });
    };
    size_t first = 0, last = frames;
    while (first < frames && std::fabs(x[channels * first]) < 0.02) ++first;
    while (last > first && std::fabs(x[channels * (last - 1)]) < 0.02) --last;
    std::vector<float> out;
    *pPadding = 0;
    for (size_t i = 0; i < frames;) {
        size_t run = 0;
        while (i + run < frames && silent(i + run)) ++run;
        if (run >= 2 && i > first && i + run < last) {
            *pPadding += run;
            i += run;
        } else {
            for (const size_t end = i + std::max<size_t>(run, 1); i < end; ++i) out.push_back(x[channels * i]);
        }
    }
    return out;
}

} // namespace analysis

#endif // QUAVIX_TESTS_INTEGRATION_ANALYSIS_H

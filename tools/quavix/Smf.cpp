#include "Smf.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qxsmf {

namespace {

std::string Hex(unsigned v)
{
    char b[8];
    std::snprintf(b, sizeof b, "0x%02X", v & 0xFFu);
    return b;
}

uint32_t Be32(const uint8_t* p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

uint16_t Be16(const uint8_t* p)
{
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

uint32_t Le32(const uint8_t* p)
{
    return (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}

// Reads one track chunk's events, one at a time. Every read checks the chunk's end, and
// offsets in messages count from the start of the file.
class TrackReader {
public:
    enum class Step { Event, End, Error };

    TrackReader(const uint8_t* base, size_t begin, size_t end, int nTrack, size_t& nEvents)
        : m_base(base), m_begin(begin), m_pos(begin), m_end(end), m_nTrack(nTrack), m_nEvents(&nEvents)
    {
    }

    void Rewind()
    {
        m_pos = m_begin;
        m_tick = 0;
        m_running = 0;
        m_ended = false;
    }

    bool Read(Track& track, std::string& error)
    {
        Event ev;
        Step step;
        while ((step = Next(ev, error)) == Step::Event) track.events.push_back(ev);
        return step == Step::End;
    }

    // The next event into ev, whose buffer is reused. After end of track (or the chunk's
    // end, for a track without one) there are no more.
    Step Next(Event& ev, std::string& error)
    {
        if (m_ended || m_pos >= m_end) return Step::End;
        uint32_t delta = 0;
        if (!Vlq(delta, error)) return Step::Error;
        m_tick += delta;
        if (m_pos >= m_end) return Fail(error, "truncated event");
        if (++*m_nEvents > kMaxEvents) return Fail(error, "more than " + std::to_string(kMaxEvents) + " events");
        ev.tick = m_tick;
        ev.metaType = 0;
        ev.data.clear();
        const uint8_t b = m_base[m_pos];
        if (b == 0xFF) {
            ++m_pos;
            if (m_pos >= m_end) return Fail(error, "truncated meta event");
            ev.kind = Kind::Meta;
            ev.metaType = m_base[m_pos++];
            if (!Payload(ev.data, error)) return Step::Error;
            m_ended = ev.metaType == 0x2F; // anything after end of track is not part of it
            return Step::Event;
        }
        if (b == 0xF0 || b == 0xF7) {
            ++m_pos;
            ev.kind = b == 0xF0 ? Kind::SysEx : Kind::Escape;
            if (b == 0xF0) ev.data.push_back(0xF0);
            return Payload(ev.data, error) ? Step::Event : Step::Error;
        }
        uint8_t status = b;
        if (b & 0x80) {
            if (b >= 0xF0) return Fail(error, "status byte " + Hex(b) + " cannot stand in a track");
            m_running = b;
            ++m_pos;
        } else {
            if (m_running == 0) return Fail(error, "data byte " + Hex(b) + " without a running status");
            status = m_running;
        }
        const size_t n = ShortLength(status) - 1;
        if (m_end - m_pos < n) return Fail(error, "truncated channel message");
        ev.kind = Kind::Channel;
        ev.data.push_back(status);
        for (size_t i = 0; i < n; ++i) {
            const uint8_t d = m_base[m_pos];
            if (d & 0x80) return Fail(error, "status byte " + Hex(d) + " where a data byte belongs");
            ev.data.push_back(d);
            ++m_pos;
        }
        return Step::Event;
    }

private:
    Step Fail(std::string& error, const std::string& what)
    {
        error = "track " + std::to_string(m_nTrack + 1) + ": " + what + " at offset " + std::to_string(m_pos);
        return Step::Error;
    }

    bool Vlq(uint32_t& value, std::string& error)
    {
        value = 0;
        for (int i = 0; i < 4; ++i) {
            if (m_pos >= m_end) {
                Fail(error, "truncated variable-length number");
                return false;
            }
            const uint8_t b = m_base[m_pos++];
            value = (value << 7) | (b & 0x7Fu);
            if (!(b & 0x80)) return true;
        }
        Fail(error, "variable-length number longer than four bytes");
        return false;
    }

    bool Payload(std::vector<uint8_t>& out, std::string& error)
    {
        uint32_t len = 0;
        if (!Vlq(len, error)) return false;
        if (m_end - m_pos < len) {
            Fail(error, "event of " + Counted(len, "byte") + " runs past its track");
            return false;
        }
        out.insert(out.end(), m_base + m_pos, m_base + m_pos + len);
        m_pos += len;
        return true;
    }

    const uint8_t* m_base;
    size_t m_begin;
    size_t m_pos;
    size_t m_end;
    int m_nTrack;
    size_t* m_nEvents;
    uint64_t m_tick = 0;
    uint8_t m_running = 0;
    bool m_ended = false;
};

// A RIFF MIDI file (RMID) wraps a Standard MIDI File in its "data" chunk.
bool UnwrapRiff(const uint8_t*& p, size_t& cb, std::string& error)
{
    if (cb < 12 || std::memcmp(p + 8, "RMID", 4) != 0) {
        error = "a RIFF file that is not RIFF MIDI";
        return false;
    }
    size_t pos = 12;
    while (cb - pos >= 8) {
        const uint32_t len = Le32(p + pos + 4);
        if (len > cb - pos - 8) break;
        if (std::memcmp(p + pos, "data", 4) == 0) {
            p += pos + 8;
            cb = len;
            return true;
        }
        pos += 8 + size_t{len} + (len & 1u);
        if (pos > cb) break;
    }
    error = "RIFF MIDI file without a complete data chunk";
    return false;
}

void PutVlq(std::vector<uint8_t>& out, uint32_t v)
{
    uint8_t tmp[4];
    int n = 0;
    do {
        tmp[n++] = static_cast<uint8_t>(v & 0x7F);
        v >>= 7;
    } while (v != 0 && n < 4);
    while (n > 1) out.push_back(static_cast<uint8_t>(tmp[--n] | 0x80));
    out.push_back(tmp[0]);
}

void PutBe32(std::vector<uint8_t>& out, uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(v >> s));
}

void PutBe16(std::vector<uint8_t>& out, uint16_t v)
{
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

struct TempoPoint {
    uint64_t tick;
    double us; // time at this tick
    uint32_t tempo;
};

} // namespace

size_t ShortLength(uint8_t status)
{
    if (status < 0x80) return 0;
    if (status < 0xC0) return 3;
    if (status < 0xE0) return 2;
    if (status < 0xF0) return 3;
    switch (status) {
    case 0xF0:
    case 0xF7:
        return 0;
    case 0xF1:
    case 0xF3:
        return 2;
    case 0xF2:
        return 3;
    default:
        return 1;
    }
}

namespace {

// Where a file's tracks lie, once its header and chunks have been checked.
struct Layout {
    const uint8_t* base = nullptr;
    int format = 1;
    uint16_t division = 480;
    std::vector<std::pair<size_t, size_t>> tracks; // chunk bodies: begin, end
};

bool ReadLayout(const uint8_t* p, size_t cb, Layout& file, std::string& error)
{
    file = Layout{};
    if (p == nullptr || cb == 0) {
        error = "the file is empty";
        return false;
    }
    if (cb > kMaxFileBytes) {
        error = "the file is larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB";
        return false;
    }
    if (cb >= 4 && std::memcmp(p, "RIFF", 4) == 0 && !UnwrapRiff(p, cb, error)) return false;
    if (cb < 4 || std::memcmp(p, "MThd", 4) != 0) {
        error = "not a Standard MIDI File (no MThd header)";
        return false;
    }
    if (cb < 14) {
        error = "truncated header";
        return false;
    }
    const uint32_t hlen = Be32(p + 4);
    if (hlen < 6 || hlen > cb - 8) {
        error = "header of " + Counted(hlen, "byte") + " does not fit the file";
        return false;
    }
    file.format = Be16(p + 8);
    const unsigned nTracks = Be16(p + 10);
    file.division = Be16(p + 12);
    if (file.format > 2) {
        error = "unknown format " + std::to_string(file.format);
        return false;
    }
    if (nTracks == 0) {
        error = "the header announces no tracks";
        return false;
    }
    if (file.division & 0x8000) {
        const int fps = -static_cast<int8_t>(file.division >> 8);
        if ((fps != 24 && fps != 25 && fps != 29 && fps != 30) || (file.division & 0xFF) == 0) {
            error = "unknown SMPTE division " + Hex(file.division >> 8) + " " + Hex(file.division);
            return false;
        }
    } else if (file.division == 0) {
        error = "division of 0 ticks per quarter note";
        return false;
    }

    size_t pos = 8 + size_t{hlen};
    file.base = p;
    while (file.tracks.size() < nTracks) {
        if (cb - pos < 8) {
            error = "truncated: the header announces " + Counted(nTracks, "track") + ", the file holds " +
                    std::to_string(file.tracks.size());
            return false;
        }
        const uint32_t len = Be32(p + pos + 4);
        if (len > cb - pos - 8) {
            error = "truncated: a chunk of " + Counted(len, "byte") + " at offset " + std::to_string(pos) +
                    " runs past the end of the file";
            return false;
        }
        const size_t body = pos + 8;
        // Chunks of other types are for other programs: skipped.
        if (std::memcmp(p + pos, "MTrk", 4) == 0) file.tracks.emplace_back(body, body + len);
        pos = body + len;
    }
    return true;
}

} // namespace

bool Parse(const uint8_t* p, size_t cb, File& file, std::string& error)
{
    file = File{};
    Layout layout;
    if (!ReadLayout(p, cb, layout, error)) return false;
    file.format = layout.format;
    file.division = layout.division;
    size_t nEvents = 0;
    for (const auto& [begin, end] : layout.tracks) {
        Track track;
        TrackReader reader(layout.base, begin, end, static_cast<int>(file.tracks.size()), nEvents);
        if (!reader.Read(track, error)) return false;
        file.tracks.push_back(std::move(track));
    }
    return true;
}

namespace {

bool ReadBytes(const std::string& path, std::vector<uint8_t>& data, std::string& error)
{
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!f) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    struct stat st {};
    if (fstat(fileno(f.get()), &st) == 0 && S_ISREG(st.st_mode))
        data.reserve(static_cast<size_t>(std::min<off_t>(st.st_size, kMaxFileBytes + 1)));
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f.get())) > 0) {
        data.insert(data.end(), buf, buf + n);
        if (data.size() > kMaxFileBytes) break; // the parse says why
    }
    if (std::ferror(f.get())) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

bool Read(const std::string& path, File& file, std::string& error)
{
    std::vector<uint8_t> data;
    if (!ReadBytes(path, data, error)) return false;
    if (!Parse(data.data(), data.size(), file, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

std::vector<uint8_t> Serialize(const File& file, bool bRunningStatus)
{
    std::vector<uint8_t> out;
    out.insert(out.end(), {'M', 'T', 'h', 'd'});
    PutBe32(out, 6);
    PutBe16(out, static_cast<uint16_t>(file.format));
    PutBe16(out, static_cast<uint16_t>(file.tracks.size()));
    PutBe16(out, file.division);
    for (const Track& track : file.tracks) {
        std::vector<uint8_t> body;
        uint64_t last = 0;
        uint8_t running = 0;
        auto delta = [&](uint64_t tick) {
            uint64_t d = tick > last ? tick - last : 0;
            // A gap wider than one delta can say is bridged by empty sequencer meta events.
            while (d > kMaxVlq) {
                PutVlq(body, kMaxVlq);
                body.insert(body.end(), {0xFF, 0x7F, 0x00});
                d -= kMaxVlq;
                running = 0;
            }
            PutVlq(body, static_cast<uint32_t>(d));
            last = std::max(last, tick);
        };
        for (const Event& ev : track.events) {
            switch (ev.kind) {
            case Kind::Channel:
                if (ev.data.empty()) continue;
                delta(ev.tick);
                if (!bRunningStatus || ev.data[0] != running) body.push_back(ev.data[0]);
                running = ev.data[0];
                body.insert(body.end(), ev.data.begin() + 1, ev.data.end());
                break;
            case Kind::SysEx: {
                delta(ev.tick);
                const size_t skip = !ev.data.empty() && ev.data[0] == 0xF0 ? 1 : 0;
                body.push_back(0xF0);
                PutVlq(body, static_cast<uint32_t>(ev.data.size() - skip));
                body.insert(body.end(), ev.data.begin() + static_cast<std::ptrdiff_t>(skip), ev.data.end());
                running = 0; // strict readers cancel running status here
                break;
            }
            case Kind::Escape:
                delta(ev.tick);
                body.push_back(0xF7);
                PutVlq(body, static_cast<uint32_t>(ev.data.size()));
                body.insert(body.end(), ev.data.begin(), ev.data.end());
                running = 0;
                break;
            case Kind::Meta:
                if (ev.metaType == 0x2F) continue; // written once, last
                delta(ev.tick);
                body.push_back(0xFF);
                body.push_back(ev.metaType);
                PutVlq(body, static_cast<uint32_t>(ev.data.size()));
                body.insert(body.end(), ev.data.begin(), ev.data.end());
                running = 0;
                break;
            }
        }
        uint64_t endTick = last;
        for (const Event& ev : track.events)
            if (ev.kind == Kind::Meta && ev.metaType == 0x2F) endTick = std::max(endTick, ev.tick);
        delta(endTick);
        body.insert(body.end(), {0xFF, 0x2F, 0x00});
        out.insert(out.end(), {'M', 'T', 'r', 'k'});
        PutBe32(out, static_cast<uint32_t>(body.size()));
        out.insert(out.end(), body.begin(), body.end());
    }
    return out;
}

std::string Counted(size_t n, const std::string& noun)
{
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

bool Write(const std::string& path, const File& file, std::string& error)
{
    const std::vector<uint8_t> bytes = Serialize(file);
    // A link is followed, so that the file it names is replaced and not the link; what
    // is no regular file (/dev/null, a pipe) is written as it is, never replaced.
    std::string target = path;
    struct stat st {};
    const bool bExists = stat(path.c_str(), &st) == 0;
    if (bExists) {
        std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
        if (real) target = real.get();
    }
    const bool bInPlace = bExists && !S_ISREG(st.st_mode);
    // Opened with 0666 so that the umask gives the file the mode a new file gets.
    std::string temp;
    int fd = -1;
    if (bInPlace) fd = open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    for (int attempt = 0; !bInPlace && fd < 0 && attempt < 100; ++attempt) {
        temp = target + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(attempt);
        fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    auto failed = [&](const char* what) {
        error = std::string("cannot ") + what + " " + path + ": " + std::strerror(errno);
        if (fd >= 0) close(fd);
        if (!temp.empty()) unlink(temp.c_str());
        return false;
    };
    // SIGXFSZ would kill the process where a file size limit stops the write; the
    // write's own error is what tells.
    struct sigaction ignore {}, old {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGXFSZ, &ignore, &old);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            sigaction(SIGXFSZ, &old, nullptr);
            return failed("write");
        }
        done += static_cast<size_t>(n);
    }
    sigaction(SIGXFSZ, &old, nullptr);
    if (!bInPlace && fsync(fd) != 0) return failed("write");
    const int closed = close(fd);
    fd = -1;
    if (closed != 0) return failed("write");
    if (!bInPlace && std::rename(temp.c_str(), target.c_str()) != 0) return failed("replace");
    return true;
}

namespace {

// The file's tempo changes, from every track, as format 1 puts them in the first.
class TempoMap {
public:
    // False for a format 2 file or a tempo scale that is no positive number.
    bool Begin(int format, uint16_t division, double scale, std::string& error)
    {
        if (!(scale > 0) || !std::isfinite(scale)) {
            error = "the tempo scale must be a positive number";
            return false;
        }
        if (format == 2) {
            error = "it is a format 2 file (independent sequences), which cannot be played";
            return false;
        }
        m_division = division;
        m_scale = scale;
        m_bSmpte = (division & 0x8000) != 0;
        if (m_bSmpte) {
            const int fps = -static_cast<int8_t>(division >> 8);
            const double frames = fps == 29 ? 29.97 : fps;
            m_usPerTick = 1e6 / (frames * (division & 0xFF));
        }
        return true;
    }
    // SMPTE time has no tempo.
    bool Smpte() const { return m_bSmpte; }
    // A tempo meta event; false when it cannot be one.
    bool Add(const Event& ev)
    {
        if (ev.data.size() != 3) return false;
        const uint32_t tempo = (uint32_t{ev.data[0]} << 16) | (uint32_t{ev.data[1]} << 8) | ev.data[2];
        if (tempo == 0) return false;
        m_changes.emplace_back(ev.tick, tempo);
        return true;
    }
    void Finish()
    {
        std::stable_sort(m_changes.begin(), m_changes.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [tick, tempo] : m_changes) {
            TempoPoint& last = m_map.back();
            const double us = last.us + static_cast<double>(tick - last.tick) * last.tempo / m_division;
            if (tick == last.tick)
                last.tempo = tempo; // the later of two changes at one tick holds
            else
                m_map.push_back({tick, us, tempo});
        }
        m_changes.clear();
    }
    double Ms(uint64_t tick) const
    {
        double us;
        if (m_bSmpte) {
            us = static_cast<double>(tick) * m_usPerTick;
        } else {
            auto it = std::upper_bound(m_map.begin(), m_map.end(), tick,
                                       [](uint64_t t, const TempoPoint& p) { return t < p.tick; });
            const TempoPoint& p = *(it - 1);
            us = p.us + static_cast<double>(tick - p.tick) * p.tempo / m_division;
        }
        return us / 1000.0 / m_scale;
    }

private:
    std::vector<TempoPoint> m_map{{0, 0.0, 500000}};
    std::vector<std::pair<uint64_t, uint32_t>> m_changes;
    uint16_t m_division = 480;
    double m_scale = 1.0;
    bool m_bSmpte = false;
    double m_usPerTick = 0;
};

// Turns one track's events into the messages to send, joining divided SysEx; what it
// drops and skips is counted in the summary.
class TrackMessages {
public:
    TrackMessages(int nTrack, Summary& summary) : m_nTrack(nTrack), m_summary(summary) {}

    // emit(Message&&) gets each message; a divided SysEx comes when its last part does,
    // at the time of its first.
    template <class Emit>
    void Feed(const Event& ev, double ms, Emit&& emit)
    {
        m_summary.lengthMs = std::max(m_summary.lengthMs, ms);
        switch (ev.kind) {
        case Kind::Channel:
            emit(Message{ms, m_nTrack, ev.data});
            break;
        case Kind::SysEx:
            if (!m_pending.empty()) ++m_summary.dropped; // never finished
            m_pending.clear();
            if (ev.data.size() >= 2 && ev.data.back() == 0xF7) {
                emit(Message{ms, m_nTrack, ev.data});
            } else {
                m_pending = ev.data;
                m_pendingMs = ms;
            }
            break;
        case Kind::Escape:
            if (!m_pending.empty()) {
                m_pending.insert(m_pending.end(), ev.data.begin(), ev.data.end());
                if (!ev.data.empty() && ev.data.back() == 0xF7) {
                    emit(Message{m_pendingMs, m_nTrack, std::move(m_pending)});
                    m_pending.clear();
                }
            } else if (ev.data.size() >= 2 && ev.data.front() == 0xF0 && ev.data.back() == 0xF7) {
                emit(Message{ms, m_nTrack, ev.data});
            } else if (!ev.data.empty() && ShortLength(ev.data[0]) == ev.data.size()) {
                emit(Message{ms, m_nTrack, ev.data}); // one whole message, as a real-time or system common one
            } else {
                ++m_summary.dropped;
            }
            break;
        case Kind::Meta:
            if (ev.metaType == 0x03 && m_nTrack == 0 && !m_bTitled) {
                m_summary.title.assign(ev.data.begin(), ev.data.end());
                m_bTitled = true;
            } else if (ev.metaType != 0x51 && ev.metaType != 0x2F) {
                ++m_summary.metaSkipped;
            }
            break;
        }
    }
    // The track has ended: a SysEx still waiting for its end is dropped.
    void Finish()
    {
        if (!m_pending.empty()) ++m_summary.dropped;
        m_pending.clear();
    }
    bool Pending() const { return !m_pending.empty(); }
    double PendingMs() const { return m_pendingMs; }

private:
    int m_nTrack;
    Summary& m_summary;
    std::vector<uint8_t> m_pending;
    double m_pendingMs = 0;
    bool m_bTitled = false;
};

bool TooLong(const Summary& summary, std::string& error)
{
    if (summary.lengthMs <= 24.0 * 3600 * 1000) return false;
    error = "it plays for longer than 24 hours";
    return true;
}

} // namespace

bool BuildTimeline(const File& file, double scale, Timeline& timeline, std::string& error)
{
    timeline = Timeline{};
    TempoMap tempo;
    if (!tempo.Begin(file.format, file.division, scale, error)) return false;
    for (const Track& t : file.tracks)
        for (const Event& ev : t.events)
            if (ev.kind == Kind::Meta && ev.metaType == 0x51 && !tempo.Smpte()) {
                if (tempo.Add(ev))
                    ++timeline.tempoChanges;
                else
                    ++timeline.dropped; // a tempo that cannot be one
            }
    tempo.Finish();
    for (size_t nt = 0; nt < file.tracks.size(); ++nt) {
        TrackMessages track(static_cast<int>(nt), timeline);
        for (const Event& ev : file.tracks[nt].events)
            track.Feed(ev, tempo.Ms(ev.tick), [&](Message&& m) { timeline.messages.push_back(std::move(m)); });
        track.Finish();
    }
    std::stable_sort(timeline.messages.begin(), timeline.messages.end(),
                     [](const Message& a, const Message& b) { return a.ms < b.ms; });
    return !TooLong(timeline, error);
}

struct Song::Impl {
    // One track's place in the file and the messages it has given but not yet handed on.
    struct Cursor {
        TrackReader reader;
        TrackMessages messages;
        std::deque<Message> ready; // in (time, order given)
        Event event;
        bool ended = false;
    };

    std::vector<uint8_t> bytes;
    Layout layout;
    TempoMap tempo;
    Summary info;
    Summary replay; // what the cursors count again: not reported
    size_t count = 0, nEvents = 0;
    double firstMs = 0, lastMs = 0;
    std::vector<Cursor> cursors;
    // Cursors with a message ready, by its time and then by track.
    std::vector<std::pair<double, size_t>> heap;

    static bool Later(const std::pair<double, size_t>& a, const std::pair<double, size_t>& b)
    {
        return a.first != b.first ? a.first > b.first : a.second > b.second;
    }

    // Reads on until the cursor's first message can no longer be preceded by one it has
    // yet to give: only a divided SysEx comes back to an earlier time.
    void Fill(size_t n)
    {
        Cursor& c = cursors[n];
        std::string error;
        while (!c.ended && (c.ready.empty() || (c.messages.Pending() && c.ready.front().ms > c.messages.PendingMs()))) {
            if (c.reader.Next(c.event, error) != TrackReader::Step::Event) {
                c.messages.Finish();
                c.ended = true;
                break;
            }
            c.messages.Feed(c.event, tempo.Ms(c.event.tick), [&](Message&& m) {
                auto at = std::upper_bound(c.ready.begin(), c.ready.end(), m.ms,
                                           [](double ms, const Message& r) { return ms < r.ms; });
                c.ready.insert(at, std::move(m));
            });
        }
        if (!c.ready.empty()) {
            heap.emplace_back(c.ready.front().ms, n);
            std::push_heap(heap.begin(), heap.end(), Later);
        }
    }
};

Song::Song() : m(std::make_unique<Impl>()) {}
Song::~Song() = default;

bool Song::Load(const std::string& path, double scale, std::string& error)
{
    std::vector<uint8_t> data;
    if (!ReadBytes(path, data, error)) return false;
    if (!Open(std::move(data), scale, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

bool Song::Open(std::vector<uint8_t> bytes, double scale, std::string& error)
{
    m = std::make_unique<Impl>();
    m->bytes = std::move(bytes);
    if (!ReadLayout(m->bytes.data(), m->bytes.size(), m->layout, error)) return false;
    // Every event is read once to check it and to find the tempo changes, ...
    std::vector<TrackReader> readers;
    for (const auto& [begin, end] : m->layout.tracks)
        readers.emplace_back(m->layout.base, begin, end, static_cast<int>(readers.size()), m->nEvents);
    std::string why;
    const bool bPlayable = m->tempo.Begin(m->layout.format, m->layout.division, scale, why);
    Event ev;
    for (TrackReader& reader : readers) {
        TrackReader::Step step;
        while ((step = reader.Next(ev, error)) == TrackReader::Step::Event)
            if (ev.kind == Kind::Meta && ev.metaType == 0x51 && !m->tempo.Smpte()) {
                if (m->tempo.Add(ev))
                    ++m->info.tempoChanges;
                else
                    ++m->info.dropped; // a tempo that cannot be one
            }
        if (step == TrackReader::Step::Error) return false;
    }
    if (!bPlayable) {
        error = why;
        return false;
    }
    m->tempo.Finish();
    // ... once more to count what it holds, ...
    bool bAny = false;
    m->nEvents = 0;
    for (size_t nt = 0; nt < readers.size(); ++nt) {
        readers[nt].Rewind();
        TrackMessages track(static_cast<int>(nt), m->info);
        while (readers[nt].Next(ev, error) == TrackReader::Step::Event)
            track.Feed(ev, m->tempo.Ms(ev.tick), [&](Message&& msg) {
                ++m->count;
                m->firstMs = bAny ? std::min(m->firstMs, msg.ms) : msg.ms;
                m->lastMs = bAny ? std::max(m->lastMs, msg.ms) : msg.ms;
                bAny = true;
            });
        track.Finish();
    }
    if (TooLong(m->info, error)) return false;
    // ... and then as it plays.
    m->nEvents = 0;
    for (size_t nt = 0; nt < readers.size(); ++nt) {
        readers[nt].Rewind();
        m->cursors.push_back({readers[nt], TrackMessages(static_cast<int>(nt), m->replay), {}, {}, false});
    }
    for (size_t nt = 0; nt < m->cursors.size(); ++nt) m->Fill(nt);
    return true;
}

int Song::Format() const
{
    return m->layout.format;
}
size_t Song::Tracks() const
{
    return m->layout.tracks.size();
}
const Summary& Song::Info() const
{
    return m->info;
}
size_t Song::Messages() const
{
    return m->count;
}
double Song::FirstMs() const
{
    return m->firstMs;
}
double Song::LastMs() const
{
    return m->lastMs;
}

bool Song::Next(Message& message)
{
    if (m->heap.empty()) return false;
    std::pop_heap(m->heap.begin(), m->heap.end(), Impl::Later);
    const size_t n = m->heap.back().second;
    m->heap.pop_back();
    message = std::move(m->cursors[n].ready.front());
    m->cursors[n].ready.pop_front();
    m->Fill(n);
    return true;
}

File FromMilliseconds(const std::vector<std::pair<uint64_t, std::vector<uint8_t>>>& messages,
                      const std::string& trackName)
{
    File file;
    file.format = 0;
    file.division = 500;
    Track track;
    if (!trackName.empty()) track.events.push_back({0, Kind::Meta, 0x03, {trackName.begin(), trackName.end()}});
    track.events.push_back({0, Kind::Meta, 0x51, {0x07, 0xA1, 0x20}});
    for (const auto& [ms, bytes] : messages) {
        if (bytes.empty()) continue;
        Event ev;
        ev.tick = ms;
        ev.data = bytes;
        if (bytes[0] == 0xF0)
            ev.kind = Kind::SysEx;
        else if (bytes[0] >= 0x80 && bytes[0] < 0xF0 && bytes.size() == ShortLength(bytes[0]))
            ev.kind = Kind::Channel;
        else
            ev.kind = Kind::Escape;
        track.events.push_back(std::move(ev));
    }
    std::stable_sort(track.events.begin(), track.events.end(),
                     [](const Event& a, const Event& b) { return a.tick < b.tick; });
    file.tracks.push_back(std::move(track));
    return file;
}

} // namespace qxsmf

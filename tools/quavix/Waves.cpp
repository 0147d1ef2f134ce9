#include "Waves.h"

#include "platform/dsound/QXDSound.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>

namespace qxcli {

namespace {

// The bounds of the output's rate control: 100 Hz and 100 kHz.
constexpr double kMinHz = 100.0, kMaxHz = 100000.0;

// What the player turns the relative control into (see CWavePlay::_SetFrequency).
double HzOf(LONG lControl, double fileHz)
{
    if (lControl > 0) return fileHz + std::trunc(lControl / 10000.0 * (kMaxHz - fileHz));
    if (lControl < 0) return fileHz + std::trunc(lControl / 10000.0 * (fileHz - kMinHz));
    return fileHz;
}

std::string ChannelsText(int n)
{
    return n == 1 ? "mono" : n == 2 ? "stereo" : std::to_string(n) + " channels";
}

std::string FormatText(const QX_DevFormat& f)
{
    const bool bFloat = f.wFormatTag == WAVE_FORMAT_IEEE_FLOAT;
    return std::to_string(f.nSamplesPerSec) + " Hz, " + std::to_string(f.wBitsPerSample) + "-bit" +
           (bFloat ? " float" : "") + ", " + ChannelsText(f.nChannels);
}

void OnPlayedOut(DWORD_PTR dwUser, DWORD)
{
    reinterpret_cast<WaveItem*>(dwUser)->state.store(WaveItem::kDone);
}

uint32_t Le32(const unsigned char* p)
{
    return p[0] | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

} // namespace

bool CheckWaveFile(int nOutput, WaveItem& item, std::string& why)
{
    // The common causes in plain words first; the reader's own report for the rest.
    std::ifstream in(item.path, std::ios::binary);
    if (!in) {
        why = std::strerror(errno);
        return false;
    }
    char head[12] = {};
    in.read(head, sizeof head);
    if (in.gcount() < 12 || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "WAVE", 4) != 0) {
        why = "not a RIFF WAVE file";
        return false;
    }
    const size_t reports = Session::ReportCount();
    if (!CWaveFile::FileFormat(item.path.c_str(), item.format)) {
        const std::string report = Session::ReportCount() != reports ? Session::LastReport() : "";
        why = "a damaged WAVE file (no format or data chunk where the reader looked)" +
              (report.empty() ? "" : ": " + report);
        return false;
    }
    item.durationMs = CWaveFile::FileDuration(item.path.c_str());
    // A file cut short (a copy or a download that stopped) plays what is there; say so.
    in.seekg(0, std::ios::end);
    const auto fileSize = static_cast<uint64_t>(in.tellg());
    for (uint64_t at = 12; at + 8 <= fileSize;) {
        unsigned char chunk[8];
        in.seekg(static_cast<std::streamoff>(at));
        if (!in.read(reinterpret_cast<char*>(chunk), 8)) break;
        const uint64_t size = Le32(chunk + 4);
        if (std::memcmp(chunk, "data", 4) != 0) {
            at += 8 + size + (size & 1);
            continue;
        }
        const uint64_t there = fileSize - at - 8;
        if (there < size && item.format.nAvgBytesPerSec != 0) {
            const double rate = item.format.nAvgBytesPerSec;
            char b[160];
            std::snprintf(b, sizeof b, "the file ends early: its header says %.2f s, %.2f s is there (%llu of %llu bytes); that plays",
                          static_cast<double>(size) / rate, static_cast<double>(there) / rate,
                          static_cast<unsigned long long>(there), static_cast<unsigned long long>(size));
            item.warning = b;
            item.durationMs = std::min<long>(item.durationMs, std::lround(static_cast<double>(there) * 1000.0 / rate));
        }
        break;
    }

    // The mixer's own answer: a buffer of this format, made and let go at once.
    IDirectSound* pDS = CWaveOut::DSGetDevice(nOutput);
    if (pDS == nullptr) {
        why = "wave output " + std::to_string(nOutput) + " has no device object";
        return false;
    }
    DSBUFFERDESC desc{};
    desc.dwSize = sizeof desc;
    desc.dwFlags = DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLPAN | DSBCAPS_CTRLVOLUME;
    desc.dwBufferBytes = std::max<DWORD>(item.format.nBlockAlign, 1) * 1024;
    desc.lpwfxFormat = reinterpret_cast<LPWAVEFORMATEX>(&item.format);
    IDirectSoundBuffer* pBuffer = nullptr;
    const HRESULT hr = pDS->CreateSoundBuffer(&desc, &pBuffer, nullptr);
    if (hr != DS_OK) {
        std::string text;
        CQXNotify::FormatNotification(QXN_DS_CREATEBUFFER, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(nOutput), text);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
        why = "the mixer cannot play its format (tag " + std::to_string(item.format.wFormatTag) + ", " +
              FormatText(item.format) + "): " + text;
        return false;
    }
    pBuffer->Release();

    const double fileHz = item.format.nSamplesPerSec, wantHz = item.rate * fileHz;
    if (wantHz < kMinHz || wantHz > kMaxHz) {
        char b[160];
        std::snprintf(b, sizeof b, "--rate %g would play it at %.0f Hz; the output takes 100 to 100000 Hz", item.rate,
                      wantHz);
        why = b;
        return false;
    }
    // The control moves in steps of (100 kHz - rate) / 10000 up and (rate - 100 Hz) /
    // 10000 down: the nearest step.
    double control = 0;
    if (wantHz > fileHz)
        control = (wantHz - fileHz) / (kMaxHz - fileHz) * 10000.0;
    else if (wantHz < fileHz)
        control = (wantHz - fileHz) / (fileHz - kMinHz) * 10000.0;
    item.lFrequency = static_cast<LONG>(std::clamp(std::lround(control), -10000L, 10000L));
    item.playMs = static_cast<double>(item.durationMs) * fileHz / HzOf(item.lFrequency, fileHz);
    return true;
}

std::string DescribeWave(const WaveItem& item)
{
    std::string s = FormatText(item.format) + ", " + FormatTime(static_cast<double>(item.durationMs));
    s += item.atMs < 0 ? ", at once" : ", at " + std::to_string(item.atMs) + " ms";
    char b[64];
    if (item.volumeDb != 0) {
        std::snprintf(b, sizeof b, ", %g dB", item.volumeDb);
        s += b;
    }
    if (item.pan != 0) {
        std::snprintf(b, sizeof b, ", pan %g", item.pan);
        s += b;
    }
    if (item.rate != 1) {
        std::snprintf(b, sizeof b, ", rate x%g (%.0f Hz)", item.rate, HzOf(item.lFrequency, item.format.nSamplesPerSec));
        s += b;
    }
    return s;
}

QX_DSParams ParamsOf(const WaveItem& item)
{
    QX_DSParams p{};
    p.lVolume = static_cast<LONG>(std::lround(item.volumeDb * 100.0));
    p.lPan = static_cast<LONG>(std::lround(item.pan * 10000.0));
    p.lFrequency = item.lFrequency;
    p.lpszFileName = item.path.c_str();
    return p;
}

bool PlayWaveNow(CQuavix* q, int nOutput, WaveItem& item, std::string& why)
{
    const QX_DSParams ds = ParamsOf(item);
    const size_t reports = Session::ReportCount();
    item.state.store(WaveItem::kSounding);
    bool bStarted;
    if (ds.lVolume == 0 && ds.lPan == 0 && ds.lFrequency == 0) {
        bStarted = q->PlayWaveFile(item.path.c_str(), nOutput, OnPlayedOut, reinterpret_cast<DWORD_PTR>(&item)) != 0;
    } else {
        // What PlayWaveFile does, with the parameters in force before the sound starts
        // (set after it, they would let its first mix block through unchanged).
        QX_WaveParams params{};
        params.nPerformance = q->GetUniqueTag();
        params.dsParams = ds;
        auto* pPlayer = new (std::nothrow) CWavePlay;
        bStarted = pPlayer != nullptr &&
                   pPlayer->Play(&params, nOutput, 0, OnPlayedOut, reinterpret_cast<DWORD_PTR>(&item), 1) != 0;
        if (!bStarted) delete pPlayer;
    }
    if (bStarted) return true;
    item.state.store(WaveItem::kDone);
    why = Session::ReportCount() != reports ? Session::LastReport() : "the output would not play it";
    return false;
}

WaveSchedule::WaveSchedule(const WaveItems& items, int nTag, int nOutput, long leadMs)
    : m_nTag(nTag), m_nOutput(nOutput), m_leadMs(leadMs)
{
    for (const auto& item : items)
        if (item->atMs >= 0 && !item->bFailed) m_items.push_back(item.get());
    std::stable_sort(m_items.begin(), m_items.end(), [](const WaveItem* a, const WaveItem* b) { return a->atMs < b->atMs; });
    // Each on a track of its own, so that none displaces another.
    for (size_t i = 0; i < m_items.size(); ++i) m_items[i]->nTrack = static_cast<int>(i) + 1;
}

void WaveSchedule::AddDue(CQXEventList& list, DWORD dwEnd)
{
    for (; m_next < m_items.size() && static_cast<DWORD>(m_items[m_next]->atMs + m_leadMs) < dwEnd; ++m_next) {
        const WaveItem& item = *m_items[m_next];
        auto* params = new (std::nothrow) QX_WaveParams{};
        auto* e = params != nullptr ? new (std::nothrow) CQXEventData : nullptr;
        if (e == nullptr) {
            delete params;
            continue;
        }
        params->nPerformance = m_nTag;
        params->nTrack = item.nTrack;
        params->dsParams = ParamsOf(item);
        e->SetWaveData(params); // the event owns them now
        e->SetTimeStamp(static_cast<DWORD>(item.atMs + m_leadMs));
        e->SetDevice(m_nOutput);
        if (list.AddTail(e) == nullptr) delete e;
    }
}

bool WaveSchedule::Watch(CQuavix* q, double performanceMs)
{
    auto* pOut = dynamic_cast<CWaveOut*>(q->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, m_nOutput));
    bool bAll = true;
    for (WaveItem* item : m_items) {
        if (item->state.load() == WaveItem::kDone) continue;
        const bool bOnTrack = pOut != nullptr && pOut->GetTrackParameters(m_nTag, item->nTrack, nullptr) == 1;
        if (bOnTrack) {
            item->state.store(WaveItem::kSounding);
        } else if (item->state.load() == WaveItem::kSounding ||
                   performanceMs >= static_cast<double>(item->atMs + m_leadMs) + item->playMs + 1000.0) {
            // Off its track once it has played out; or never seen there at all (a file
            // too short to catch), but long past its end.
            item->state.store(WaveItem::kDone);
        }
        bAll = bAll && item->state.load() == WaveItem::kDone;
    }
    return bAll;
}

double WaveSchedule::EndMs() const
{
    double end = 0;
    for (const WaveItem* item : m_items) end = std::max(end, static_cast<double>(item->atMs + m_leadMs) + item->playMs);
    return end;
}

void PeakMeter::Read()
{
    float l = 0, r = 0;
    if (!qxplat::DirectSoundTakePeak(CWaveOut::DSGetDevice(m_nOutput), &l, &r)) return;
    m_at = (m_at + 1) % 6;
    m_recent[0][m_at] = l;
    m_recent[1][m_at] = r;
    m_max[0] = std::max(m_max[0], l);
    m_max[1] = std::max(m_max[1], r);
}

std::string PeakMeter::FormatDb(double db)
{
    if (db < -99.95) return "-inf";
    char b[32];
    std::snprintf(b, sizeof b, "%.1f", db);
    return b;
}

std::string PeakMeter::Text() const
{
    // Held over the last few reads, so that a short peak stays long enough to be read.
    float l = 0, r = 0;
    for (int i = 0; i < 6; ++i) {
        l = std::max(l, m_recent[0][i]);
        r = std::max(r, m_recent[1][i]);
    }
    return "L " + FormatDb(ToDb(l)) + " R " + FormatDb(ToDb(r)) + " dBFS";
}

bool WaveRender::Prepare(const std::string& command, const std::string& path)
{
    if (!m_file.Prepare(command, path)) return false;
    m_written = m_file.Temp();
    if (m_written.find("%d") != std::string::npos) {
        Fail(command, "cannot write " + path + ": \"%d\" in its folder's name would be taken for the output number");
        return false;
    }
    // No "%d": every output would write here, but only the one that starts does.
    setenv("QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE", m_written.c_str(), 1);
    return true;
}

bool WaveRender::Finish(std::string& error, double& seconds)
{
    // The capture keeps its header true whenever it closes; a file that is not whole
    // means the write failed on the way.
    std::ifstream in(m_written, std::ios::binary | std::ios::ate);
    if (!in) {
        error = "the wave output wrote no render to " + m_file.Path() + " (it never started)";
        return false;
    }
    const auto size = static_cast<uint64_t>(in.tellg());
    unsigned char h[44] = {};
    in.seekg(0);
    in.read(reinterpret_cast<char*>(h), sizeof h);
    const bool bWhole = in.gcount() == 44 && std::memcmp(h, "RIFF", 4) == 0 && Le32(h + 4) + 8 == size &&
                        std::memcmp(h + 36, "data", 4) == 0 && Le32(h + 40) + 44 == size;
    if (!bWhole) {
        error = "cannot write " + m_file.Path() + ": the render was cut short";
        return false;
    }
    const uint32_t rate = Le32(h + 24), align = h[32] | h[33] << 8, bits = h[34] | h[35] << 8;
    seconds = rate != 0 && align != 0 ? static_cast<double>(Le32(h + 40)) / (1.0 * align * rate) : 0.0;
    m_format = std::to_string(bits) + "-bit " + (h[22] == 1 ? "mono" : "stereo");
    return m_file.Finish(error);
}

} // namespace qxcli

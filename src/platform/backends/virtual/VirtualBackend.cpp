#include "platform/backends/virtual/QXVirtual.h"
#include "platform/backends/virtual/QXVirtualAudio.h"
#include "platform/backends/virtual/QXVirtualPorts.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qxplat {

namespace {

const char* const kKindKeys[4] = {"midi-in", "midi-out", "wave-in", "wave-out"};
const char* const kKindNames[4] = {"MIDI In", "MIDI Out", "Wave In", "Wave Out"};
constexpr int kMaxDevices = 64;

class Virtual final : public Backend {
public:
    Virtual()
    {
        int counts[4] = {1, 1, 1, 1};
        const char* text = std::getenv("QUAVIX_VIRTUAL_DEVICES");
        if (text != nullptr && !QXVirtualParseDevices(text, counts))
            std::fprintf(stderr, "quavix: ignoring malformed QUAVIX_VIRTUAL_DEVICES \"%s\"\n", text);
        for (int i = 0; i < 4; ++i) m_counts[i] = counts[i];
    }

    const char* Name() const override { return "virtual"; }

    int Count(DeviceKind kind) override { return m_counts[static_cast<int>(kind)].load(); }

    bool IsExternalMidiOut(int) override { return false; }
    std::string DeviceName(DeviceKind kind, int n) override
    {
        if (n < 0 || n >= Count(kind)) return {};
        return std::string("Quavix Virtual ") + kKindNames[static_cast<int>(kind)] + " " + std::to_string(n + 1);
    }

    MMRESULT OpenMidiOut(int n, std::unique_ptr<MidiOutPort>& port) override
    {
        if (n < 0 || n >= Count(DeviceKind::MidiOut)) return MMSYSERR_BADDEVICEID;
        return OpenVirtualMidiOut(n, port);
    }

    MMRESULT OpenMidiIn(int n, MidiInSink* pSink, std::unique_ptr<MidiInPort>& port) override
    {
        if (n < 0 || n >= Count(DeviceKind::MidiIn)) return MMSYSERR_BADDEVICEID;
        return OpenVirtualMidiIn(n, pSink, port);
    }

    MMRESULT OpenAudioOut(int n, std::unique_ptr<AudioOutPort>& port) override
    {
        if (n < 0 || n >= Count(DeviceKind::WaveOut)) return MMSYSERR_BADDEVICEID;
        return OpenVirtualAudioOut(n, port);
    }

    MMRESULT OpenAudioIn(int n, std::unique_ptr<AudioInPort>& port) override
    {
        if (n < 0 || n >= Count(DeviceKind::WaveIn)) return MMSYSERR_BADDEVICEID;
        return OpenVirtualAudioIn(n, port);
    }

    void SetCounts(const int counts[4])
    {
        for (int i = 0; i < 4; ++i) m_counts[i] = counts[i];
    }

private:
    std::atomic<int> m_counts[4];
};

Virtual& Instance()
{
    static Virtual* s = new Virtual; // reachable by threads still running at exit
    return *s;
}

} // namespace

Backend& VirtualBackend()
{
    return Instance();
}

bool QXVirtualParseDevices(const char* pszText, int counts[4])
{
    if (pszText == nullptr) return false;
    int parsed[4] = {counts[0], counts[1], counts[2], counts[3]};
    std::string text(pszText);
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find(',', pos);
        if (end == std::string::npos) end = text.size();
        std::string item = text.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty()) {
            if (end == text.size()) break;
            continue;
        }
        size_t eq = item.find('=');
        if (eq == std::string::npos) return false;
        std::string key = item.substr(0, eq), value = item.substr(eq + 1);
        int k = 0;
        while (k < 4 && key != kKindKeys[k]) ++k;
        if (k == 4 || value.empty() || value.size() > 3) return false;
        char* stop = nullptr;
        long n = std::strtol(value.c_str(), &stop, 10);
        if (*stop != '\0' || n < 0 || n > kMaxDevices) return false;
        parsed[k] = static_cast<int>(n);
    }
    for (int i = 0; i < 4; ++i) counts[i] = parsed[i];
    return true;
}

void QXVirtualSetDevices(int nMidiIn, int nMidiOut, int nWaveIn, int nWaveOut)
{
    auto clamp = [](int n) { return n < 0 ? 0 : (n > kMaxDevices ? kMaxDevices : n); };
    int counts[4] = {clamp(nMidiIn), clamp(nMidiOut), clamp(nWaveIn), clamp(nWaveOut)};
    Instance().SetCounts(counts);
}

} // namespace qxplat

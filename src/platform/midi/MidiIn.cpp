// MIDI inputs on the backend's ports. Whatever bytes a port delivers are cut into short
// messages (running status resolved, real-time bytes taken where they fall) and handed
// to the callback with millisecond time stamps from midiInStart. System-exclusive data
// needs input buffers, which are not offered: it is passed over.
#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

using qxplat::NowNs;

namespace {

size_t DataBytes(BYTE status)
{
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 1;
    case 0xF0:
        return status == 0xF2 ? 2 : (status == 0xF1 || status == 0xF3) ? 1 : 0;
    default:
        return 2;
    }
}

class Input final : public qxplat::MidiInSink {
public:
    Input(DWORD fdwOpen, DWORD_PTR dwCallback, DWORD_PTR dwInstance)
        : m_callbackType(fdwOpen & CALLBACK_TYPEMASK), m_dwCallback(dwCallback), m_dwInstance(dwInstance)
    {
    }

    void Callback(UINT uMsg, DWORD_PTR p1, DWORD_PTR p2)
    {
        if (m_callbackType == CALLBACK_FUNCTION && m_dwCallback != 0)
            reinterpret_cast<MIDIINPROC>(m_dwCallback)(m_handle, uMsg, m_dwInstance, p1, p2);
        else if (m_callbackType == CALLBACK_WINDOW)
            PostMessageA(reinterpret_cast<HWND>(m_dwCallback), uMsg, reinterpret_cast<WPARAM>(m_handle),
                         static_cast<LPARAM>(p1));
    }

    // The backend's callback context: one thread per port, so the parser needs no lock.
    void OnMidiData(const BYTE* pData, size_t cb, int64_t timeNs) override
    {
        if (!m_bStarted.load()) return;
        m_deliverer.store(std::this_thread::get_id());
        Deliver(pData, cb, timeNs);
        m_deliverer.store(std::thread::id());
    }

    // Closing waits for the delivery in progress: from inside it, that would be forever.
    bool Delivering() const { return m_deliverer.load() == std::this_thread::get_id(); }

    HMIDIIN m_handle = nullptr;
    std::unique_ptr<qxplat::MidiInPort> m_port;
    std::atomic<bool> m_bStarted{false};
    std::atomic<int64_t> m_startNs{0};

private:
    void Deliver(const BYTE* pData, size_t cb, int64_t timeNs)
    {
        const int64_t startNs = m_startNs.load();
        const DWORD dwTime = timeNs > startNs ? static_cast<DWORD>((timeNs - startNs) / 1'000'000) : 0;
        for (size_t i = 0; i < cb; ++i) {
            const BYTE b = pData[i];
            if (b >= 0xF8) { // real-time: a message of its own, even inside another
                Callback(MIM_DATA, b, dwTime);
                continue;
            }
            if (m_bInSysEx) {
                if (b == 0xF7) m_bInSysEx = false;
                if (b < 0x80 || b == 0xF7) continue;
                m_bInSysEx = false; // a status byte ends an unterminated SysEx
            }
            if (b == 0xF0) {
                m_bInSysEx = true;
                m_status = 0;
                continue;
            }
            if (b >= 0x80) {
                m_status = b;
                m_nHave = 0;
                if (b >= 0xF0) m_running = 0; // system common cancels running status
                else m_running = b;
                if (DataBytes(b) == 0) {
                    if (b != 0xF7) Callback(MIM_DATA, b, dwTime);
                    m_status = 0;
                }
                continue;
            }
            if (m_status == 0) { // data byte: continue under running status, if any
                if (m_running == 0) continue;
                m_status = m_running;
                m_nHave = 0;
            }
            m_data[m_nHave++] = b;
            if (m_nHave == DataBytes(m_status)) {
                DWORD dwMsg = m_status | (DWORD{m_data[0]} << 8) | (m_nHave > 1 ? DWORD{m_data[1]} << 16 : 0);
                Callback(MIM_DATA, dwMsg, dwTime);
                m_status = 0;
                m_nHave = 0;
            }
        }
    }

    std::atomic<std::thread::id> m_deliverer{};
    const DWORD m_callbackType;
    const DWORD_PTR m_dwCallback;
    const DWORD_PTR m_dwInstance;
    BYTE m_status = 0, m_running = 0;
    BYTE m_data[2] = {0, 0};
    size_t m_nHave = 0;
    bool m_bInSysEx = false;
};

struct InputTable {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Input>> inputs;
    uintptr_t next = 0x60000;
};

InputTable& Table()
{
    static InputTable* s = new InputTable;
    return *s;
}

std::shared_ptr<Input> Find(HMIDIIN h)
{
    std::lock_guard<std::mutex> lock(Table().mutex);
    auto it = Table().inputs.find(reinterpret_cast<uintptr_t>(h));
    return it == Table().inputs.end() ? nullptr : it->second;
}


} // namespace

MMRESULT midiInOpen(HMIDIIN* phmi, UINT uDeviceID, DWORD_PTR dwCallback, DWORD_PTR dwInstance, DWORD fdwOpen)
{
    MMRESULT r;
    if (phmi == nullptr) return MMSYSERR_INVALPARAM;
    const DWORD type = fdwOpen & CALLBACK_TYPEMASK;
    if (type != CALLBACK_NULL && type != CALLBACK_FUNCTION && type != CALLBACK_WINDOW) return MMSYSERR_INVALFLAG;
    if (QXFaultCheck("midiInOpen", &r)) return r;
    auto input = std::make_shared<Input>(fdwOpen, dwCallback, dwInstance);
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().next += 4;
        input->m_handle = reinterpret_cast<HMIDIIN>(Table().next);
    }
    r = qxplat::CurrentBackend().OpenMidiIn(static_cast<int>(uDeviceID), input.get(), input->m_port);
    if (r != MMSYSERR_NOERROR) return r;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().inputs.emplace(reinterpret_cast<uintptr_t>(input->m_handle), input);
    }
    *phmi = input->m_handle;
    input->Callback(MIM_OPEN, 0, 0);
    return MMSYSERR_NOERROR;
}

MMRESULT midiInStart(HMIDIIN hmi)
{
    MMRESULT r;
    auto in = Find(hmi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiInStart", &r)) return r;
    if (!in->m_bStarted.load()) {
        in->m_startNs = NowNs();
        in->m_bStarted = true;
    }
    return MMSYSERR_NOERROR;
}

MMRESULT midiInStop(HMIDIIN hmi)
{
    MMRESULT r;
    auto in = Find(hmi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiInStop", &r)) return r;
    in->m_bStarted = false;
    return MMSYSERR_NOERROR;
}

MMRESULT midiInReset(HMIDIIN hmi)
{
    return midiInStop(hmi);
}

MMRESULT midiInClose(HMIDIIN hmi)
{
    MMRESULT r;
    auto in = Find(hmi);
    if (!in) return MMSYSERR_INVALHANDLE;
    if (QXFaultCheck("midiInClose", &r)) return r;
    if (in->Delivering()) return MMSYSERR_HANDLEBUSY;
    {
        std::lock_guard<std::mutex> lock(Table().mutex);
        Table().inputs.erase(reinterpret_cast<uintptr_t>(hmi));
    }
    in->m_bStarted = false;
    in->m_port.reset(); // waits for a delivery in progress: no callback after this
    in->Callback(MIM_CLOSE, 0, 0);
    return MMSYSERR_NOERROR;
}

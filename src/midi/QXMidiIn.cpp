#include <quavix/QXMidiIn.h>
#include <quavix/QXQuavix.h>

#include "platform/QXPlatform.h"

#include <new>

CMidiIn::~CMidiIn()
{
    // No open input may outlive this object: its callback names it. Close through this
    // class's own hooks, then end the thread that records.
    Close();
    ThreadStop();
}

int CMidiIn::GetDeviceCaps(int nDevice, QX_DevCaps* pCaps)
{
    if (pCaps == nullptr) return 0;
    MMRESULT r = midiInGetDevCapsA(static_cast<UINT_PTR>(nDevice), &pCaps->midiIn, sizeof(MIDIINCAPSA));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIIN_GETCAPS, r, static_cast<DWORD_PTR>(nDevice));
        return 0;
    }
    return 1;
}

int CMidiIn::DevOpen()
{
    HMIDIIN hIn = nullptr;
    MMRESULT r = midiInOpen(&hIn, static_cast<UINT>(m_nDevice.load()), reinterpret_cast<DWORD_PTR>(_MidiInProc),
                            reinterpret_cast<DWORD_PTR>(this), CALLBACK_FUNCTION);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIIN_OPEN, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    m_hDevice = hIn;
    return 1;
}

int CMidiIn::DevStart()
{
    MMRESULT r = midiInStart(static_cast<HMIDIIN>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIIN_START, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

// A paused input is a stopped input.
int CMidiIn::DevPause()
{
    return Stop();
}

int CMidiIn::DevStop()
{
    MMRESULT r = midiInStop(static_cast<HMIDIIN>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIIN_STOP, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

int CMidiIn::DevClose()
{
    MMRESULT r = midiInClose(static_cast<HMIDIIN>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_MIDIIN_CLOSE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

void CALLBACK CMidiIn::_MidiInProc(HMIDIIN, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1, DWORD_PTR dwParam2)
{
    if (uMsg != MIM_DATA) return;
    auto* pThis = reinterpret_cast<CMidiIn*>(dwInstance);
    CQuavix* pManager = CQuavix::GetQuavix();
    const bool bSlave = pManager != nullptr && pManager->GetSyncMode() == QX_SYNCMODE_SLAVE;
    const auto dwMsg = static_cast<DWORD>(dwParam1);
    switch (dwMsg & 0xFF) {
    case 0xF1:
    case 0xF2:
    case 0xF3:
    case 0xF6:
    case 0xF7:
    case 0xFE:
    case 0xFF:
        return;
    case 0xF8:
        if (bSlave) {
            HWND hManager = pManager->GetHWnd();
            int nPending = pThis->m_nPendingTransport.exchange(0);
            if (nPending == 1) PostMessageA(hManager, QXM_SYNCSTART, 0, 0);
            if (nPending == 2) PostMessageA(hManager, QXM_SYNCCONTINUE, 0, 0);
            PostMessageA(hManager, QXM_SYNCCLOCK, 0, static_cast<LPARAM>(dwParam2));
        }
        return;
    case 0xFA:
        if (bSlave) pThis->m_nPendingTransport = 1;
        return;
    case 0xFB:
        if (bSlave) pThis->m_nPendingTransport = 2;
        return;
    case 0xFC:
        if (bSlave) PostMessageA(pManager->GetHWnd(), QXM_SYNCSTOP, 0, 0);
        return;
    default:
        break;
    }
    if (pManager != nullptr && pManager->MidiThruEnabled()) {
        DWORD dwThru = dwMsg;
        const int nChannel = pManager->GetMidiThruChannel();
        if (nChannel >= 0) dwThru = (dwThru & ~0x0Fu) | (static_cast<DWORD>(nChannel) & 0x0F);
        pManager->SendMidiMsg(static_cast<UINT>(pManager->GetMidiThruDevice()), dwThru, 0);
    }
    PostMessageA(pThis->m_hWnd, MIM_DATA, dwParam1, static_cast<LPARAM>(dwParam2));
}

LRESULT CMidiIn::WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    switch (uMsg) {
    case MM_MIM_OPEN:
    case MM_MIM_LONGDATA:
    case MM_MIM_ERROR:
        return OnMidiInOpen(wParam, lParam);
    case MM_MIM_CLOSE:
        return OnMidiInClose(wParam, lParam);
    case MM_MIM_DATA:
        return OnMidiInData(wParam, lParam);
    case MM_MIM_LONGERROR:
        return OnMidiInLongError(wParam, lParam);
    default:
        return CQXDevice::WndProc(uMsg, wParam, lParam);
    }
}

LRESULT CMidiIn::OnMidiInOpen(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiIn::OnMidiInClose(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiIn::OnMidiInLongError(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CMidiIn::OnMidiInData(WPARAM wParam, LPARAM lParam)
{
    CQuavix* pManager = CQuavix::GetQuavix();
    if (pManager == nullptr) return 0;
    auto* pEvent = new (std::nothrow) CQXEventData;
    if (pEvent == nullptr) return 0;
    auto dwTime = static_cast<DWORD>(lParam);
    if (pManager->GetSyncMode() == QX_SYNCMODE_SLAVE) {
        // Input time counts from the input's start; performance time from play start.
        auto nDelta = static_cast<int32_t>(pManager->GetPlayStartTime() - pManager->GetRecordStartTime());
        if (nDelta > static_cast<int32_t>(dwTime)) nDelta = static_cast<int32_t>(dwTime);
        dwTime -= static_cast<DWORD>(nDelta);
    }
    pEvent->SetMidiData(static_cast<DWORD>(wParam));
    pEvent->SetDevice(m_nDevice);
    pEvent->SetTimeStamp(dwTime);
    pManager->ForwardRecordedData(pEvent);
    delete pEvent;
    return 0;
}

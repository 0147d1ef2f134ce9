#include <quavix/QXQuavix.h>
#include <quavix/QXWaveIn.h>

#include "platform/QXPlatform.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {
constexpr DWORD kStopWaitMs = 5000;
constexpr UINT kHeaderSize = sizeof(WAVEHDR);
} // namespace

// The buffer lock, and on its release the reports made while it was held, raised by the
// thread that made them.
class CWaveIn::BufferLock {
public:
    explicit BufferLock(CWaveIn& in) : m_in(in), m_lock(in.m_mxBuffers) {}
    ~BufferLock() { Release(); }
    BufferLock(const BufferLock&) = delete;
    BufferLock& operator=(const BufferLock&) = delete;

    void Release()
    {
        if (!m_lock.owns_lock()) return;
        Report reports[kMaxReports];
        const int n = m_in.m_nReports;
        std::copy_n(m_in.m_Reports, n, reports);
        m_in.m_nReports = 0;
        const auto dwDevice = static_cast<DWORD_PTR>(m_in.m_nDevice.load());
        m_lock.unlock();
        for (int i = 0; i < n; ++i) QXNotifyShared(reports[i].dwCode, reports[i].dwValue, dwDevice);
    }

private:
    CWaveIn& m_in;
    std::unique_lock<std::mutex> m_lock;
};

void CWaveIn::_Report(DWORD dwCode, DWORD dwValue)
{
    if (m_nReports < kMaxReports) m_Reports[m_nReports++] = {dwCode, dwValue};
}

CWaveIn::~CWaveIn()
{
    Close();
    {
        // The manager deletes its devices only once no recording call is under way, so
        // a buffer still in the device thread's hands comes back at once.
        std::unique_lock<std::mutex> lock(m_mxBuffers);
        m_cvInHand.wait(lock, [this] { return m_nInHand == 0; });
    }
    if (auto h = static_cast<HWAVEIN>(m_hDevice.load())) {
        // A close that failed leaves the platform naming this object: end it regardless.
        waveInReset(h);
        waveInClose(h);
        m_hDevice = nullptr;
    }
    ThreadStop();
    FreeBuffers();
    std::lock_guard<std::mutex> lock(m_mxBuffers);
    if (m_pRetiredBlock != nullptr) _ReleaseBlock(m_pRetiredBlock, m_dwRetiredSize);
    m_pRetiredBlock = nullptr;
    if (m_hIdleEvent != nullptr) CloseHandle(m_hIdleEvent);
    m_hIdleEvent = nullptr;
}

int CWaveIn::GetDeviceCaps(int nDevice, QX_DevCaps* pCaps)
{
    if (pCaps == nullptr) return 0;
    MMRESULT r = waveInGetDevCapsA(static_cast<UINT_PTR>(nDevice), &pCaps->waveIn, sizeof(WAVEINCAPSA));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_WAVEIN_GETCAPS, r, static_cast<DWORD_PTR>(nDevice));
        return 0;
    }
    return 1;
}

int CWaveIn::SetFormat(QX_DevFormat* pFormat)
{
    delete m_pFormat;
    m_pFormat = nullptr;
    if (pFormat == nullptr) return 0;
    auto* pNew = new (std::nothrow) QX_DevFormat;
    if (pNew == nullptr) return 0;
    const int nDevice = m_nDevice;
    const bool bReopen = TestState(QX_STATE_OPEN) != 0;
    // Closed before the new format is in place: the buffers are sized by the old one.
    if (bReopen) Close();
    std::memcpy(pNew, pFormat, sizeof(QX_DevFormat));
    m_pFormat = pNew;
    if (bReopen) Open(nDevice);
    return 1;
}

int CWaveIn::DevOpen()
{
    if (m_pFormat == nullptr) {
        m_pFormat = new (std::nothrow) QX_DevFormat;
        if (m_pFormat == nullptr) return 0;
        FillFormat(reinterpret_cast<WAVEFORMATEX*>(m_pFormat), GetDefaultFormat());
    }
    HWAVEIN hIn = nullptr;
    MMRESULT r = waveInOpen(&hIn, static_cast<UINT>(m_nDevice.load()), reinterpret_cast<LPCWAVEFORMATEX>(m_pFormat),
                            reinterpret_cast<DWORD_PTR>(_WaveInProc), reinterpret_cast<DWORD_PTR>(this),
                            CALLBACK_FUNCTION);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_WAVEIN_OPEN, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    m_hDevice = hIn;
    m_bRecording = false;
    if (!AllocateBuffers()) {
        DevClose();
        return 0;
    }
    bool bQueued;
    {
        BufferLock lock(*this);
        m_nNextBuffer = 0;
        m_nQueuedBuffers = 0;
        if (m_hIdleEvent == nullptr) m_hIdleEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
        bQueued = _QueueBuffer(0) != 0;
    }
    if (!bQueued) {
        DevStop();
        DevClose();
        FreeBuffers();
        return 0;
    }
    return 1;
}

// A wave input started again after a stop or a pause records again: whatever buffer is
// not queued is queued first. Both stay queued while it records, so the platform always
// has one to fill while the other is handed on: no sample is lost between buffers.
int CWaveIn::DevStart()
{
    if (TestState(QX_STATE_STOPPING)) return 0;
    {
        BufferLock lock(*this);
        for (int n = 0; n < 2; ++n) {
            const int nBuffer = m_nNextBuffer;
            if (m_pBlock != nullptr && m_nBufferState[nBuffer] == kIdle) _QueueBuffer(nBuffer);
        }
    }
    m_bRecording = true;
    MMRESULT r = waveInStart(static_cast<HWAVEIN>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        m_bRecording = false;
        QXNotifyShared(QXN_WAVEIN_START, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    return 1;
}

// Pausing a wave input stops it.
int CWaveIn::DevPause()
{
    return DevStop();
}

int CWaveIn::DevStop()
{
    AddState(QX_STATE_STOPPING);
    m_bRecording = false;
    const auto hIn = static_cast<HWAVEIN>(m_hDevice.load());
    MMRESULT r = waveInStop(hIn);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_WAVEIN_STOP, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    r = waveInReset(hIn);
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_WAVEIN_RESET, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    // Every buffer has been handed back by now; their messages are queued for this
    // device's thread. Called there (a recording callback stopping the group), waiting
    // for them would wait out the limit, so they are taken here; the one whose callback
    // is running comes back when it returns.
    if (_OnOwnThread()) {
        _TakeReturnedBuffers();
        return 1;
    }
    HANDLE hIdle;
    {
        std::lock_guard<std::mutex> lock(m_mxBuffers);
        // Nothing queued (a paused input being closed): nothing to wait for.
        if (m_nQueuedBuffers < 1) {
            RemoveState(QX_STATE_STOPPING);
            return 1;
        }
        hIdle = m_hIdleEvent;
    }
    if (hIdle != nullptr) {
        WaitForSingleObject(hIdle, kStopWaitMs);
        ResetEvent(hIdle);
    }
    return 1;
}

int CWaveIn::DevClose()
{
    MMRESULT r = waveInClose(static_cast<HWAVEIN>(m_hDevice.load()));
    if (r != MMSYSERR_NOERROR) {
        QXNotifyShared(QXN_WAVEIN_CLOSE, r, static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    m_hDevice = nullptr;
    FreeBuffers();
    std::lock_guard<std::mutex> lock(m_mxBuffers);
    if (m_hIdleEvent != nullptr) CloseHandle(m_hIdleEvent);
    m_hIdleEvent = nullptr;
    return 1;
}

int CWaveIn::AllocateBuffers()
{
    BufferLock lock(*this);
    if (m_pBlock != nullptr) return 1;
    const DWORD dwLength = m_pFormat->nAvgBytesPerSec >> 1;
    // Header 1 follows buffer 0 at the next 8-byte boundary: a 64-bit header holds
    // pointers, and half a second of audio is seldom a multiple of 8 bytes.
    const DWORD dwStride = kHeaderSize + ((dwLength + 7) & ~DWORD{7});
    const DWORD dwSize = dwStride + kHeaderSize + dwLength;
    auto* pBlock = static_cast<BYTE*>(VirtualAlloc(nullptr, dwSize, MEM_COMMIT, PAGE_READWRITE));
    if (pBlock == nullptr) {
        _Report(QXN_WAVEIN_VIRTUALALLOC, 0);
        return 0;
    }
    if (!VirtualLock(pBlock, dwSize)) {
        _Report(QXN_WAVEIN_VIRTUALLOCK, 0);
        VirtualFree(pBlock, 0, MEM_RELEASE);
        return 0;
    }
    m_pBlock = pBlock;
    m_dwBufferLength = dwLength;
    m_dwBlockSize = dwSize;
    for (int n = 0; n < 2; ++n) {
        BYTE* p = pBlock + n * dwStride;
        m_pHeaders[n] = reinterpret_cast<WAVEHDR*>(p);
        std::memset(m_pHeaders[n], 0, kHeaderSize);
        m_pHeaders[n]->lpData = reinterpret_cast<LPSTR>(p + kHeaderSize);
        m_pHeaders[n]->dwBufferLength = dwLength;
        m_nBufferState[n] = kIdle;
    }
    m_nQueuedBuffers = 0;
    return 1;
}

// A block one of whose buffers is still being handed on (closed from a recording
// callback, or after a stop gave up waiting) is retired, not freed: the device's thread
// frees it once the callbacks are done with it.
int CWaveIn::FreeBuffers()
{
    std::lock_guard<std::mutex> lock(m_mxBuffers);
    if (m_pBlock == nullptr) return 1;
    if (m_nBufferState[0] == kInHand || m_nBufferState[1] == kInHand) {
        m_pRetiredBlock = m_pBlock;
        m_dwRetiredSize = m_dwBlockSize;
    } else {
        _ReleaseBlock(m_pBlock, m_dwBlockSize);
    }
    m_pBlock = nullptr;
    m_pHeaders[0] = m_pHeaders[1] = nullptr;
    m_nBufferState[0] = m_nBufferState[1] = kIdle;
    m_nQueuedBuffers = 0;
    m_dwBufferLength = 0;
    m_dwBlockSize = 0;
    return 1;
}

void CWaveIn::_ReleaseBlock(BYTE* pBlock, DWORD dwSize)
{
    VirtualUnlock(pBlock, dwSize);
    VirtualFree(pBlock, 0, MEM_RELEASE);
}

// With m_mxBuffers held.
int CWaveIn::PrepareBuffer(WAVEHDR* pHeader)
{
    const auto hIn = static_cast<HWAVEIN>(m_hDevice.load());
    MMRESULT r = waveInPrepareHeader(hIn, pHeader, kHeaderSize);
    if (r != MMSYSERR_NOERROR) {
        _Report(QXN_WAVEIN_PREPARE, r);
        return 0;
    }
    r = waveInAddBuffer(hIn, pHeader, kHeaderSize);
    if (r != MMSYSERR_NOERROR) {
        _Report(QXN_WAVEIN_ADDBUFFER, r);
        return 0;
    }
    if (m_hIdleEvent != nullptr) ResetEvent(m_hIdleEvent);
    ++m_nQueuedBuffers;
    return 1;
}

// With m_mxBuffers held.
int CWaveIn::UnprepareBuffer(WAVEHDR* pHeader)
{
    MMRESULT r = waveInUnprepareHeader(static_cast<HWAVEIN>(m_hDevice.load()), pHeader, kHeaderSize);
    if (r != MMSYSERR_NOERROR) {
        _Report(QXN_WAVEIN_UNPREPARE, r);
        return 0;
    }
    if (--m_nQueuedBuffers < 1) {
        RemoveState(QX_STATE_STOPPING);
        if (m_hIdleEvent != nullptr) SetEvent(m_hIdleEvent);
    }
    return 1;
}

// With m_mxBuffers held.
int CWaveIn::_QueueBuffer(int nBuffer)
{
    WAVEHDR* pHeader = m_pHeaders[nBuffer];
    if (pHeader == nullptr) return 0;
    if (!PrepareBuffer(pHeader)) {
        // A header that was prepared but not added is taken back, so that it can be
        // queued again later.
        if (pHeader->dwFlags & WHDR_PREPARED)
            waveInUnprepareHeader(static_cast<HWAVEIN>(m_hDevice.load()), pHeader, kHeaderSize);
        return 0;
    }
    m_nBufferState[nBuffer] = kQueued;
    m_nNextBuffer = 1 - nBuffer;
    return 1;
}

// With m_mxBuffers held.
int CWaveIn::_UnqueueBuffer(int nBuffer)
{
    if (!UnprepareBuffer(m_pHeaders[nBuffer])) return 0;
    m_nBufferState[nBuffer] = kIdle;
    return 1;
}

// Which of this block's buffers a returned header is, or -1: a message that outlived
// its block (a close that gave up waiting) or one already handled names none that is
// queued and done.
int CWaveIn::_BufferOf(const WAVEHDR* pHeader) const
{
    for (int n = 0; n < 2; ++n)
        if (pHeader != nullptr && pHeader == m_pHeaders[n] && m_nBufferState[n] == kQueued &&
            (pHeader->dwFlags & WHDR_DONE))
            return n;
    return -1;
}

bool CWaveIn::_OnOwnThread() const
{
    return GetCurrentThreadId() == m_dwThreadId;
}

void CWaveIn::_TakeReturnedBuffers()
{
    MSG msg;
    while (PeekMessageA(&msg, m_hWnd, WIM_DATA, WIM_DATA, PM_REMOVE)) OnWaveInData(msg.wParam, msg.lParam);
}

void CALLBACK CWaveIn::_WaveInProc(HWAVEIN, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1, DWORD_PTR dwParam2)
{
    auto* pThis = reinterpret_cast<CWaveIn*>(dwInstance);
    PostMessageA(pThis->m_hWnd, uMsg, static_cast<WPARAM>(dwParam1), static_cast<LPARAM>(dwParam2));
}

LRESULT CWaveIn::WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    switch (uMsg) {
    case WIM_OPEN:
        return OnWaveInOpen(wParam, lParam);
    case WIM_CLOSE:
        return OnWaveInClose(wParam, lParam);
    case WIM_DATA:
        return OnWaveInData(wParam, lParam);
    case WIM_OVERRUN: // the platform's own: recorded frames were lost
        QXNotifyShared(QXN_WAVEIN_OVERRUN, static_cast<DWORD>(wParam), static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    default:
        return CQXDevice::WndProc(uMsg, wParam, lParam);
    }
}

LRESULT CWaveIn::OnWaveInOpen(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CWaveIn::OnWaveInClose(WPARAM, LPARAM)
{
    return 0;
}

LRESULT CWaveIn::OnWaveInData(WPARAM wParam, LPARAM)
{
    auto* pHeader = reinterpret_cast<WAVEHDR*>(wParam);
    int nBuffer;
    {
        BufferLock lock(*this);
        nBuffer = _BufferOf(pHeader);
        if (nBuffer < 0) return 0;
        m_nBufferState[nBuffer] = kInHand;
        ++m_nInHand;
        // The other buffer is queued before this one is handed on (it already is,
        // unless queuing it failed before).
        if (m_bRecording && !TestState(QX_STATE_STOPPING) && m_nBufferState[1 - nBuffer] == kIdle)
            _QueueBuffer(1 - nBuffer);
    }
    // Asked after the reports: their callback may have stopped or closed this input.
    if (m_bRecording && !TestState(QX_STATE_STOPPING)) {
        if (auto* pEvent = new (std::nothrow) CQXEventData) {
            pEvent->SetWaveHeader(pHeader);
            pEvent->SetDevice(m_nDevice);
            if (CQuavix* pManager = CQuavix::GetQuavix()) pManager->ForwardRecordedData(pEvent);
            delete pEvent;
        }
    }
    BufferLock lock(*this);
    const auto* p = reinterpret_cast<const BYTE*>(pHeader);
    if (m_pRetiredBlock != nullptr && p >= m_pRetiredBlock && p < m_pRetiredBlock + m_dwRetiredSize) {
        // Closed while the callbacks had it: the platform is done with the block too.
        _ReleaseBlock(m_pRetiredBlock, m_dwRetiredSize);
        m_pRetiredBlock = nullptr;
    } else if (pHeader == m_pHeaders[nBuffer]) {
        m_nBufferState[nBuffer] = kQueued; // still prepared
        if (_UnqueueBuffer(nBuffer) && m_bRecording && !TestState(QX_STATE_STOPPING)) _QueueBuffer(nBuffer);
    }
    --m_nInHand;
    m_cvInHand.notify_all();
    return 0;
}

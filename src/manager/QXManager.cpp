// The manager's life and its device registry.
#include <quavix/QXMidiIn.h>
#include <quavix/QXMidiOut.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveIn.h>
#include <quavix/QXWaveOut.h>

#include "manager/QXDeviceFactory.h"
#include "platform/QXPlatform.h"

#include <cstdlib>
#include <new>
#include <thread>

std::atomic<CQuavix*> CQuavix::s_pSharedQuavix{nullptr};
int CQuavix::s_bRegistered = 0;

namespace {

std::atomic<QX_DeviceFactory> g_pDeviceFactory{nullptr};

// Scopes of manager code under way on all threads; ExitQuavix waits for them to end
// after it has withdrawn the shared pointer, before it destroys the manager.
std::atomic<int> g_nCallers{0};
// Scopes under way on this thread, callbacks of the library included.
thread_local int t_nDepth = 0;
// The manager this thread is destroying: its own operations stay usable to it.
thread_local const CQuavix* t_pDestroying = nullptr;
// The application's notification callback, called through CQuavix::_NotifyProc.
std::atomic<QX_NotifyProc> g_pAppNotify{nullptr};

// InitQuavix and ExitQuavix may be called from several threads of the application.
std::mutex& LifeMutex()
{
    static std::mutex m;
    return m;
}

} // namespace

void QXSetDeviceFactory(QX_DeviceFactory pFactory)
{
    g_pDeviceFactory.store(pFactory);
}

int InitQuavix()
{
    return 0;
}

CQuavix::CallScope::CallScope(const CQuavix* pManager)
{
    ++t_nDepth;
    // Counted before the check, and ExitQuavix withdraws the pointer before it reads
    // the count: one of the two always sees the other.
    g_nCallers.fetch_add(1);
    m_bLive = pManager != nullptr && (s_pSharedQuavix.load() == pManager || t_pDestroying == pManager);
}

CQuavix::CallScope::~CallScope()
{
    g_nCallers.fetch_sub(1);
    --t_nDepth;
}

void CQuavix::_NotifyProc(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    // Reports come from any thread, also from a device's own thread outside every
    // scope: the callback counts as inside the library all the same.
    ++t_nDepth;
    if (QX_NotifyProc pProc = g_pAppNotify.load()) pProc(dwCode, dwValue, dwDevice);
    --t_nDepth;
}

void CQuavix::_CallDone(void (*pfnDone)(DWORD_PTR, DWORD), DWORD_PTR dwUser, DWORD dwPlayer)
{
    ++t_nDepth;
    pfnDone(dwUser, dwPlayer);
    --t_nDepth;
}

void CQuavix::SetNotificationCallback(QX_NotifyProc pCallback, DWORD_PTR dwUser)
{
    g_pAppNotify.store(pCallback);
    m_Notify.SetNotificationCallback(pCallback != nullptr ? _NotifyProc : nullptr, dwUser);
}

CQuavix* CQuavix::InitQuavix()
{
    // From inside a callback while another thread's ExitQuavix waits for that callback
    // under the life lock: no waiting here, the manager there is on its way out.
    std::unique_lock<std::mutex> lock(LifeMutex(), std::defer_lock);
    if (t_nDepth > 0) {
        if (!lock.try_lock()) return s_pSharedQuavix.load();
    } else {
        lock.lock();
    }
    if (s_bRegistered == 0) s_bRegistered = _RegisterQuavix();
    if (s_bRegistered == 0) std::exit(0);
    if (s_pSharedQuavix.load() == nullptr) s_pSharedQuavix.store(new (std::nothrow) CQuavix);
    return s_pSharedQuavix.load();
}

void CQuavix::ExitQuavix()
{
    // Refused inside a callback: the code that called back (a poll walking the
    // performances, a recording walk, a device's message handler) goes on using the
    // manager, and its devices, once the callback returns. Deferring would mean
    // destroying it from one of its own threads, which cannot join themselves.
    if (t_nDepth > 0) {
#ifndef NDEBUG
        QXTrace("CQuavix::ExitQuavix refused inside a callback\n");
#endif
        return;
    }
    std::lock_guard<std::mutex> lock(LifeMutex());
    CQuavix* pManager = s_pSharedQuavix.load();
    if (pManager == nullptr) return;
    if (pManager->m_bInitialized) pManager->CloseDevices();
    // Withdrawn before it goes: threads that reach for the manager from now on find
    // none, and those already inside are waited for.
    s_pSharedQuavix.store(nullptr);
    for (int nTry = 0; g_nCallers.load() > 0; ++nTry) {
        if (nTry < 100)
            std::this_thread::yield();
        else
            Sleep(1);
    }
    t_pDestroying = pManager;
    delete pManager;
    t_pDestroying = nullptr;
    g_pAppNotify.store(nullptr);
    UnregisterClassA("CQuavix", QXGetModuleInstance());
    s_bRegistered = 0;
}

CQuavix::CQuavix()
{
    QXSetSharedNotify(&m_Notify);
}

CQuavix::~CQuavix()
{
    if (m_bInitialized) {
        // Timers first: once killed, no timer callback can reach this manager.
        if (m_uTimerID != 0) timeKillEvent(m_uTimerID);
        m_uTimerID = 0;
        // Taken out under the lock but killed outside it: a kill waits for a callback
        // that is firing, and that callback needs the lock. A callback that finds its
        // block gone leaves it to us.
        std::map<UINT, QX_DELAYSTART*> delays;
        {
            std::lock_guard<std::mutex> lock(m_mxDelays);
            delays.swap(m_PendingDelays);
            m_uDelayTimerID = 0;
        }
        for (auto& [id, pBlock] : delays) {
            timeKillEvent(id);
            delete pBlock;
        }
        // Taking the poll gate and closing it lets a running poll finish and keeps any
        // other from starting (a device thread that polls finds the gate gone).
        WaitForSingleObject(m_hPollEvent, 5000);
        CloseHandle(m_hPollEvent);
        m_hPollEvent = nullptr;
        // The manager's thread ends before the device lock is taken, so that none of
        // its handlers can be waiting for the lock while it is held here and deleted.
        ThreadStop();

        EnterCriticalSection(&m_csDevices);
        CloseDevices();
        for (int nType = 0; nType < 2; ++nType) {
            for (int n = 0; n < m_nDeviceCount[nType][QX_DEVDIR_OUT]; ++n) _EmptyEventList(_GetEventList(nType, n));
            for (int nDir = 0; nDir < 2; ++nDir) {
                for (CQXDevice* pDevice : m_Devices[nType][nDir]) delete pDevice;
                m_Devices[nType][nDir].clear();
            }
        }
        delete[] m_pMidiOutLists;
        m_pMidiOutLists = nullptr;
        delete[] m_pWaveOutLists;
        m_pWaveOutLists = nullptr;
        while (!m_Performances.IsEmpty()) delete m_Performances.RemoveHead();
        // The recording records are the manager's too, though no callback runs now.
        while (!m_Recordings.IsEmpty()) delete m_Recordings.RemoveHead();
        LeaveCriticalSection(&m_csDevices);
        DeleteCriticalSection(&m_csDevices);
        DeleteCriticalSection(&m_csRecording);
    }
    if (QXGetSharedNotify() == &m_Notify) QXSetSharedNotify(nullptr);
}

void CQuavix::Initialize(DWORD dwFlags)
{
    if (m_bInitialized) return;
    InitializeCriticalSection(&m_csDevices);
    InitializeCriticalSection(&m_csRecording);
    ThreadStart();
    // The manager's window stands in for the host's main window, which DirectSound's
    // cooperative level names; an application's own registration is left as it is. A
    // destroyed window stops counting (windows are never reused), so nothing is undone.
    QXOfferHostMainWindow(m_hWnd.load());
    // Its result is not examined: without drivers there are simply no wave outputs.
    if (dwFlags & QX_INIT_WAVE) CWaveOut::DSInit();

    if (dwFlags & QX_INIT_MIDI) {
        m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_IN] = static_cast<int>(midiInGetNumDevs());
        m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT] = static_cast<int>(midiOutGetNumDevs());
    }
    if (dwFlags & QX_INIT_WAVE) {
        m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_IN] = static_cast<int>(waveInGetNumDevs());
        m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT] = CWaveOut::DSNumDrivers();
    }

    int nMidiOut = m_nDeviceCount[QX_DEVTYPE_MIDI][QX_DEVDIR_OUT];
    int nWaveOut = m_nDeviceCount[QX_DEVTYPE_WAVE][QX_DEVDIR_OUT];
    if (nMidiOut > 0) m_pMidiOutLists = new CQXEventList[nMidiOut];
    if (nWaveOut > 0) m_pWaveOutLists = new CQXEventList[nWaveOut];

    for (int nType = 0; nType < 2; ++nType)
        for (int nDir = 0; nDir < 2; ++nDir) {
            CQXDeviceArray& devices = m_Devices[nType][nDir];
            devices.assign(static_cast<size_t>(m_nDeviceCount[nType][nDir]), nullptr);
            for (CQXDevice*& pDevice : devices) pDevice = _CreateDevice(nType, nDir);
        }

    m_hPollEvent = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    m_bInitialized = 1;
}

CQXDevice* CQuavix::_CreateDevice(int nType, int nDir)
{
    if (nType < 0 || nType > 1 || nDir < 0 || nDir > 1) return nullptr;
    if (QX_DeviceFactory pFactory = g_pDeviceFactory.load()) return pFactory(nType, nDir);
    if (nType == QX_DEVTYPE_MIDI && nDir == QX_DEVDIR_IN) return new (std::nothrow) CMidiIn;
    if (nType == QX_DEVTYPE_MIDI && nDir == QX_DEVDIR_OUT) return new (std::nothrow) CMidiOut;
    if (nType == QX_DEVTYPE_WAVE && nDir == QX_DEVDIR_OUT) return new (std::nothrow) CWaveOut;
    return new (std::nothrow) CWaveIn;
}

CQXDeviceArray* CQuavix::_GetDeviceArray(int nType, int nDir)
{
    if (nType < 0 || nType > 1 || nDir < 0 || nDir > 1) return nullptr;
    return &m_Devices[nType][nDir];
}

const CQXDeviceArray* CQuavix::_GetDeviceArray(int nType, int nDir) const
{
    if (nType < 0 || nType > 1 || nDir < 0 || nDir > 1) return nullptr;
    return &m_Devices[nType][nDir];
}

int CQuavix::GetDeviceCount(int nType, int nDir) const
{
    if (nType < 0 || nType > 1 || nDir < 0 || nDir > 1) return 0;
    return m_nDeviceCount[nType][nDir];
}

CQXDevice* CQuavix::GetDevice(int nType, int nDir, int nDevice) const
{
    const CQXDeviceArray* pArray = _GetDeviceArray(nType, nDir);
    if (pArray == nullptr || nDevice < 0 || nDevice >= GetDeviceCount(nType, nDir) ||
        static_cast<size_t>(nDevice) >= pArray->size())
        return nullptr;
    return (*pArray)[static_cast<size_t>(nDevice)];
}

int CQuavix::GetDeviceCaps(int nType, int nDir, int nDevice, QX_DevCaps* pCaps) const
{
    if (pCaps == nullptr || nDevice < 0 || nDevice >= GetDeviceCount(nType, nDir)) return 0;
    if (nType == QX_DEVTYPE_MIDI) {
        return nDir == QX_DEVDIR_IN ? CMidiIn::GetDeviceCaps(nDevice, pCaps) : CMidiOut::GetDeviceCaps(nDevice, pCaps);
    }
    return nDir == QX_DEVDIR_OUT ? CWaveOut::GetDeviceCaps(nDevice, pCaps) : CWaveIn::GetDeviceCaps(nDevice, pCaps);
}

int CQuavix::IsDeviceEnabled(int nType, int nDir, int nDevice) const
{
    if (nDevice != QX_ALL_DEVICES) {
        CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
        return pDevice != nullptr ? pDevice->IsEnabled() : 0;
    }
    for (int n = 0; n < GetDeviceCount(nType, nDir); ++n) {
        CQXDevice* pDevice = GetDevice(nType, nDir, n);
        if (pDevice != nullptr && pDevice->IsEnabled()) return 1;
    }
    return 0;
}

void CQuavix::EnableDevice(int nType, int nDir, int nDevice, int bEnable)
{
    if (nDevice != QX_ALL_DEVICES) {
        if (CQXDevice* pDevice = GetDevice(nType, nDir, nDevice)) pDevice->SetEnabled(bEnable);
        return;
    }
    for (int n = 0; n < GetDeviceCount(nType, nDir); ++n)
        if (CQXDevice* pDevice = GetDevice(nType, nDir, n)) pDevice->SetEnabled(bEnable);
}

QX_DevFormat* CQuavix::GetDeviceFormat(int nType, int nDir, int nDevice) const
{
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    return pDevice != nullptr ? pDevice->GetFormat() : nullptr;
}

int CQuavix::SetDeviceFormat(int nType, int nDir, int nDevice, QX_DevFormat* pFormat)
{
    if (nDevice != QX_ALL_DEVICES) {
        CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
        return pDevice != nullptr ? pDevice->SetFormat(pFormat) : 0;
    }
    int bResult = 1;
    for (int n = 0; n < GetDeviceCount(nType, nDir); ++n)
        if (CQXDevice* pDevice = GetDevice(nType, nDir, n))
            if (!pDevice->SetFormat(pFormat)) bResult = 0;
    return bResult;
}

UINT CQuavix::GetDeviceState(int nType, int nDir, int nDevice) const
{
    CQXDevice* pDevice = GetDevice(nType, nDir, nDevice);
    return pDevice != nullptr ? pDevice->GetState() : 0;
}

int CQuavix::IsActive()
{
    CallScope scope(this);
    if (!scope.Live() || !m_bInitialized) return 0;
    EnterCriticalSection(&m_csDevices);
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        QX_PerformanceRec* pRec = m_Performances.GetNext(pos);
        if (pRec->bActive && !pRec->bEnded) {
            LeaveCriticalSection(&m_csDevices);
            return 1;
        }
    }
    LeaveCriticalSection(&m_csDevices);

    EnterCriticalSection(&m_csRecording);
    _ApplyStoppedRecordings();
    for (POSITION pos = m_Recordings.GetHeadPosition(); pos != nullptr;) {
        if (m_Recordings.GetNext(pos)->bActive) {
            LeaveCriticalSection(&m_csRecording);
            return 1;
        }
    }
    LeaveCriticalSection(&m_csRecording);
    return 0;
}

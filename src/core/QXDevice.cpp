#include <quavix/QXDevice.h>
#include <quavix/QXNotify.h>

#include "core/QXMessageLoop.h"
#include "platform/QXPlatform.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

int CQXDevice::s_bRegistered = 0;

namespace {

const char kClassName[] = "CQXDevice";

// Devices may be constructed on several threads at once; the class is registered by
// exactly one of them.
std::mutex& RegisterMutex()
{
    static std::mutex m;
    return m;
}

} // namespace

// Lets the worker thread find out, as it ends, whether its device gave up waiting for
// it and may already be gone.
struct CQXDevice::ThreadShared {
    std::mutex mutex;
    bool abandoned = false;
};

CQXDevice::CQXDevice() : m_pShared(std::make_shared<ThreadShared>())
{
    {
        std::lock_guard<std::mutex> lock(RegisterMutex());
        if (s_bRegistered == 0) s_bRegistered = _RegisterCQXDevice();
        if (s_bRegistered == 0) std::exit(0);
    }
    ThreadStart();
}

CQXDevice::~CQXDevice()
{
    Close();
    SetFormat(nullptr);
    ThreadStop();
}

int CQXDevice::_RegisterCQXDevice()
{
    WNDCLASSA wc{};
    wc.lpfnWndProc = _WndProc;
    wc.cbWndExtra = sizeof(CQXDevice*); // one slot naming the device
    wc.hInstance = QXGetModuleInstance();
    wc.lpszClassName = kClassName;
    return RegisterClassA(&wc) != 0 ? 1 : 0;
}

void CQXDevice::ThreadStart()
{
    m_dwThreadId = 0;
    m_hThreadEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    m_hThread = CreateThread(nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(_ThreadProc), this, 0,
                             &m_dwThreadId);
    if (m_hThread == nullptr) std::exit(0);
    WaitForSingleObject(m_hThreadEvent, 5000);
    ResetEvent(m_hThreadEvent);
}

DWORD CQXDevice::_ThreadProc(void* pDevice)
{
    return static_cast<CQXDevice*>(pDevice)->ThreadProc();
}

DWORD CQXDevice::ThreadProc()
{
    std::shared_ptr<ThreadShared> shared = m_pShared;
    HWND hWnd = CreateWindowExA(0, kClassName, kClassName, 0, 0, 0, 0, 0, nullptr, nullptr, QXGetModuleInstance(),
                                this);
    m_hWnd = hWnd;
    if (hWnd == nullptr) return 0;
    SetWindowLongA(hWnd, 0, reinterpret_cast<LONG_PTR>(this));
    SetEvent(m_hThreadEvent);

    QXRunMessageLoop("Error in CQXDevice ThreadProc\n");

    // From here on the device may be mid-destruction (or gone, if it stopped waiting):
    // the window no longer names it, and its fields are touched only while it waits.
    SetWindowLongA(hWnd, 0, 0);
    DestroyWindow(hWnd);
    std::lock_guard<std::mutex> lock(shared->mutex);
    if (!shared->abandoned) m_hWnd = nullptr;
    return 0;
}

void CQXDevice::ThreadStop()
{
    if (m_hThread == nullptr) return; // already stopped by a subclass's destructor
    HWND hWnd = m_hWnd;
    if (IsWindow(hWnd)) {
        PostMessageA(hWnd, WM_QUIT, 0, 0);
        if (WaitForSingleObject(m_hThread, 1000) != WAIT_OBJECT_0) {
            // Left running: make sure it can no longer reach this object.
            SetWindowLongA(hWnd, 0, 0);
            std::lock_guard<std::mutex> lock(m_pShared->mutex);
            m_pShared->abandoned = true;
        }
    }
    CloseHandle(m_hThread);
    m_hThread = nullptr;
    CloseHandle(m_hThreadEvent);
    m_hThreadEvent = nullptr;
}

LRESULT CQXDevice::_WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    auto* pDevice = reinterpret_cast<CQXDevice*>(GetWindowLongA(hWnd, 0));
    if (pDevice != nullptr) return pDevice->WndProc(uMsg, wParam, lParam);
    return DefWindowProcA(hWnd, uMsg, wParam, lParam);
}

LRESULT CQXDevice::WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    return DefWindowProcA(m_hWnd, uMsg, wParam, lParam);
}

int CQXDevice::SetFormat(QX_DevFormat* pFormat)
{
    delete m_pFormat;
    m_pFormat = nullptr;
    if (pFormat == nullptr) return 0;
    m_pFormat = new (std::nothrow) QX_DevFormat;
    if (m_pFormat == nullptr) return 0;
    std::memcpy(m_pFormat, pFormat, sizeof(QX_DevFormat));
    return 1;
}

int CQXDevice::PlayData(CQXEventList*, DWORD, DWORD)
{
    return 0;
}

void CQXDevice::SetEnabled(int bEnable)
{
    if (bEnable) {
        RemoveState(QX_STATE_DISABLED);
        return;
    }
    Close();
    AddState(QX_STATE_DISABLED);
}

int CQXDevice::Open(int nDevice)
{
    if (TestState(QX_STATE_OPEN)) return 1;
    if (TestState(QX_STATE_DISABLED)) return 0;
    m_nDevice = nDevice;
    if (!DevOpen()) return 0;
    m_nState = QX_STATE_OPEN;
    return 1;
}

int CQXDevice::Start()
{
    if (TestState(QX_STATE_STARTED)) return 1;
    if (!Open(0)) return 0;
    if (!DevStart()) return 0;
    RemoveState(QX_STATE_PAUSED | QX_STATE_STOPPED);
    AddState(QX_STATE_STARTED);
    return 1;
}

int CQXDevice::Pause()
{
    if (TestState(QX_STATE_PAUSED) || !TestState(QX_STATE_OPEN)) return 1;
    if (!DevPause()) return 0;
    RemoveState(QX_STATE_STARTED | QX_STATE_STOPPED);
    AddState(QX_STATE_PAUSED);
    return 1;
}

int CQXDevice::Stop()
{
    if (TestState(QX_STATE_CLOSED) || TestState(QX_STATE_STOPPED) || !TestState(QX_STATE_OPEN)) return 1;
    if (!DevStop()) return 0;
    RemoveState(QX_STATE_STARTED | QX_STATE_PAUSED);
    AddState(QX_STATE_STOPPED);
    return 1;
}

int CQXDevice::Close()
{
    if (TestState(QX_STATE_CLOSED)) return 1;
    if (!Stop()) return 0;
    if (!DevClose()) return 0;
    m_nDevice = 0;
    m_hDevice = nullptr;
    m_nState = QX_STATE_CLOSED;
    return 1;
}

// The abstract device: state word, template transport operations, worker thread with
// its hidden window, and the standard format helpers.
#ifndef QUAVIX_QXDEVICE_H
#define QUAVIX_QXDEVICE_H

#include <quavix/QXExport.h>

#include <quavix/QXEventData.h>
#include <quavix/QXRecords.h>

#include <atomic>
#include <memory>
#include <string>

class QUAVIX_API CQXDevice {
public:
    CQXDevice();
    virtual ~CQXDevice();
    // A copy would share the format record, the handles and the worker thread.
    CQXDevice(const CQXDevice&) = delete;
    CQXDevice& operator=(const CQXDevice&) = delete;

    virtual QX_DevFormat* GetFormat() { return m_pFormat; }
    virtual int SetFormat(QX_DevFormat* pFormat);
    virtual int PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd);

    int GetDevice() const { return m_nDevice; }
    void* GetHandle() const { return m_hDevice; }
    UINT GetState() const { return m_nState; }
    HWND GetHWnd() const { return m_hWnd; }

    int IsEnabled() const { return (m_nState & QX_STATE_DISABLED) ? 0 : 1; }
    void SetEnabled(int bEnable);

    int Open(int nDevice);
    int Start();
    int Pause();
    int Stop();
    int Close();

    static void FillFormat(WAVEFORMATEX* pFormat, int nIndex);
    static void FillFormatString(WAVEFORMATEX* pFormat, std::string& strText);

    static int s_bRegistered;

protected:
    virtual int DevOpen() { return 0; }
    virtual int DevStart() { return 0; }
    virtual int DevPause() { return 0; }
    virtual int DevStop() { return 0; }
    virtual int DevClose() { return 0; }
    virtual LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam);

    void SetState(UINT n) { m_nState = n; }
    void AddState(UINT n) { m_nState.fetch_or(n); }
    void RemoveState(UINT n) { m_nState.fetch_and(~n); }
    UINT TestState(UINT n) const { return m_nState & n; }

    void ThreadStart();
    DWORD ThreadProc();
    // Ends the worker thread; later calls do nothing. A subclass whose WndProc uses its
    // own members calls it first in its destructor, so that no message is handled by a
    // half-destroyed object.
    void ThreadStop();

    static int _RegisterCQXDevice();
    static DWORD _ThreadProc(void* pDevice);
    static LRESULT _WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam);

    // Read and written by the application's threads, the manager's thread and the
    // device's own thread without a lock: atomic so that every read sees a whole value.
    std::atomic<int> m_nDevice{0};
    std::atomic<void*> m_hDevice{nullptr};
    std::atomic<UINT> m_nState{QX_STATE_CLOSED};
    QX_DevFormat* m_pFormat = nullptr;
    std::atomic<HWND> m_hWnd{nullptr}; // cleared by the worker thread as it ends
    DWORD m_dwThreadId = 0;
    HANDLE m_hThread = nullptr;
    HANDLE m_hThreadEvent = nullptr;

private:
    struct ThreadShared;
    std::shared_ptr<ThreadShared> m_pShared;
};

#endif // QUAVIX_QXDEVICE_H

// A wave input: records one wave-input device of the platform in buffers of half a
// second. Each filled buffer reaches the manager's recordings as a wave-header event on
// the device's own thread; the recording callback uses or copies the data before it
// returns (CWaveFileWrite::Write takes the header as it is). A buffer handed on late
// costs nothing while the platform's own buffer holds out; what is lost beyond that is
// reported as QXN_WAVEIN_OVERRUN.
#ifndef QUAVIX_QXWAVEIN_H
#define QUAVIX_QXWAVEIN_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

class QUAVIX_API CWaveIn : public CQXDevice {
public:
    CWaveIn() = default;
    ~CWaveIn() override;

    static int GetDeviceCaps(int nDevice, QX_DevCaps* pCaps);
    // PCM, one channel, 22,050 samples per second, 16 bits.
    static int GetDefaultFormat() { return 8; }

    int SetFormat(QX_DevFormat* pFormat) override;

protected:
    int DevOpen() override;
    int DevStart() override;
    int DevPause() override;
    int DevStop() override;
    int DevClose() override;
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam) override;

    int AllocateBuffers();
    int FreeBuffers();
    int PrepareBuffer(WAVEHDR* pHeader);
    int UnprepareBuffer(WAVEHDR* pHeader);

    LRESULT OnWaveInOpen(WPARAM wParam, LPARAM lParam);
    LRESULT OnWaveInData(WPARAM wParam, LPARAM lParam);
    LRESULT OnWaveInClose(WPARAM wParam, LPARAM lParam);

    static void CALLBACK _WaveInProc(HWAVEIN hWaveIn, UINT uMsg, DWORD_PTR dwInstance, DWORD_PTR dwParam1,
                                     DWORD_PTR dwParam2);

    // Which buffer is queued next, how many are prepared, and the block that holds both
    // buffers behind their headers. All of them under m_mxBuffers. PrepareBuffer and
    // UnprepareBuffer run with it held; what they report is raised once it is released.
    int m_nNextBuffer = 0;
    int m_nQueuedBuffers = 0;
    DWORD m_dwBufferLength = 0;
    DWORD m_dwBlockSize = 0;
    BYTE* m_pBlock = nullptr;
    WAVEHDR* m_pHeaders[2] = {nullptr, nullptr};
    // Signalled while no buffer is queued.
    HANDLE m_hIdleEvent = nullptr;

private:
    enum BufferState { kIdle, kQueued, kInHand };
    class BufferLock;
    struct Report {
        DWORD dwCode;
        DWORD dwValue;
    };

    int _QueueBuffer(int nBuffer);
    int _UnqueueBuffer(int nBuffer);
    int _BufferOf(const WAVEHDR* pHeader) const;
    void _ReleaseBlock(BYTE* pBlock, DWORD dwSize);
    void _Report(DWORD dwCode, DWORD dwValue); // with m_mxBuffers held
    bool _OnOwnThread() const;
    // Hands the returned buffers still waiting in this thread's queue to OnWaveInData.
    void _TakeReturnedBuffers();

    // A leaf: held only over the bookkeeping and platform calls that take the platform's
    // own short locks (its handle table, the input's, an event's), none of which is held
    // while anything calls out. Never held while reporting or calling the application,
    // since a notification callback may stop or close this input: reports made under it
    // are noted, and BufferLock raises them once it is released.
    std::mutex m_mxBuffers;
    // Made under m_mxBuffers and not yet raised; one hold of the lock makes at most two.
    static constexpr int kMaxReports = 4;
    Report m_Reports[kMaxReports];
    int m_nReports = 0;
    std::condition_variable m_cvInHand;
    BufferState m_nBufferState[2] = {kIdle, kIdle};
    int m_nInHand = 0; // buffers the device's thread is handling now
    // A block released while one of its buffers was being handed on: freed by the
    // device's thread once the recording callbacks are done with it.
    BYTE* m_pRetiredBlock = nullptr;
    DWORD m_dwRetiredSize = 0;
    // Set from DevStart until DevStop: a filled buffer is handed on and queued again.
    std::atomic<bool> m_bRecording{false};
};

#endif // QUAVIX_QXWAVEIN_H

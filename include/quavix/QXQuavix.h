// CQuavix: the one manager. It owns the devices, drives them as one group, runs the
// performance engine and the recordings, and follows an external MIDI clock on demand.
#ifndef QUAVIX_QXQUAVIX_H
#define QUAVIX_QXQUAVIX_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>
#include <quavix/QXEventData.h>
#include <quavix/QXNotify.h>
#include <quavix/QXRecords.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#define QX_INIT_MIDI 0x1u
#define QX_INIT_WAVE 0x2u

// Private messages of the manager's window.
#define QXM_TIMER 0x3080u
#define QXM_DELAYSTART 0x3081u
#define QXM_SYNCSTART 0x3082u
#define QXM_SYNCCONTINUE 0x3083u
#define QXM_SYNCSTOP 0x3084u
#define QXM_SYNCPOSITION 0x3085u
#define QXM_SYNCCLOCK 0x3086u
#define QXM_WAVEPLAY 0x3087u
// Sent to the MIDI output that paces the engine.
#define QXM_PRIORITYHIGH 0x3088u
#define QXM_PRIORITYNORMAL 0x3089u

#define QX_SYNCMODE_INTERNAL 0u
#define QX_SYNCMODE_SLAVE 2u
#define QX_SYNC_START (-2)
#define QX_SYNC_STOP (-3)
#define QX_SYNC_CONTINUE (-4)
#define QX_SYNC_CLOCK (-5)
#define QX_SYNC_POSITION (-6)

#define QX_PERFORMANCE_GRANULARITY 100u
// The most periods SetPrefetchBufferCount accepts (10 s ahead); larger counts are
// taken as this one, so the latency stays far from wrapping and OpenDevices queues
// a bounded number of buffers.
#define QX_MAX_PREFETCH_BUFFERS 100

// Performance callback: fill [dwStart, dwEnd) through PlayBuffer and return non-zero to
// go on, 0 when the performance has ended. A negative nTag is a sync notification.
typedef int (*QX_PerformanceProc)(DWORD_PTR dwUser, int nTag, DWORD dwStart, DWORD dwEnd);
// Recording callback: the event belongs to the input and lives only during the call.
typedef int (*QX_RecordingProc)(DWORD_PTR dwUser, int nTag, CQXEventData* pEvent);

struct QX_PerformanceRec {
    int nTag;
    int bActive;
    QX_PerformanceProc pCallback;
    DWORD_PTR dwUser;
    int bEnded; // ended while the list was being walked; removed after the walk
};

struct QX_RecordingRec {
    int nTag;
    int bActive;
    QX_RecordingProc pCallback;
    DWORD_PTR dwUser;
};

struct QX_DELAYSTART {
    int nType;
    int nDir;
    int nDevice;
    HWND hWnd;
};

typedef std::vector<CQXDevice*> CQXDeviceArray;
struct DSDevice;

class QUAVIX_API CQuavix {
public:
    static CQuavix* InitQuavix();
    // Closes the devices and destroys the manager. Called from inside a callback of
    // the library (performance, sync, recording, notification or a wave player's done
    // callback) it does nothing: the
    // code that called back is still running on the manager. The application calls it
    // again from its own thread once the callback has returned.
    // The calls the devices make on the manager from their own threads (the getters
    // below, ForwardRecordedData, SendMidiMsg) are safe against an ExitQuavix on
    // another thread: they find the manager gone and do nothing, or ExitQuavix waits
    // for them to return before it destroys the manager.
    static void ExitQuavix();
    static CQuavix* GetQuavix() { return s_pSharedQuavix.load(); }
    // Calls a wave player's done callback as a callback of the library, so that
    // ExitQuavix there is refused like in every other callback.
    static void _CallDone(void (*pfnDone)(DWORD_PTR, DWORD), DWORD_PTR dwUser, DWORD dwPlayer);
    // The play start on the platform clock, in ns (0 while stopped): GetPlayStartTime
    // is it in whole ms, too coarse to start sound at an exact frame.
    int64_t _GetPlayStartNs() const;
    ~CQuavix();
    CQuavix(const CQuavix&) = delete;
    CQuavix& operator=(const CQuavix&) = delete;

    void Initialize(DWORD dwFlags);

    // Registry
    int GetDeviceCount(int nType, int nDir) const;
    CQXDevice* GetDevice(int nType, int nDir, int nDevice) const;
    int GetDeviceCaps(int nType, int nDir, int nDevice, QX_DevCaps* pCaps) const;
    int IsDeviceEnabled(int nType, int nDir, int nDevice) const;
    void EnableDevice(int nType, int nDir, int nDevice, int bEnable);
    QX_DevFormat* GetDeviceFormat(int nType, int nDir, int nDevice) const;
    int SetDeviceFormat(int nType, int nDir, int nDevice, QX_DevFormat* pFormat);
    UINT GetDeviceState(int nType, int nDir, int nDevice) const;
    CQXDevice* GetTimingDevice() const;
    int GetTimingDeviceNum() const { return m_nTimingDevice; }
    void SetDefaultMidiDevice(int nDevice) { m_nDefaultMidiDevice = nDevice; }
    int GetDefaultMidiDevice() const { return m_nDefaultMidiDevice; }
    void EnableDefaultMidiDevice(int bEnable) { m_bDefaultMidiDeviceEnabled = bEnable; }
    int DefaultMidiDeviceEnabled() const { return m_bDefaultMidiDeviceEnabled; }
    int IsActive();
    int GetUniqueTag() { return ++m_nLastTag; }
    void SetNotificationCallback(QX_NotifyProc pCallback, DWORD_PTR dwUser);
    void Notify(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice) { m_Notify.Notify(dwCode, dwValue, dwDevice); }

    // Group and single-device transport
    int OpenDevices();
    int StartDevices();
    int PauseDevices();
    int StopDevices();
    int CloseDevices();
    int OpenDevice(int nType, int nDir, int nDevice);
    int StartDevice(int nType, int nDir, int nDevice);
    int PauseDevice(int nType, int nDir, int nDevice);
    int StopDevice(int nType, int nDir, int nDevice);
    int CloseDevice(int nType, int nDir, int nDevice);
    UINT DelayStart(int nType, int nDir, int nDevice, DWORD dwDelay);
    void StopDelay(UINT uTimerID);
    DWORD GetPlayStartTime() const;
    DWORD GetElapsedPlayTime() const;
    DWORD GetRecordStartTime() const;
    DWORD GetElapsedRecordTime() const;
    HWND GetHWnd() const;

    // Performance engine. A null callback is refused: the result is 0.
    int StartPerformance(QX_PerformanceProc pCallback, DWORD_PTR dwUser, int bActive, int nTag);
    void StopPerformance(int nTag);
    void PlayBuffer(CQXEventList& events);
    // Applies pan, volume and rate to the player sounding on that performance's track on
    // every wave output.
    int SetWaveParams(QX_WaveParams* pParams);
    DWORD GetBufferTime() const { return m_dwBufferTime; }
    DWORD GetPerformanceGranularity() const { return QX_PERFORMANCE_GRANULARITY; }
    int GetPrefetchBufferCount() const { return m_nPrefetchBuffers; }
    // Clamped to 2 .. QX_MAX_PREFETCH_BUFFERS; the latency is the count times 100 ms.
    void SetPrefetchBufferCount(int nBuffers);
    DWORD GetPerformanceLatency() const { return m_dwLatency; }

    // Recording and MIDI thru. A null callback is refused: the result is 0.
    int StartRecording(QX_RecordingProc pCallback, DWORD_PTR dwUser, int bActive);
    void StopRecording(int nTag);
    void ForwardRecordedData(CQXEventData* pEvent);
    void EnableMidiThru(int bEnable) { m_bMidiThru = bEnable; }
    int MidiThruEnabled() const;
    void ConnectMidiThru(int nDevice, int nChannel);

    // Immediate output (bQueued 0) goes out at once; queued output goes first into the
    // next period the engine writes for that output.
    void SendMidiMsg(UINT nDevice, DWORD dwMsg, int bQueued);
    void SendMidiNote(UINT nDevice, DWORD dwNoteOn, DWORD dwNoteOff, DWORD dwDuration, int bQueued);
    void SendSysExMsg(UINT nDevice, const BYTE* pData, int nLength, int bQueued);
    // Plays a wave file at once on a wave output; 0 where none can play it.
    int PlayWaveFile(const char* pszFileName, int nDevice, void (*pCallback)(DWORD_PTR, DWORD), DWORD_PTR dwUser);
    // Silences every MIDI output.
    void OnPanicButton();
    int GetMidiThruDevice() const;
    int GetMidiThruChannel() const;

    // External sync
    DWORD GetSyncMode() const;
    void SetSyncMode(DWORD dwMode);
    DWORD GetSyncPosition() const { return m_dwSyncPosition; }
    void QueueSlavedPerformance();
    void EnableSlaveTempoRecording(int bEnable) { m_bSlaveTempoRecording = bEnable; }
    int SlaveTempoRecordingEnabled() const { return m_bSlaveTempoRecording; }

    static std::atomic<CQuavix*> s_pSharedQuavix;
    static int s_bRegistered;
    // The DirectSound driver registry (see CWaveOut); its records are owned here.
    static std::vector<DSDevice*> s_DSDevices;

protected:
    CQXDeviceArray* _GetDeviceArray(int nType, int nDir);
    const CQXDeviceArray* _GetDeviceArray(int nType, int nDir) const;
    CQXDevice* _CreateDevice(int nType, int nDir);

    void ThreadStart();
    DWORD ThreadProc();
    void ThreadStop();
    LRESULT WndProc(UINT uMsg, WPARAM wParam, LPARAM lParam);
    static int _RegisterQuavix();
    static DWORD _ThreadProc(void* pManager);
    static LRESULT _WndProc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam);
    static void _TimeProc(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1, DWORD_PTR dw2);
    static void _DelayProc(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1, DWORD_PTR dw2);

    DWORD _GetNextBufferTime() const { return m_dwBufferTime + QX_PERFORMANCE_GRANULARITY; }
    void _PollPerformances();
    // A poll run by the timing device's thread. It waits for the device lock only while
    // that device still paces the engine, because a transport call that holds the lock
    // may be waiting for this very thread to finish its returned buffers.
    void _PollForTimingDevice(CQXDevice* pDevice);
    void _PollLocked();
    void _WriteBuffers();
    void _MergeData(CQXEventData* pEvent, CQXEventList* pList);
    // The same order as _MergeData for each event in turn, in one pass over the list.
    void _MergeBatch(std::vector<CQXEventData*>& events, CQXEventList* pList);
    CQXEventList* _GetEventList(int nType, int nDevice);
    void _EmptyEventList(CQXEventList* pList);
    void _SyncPerformances(int nCode, DWORD dwA, DWORD dwB);
    void _CatchUp();
    void _SyncStop();
    void _ReopenMidiOutputs();

private:
    void _TakePlayStart();
    friend class CMidiOut;
    CQuavix();

    // A stretch of manager code on the calling thread. It marks the thread as inside
    // the library (so that ExitQuavix there is refused) and, while it lasts, keeps
    // ExitQuavix on other threads from destroying the manager. Live() is false when
    // the manager named is no longer the shared one: the code must not touch it.
    class CallScope {
    public:
        explicit CallScope(const CQuavix* pManager);
        ~CallScope();
        CallScope(const CallScope&) = delete;
        CallScope& operator=(const CallScope&) = delete;
        bool Live() const { return m_bLive; }

    private:
        bool m_bLive;
    };
    static void _NotifyProc(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice);

    template <class Fn> void _ForEachDevice(Fn fn);
    template <class Fn> void _WalkPerformances(Fn fn);
    void _RemoveEndedPerformances();
    // Every wave output forgets the performance and destroys its players.
    void _DeleteWavePerformance(int nTag);
    void _ApplyStoppedRecordings();
    int _ChosenMidiOutput(int nDevice) const;

    std::atomic<int> m_bInitialized{0}; // set last by Initialize: threads that find it set find the rest made
    std::atomic<int> m_bMidiThru{0};
    std::atomic<int> m_bSlaveTempoRecording{0};
    std::atomic<int> m_nLastTag{1};
    std::atomic<int> m_nMidiThruDevice{0};
    std::atomic<int> m_nMidiThruChannel{-1};
    std::atomic<int> m_nPrefetchBuffers{2};
    std::atomic<DWORD> m_dwPlayStartTime{0};
    std::atomic<int64_t> m_nPlayStartNs{0};
    std::atomic<DWORD> m_dwRecordStartTime{0};
    std::atomic<DWORD> m_dwBufferTime{0};
    std::atomic<DWORD> m_dwLatency{200};
    std::atomic<DWORD> m_dwSyncMode{0};
    std::atomic<DWORD> m_dwSyncPosition{0};
    int m_nDeviceCount[2][2] = {{0, 0}, {0, 0}};
    CQXDeviceArray m_Devices[2][2];
    std::atomic<int> m_nTimingDevice{0};
    std::atomic<CQXDevice*> m_pTimingDevice{nullptr};
    std::atomic<int> m_nDefaultMidiDevice{0};
    std::atomic<int> m_bDefaultMidiDeviceEnabled{0};
    CQXPtrList<QX_PerformanceRec> m_Performances{10};
    CQXPtrList<QX_RecordingRec> m_Recordings{10};
    std::atomic<UINT> m_uTimerID{0}; // read by the manager's thread for every tick
    std::atomic<UINT> m_uDelayTimerID{0};
    CQXEventList* m_pMidiOutLists = nullptr;
    CQXEventList* m_pWaveOutLists = nullptr;
    std::atomic<HWND> m_hWnd{nullptr};
    DWORD m_dwThreadId = 0;
    HANDLE m_hThread = nullptr;
    HANDLE m_hThreadEvent = nullptr;
    std::atomic<HANDLE> m_hPollEvent{nullptr}; // read by device threads while the manager goes
    int m_nWalkDepth = 0;          // walks of the performance list under way (device lock held)
    int m_nRecordingWalkDepth = 0; // walks of the recording list under way (recording lock held)
    CQXNotify m_Notify;
    CRITICAL_SECTION m_csDevices{};
    CRITICAL_SECTION m_csRecording{};

    // Delayed starts whose timers may still fire, so that cancelling or destroying
    // frees their blocks and no callback outlives the manager.
    std::mutex m_mxDelays;
    std::map<UINT, QX_DELAYSTART*> m_PendingDelays;
    // Recordings stopped while a recording callback may be running; removed by the
    // next ForwardRecordedData or StartRecording that holds the recording lock.
    std::mutex m_mxStoppedRecordings;
    std::vector<int> m_StoppedRecordings;
    // PlayBuffer's events sorted per output list, kept for reuse (device lock held).
    std::vector<std::vector<CQXEventData*>> m_MergeBatches;
    // Lets the manager's thread find out, as it ends, whether ThreadStop gave up
    // waiting for it (the manager may then be gone).
    struct ThreadShared;
    std::shared_ptr<ThreadShared> m_pThreadShared;
};

// Exported under its plain name; does nothing.
QUAVIX_API int InitQuavix();

#endif // QUAVIX_QXQUAVIX_H

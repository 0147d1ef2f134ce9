// A streaming wave player: one wave file on one DirectSound output, streamed through a
// looping 64 KiB sound buffer of eight segments that a thread of its own refills, with
// volume, pan and rate, started at once or at a moment of the performance.
#ifndef QUAVIX_QXWAVEPLAY_H
#define QUAVIX_QXWAVEPLAY_H

#include <quavix/QXExport.h>

#include <quavix/QXRecords.h>
#include <quavix/QXWinTypes.h>

#include <atomic>
#include <cstdint>

struct IDirectSound;
struct IDirectSoundBuffer;
struct IDirectSoundNotify;
struct DSTrack;
class CWaveFileRead;

// Called when a player has stopped: (user value, the player's handle).
typedef void (*QX_WaveDoneProc)(DWORD_PTR dwUser, DWORD dwPlayer);

class QUAVIX_API CWavePlay {
public:
    CWavePlay();
    ~CWavePlay();
    CWavePlay(const CWavePlay&) = delete;
    CWavePlay& operator=(const CWavePlay&) = delete;

    QX_WaveParams& GetWaveParameters() { return m_WaveParams; }
    // The values in force; while the player may be playing on other threads, read them
    // with CopyBufferParameters, which returns 1 while the player has its sound buffer
    // (prepared or sounding), 0 once it has stopped.
    QX_DSParams& GetBufferParameters() { return m_WaveParams.dsParams; }
    int CopyBufferParameters(QX_DSParams* pParams);
    // Under the player's lock, like every control operation: a file that ends on the
    // notification thread meanwhile cannot release the buffer under it.
    void SetBufferParameters(QX_DSParams& params);
    int Prepare(QX_WaveParams* pParams, int nDevice, int bWait);
    // The done callback runs once the player's lock has been let go, as the last thing
    // the stopping thread does with the player: it may stop, play again or delete its
    // own player, or call any operation of the manager. It must not delete a player
    // that the library itself is destroying (one on a wave output's track whose output
    // closes).
    int Play(QX_WaveParams* pParams, int nDevice, DWORD dwStartTime, QX_WaveDoneProc pfnDone, DWORD_PTR dwUser,
             int bAutoDelete);
    // Play for the library's own callers: when it fails, *pbYours says whether the
    // caller still owns the player (0: its output claimed it meanwhile and destroys it).
    int _Play(QX_WaveParams* pParams, int nDevice, DWORD dwStartTime, QX_WaveDoneProc pfnDone, DWORD_PTR dwUser,
              int bAutoDelete, int* pbYours);
    void Start();
    // Play, Stop, Start and a start by the timer exclude each other for their whole
    // length: each holds m_cs throughout, also while it waits for the player's threads.
    // Those threads never block on m_cs (the notification thread gives way to a stop
    // under way), so the waits end.
    void Stop();
    void SignalStart();
    // The 32-bit handle that names this player in the player registry (QXM_WAVEPLAY,
    // wave start events, the done callback); never 0 while the player lives.
    DWORD GetHandle() const { return m_dwHandle; }
    // QXM_WAVEPLAY's handler: Start() on the player with that handle, if it still lives
    // and its start timer is still armed; nothing otherwise.
    static void StartFromHandle(DWORD dwHandle);
    // Refills, by every player of the process, that came when the play cursor had
    // already reached the segment they wrote: each one is heard as stale sound.
    static uint64_t LateRefills();

protected:
    // What a stop leaves to do once m_cs has been let go.
    struct StopTail {
        QX_WaveDoneProc pfnDone;
        DWORD_PTR dwUser;
        DWORD dwHandle;
        bool bDelete;
    };
    // A report raised while m_cs is held, made once it has been let go: the
    // application's reaction (closing the devices, say) may destroy this very player.
    struct Report {
        DWORD dwCode;
        DWORD dwValue;
        DWORD_PTR dwDevice;
    };
    void _InitWavePlay();
    void _Lock();
    // Lets go of m_cs; the outermost release makes the reports held back meanwhile.
    void _Unlock();
    // Made at once unless the calling thread holds m_cs, or is the prepare thread while
    // Prepare holds it on its behalf. The device is this player's output unless given.
    void _Report(DWORD dwCode, DWORD dwValue);
    void _Report(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice);
    StopTail _StopLocked();
    // Nothing of the player is touched after it: the callback or the deletion may end it.
    void _FinishStop(const StopTail& tail);
    // The end of the data on the notification thread: stops the player unless a stop
    // is under way elsewhere (that one waits for this thread).
    void _StopFromNotifyThread();
    // Applies what differs; with m_cs held (or held on the prepare thread's behalf).
    void _ApplyParameters(const QX_DSParams& params);
    // After a failed Play: out of the output's set again, 1 when it was still there or
    // never got there (the caller may destroy it), 0 when the output claimed it.
    int _Withdraw();
    // The prepare thread's work once it has the device object: open, create, fill the
    // first seven segments, apply the parameters; 1 when prepared.
    int _PrepareBuffer();
    // Start's work under m_cs: 1 started, 0 nothing to do, -1 failed (the caller stops
    // the player). A player it displaces from the track goes to *ppDisplaced, for the
    // caller to destroy once it holds no lock.
    int _StartLocked(bool bFromTimer, CWavePlay** ppDisplaced);
    void _Start(bool bFromTimer);
    // Both wait with m_cs held: neither thread ever blocks on it.
    void _EndPrepareThread();
    void _EndNotifyThread();
    bool _IsNotifyThread() const;
    // Events, reader and sound interfaces.
    void _Release();
    static void _SignalProc(void* pPlayer);
    int _CheckStatus();
    void _SetFrequency(int nValue);
    void _SetVolume(int nValue);
    void _SetPan(int nValue);
    int _OpenSoundFile(const char* pszPath);
    int _CreateSoundBuffer(QX_DSParams& params);
    int _WriteBuffer();
    void _Stop();
    void _Close();
    DWORD _PrepareThread();
    DWORD _NotificationThread();
    static DWORD WINAPI __PrepareThread(void* pPlayer);
    static DWORD WINAPI __NotificationThread(void* pPlayer);
    static void CALLBACK _TimeProc(UINT uTimerID, UINT uMsg, DWORD_PTR dwUser, DWORD_PTR dw1, DWORD_PTR dw2);

    CWaveFileRead* m_pSoundFile;
    // Holds a reference while the player uses it: the registry may let go of its own
    // (closing the devices) while a prepare thread is still at work.
    IDirectSound* m_pDirectSound;
    IDirectSoundBuffer* m_pDSBuffer;
    IDirectSoundNotify* m_pNotify;
    DSTrack* m_pTrack; // a marker only: the output alone reads track records
    int m_nDevice;
    int m_bWait;
    int m_bEndOfData;
    std::atomic<int> m_bPrepared; // written by the prepare thread, read without a lock
    int m_bAutoDelete;
    int m_bDestroying;
    std::atomic<int> m_bStopping; // read by the notification thread without a lock
    QX_WaveParams m_WaveParams;
    UINT m_uStartTimerID;
    int64_t m_nStartNs; // when a timed start is to sound, on the platform clock; 0: at once
    std::atomic<HANDLE> m_hStartEvent; // SignalStart reads it from a MIDI callback, lock-free
    HANDLE m_hPreparedEvent;
    HANDLE m_hNotifyEvents[3];
    HANDLE m_hPrepareThread;
    HANDLE m_hNotifyThread;
    DWORD m_dwPrepareThreadId;
    DWORD m_dwNotifyThreadId;
    DWORD m_dwSegmentSize;
    DWORD m_dwBufferSize;
    DWORD m_dwWritePos;
    int m_nPendingSegments;
    QX_WaveDoneProc m_pfnDone;
    DWORD_PTR m_dwDoneUser;
    CRITICAL_SECTION m_cs;
    DWORD m_dwHandle;
    // Segment-end notifications the notification thread has handled in this run.
    std::atomic<int> m_nSegmentEnds;
    int m_nLockDepth; // under m_cs
    std::atomic<DWORD> m_dwLockOwner; // the thread that holds m_cs, or 0
    CRITICAL_SECTION m_csReports; // a leaf: guards m_Reports, nothing is called under it
    Report m_Reports[8];
    int m_nReports;
};

#endif // QUAVIX_QXWAVEPLAY_H

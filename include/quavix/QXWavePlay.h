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
    QX_DSParams& GetBufferParameters() { return m_WaveParams.dsParams; }
    void SetBufferParameters(QX_DSParams& params);
    int Prepare(QX_WaveParams* pParams, int nDevice, int bWait);
    int Play(QX_WaveParams* pParams, int nDevice, DWORD dwStartTime, QX_WaveDoneProc pfnDone, DWORD_PTR dwUser,
             int bAutoDelete);
    void Start();
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
    void _InitWavePlay();
    // The prepare thread's work once it has the device object: open, create, fill the
    // first seven segments, apply the parameters; 1 when prepared.
    int _PrepareBuffer();
    // Start's work under m_cs: 1 started, 0 nothing to do, -1 failed (the caller stops
    // the player once it may). A player it displaces from the track goes to *ppDisplaced.
    int _StartLocked(bool bFromTimer, CWavePlay** ppDisplaced);
    void _Start(bool bFromTimer);
    // Both are called with m_cs held once more than the caller's own hold, and let go
    // of that once while they wait for the thread to end.
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
    // Set while Play holds m_cs: a self-deleting player stopped inside Play is deleted
    // by Play once it has let go of the lock (m_bDeleteAfterPlay).
    int m_bInPlay;
    int m_bDeleteAfterPlay;
};

#endif // QUAVIX_QXWAVEPLAY_H

// A DirectSound wave output: the driver registry shared by every output, and the device
// that keeps its driver's primary buffer running and knows the performances, tracks and
// streaming players that sound on it.
#ifndef QUAVIX_QXWAVEOUT_H
#define QUAVIX_QXWAVEOUT_H

#include <quavix/QXExport.h>

#include <quavix/QXDevice.h>
#include <quavix/QXWinTypes.h>

#include <atomic>
#include <string>
#include <vector>

struct IDirectSound;
struct IDirectSoundBuffer;
class CWavePlay;

struct DSDevice {
    GUID guid;
    std::string strDescription;
    std::string strModule;
    IDirectSound* pDirectSound;
    IDirectSoundBuffer* pPrimaryBuffer;
    void* pUnkOuter;
};

struct DSTrack {
    int nTrack;
    CWavePlay* pWavePlay;
    LONG lPan;
    LONG lVolume;
    LONG lFrequency;
};

struct DSPerformance {
    int nPerformance;
    CQXPtrList<DSTrack> tracks{10};
};

class QUAVIX_API CWaveOut : public CQXDevice {
public:
    CWaveOut();
    ~CWaveOut() override;

    // The driver registry.
    static int DSInit();
    static int DSExit();
    static int DSNumDrivers();
    static const char* DSGetDescription(int n);
    static const char* DSGetModule(int n);
    static IDirectSound* DSGetDevice(int n);
    // DSGetDevice with a reference the caller releases: the object stays valid after
    // the registry has been emptied.
    static IDirectSound* DSAcquireDevice(int n);
    // Fills the record with the driver's DSCAPS (as many bytes as the record holds) and
    // returns 1; 0 when the driver has no device object.
    static int GetDeviceCaps(int n, QX_DevCaps* pCaps);
    static int GetDefaultFormat() { return 9; }
    static int GetRecommendedTrackCount();

    int SetFormat(QX_DevFormat* pFormat) override;
    int PlayData(CQXEventList* pEvents, DWORD dwStart, DWORD dwEnd) override;
    void SetWaveParams(QX_WaveParams* pParams);
    int IsActive();
    DSPerformance* GetPerformance(int nPerformance);
    void DeletePerformance(int nPerformance, int bDeletePlayers);
    DSTrack* GetTrack(DSPerformance* pPerformance, int nTrack);
    void DeleteTrack(DSPerformance* pPerformance, int nTrack, int bDeletePlayers);
    // What an application may ask from any thread while players come and go (the
    // records themselves belong to the engine's thread): copies the pan, volume and rate
    // in force on that track's current player and returns 1; 0 when no player sounds
    // there (none, or one that has played out and waits to be displaced). Makes no record.
    int GetTrackParameters(int nPerformance, int nTrack, QX_DSParams* pParams);

    // What a CWavePlay asks of the output it plays on. The output knows every player
    // prepared on it, whether or not it has started; a player is destroyed by whoever
    // takes it out of that set (the output for a deleted track or at close, a player
    // that displaces it from its track, the player itself when it deletes itself, or
    // the caller of a Play that failed, which takes it back out first). A player that
    // has played to its end stays in the set, on its track, until one of those. The
    // output calls into a player only through a pin of the player registry, holding
    // none of its own locks.
    //
    // Prepare: makes the performance and track records and adds the player to the set.
    DSTrack* _AddPlayer(CWavePlay* pPlayer, int nPerformance, int nTrack);
    // Start: the player becomes its track's current player, with the track's lPan,
    // lVolume and lFrequency set from params. Returns the player it displaces, now out
    // of the set (the caller destroys it), or null. *pbAttached is 0 when the player is
    // no longer in the set or its track is gone (the caller must not start it).
    CWavePlay* _AttachPlayer(CWavePlay* pPlayer, const QX_DSParams& params, int* pbAttached);
    // Takes the player off every track that names it (with the lock held).
    void _DetachPlayer(CWavePlay* pPlayer);
    // Takes the player out of the set and off its track: 1 when it was in the set (the
    // caller may destroy it), 0 when someone else took it (and destroys it).
    int _RemovePlayer(CWavePlay* pPlayer);
    // The output that wave output n is, or null (also when the manager has none).
    static CWaveOut* _GetOutput(int nDevice);

protected:
    int DevOpen() override;
    int DevStart() override;
    int DevPause() override;
    int DevStop() override;
    int DevClose() override;

    // Registry record n, or null.
    static DSDevice* _DSGetRecord(int n);
    static BOOL CALLBACK _DSEnumCallback(LPGUID pGuid, LPCSTR pszDescription, LPCSTR pszModule, LPVOID pContext);

    struct PlayerEntry {
        CWavePlay* pPlayer;
        int nPerformance;
        int nTrack;
    };
    // Takes the players of the matching tracks (current and still to start) out of the
    // set into pDoomed; with the lock held.
    void _ClaimPlayers(int nPerformance, int nTrack, std::vector<CWavePlay*>& pDoomed);
    void _DeleteTrackLocked(DSPerformance* pPerformance, int nTrack, int bDeletePlayers,
                            std::vector<CWavePlay*>& pDoomed);
    static void _DestroyPlayers(std::vector<CWavePlay*>& pDoomed);
    // The track of that number, or null; makes nothing. With the lock held.
    DSTrack* _FindTrack(int nPerformance, int nTrack);
    // Calls fn on the track's current player, pinned and with no lock of the output
    // held, and returns what it returns; 0 when there is none. bMake makes missing records, as SetWaveParams does.
    template <class Fn> int _WithTrackPlayer(int nPerformance, int nTrack, bool bMake, Fn fn);

    DSDevice* m_pDSDevice = nullptr;
    CQXPtrList<DSPerformance> m_Performances{10};
    // Guards m_Performances, every track record and m_Players. Taken after the manager's
    // device lock and after a player's own lock; nothing is called with it held.
    CRITICAL_SECTION m_csPerformances{};
    // Set by a start, cleared by an open: which not-started outputs keep wave events.
    std::atomic<int> m_bStartedSinceOpen{0};
    std::vector<PlayerEntry> m_Players;
};

#endif // QUAVIX_QXWAVEOUT_H

// The wave output device: its driver's primary buffer, and the performances, tracks and
// players that sound on it.
#include <quavix/QXNotify.h>
#include <quavix/QXPlayerRegistry.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveOut.h>
#include <quavix/QXWavePlay.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

IDirectSoundBuffer* PrimaryOf(DSDevice* pRecord)
{
    return pRecord != nullptr ? pRecord->pPrimaryBuffer : nullptr;
}

// A device's format record is 18 bytes: whatever its cbSize claims, nothing follows it
// that the buffer may read (a WAVE_FORMAT_EXTENSIBLE tag there is refused, not parsed).
HRESULT SetPrimaryFormat(IDirectSoundBuffer* pPrimary, const QX_DevFormat* pFormat)
{
    if (pPrimary == nullptr) return DSERR_UNINITIALIZED;
    WAVEFORMATEX wfx;
    std::memcpy(&wfx, pFormat, sizeof wfx);
    wfx.cbSize = 0;
    return pPrimary->SetFormat(&wfx);
}

class Locked {
public:
    explicit Locked(CRITICAL_SECTION* pcs) : m_pcs(pcs) { EnterCriticalSection(m_pcs); }
    ~Locked() { LeaveCriticalSection(m_pcs); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    CRITICAL_SECTION* m_pcs;
};

} // namespace

CWaveOut::CWaveOut()
{
    InitializeCriticalSection(&m_csPerformances);
}

CWaveOut::~CWaveOut()
{
    ThreadStop();
    DeletePerformance(-1, 1);
    // Players still to start on a track that no longer exists are the output's too.
    std::vector<CWavePlay*> doomed;
    {
        Locked lock(&m_csPerformances);
        for (PlayerEntry& e : m_Players) doomed.push_back(e.pPlayer);
        m_Players.clear();
    }
    _DestroyPlayers(doomed);
    DeleteCriticalSection(&m_csPerformances);
}

CWaveOut* CWaveOut::_GetOutput(int nDevice)
{
    CQuavix* pManager = CQuavix::GetQuavix();
    if (pManager == nullptr) return nullptr;
    return dynamic_cast<CWaveOut*>(pManager->GetDevice(QX_DEVTYPE_WAVE, QX_DEVDIR_OUT, nDevice));
}

int CWaveOut::SetFormat(QX_DevFormat* pFormat)
{
    delete m_pFormat;
    m_pFormat = nullptr;
    if (pFormat == nullptr) return 0;
    m_pFormat = new (std::nothrow) QX_DevFormat;
    if (m_pFormat == nullptr) return 0;
    std::memcpy(m_pFormat, pFormat, sizeof(QX_DevFormat));
    if (TestState(QX_STATE_OPEN)) {
        HRESULT hr = SetPrimaryFormat(PrimaryOf(m_pDSDevice), m_pFormat);
        if (hr != DS_OK) {
            QXNotifyShared(QXN_DS_SETFORMAT, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice.load()));
            return 0;
        }
    }
    return 1;
}

int CWaveOut::PlayData(CQXEventList* pEvents, DWORD, DWORD)
{
    if (!TestState(QX_STATE_STARTED)) {
        // Departure: the first periods are written while the group opens, before
        // anything starts, so an output that is open and has not started since it
        // opened keeps their events (the manager hands them on once it has started it);
        // otherwise a performance would lose its first wave events. Any other output
        // that is not started (paused, stopped, closed) refuses them, and the manager
        // discards them: they would all sound at once when it runs again.
        return TestState(QX_STATE_OPEN) && !m_bStartedSinceOpen.load() ? 1 : 0;
    }
    if (pEvents == nullptr) return 1;
    while (!pEvents->IsEmpty()) {
        CQXEventData* pEvent = pEvents->RemoveHead();
        if (pEvent == nullptr) continue;
        auto* pParams = reinterpret_cast<QX_WaveParams*>(pEvent->m_dwData);
        if (pParams != nullptr) {
            if (pParams->dsParams.lpszFileName != nullptr) {
                {
                    // Only for the records: a missing one means no memory, and the
                    // event is skipped.
                    Locked lock(&m_csPerformances);
                    if (GetTrack(GetPerformance(pParams->nPerformance), pParams->nTrack) == nullptr) {
                        delete pEvent;
                        continue;
                    }
                }
                CWavePlay* pPlayer = pParams->dsParams.pWavePlay;
                if (pPlayer == nullptr) pPlayer = new (std::nothrow) CWavePlay;
                int bYours = 1;
                // A player that failed is destroyed only while it is still ours: a
                // deleted track may have taken it meanwhile, and destroys it itself.
                if (pPlayer != nullptr && !pPlayer->_Play(pParams, m_nDevice, pEvent->m_dwTimeStamp, nullptr, 0, 0, &bYours) &&
                    bYours)
                    delete pPlayer;
            } else {
                _WithTrackPlayer(pParams->nPerformance, pParams->nTrack, true, [&](CWavePlay* p) {
                    p->SetBufferParameters(pParams->dsParams);
                    return 1;
                });
            }
        }
        delete pEvent; // frees its parameters too
    }
    return 1;
}

void CWaveOut::SetWaveParams(QX_WaveParams* pParams)
{
    if (pParams == nullptr) return;
    _WithTrackPlayer(pParams->nPerformance, pParams->nTrack, true, [&](CWavePlay* p) {
        p->SetBufferParameters(pParams->dsParams);
        return 1;
    });
}

template <class Fn> int CWaveOut::_WithTrackPlayer(int nPerformance, int nTrack, bool bMake, Fn fn)
{
    DWORD dwHandle = 0;
    {
        Locked lock(&m_csPerformances);
        DSTrack* pTrack = bMake ? GetTrack(GetPerformance(nPerformance), nTrack) : _FindTrack(nPerformance, nTrack);
        if (pTrack == nullptr || pTrack->pWavePlay == nullptr) return 0;
        dwHandle = pTrack->pWavePlay->GetHandle();
    }
    // Pinned, with no lock of the output held: the player takes its own lock, and then
    // the output's.
    auto* pPlayer = static_cast<CWavePlay*>(QXAcquirePlayer(dwHandle));
    if (pPlayer == nullptr) return 0;
    const int nResult = fn(pPlayer);
    QXReleasePlayer(dwHandle);
    return nResult;
}

int CWaveOut::IsActive()
{
    Locked lock(&m_csPerformances);
    return m_Performances.IsEmpty() ? 0 : 1;
}

int CWaveOut::GetTrackParameters(int nPerformance, int nTrack, QX_DSParams* pParams)
{
    return _WithTrackPlayer(nPerformance, nTrack, false, [&](CWavePlay* p) { return p->CopyBufferParameters(pParams); });
}

DSPerformance* CWaveOut::GetPerformance(int nPerformance)
{
    Locked lock(&m_csPerformances);
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        DSPerformance* p = m_Performances.GetNext(pos);
        if (p->nPerformance == nPerformance) return p;
    }
    auto* p = new (std::nothrow) DSPerformance;
    if (p == nullptr) return nullptr;
    p->nPerformance = nPerformance;
    if (m_Performances.AddTail(p) == nullptr) {
        delete p;
        return nullptr;
    }
    return p;
}

void CWaveOut::DeletePerformance(int nPerformance, int bDeletePlayers)
{
    std::vector<CWavePlay*> doomed;
    {
        Locked lock(&m_csPerformances);
        for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
            POSITION here = pos;
            DSPerformance* p = m_Performances.GetNext(pos);
            if (nPerformance != -1 && p->nPerformance != nPerformance) continue;
            m_Performances.RemoveAt(here);
            _DeleteTrackLocked(p, -1, bDeletePlayers, doomed);
            delete p;
        }
    }
    _DestroyPlayers(doomed);
}

DSTrack* CWaveOut::GetTrack(DSPerformance* pPerformance, int nTrack)
{
    if (pPerformance == nullptr) return nullptr;
    Locked lock(&m_csPerformances);
    for (POSITION pos = pPerformance->tracks.GetHeadPosition(); pos != nullptr;) {
        DSTrack* t = pPerformance->tracks.GetNext(pos);
        if (t->nTrack == nTrack) return t;
    }
    auto* t = new (std::nothrow) DSTrack{};
    if (t == nullptr) return nullptr;
    t->nTrack = nTrack;
    if (pPerformance->tracks.AddTail(t) == nullptr) {
        delete t;
        return nullptr;
    }
    return t;
}

void CWaveOut::DeleteTrack(DSPerformance* pPerformance, int nTrack, int bDeletePlayers)
{
    if (pPerformance == nullptr) return;
    std::vector<CWavePlay*> doomed;
    {
        Locked lock(&m_csPerformances);
        _DeleteTrackLocked(pPerformance, nTrack, bDeletePlayers, doomed);
    }
    _DestroyPlayers(doomed);
}

void CWaveOut::_DeleteTrackLocked(DSPerformance* pPerformance, int nTrack, int bDeletePlayers,
                                  std::vector<CWavePlay*>& doomed)
{
    for (POSITION pos = pPerformance->tracks.GetHeadPosition(); pos != nullptr;) {
        POSITION here = pos;
        DSTrack* t = pPerformance->tracks.GetNext(pos);
        if (nTrack != -1 && t->nTrack != nTrack) continue;
        // The track's player and the ones still to start on it go with the track. With
        // bDeletePlayers 0 (a player removing its own performance) they are left alone:
        // they find their track gone when they start.
        if (bDeletePlayers) _ClaimPlayers(pPerformance->nPerformance, t->nTrack, doomed);
        pPerformance->tracks.RemoveAt(here);
        delete t;
    }
}

void CWaveOut::_ClaimPlayers(int nPerformance, int nTrack, std::vector<CWavePlay*>& doomed)
{
    auto gone = std::remove_if(m_Players.begin(), m_Players.end(), [&](const PlayerEntry& e) {
        if (e.nPerformance != nPerformance || e.nTrack != nTrack) return false;
        doomed.push_back(e.pPlayer);
        return true;
    });
    m_Players.erase(gone, m_Players.end());
}

// Outside every lock of the output: a player's destructor stops it and waits for its
// threads, which may be reporting to the output at that moment.
void CWaveOut::_DestroyPlayers(std::vector<CWavePlay*>& doomed)
{
    for (CWavePlay* p : doomed) delete p;
    doomed.clear();
}

DSTrack* CWaveOut::_AddPlayer(CWavePlay* pPlayer, int nPerformance, int nTrack)
{
    if (pPlayer == nullptr) return nullptr;
    Locked lock(&m_csPerformances);
    DSTrack* pTrack = GetTrack(GetPerformance(nPerformance), nTrack);
    if (pTrack == nullptr) return nullptr;
    for (PlayerEntry& e : m_Players)
        if (e.pPlayer == pPlayer) {
            e.nPerformance = nPerformance;
            e.nTrack = nTrack;
            return pTrack;
        }
    try {
        m_Players.push_back({pPlayer, nPerformance, nTrack});
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return pTrack;
}

CWavePlay* CWaveOut::_AttachPlayer(CWavePlay* pPlayer, const QX_DSParams& params, int* pbAttached)
{
    if (pbAttached != nullptr) *pbAttached = 0;
    Locked lock(&m_csPerformances);
    auto it = std::find_if(m_Players.begin(), m_Players.end(),
                           [&](const PlayerEntry& e) { return e.pPlayer == pPlayer; });
    if (it == m_Players.end()) return nullptr;
    const int nPerformance = it->nPerformance, nTrack = it->nTrack;
    // Found by number, never by a pointer the player kept: its records may have gone.
    DSTrack* pTrack = _FindTrack(nPerformance, nTrack);
    if (pTrack == nullptr) return nullptr;
    CWavePlay* pOld = pTrack->pWavePlay;
    if (pOld == pPlayer) pOld = nullptr;
    if (pOld != nullptr) {
        auto old = std::find_if(m_Players.begin(), m_Players.end(),
                                [&](const PlayerEntry& e) { return e.pPlayer == pOld; });
        if (old != m_Players.end())
            m_Players.erase(old);
        else
            pOld = nullptr; // already taken by whoever destroys it
    }
    pTrack->pWavePlay = pPlayer;
    pTrack->lPan = params.lPan;
    pTrack->lVolume = params.lVolume;
    pTrack->lFrequency = params.lFrequency;
    if (pbAttached != nullptr) *pbAttached = 1;
    return pOld;
}

DSTrack* CWaveOut::_FindTrack(int nPerformance, int nTrack)
{
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        DSPerformance* p = m_Performances.GetNext(pos);
        if (p->nPerformance != nPerformance) continue;
        for (POSITION tpos = p->tracks.GetHeadPosition(); tpos != nullptr;) {
            DSTrack* t = p->tracks.GetNext(tpos);
            if (t->nTrack == nTrack) return t;
        }
    }
    return nullptr;
}

void CWaveOut::_DetachPlayer(CWavePlay* pPlayer)
{
    Locked lock(&m_csPerformances);
    for (POSITION pos = m_Performances.GetHeadPosition(); pos != nullptr;) {
        DSPerformance* p = m_Performances.GetNext(pos);
        for (POSITION tpos = p->tracks.GetHeadPosition(); tpos != nullptr;) {
            DSTrack* t = p->tracks.GetNext(tpos);
            if (t->pWavePlay == pPlayer) t->pWavePlay = nullptr;
        }
    }
}

int CWaveOut::_RemovePlayer(CWavePlay* pPlayer)
{
    Locked lock(&m_csPerformances);
    _DetachPlayer(pPlayer);
    auto it = std::find_if(m_Players.begin(), m_Players.end(),
                           [&](const PlayerEntry& e) { return e.pPlayer == pPlayer; });
    if (it == m_Players.end()) return 0;
    m_Players.erase(it);
    return 1;
}

int CWaveOut::DevOpen()
{
    m_bStartedSinceOpen = 0;
    if (!DSInit()) return 0;
    const int nDevice = m_nDevice;
    m_pDSDevice = _DSGetRecord(nDevice);
    if (m_pDSDevice == nullptr || m_pDSDevice->pDirectSound == nullptr) return 0;

    // A primary buffer left by an open that failed at the format step is reused: the
    // device shares one primary buffer, and a second reference would only leak.
    if (m_pDSDevice->pPrimaryBuffer == nullptr) {
        DSBUFFERDESC desc{};
        desc.dwSize = sizeof desc;
        desc.dwFlags = DSBCAPS_PRIMARYBUFFER;
        HRESULT hr = m_pDSDevice->pDirectSound->CreateSoundBuffer(&desc, &m_pDSDevice->pPrimaryBuffer, nullptr);
        if (hr != DS_OK) {
            m_pDSDevice->pPrimaryBuffer = nullptr;
            QXNotifyShared(QXN_DS_CREATEBUFFER, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(nDevice));
            return 0;
        }
    }
    if (m_pFormat == nullptr) {
        m_pFormat = new (std::nothrow) QX_DevFormat;
        if (m_pFormat == nullptr) return 0;
        FillFormat(reinterpret_cast<WAVEFORMATEX*>(m_pFormat), GetDefaultFormat());
    }
    HRESULT hr = SetPrimaryFormat(m_pDSDevice->pPrimaryBuffer, m_pFormat);
    if (hr != DS_OK) {
        QXNotifyShared(QXN_DS_SETFORMAT, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(nDevice));
        return 0;
    }
    return 1;
}

int CWaveOut::DevStart()
{
    IDirectSoundBuffer* pPrimary = PrimaryOf(m_pDSDevice);
    HRESULT hr = pPrimary != nullptr ? pPrimary->Play(0, 0, DSBPLAY_LOOPING) : DSERR_UNINITIALIZED;
    if (hr != DS_OK) {
        QXNotifyShared(QXN_DS_START, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    // Resumes a paused output where it was held.
    qxplat::DirectSoundSetPaused(m_pDSDevice->pDirectSound, false);
    m_bStartedSinceOpen = 1;
    return 1;
}

// A paused output holds its whole mix: every player keeps its place and its pending
// refills, the sink hears silence, and the next start goes on from there. (Letting the
// players sound on would run the audio ahead of the paused MIDI.)
int CWaveOut::DevPause()
{
    if (m_pDSDevice != nullptr) qxplat::DirectSoundSetPaused(m_pDSDevice->pDirectSound, true);
    return 1;
}

int CWaveOut::DevStop()
{
    IDirectSoundBuffer* pPrimary = PrimaryOf(m_pDSDevice);
    HRESULT hr = pPrimary != nullptr ? pPrimary->Stop() : DSERR_UNINITIALIZED;
    if (hr != DS_OK) {
        QXNotifyShared(QXN_DS_STOP, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(m_nDevice.load()));
        return 0;
    }
    qxplat::DirectSoundSetPaused(m_pDSDevice->pDirectSound, false);
    return 1;
}

int CWaveOut::DevClose()
{
    DeletePerformance(-1, 1);
    std::vector<CWavePlay*> doomed;
    {
        Locked lock(&m_csPerformances);
        for (PlayerEntry& e : m_Players) doomed.push_back(e.pPlayer);
        m_Players.clear();
    }
    _DestroyPlayers(doomed);
    if (m_pDSDevice != nullptr) {
        qxplat::DirectSoundSetPaused(m_pDSDevice->pDirectSound, false);
        if (m_pDSDevice->pPrimaryBuffer != nullptr) {
            m_pDSDevice->pPrimaryBuffer->Release();
            m_pDSDevice->pPrimaryBuffer = nullptr;
        }
    }
    return 1;
}

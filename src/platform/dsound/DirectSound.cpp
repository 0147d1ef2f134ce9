// The DirectSound objects: device, primary buffer, secondary buffers with their
// notification interface. Each method checks fault injection first, then its arguments.
#include "platform/dsound/QXDSound.h"

#include "platform/QXFaults.h"
#include "platform/QXPlatform.h"
#include "platform/backends/QXBackend.h"
#include "platform/dsound/QXMixer.h"
#include "platform/dsound/QXOutput.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

namespace qxplat {

namespace {

std::atomic<size_t> g_liveObjects{0};
std::atomic<uint64_t> g_bufferStarts{0};

// The write cursor leads the play cursor by what the mixer may already have taken.
constexpr DWORD kWriteLeadMs = 15;

#define QX_DS_FAULT(name)                                  \
    do {                                                   \
        DWORD fault_ = 0;                                  \
        if (QXFaultCheck(name, &fault_)) return static_cast<HRESULT>(fault_); \
    } while (0)

// Drivers' GUIDs: the output number in Data1, the backend's name in Data4.
GUID DriverGuid(const char* backend, int n)
{
    GUID g{};
    g.Data1 = 0x9A17E000u + static_cast<uint32_t>(n);
    g.Data2 = 0x5158;
    g.Data3 = 0x0D50;
    for (int i = 0; i < 8 && backend[i] != '\0'; ++i) g.Data4[i] = static_cast<uint8_t>(backend[i]);
    return g;
}

class Device;

class PrimaryBuffer final : public IDirectSoundBuffer {
public:
    PrimaryBuffer(Device* pDevice, DWORD dwFlags);
    ~PrimaryBuffer();

    HRESULT QueryInterface(REFIID riid, LPVOID* ppv) override;
    ULONG AddRef() override { return ++m_refs; }
    // A reference unless the last one is already being released (then it is going away).
    bool TryAddRef()
    {
        ULONG n = m_refs.load();
        while (n != 0)
            if (m_refs.compare_exchange_weak(n, n + 1)) return true;
        return false;
    }
    ULONG Release() override;
    HRESULT GetCaps(LPDSBCAPS pCaps) override;
    HRESULT GetCurrentPosition(LPDWORD pPlay, LPDWORD pWrite) override;
    HRESULT GetFormat(LPWAVEFORMATEX pwfx, DWORD cb, LPDWORD pcbWritten) override;
    HRESULT GetVolume(LPLONG pl) override;
    HRESULT GetPan(LPLONG pl) override;
    HRESULT GetFrequency(LPDWORD) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::GetFrequency");
        return DSERR_CONTROLUNAVAIL;
    }
    HRESULT GetStatus(LPDWORD pdwStatus) override;
    HRESULT Initialize(LPDIRECTSOUND, LPCDSBUFFERDESC) override { return DSERR_ALREADYINITIALIZED; }
    HRESULT Lock(DWORD, DWORD, LPVOID*, LPDWORD, LPVOID*, LPDWORD, DWORD) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::Lock");
        return DSERR_INVALIDCALL; // the primary buffer is never written by the application
    }
    HRESULT Play(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags) override;
    HRESULT SetCurrentPosition(DWORD) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::SetCurrentPosition");
        return DSERR_INVALIDCALL;
    }
    HRESULT SetFormat(LPCWAVEFORMATEX pwfx) override;
    HRESULT SetVolume(LONG l) override;
    HRESULT SetPan(LONG l) override;
    HRESULT SetFrequency(DWORD) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::SetFrequency");
        return DSERR_CONTROLUNAVAIL;
    }
    HRESULT Stop() override;
    HRESULT Unlock(LPVOID, DWORD, LPVOID, DWORD) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::Unlock");
        return DSERR_INVALIDCALL;
    }
    HRESULT Restore() override
    {
        QX_DS_FAULT("IDirectSoundBuffer::Restore");
        return DS_OK;
    }

private:
    void ApplyGains();

    std::atomic<ULONG> m_refs{1};
    Device* m_device;
    DWORD m_flags;
    std::mutex m_lock;
    WAVEFORMATEX m_format{}; // under m_lock
    bool m_playing = false;  // under m_lock
    LONG m_volume = 0, m_pan = 0;
};

class SecondaryBuffer final : public IDirectSoundBuffer, public IDirectSoundNotify {
public:
    SecondaryBuffer(Device* pDevice, DWORD dwFlags, const WAVEFORMATEX& wfx, const ds::SourceFormat& fmt,
                    DWORD dwBytes);
    ~SecondaryBuffer();

    HRESULT QueryInterface(REFIID riid, LPVOID* ppv) override;
    ULONG AddRef() override { return ++m_refs; }
    ULONG Release() override;
    HRESULT GetCaps(LPDSBCAPS pCaps) override;
    HRESULT GetCurrentPosition(LPDWORD pPlay, LPDWORD pWrite) override;
    HRESULT GetFormat(LPWAVEFORMATEX pwfx, DWORD cb, LPDWORD pcbWritten) override;
    HRESULT GetVolume(LPLONG pl) override;
    HRESULT GetPan(LPLONG pl) override;
    HRESULT GetFrequency(LPDWORD pdw) override;
    HRESULT GetStatus(LPDWORD pdwStatus) override;
    HRESULT Initialize(LPDIRECTSOUND, LPCDSBUFFERDESC) override { return DSERR_ALREADYINITIALIZED; }
    HRESULT Lock(DWORD dwOffset, DWORD dwBytes, LPVOID* pp1, LPDWORD pb1, LPVOID* pp2, LPDWORD pb2,
                 DWORD dwFlags) override;
    HRESULT Play(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags) override;
    HRESULT PlayAt(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags, int64_t startNs);
    HRESULT SetCurrentPosition(DWORD dwPos) override;
    HRESULT SetFormat(LPCWAVEFORMATEX) override
    {
        QX_DS_FAULT("IDirectSoundBuffer::SetFormat");
        return DSERR_INVALIDCALL; // only the primary buffer's format can be set
    }
    HRESULT SetVolume(LONG l) override;
    HRESULT SetPan(LONG l) override;
    HRESULT SetFrequency(DWORD dw) override;
    HRESULT Stop() override;
    HRESULT Unlock(LPVOID p1, DWORD b1, LPVOID p2, DWORD b2) override;
    HRESULT Restore() override
    {
        QX_DS_FAULT("IDirectSoundBuffer::Restore");
        return DS_OK; // memory is never lost here
    }
    HRESULT SetNotificationPositions(DWORD n, LPCDSBPOSITIONNOTIFY p) override;

    ds::Voice& Voice() { return m_voice; }

private:
    DWORD LeadFrames() const { return m_voice.Frequency() * kWriteLeadMs / 1000 + 1; }
    bool Inside(LPVOID p, DWORD cb) const;

    std::atomic<ULONG> m_refs{1};
    Device* m_device;
    DWORD m_flags;
    WAVEFORMATEX m_wfx;
    ds::Voice m_voice;
};

class Device final : public IDirectSound {
public:
    // Takes over one use of the output.
    explicit Device(ds::Output* pOutput) : m_output(pOutput), m_port(pOutput->Port()), m_mixer(pOutput->Mix())
    {
        ++g_liveObjects;
    }
    ~Device()
    {
        m_output->Release();
        --g_liveObjects;
    }

    HRESULT QueryInterface(REFIID riid, LPVOID* ppv) override
    {
        QX_DS_FAULT("IDirectSound::QueryInterface");
        if (ppv == nullptr) return E_POINTER;
        *ppv = nullptr;
        if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, IID_IDirectSound)) return E_NOINTERFACE;
        AddRef();
        *ppv = static_cast<IDirectSound*>(this);
        return S_OK;
    }
    ULONG AddRef() override { return ++m_refs; }
    ULONG Release() override
    {
        const ULONG left = --m_refs;
        if (left == 0) delete this;
        return left;
    }
    HRESULT CreateSoundBuffer(LPCDSBUFFERDESC pDesc, LPDIRECTSOUNDBUFFER* ppBuffer, LPUNKNOWN pOuter) override;
    HRESULT GetCaps(LPDSCAPS pCaps) override;
    HRESULT DuplicateSoundBuffer(LPDIRECTSOUNDBUFFER, LPDIRECTSOUNDBUFFER* pp) override
    {
        QX_DS_FAULT("IDirectSound::DuplicateSoundBuffer");
        if (pp != nullptr) *pp = nullptr;
        return DSERR_UNSUPPORTED;
    }
    HRESULT SetCooperativeLevel(HWND hwnd, DWORD dwLevel) override
    {
        QX_DS_FAULT("IDirectSound::SetCooperativeLevel");
        if (hwnd == nullptr || !IsWindow(hwnd)) return DSERR_INVALIDPARAM;
        if (dwLevel < DSSCL_NORMAL || dwLevel > DSSCL_WRITEPRIMARY) return DSERR_INVALIDPARAM;
        m_coopLevel.store(dwLevel);
        return DS_OK;
    }
    HRESULT Compact() override
    {
        QX_DS_FAULT("IDirectSound::Compact");
        return DS_OK;
    }
    HRESULT GetSpeakerConfig(LPDWORD pdw) override
    {
        QX_DS_FAULT("IDirectSound::GetSpeakerConfig");
        if (pdw == nullptr) return DSERR_INVALIDPARAM;
        *pdw = 4; // DSSPEAKER_STEREO
        return DS_OK;
    }
    HRESULT SetSpeakerConfig(DWORD) override
    {
        QX_DS_FAULT("IDirectSound::SetSpeakerConfig");
        return DS_OK;
    }
    HRESULT Initialize(LPCGUID) override { return DSERR_ALREADYINITIALIZED; }

    ds::Mixer& Mixer() { return m_mixer; }
    // This device's buffers on the output's mixer: its primary buffer's gains, its pause.
    ds::Bus& Bus() { return m_bus; }
    bool Offline() const { return m_port == nullptr; }
    DWORD OutputLatencyFrames(DWORD* pRate, bool* pbExact) const
    {
        if (pbExact != nullptr) *pbExact = m_port && m_port->HasClock();
        if (pRate != nullptr) *pRate = m_port ? m_port->Rate() : 0;
        return m_port ? m_port->LatencyFrames() : 0;
    }
    DWORD CoopLevel() const { return m_coopLevel.load(); }

    // The first Play of any buffer starts the sink and the mixer thread.
    void Activate(bool bPrimary) { m_output->Activate(bPrimary); }
    void PrimaryGone(PrimaryBuffer* p)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_primary == p) m_primary = nullptr;
    }

private:
    std::atomic<ULONG> m_refs{1};
    std::atomic<DWORD> m_coopLevel{0};
    ds::Output* m_output;
    const AudioOutPort* m_port; // the output's; null offline
    ds::Mixer& m_mixer;
    ds::Bus m_bus;
    std::mutex m_lock;
    PrimaryBuffer* m_primary = nullptr; // under m_lock; it holds a reference to us
};

// ---- Primary buffer ----

PrimaryBuffer::PrimaryBuffer(Device* pDevice, DWORD dwFlags) : m_device(pDevice), m_flags(dwFlags)
{
    m_device->AddRef();
    m_format.wFormatTag = WAVE_FORMAT_PCM;
    m_format.nChannels = 2;
    m_format.nSamplesPerSec = 22050;
    m_format.wBitsPerSample = 8;
    m_format.nBlockAlign = 2;
    m_format.nAvgBytesPerSec = 44100;
    ++g_liveObjects;
}

PrimaryBuffer::~PrimaryBuffer()
{
    m_device->Bus().gainL.store(1.0f);
    m_device->Bus().gainR.store(1.0f);
    m_device->PrimaryGone(this);
    m_device->Release();
    --g_liveObjects;
}

HRESULT PrimaryBuffer::QueryInterface(REFIID riid, LPVOID* ppv)
{
    QX_DS_FAULT("IDirectSoundBuffer::QueryInterface");
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (!IsEqualGUID(riid, IID_IUnknown) && !IsEqualGUID(riid, IID_IDirectSoundBuffer)) return E_NOINTERFACE;
    AddRef();
    *ppv = static_cast<IDirectSoundBuffer*>(this);
    return S_OK;
}

ULONG PrimaryBuffer::Release()
{
    const ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
}

HRESULT PrimaryBuffer::GetCaps(LPDSBCAPS pCaps)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetCaps");
    if (pCaps == nullptr || pCaps->dwSize < sizeof(DSBCAPS)) return DSERR_INVALIDPARAM;
    std::lock_guard<std::mutex> lock(m_lock);
    pCaps->dwFlags = m_flags | DSBCAPS_LOCSOFTWARE;
    pCaps->dwBufferBytes = std::max<DWORD>(m_format.nBlockAlign, m_format.nAvgBytesPerSec / 10 / m_format.nBlockAlign *
                                                                    m_format.nBlockAlign);
    pCaps->dwUnlockTransferRate = 0;
    pCaps->dwPlayCpuOverhead = 0;
    return DS_OK;
}

// The primary buffer is a nominal ring of 100 ms in its format, moving with the mix.
HRESULT PrimaryBuffer::GetCurrentPosition(LPDWORD pPlay, LPDWORD pWrite)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetCurrentPosition");
    if (pPlay == nullptr && pWrite == nullptr) return DSERR_INVALIDPARAM;
    std::lock_guard<std::mutex> lock(m_lock);
    const uint64_t ba = m_format.nBlockAlign, rate = m_format.nSamplesPerSec;
    const uint64_t frames = std::max<uint64_t>(1, rate / 10);
    const ds::Mixer& mixer = m_device->Mixer();
    const uint64_t at = mixer.FramesMixed() * rate / mixer.Rate();
    if (pPlay != nullptr) *pPlay = static_cast<DWORD>((at % frames) * ba);
    if (pWrite != nullptr) *pWrite = static_cast<DWORD>(((at + rate * kWriteLeadMs / 1000) % frames) * ba);
    return DS_OK;
}

HRESULT CopyFormat(const WAVEFORMATEX& wfx, LPWAVEFORMATEX pwfx, DWORD cb, LPDWORD pcbWritten)
{
    const DWORD need = sizeof(WAVEFORMATEX);
    if (pwfx == nullptr) {
        if (pcbWritten == nullptr) return DSERR_INVALIDPARAM;
        *pcbWritten = need;
        return DS_OK;
    }
    if (cb < need) return DSERR_INVALIDPARAM;
    std::memcpy(pwfx, &wfx, need);
    pwfx->cbSize = 0;
    if (pcbWritten != nullptr) *pcbWritten = need;
    return DS_OK;
}

HRESULT PrimaryBuffer::GetFormat(LPWAVEFORMATEX pwfx, DWORD cb, LPDWORD pcbWritten)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetFormat");
    std::lock_guard<std::mutex> lock(m_lock);
    return CopyFormat(m_format, pwfx, cb, pcbWritten);
}

HRESULT PrimaryBuffer::GetVolume(LPLONG pl)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetVolume");
    if (pl == nullptr) return DSERR_INVALIDPARAM;
    if (!(m_flags & DSBCAPS_CTRLVOLUME)) return DSERR_CONTROLUNAVAIL;
    std::lock_guard<std::mutex> lock(m_lock);
    *pl = m_volume;
    return DS_OK;
}

HRESULT PrimaryBuffer::GetPan(LPLONG pl)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetPan");
    if (pl == nullptr) return DSERR_INVALIDPARAM;
    if (!(m_flags & DSBCAPS_CTRLPAN)) return DSERR_CONTROLUNAVAIL;
    std::lock_guard<std::mutex> lock(m_lock);
    *pl = m_pan;
    return DS_OK;
}

HRESULT PrimaryBuffer::GetStatus(LPDWORD pdwStatus)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetStatus");
    if (pdwStatus == nullptr) return DSERR_INVALIDPARAM;
    std::lock_guard<std::mutex> lock(m_lock);
    *pdwStatus = m_playing ? (DSBSTATUS_PLAYING | DSBSTATUS_LOOPING) : 0;
    return DS_OK;
}

HRESULT PrimaryBuffer::Play(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags)
{
    QX_DS_FAULT("IDirectSoundBuffer::Play");
    if (dwReserved1 != 0 || dwPriority != 0) return DSERR_INVALIDPARAM;
    if (!(dwFlags & DSBPLAY_LOOPING)) return DSERR_INVALIDPARAM; // a primary buffer only loops
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_playing = true;
    }
    m_device->Activate(true);
    return DS_OK;
}

HRESULT PrimaryBuffer::SetFormat(LPCWAVEFORMATEX pwfx)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetFormat");
    if (pwfx == nullptr) return DSERR_INVALIDPARAM;
    if (m_device->CoopLevel() < DSSCL_PRIORITY) return DSERR_PRIOLEVELNEEDED;
    ds::SourceFormat f;
    if (!ds::ParseFormat(pwfx, f) || f.channels > 2) return DSERR_BADFORMAT;
    std::lock_guard<std::mutex> lock(m_lock);
    std::memcpy(&m_format, pwfx, sizeof(WAVEFORMATEX));
    m_format.cbSize = 0;
    m_format.nAvgBytesPerSec = f.rate * f.blockAlign;
    return DS_OK;
}

void PrimaryBuffer::ApplyGains()
{
    float l, r;
    ds::PanGains(m_volume, m_pan, l, r);
    m_device->Bus().gainL.store(l);
    m_device->Bus().gainR.store(r);
}

HRESULT PrimaryBuffer::SetVolume(LONG l)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetVolume");
    if (!(m_flags & DSBCAPS_CTRLVOLUME)) return DSERR_CONTROLUNAVAIL;
    if (l < DSBVOLUME_MIN || l > DSBVOLUME_MAX) return DSERR_INVALIDPARAM;
    std::lock_guard<std::mutex> lock(m_lock);
    m_volume = l;
    ApplyGains();
    return DS_OK;
}

HRESULT PrimaryBuffer::SetPan(LONG l)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetPan");
    if (!(m_flags & DSBCAPS_CTRLPAN)) return DSERR_CONTROLUNAVAIL;
    if (l < DSBPAN_LEFT || l > DSBPAN_RIGHT) return DSERR_INVALIDPARAM;
    std::lock_guard<std::mutex> lock(m_lock);
    m_pan = l;
    ApplyGains();
    return DS_OK;
}

HRESULT PrimaryBuffer::Stop()
{
    QX_DS_FAULT("IDirectSoundBuffer::Stop");
    std::lock_guard<std::mutex> lock(m_lock);
    m_playing = false; // the secondary buffers go on; the sink keeps running
    return DS_OK;
}

// ---- Secondary buffers ----

SecondaryBuffer::SecondaryBuffer(Device* pDevice, DWORD dwFlags, const WAVEFORMATEX& wfx,
                                 const ds::SourceFormat& fmt, DWORD dwBytes)
    : m_device(pDevice), m_flags(dwFlags), m_wfx(wfx), m_voice(fmt, dwBytes)
{
    m_wfx.cbSize = 0;
    m_device->AddRef();
    ++g_liveObjects;
}

SecondaryBuffer::~SecondaryBuffer()
{
    m_device->Mixer().RemoveVoice(&m_voice);
    m_device->Release();
    --g_liveObjects;
}

HRESULT SecondaryBuffer::QueryInterface(REFIID riid, LPVOID* ppv)
{
    QX_DS_FAULT("IDirectSoundBuffer::QueryInterface");
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (IsEqualGUID(riid, IID_IUnknown) || IsEqualGUID(riid, IID_IDirectSoundBuffer)) {
        AddRef();
        *ppv = static_cast<IDirectSoundBuffer*>(this);
        return S_OK;
    }
    if (IsEqualGUID(riid, IID_IDirectSoundNotify) && (m_flags & DSBCAPS_CTRLPOSITIONNOTIFY)) {
        AddRef();
        *ppv = static_cast<IDirectSoundNotify*>(this);
        return S_OK;
    }
    return E_NOINTERFACE;
}

ULONG SecondaryBuffer::Release()
{
    const ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
}

HRESULT SecondaryBuffer::GetCaps(LPDSBCAPS pCaps)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetCaps");
    if (pCaps == nullptr || pCaps->dwSize < sizeof(DSBCAPS)) return DSERR_INVALIDPARAM;
    pCaps->dwFlags = m_flags | DSBCAPS_LOCSOFTWARE;
    pCaps->dwBufferBytes = m_voice.Bytes();
    pCaps->dwUnlockTransferRate = 0;
    pCaps->dwPlayCpuOverhead = 0;
    return DS_OK;
}

HRESULT SecondaryBuffer::GetCurrentPosition(LPDWORD pPlay, LPDWORD pWrite)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetCurrentPosition");
    if (pPlay == nullptr && pWrite == nullptr) return DSERR_INVALIDPARAM;
    m_voice.GetPositions(LeadFrames(), pPlay, pWrite);
    return DS_OK;
}

HRESULT SecondaryBuffer::GetFormat(LPWAVEFORMATEX pwfx, DWORD cb, LPDWORD pcbWritten)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetFormat");
    return CopyFormat(m_wfx, pwfx, cb, pcbWritten);
}

HRESULT SecondaryBuffer::GetVolume(LPLONG pl)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetVolume");
    if (pl == nullptr) return DSERR_INVALIDPARAM;
    if (!(m_flags & DSBCAPS_CTRLVOLUME)) return DSERR_CONTROLUNAVAIL;
    *pl = m_voice.Volume();
    return DS_OK;
}

HRESULT SecondaryBuffer::GetPan(LPLONG pl)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetPan");
    if (pl == nullptr) return DSERR_INVALIDPARAM;
    if (!(m_flags & DSBCAPS_CTRLPAN)) return DSERR_CONTROLUNAVAIL;
    *pl = m_voice.Pan();
    return DS_OK;
}

HRESULT SecondaryBuffer::GetFrequency(LPDWORD pdw)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetFrequency");
    if (pdw == nullptr) return DSERR_INVALIDPARAM;
    if (!(m_flags & DSBCAPS_CTRLFREQUENCY)) return DSERR_CONTROLUNAVAIL;
    *pdw = m_voice.Frequency();
    return DS_OK;
}

HRESULT SecondaryBuffer::GetStatus(LPDWORD pdwStatus)
{
    QX_DS_FAULT("IDirectSoundBuffer::GetStatus");
    if (pdwStatus == nullptr) return DSERR_INVALIDPARAM;
    DWORD s = DSBSTATUS_LOCSOFTWARE;
    if (m_voice.Playing()) {
        s |= DSBSTATUS_PLAYING;
        if (m_voice.Looping()) s |= DSBSTATUS_LOOPING;
    }
    *pdwStatus = s;
    return DS_OK;
}

HRESULT SecondaryBuffer::Lock(DWORD dwOffset, DWORD dwBytes, LPVOID* pp1, LPDWORD pb1, LPVOID* pp2, LPDWORD pb2,
                              DWORD dwFlags)
{
    QX_DS_FAULT("IDirectSoundBuffer::Lock");
    if (pp1 == nullptr || pb1 == nullptr) return DSERR_INVALIDPARAM;
    const DWORD size = m_voice.Bytes();
    if (dwFlags & DSBLOCK_FROMWRITECURSOR) m_voice.GetPositions(LeadFrames(), nullptr, &dwOffset);
    if (dwFlags & DSBLOCK_ENTIREBUFFER) dwBytes = size;
    if (dwOffset >= size || dwBytes == 0 || dwBytes > size) return DSERR_INVALIDPARAM;
    const DWORD first = std::min(dwBytes, size - dwOffset);
    *pp1 = m_voice.Data() + dwOffset;
    *pb1 = first;
    if (pp2 != nullptr) *pp2 = first < dwBytes ? m_voice.Data() : nullptr;
    if (pb2 != nullptr) *pb2 = pp2 != nullptr && first < dwBytes ? dwBytes - first : 0;
    return DS_OK;
}

bool SecondaryBuffer::Inside(LPVOID p, DWORD cb) const
{
    const BYTE* b = static_cast<const BYTE*>(p);
    const BYTE* base = const_cast<SecondaryBuffer*>(this)->m_voice.Data();
    return b >= base && b <= base + m_voice.Bytes() && cb <= static_cast<DWORD>(base + m_voice.Bytes() - b);
}

HRESULT SecondaryBuffer::Unlock(LPVOID p1, DWORD b1, LPVOID p2, DWORD b2)
{
    QX_DS_FAULT("IDirectSoundBuffer::Unlock");
    if (p1 == nullptr || !Inside(p1, b1)) return DSERR_INVALIDPARAM;
    if (p2 != nullptr && !Inside(p2, b2)) return DSERR_INVALIDPARAM;
    m_voice.Published();
    return DS_OK;
}

HRESULT SecondaryBuffer::Play(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags)
{
    return PlayAt(dwReserved1, dwPriority, dwFlags, NowNs());
}

HRESULT SecondaryBuffer::PlayAt(DWORD dwReserved1, DWORD dwPriority, DWORD dwFlags, int64_t startNs)
{
    QX_DS_FAULT("IDirectSoundBuffer::Play");
    if (dwReserved1 != 0) return DSERR_INVALIDPARAM;
    if (dwPriority != 0 && !(m_flags & DSBCAPS_LOCDEFER)) return DSERR_INVALIDPARAM;
    m_voice.Play((dwFlags & DSBPLAY_LOOPING) != 0, startNs);
    m_device->Activate(false);
    g_bufferStarts.fetch_add(1, std::memory_order_relaxed);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetCurrentPosition(DWORD dwPos)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetCurrentPosition");
    if (dwPos >= m_voice.Bytes()) return DSERR_INVALIDPARAM;
    m_voice.SetPosition(dwPos);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetVolume(LONG l)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetVolume");
    if (!(m_flags & DSBCAPS_CTRLVOLUME)) return DSERR_CONTROLUNAVAIL;
    if (l < DSBVOLUME_MIN || l > DSBVOLUME_MAX) return DSERR_INVALIDPARAM;
    m_voice.SetVolume(l);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetPan(LONG l)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetPan");
    if (!(m_flags & DSBCAPS_CTRLPAN)) return DSERR_CONTROLUNAVAIL;
    if (l < DSBPAN_LEFT || l > DSBPAN_RIGHT) return DSERR_INVALIDPARAM;
    m_voice.SetPan(l);
    return DS_OK;
}

HRESULT SecondaryBuffer::SetFrequency(DWORD dw)
{
    QX_DS_FAULT("IDirectSoundBuffer::SetFrequency");
    if (!(m_flags & DSBCAPS_CTRLFREQUENCY)) return DSERR_CONTROLUNAVAIL;
    if (dw != DSBFREQUENCY_ORIGINAL && (dw < DSBFREQUENCY_MIN || dw > DSBFREQUENCY_MAX)) return DSERR_INVALIDPARAM;
    m_voice.SetFrequency(dw);
    return DS_OK;
}

HRESULT SecondaryBuffer::Stop()
{
    QX_DS_FAULT("IDirectSoundBuffer::Stop");
    m_voice.Stop();
    return DS_OK;
}

HRESULT SecondaryBuffer::SetNotificationPositions(DWORD n, LPCDSBPOSITIONNOTIFY p)
{
    QX_DS_FAULT("IDirectSoundNotify::SetNotificationPositions");
    if (n > 0 && p == nullptr) return DSERR_INVALIDPARAM;
    if (n > 1u << 20) return DSERR_INVALIDPARAM;
    for (DWORD i = 0; i < n; ++i) {
        if (p[i].hEventNotify == nullptr) return DSERR_INVALIDPARAM;
        if (p[i].dwOffset == DSBPN_OFFSETSTOP) {
            if (i != n - 1) return DSERR_INVALIDPARAM;
        } else if (p[i].dwOffset >= m_voice.Bytes()) {
            return DSERR_INVALIDPARAM;
        }
    }
    if (m_voice.Playing()) return DSERR_INVALIDCALL;
    try {
        if (!m_voice.SetNotifications(p, n)) return DSERR_INVALIDCALL;
    } catch (const std::bad_alloc&) {
        return DSERR_OUTOFMEMORY;
    }
    return DS_OK;
}

// ---- Device ----

HRESULT Device::CreateSoundBuffer(LPCDSBUFFERDESC pDesc, LPDIRECTSOUNDBUFFER* ppBuffer, LPUNKNOWN pOuter)
{
    QX_DS_FAULT("IDirectSound::CreateSoundBuffer");
    if (ppBuffer == nullptr) return DSERR_INVALIDPARAM;
    *ppBuffer = nullptr;
    if (pOuter != nullptr) return DSERR_NOAGGREGATION;
    if (pDesc == nullptr || pDesc->dwSize < offsetof(DSBUFFERDESC, guid3DAlgorithm)) return DSERR_INVALIDPARAM;
    const DWORD flags = pDesc->dwFlags;
    if (flags & (DSBCAPS_CTRL3D | DSBCAPS_CTRLFX)) return DSERR_CONTROLUNAVAIL;

    if (flags & DSBCAPS_PRIMARYBUFFER) {
        if (pDesc->dwBufferBytes != 0 || pDesc->lpwfxFormat != nullptr) return DSERR_INVALIDPARAM;
        if (flags & (DSBCAPS_CTRLFREQUENCY | DSBCAPS_CTRLPOSITIONNOTIFY)) return DSERR_INVALIDPARAM;
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_primary != nullptr && m_primary->TryAddRef()) { // one primary buffer per device, shared
            *ppBuffer = m_primary;
            return DS_OK;
        }
        PrimaryBuffer* p = new (std::nothrow) PrimaryBuffer(this, flags);
        if (p == nullptr) return DSERR_OUTOFMEMORY;
        m_primary = p;
        *ppBuffer = p;
        return DS_OK;
    }

    if (pDesc->lpwfxFormat == nullptr) return DSERR_INVALIDPARAM;
    ds::SourceFormat fmt;
    if (!ds::ParseFormat(pDesc->lpwfxFormat, fmt)) return DSERR_BADFORMAT;
    const DWORD bytes = pDesc->dwBufferBytes;
    if (bytes < DSBSIZE_MIN || bytes > DSBSIZE_MAX || bytes < fmt.blockAlign || bytes % fmt.blockAlign != 0)
        return DSERR_INVALIDPARAM;
    SecondaryBuffer* b = nullptr;
    try {
        b = new SecondaryBuffer(this, flags, *pDesc->lpwfxFormat, fmt, bytes);
    } catch (const std::bad_alloc&) {
        return DSERR_OUTOFMEMORY;
    }
    if (!m_mixer.AddVoice(&b->Voice(), &m_bus)) {
        b->Release();
        return DSERR_ALLOCATED;
    }
    *ppBuffer = b;
    return DS_OK;
}

HRESULT Device::GetCaps(LPDSCAPS pCaps)
{
    QX_DS_FAULT("IDirectSound::GetCaps");
    if (pCaps == nullptr || pCaps->dwSize < sizeof(DSCAPS)) return DSERR_INVALIDPARAM;
    const DWORD size = pCaps->dwSize;
    std::memset(pCaps, 0, sizeof(DSCAPS));
    pCaps->dwSize = size;
    pCaps->dwFlags = DSCAPS_PRIMARYMONO | DSCAPS_PRIMARYSTEREO | DSCAPS_PRIMARY8BIT | DSCAPS_PRIMARY16BIT |
                     DSCAPS_CONTINUOUSRATE | DSCAPS_EMULDRIVER | DSCAPS_SECONDARYMONO | DSCAPS_SECONDARYSTEREO |
                     DSCAPS_SECONDARY8BIT | DSCAPS_SECONDARY16BIT;
    pCaps->dwMinSecondarySampleRate = DSBFREQUENCY_MIN;
    pCaps->dwMaxSecondarySampleRate = DSBFREQUENCY_MAX;
    pCaps->dwPrimaryBuffers = 1;
    return DS_OK;
}

Device* AsOurs(LPDIRECTSOUND p)
{
    return static_cast<Device*>(p);
}

} // namespace

HRESULT DirectSoundCreateOffline(DWORD dwRate, Resampler resampler, LPDIRECTSOUND* ppDS)
{
    if (ppDS == nullptr) return DSERR_INVALIDPARAM;
    *ppDS = nullptr;
    ds::Output* out = nullptr;
    try {
        out = ds::Output::Offline(dwRate, resampler);
        *ppDS = new Device(out);
    } catch (const std::bad_alloc&) {
        if (out != nullptr) out->Release();
        return DSERR_OUTOFMEMORY;
    }
    return DS_OK;
}

bool DirectSoundRenderOffline(LPDIRECTSOUND pDS, float* pOut, DWORD nFrames)
{
    if (pDS == nullptr || pOut == nullptr) return false;
    Device* d = AsOurs(pDS);
    if (!d->Offline()) return false;
    d->Mixer().Render(pOut, nFrames);
    return true;
}

bool DirectSoundSetPaused(LPDIRECTSOUND pDS, bool bPaused)
{
    if (pDS == nullptr) return false;
    AsOurs(pDS)->Bus().paused.store(bPaused, std::memory_order_relaxed);
    return true;
}

bool DirectSoundTakePeak(LPDIRECTSOUND pDS, float* pLeft, float* pRight)
{
    if (pDS == nullptr) return false;
    float l = 0.0f, r = 0.0f;
    AsOurs(pDS)->Mixer().TakePeak(l, r);
    if (pLeft != nullptr) *pLeft = l;
    if (pRight != nullptr) *pRight = r;
    return true;
}

HRESULT DirectSoundPlayBufferAt(LPDIRECTSOUNDBUFFER pBuffer, DWORD dwFlags, int64_t startNs)
{
    if (pBuffer == nullptr) return DSERR_INVALIDPARAM;
    if (auto* secondary = dynamic_cast<SecondaryBuffer*>(pBuffer)) return secondary->PlayAt(0, 0, dwFlags, startNs);
    return pBuffer->Play(0, 0, dwFlags);
}

DWORD DirectSoundOutputLatencyFrames(LPDIRECTSOUND pDS, DWORD* pRate, bool* pbExact)
{
    if (pDS == nullptr) {
        if (pRate != nullptr) *pRate = 0;
        if (pbExact != nullptr) *pbExact = false;
        return 0;
    }
    return AsOurs(pDS)->OutputLatencyFrames(pRate, pbExact);
}

uint64_t DirectSoundBufferStarts()
{
    return g_bufferStarts.load(std::memory_order_relaxed);
}

size_t LiveDirectSoundObjects()
{
    return g_liveObjects.load();
}

} // namespace qxplat

using namespace qxplat;

HRESULT DirectSoundEnumerateA(LPDSENUMCALLBACKA pCallback, LPVOID pContext)
{
    QX_DS_FAULT("DirectSoundEnumerateA");
    if (pCallback == nullptr) return DSERR_INVALIDPARAM;
    Backend& backend = CurrentBackend();
    const int count = backend.Count(DeviceKind::WaveOut);
    if (!pCallback(nullptr, "Primary Sound Driver", "", pContext)) return DS_OK;
    for (int n = 0; n < count; ++n) {
        GUID g = DriverGuid(backend.Name(), n);
        const std::string name = backend.DeviceName(DeviceKind::WaveOut, n);
        if (!pCallback(&g, name.c_str(), backend.Name(), pContext)) break;
    }
    return DS_OK;
}

HRESULT DirectSoundCreate(LPCGUID pcGuidDevice, LPDIRECTSOUND* ppDS, LPUNKNOWN pUnkOuter)
{
    QX_DS_FAULT("DirectSoundCreate");
    if (ppDS == nullptr) return DSERR_INVALIDPARAM;
    *ppDS = nullptr;
    if (pUnkOuter != nullptr) return DSERR_NOAGGREGATION;
    Backend& backend = CurrentBackend();
    const int count = backend.Count(DeviceKind::WaveOut);
    int n = 0;
    if (pcGuidDevice != nullptr && !IsEqualGUID(*pcGuidDevice, GUID_NULL)) {
        n = static_cast<int>(pcGuidDevice->Data1 - 0x9A17E000u);
        if (n < 0 || n >= count || !IsEqualGUID(*pcGuidDevice, DriverGuid(backend.Name(), n))) return DSERR_NODRIVER;
    }
    if (n >= count) return DSERR_NODRIVER;
    ds::Output* out = nullptr;
    try {
        out = ds::Output::Acquire(n);
        if (out == nullptr) return DSERR_NODRIVER;
        *ppDS = new Device(out);
    } catch (const std::bad_alloc&) {
        if (out != nullptr) out->Release();
        return DSERR_OUTOFMEMORY;
    }
    return DS_OK;
}

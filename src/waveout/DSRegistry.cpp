// The DirectSound driver registry that every wave output shares: drivers enumerated
// once, one device object per driver, looked up by the wave output's number.
#include <quavix/QXNotify.h>
#include <quavix/QXQuavix.h>
#include <quavix/QXWaveOut.h>

#include "platform/QXPlatform.h"
#include "platform/dsound/QXDSound.h"

#include <cstring>
#include <mutex>
#include <new>

std::vector<DSDevice*> CQuavix::s_DSDevices;

namespace {

// Lookups come from players' prepare threads while a transport call fills or empties
// the registry, so the array and the records' device pointers are guarded. A player
// takes a reference to the device object it uses (DSAcquireDevice), so emptying the
// registry frees no device object still in use.
std::mutex& RegistryMutex()
{
    static std::mutex m;
    return m;
}

// Filling and emptying exclude each other (a prepare thread may fill the registry while
// the transport empties it). Taken before RegistryMutex; recursive because a report made
// while filling may reach an application that looks a driver up.
std::recursive_mutex& FillMutex()
{
    static std::recursive_mutex m;
    return m;
}

DSDevice* Record(int n)
{
    std::lock_guard<std::mutex> lock(RegistryMutex());
    if (n < 0 || static_cast<size_t>(n) >= CQuavix::s_DSDevices.size()) return nullptr;
    return CQuavix::s_DSDevices[static_cast<size_t>(n)];
}

} // namespace

DSDevice* CWaveOut::_DSGetRecord(int n)
{
    return Record(n);
}

BOOL CALLBACK CWaveOut::_DSEnumCallback(LPGUID pGuid, LPCSTR pszDescription, LPCSTR pszModule, LPVOID)
{
    if (pGuid == nullptr) return TRUE; // the default driver, which has no GUID
    auto* pRecord = new (std::nothrow) DSDevice{};
    if (pRecord == nullptr) return TRUE;
    std::memcpy(&pRecord->guid, pGuid, sizeof(GUID));
    pRecord->strDescription = pszDescription != nullptr ? pszDescription : "";
    pRecord->strModule = pszModule != nullptr ? pszModule : "";
#ifndef NDEBUG
    QXTrace("enum: %s %s\n", pRecord->strDescription.c_str(), pRecord->strModule.c_str());
#endif
    std::lock_guard<std::mutex> lock(RegistryMutex());
    CQuavix::s_DSDevices.push_back(pRecord);
    return TRUE;
}

int CWaveOut::DSInit()
{
    std::lock_guard<std::recursive_mutex> fill(FillMutex());
    if (DSNumDrivers() > 0) return 1;
    if (DirectSoundEnumerateA(_DSEnumCallback, nullptr) != DS_OK) return 0;
    int nDrivers = DSNumDrivers();
    if (nDrivers == 0) return 0;

    // Without a main window the records stay and no device object is made: every later
    // DSInit then finds the registry filled and returns at once, until DSExit.
    HWND hWnd = QXGetHostMainWindow();
    if (hWnd == nullptr) return 0;

    for (int i = 0; i < nDrivers; ++i) {
        DSDevice* pRecord = Record(i);
        if (pRecord == nullptr) continue;
        IDirectSound* pDS = nullptr;
        HRESULT hr = DirectSoundCreate(&pRecord->guid, &pDS, static_cast<LPUNKNOWN>(pRecord->pUnkOuter));
        {
            std::lock_guard<std::mutex> lock(RegistryMutex());
            pRecord->pDirectSound = hr == DS_OK ? pDS : nullptr;
        }
        if (hr != DS_OK) {
            QXNotifyShared(QXN_DS_CREATE, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(i));
#ifndef NDEBUG
            QXTrace("DirectSoundCreate fails: %s\n", pRecord->strDescription.c_str());
#endif
            continue;
        }
        hr = pRecord->pDirectSound->SetCooperativeLevel(hWnd, DSSCL_PRIORITY);
        if (hr != DS_OK) {
            QXNotifyShared(QXN_DS_SETCOOPLEVEL, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(i));
#ifndef NDEBUG
            QXTrace("SetCooperativeLevel fails: %s\n", pRecord->strDescription.c_str());
#endif
        }
    }
    return 1;
}

int CWaveOut::DSExit()
{
    std::lock_guard<std::recursive_mutex> fill(FillMutex());
    std::vector<DSDevice*> records;
    {
        std::lock_guard<std::mutex> lock(RegistryMutex());
        records.swap(CQuavix::s_DSDevices);
    }
    for (DSDevice* pRecord : records) {
        if (pRecord->pPrimaryBuffer != nullptr) pRecord->pPrimaryBuffer->Release();
        if (pRecord->pDirectSound != nullptr) pRecord->pDirectSound->Release();
        delete pRecord;
    }
    return 1;
}

int CWaveOut::DSNumDrivers()
{
    std::lock_guard<std::mutex> lock(RegistryMutex());
    return static_cast<int>(CQuavix::s_DSDevices.size());
}

// An index past the registry is refused before DSInit, so a lookup never starts the
// enumeration of an empty registry.
const char* CWaveOut::DSGetDescription(int n)
{
    if (n < 0 || n >= DSNumDrivers() || !DSInit()) return nullptr;
    DSDevice* pRecord = Record(n);
    return pRecord != nullptr ? pRecord->strDescription.c_str() : nullptr;
}

const char* CWaveOut::DSGetModule(int n)
{
    if (n < 0 || n >= DSNumDrivers() || !DSInit()) return nullptr;
    DSDevice* pRecord = Record(n);
    return pRecord != nullptr ? pRecord->strModule.c_str() : nullptr;
}

IDirectSound* CWaveOut::DSGetDevice(int n)
{
    if (n < 0 || n >= DSNumDrivers() || !DSInit()) return nullptr;
    std::lock_guard<std::mutex> lock(RegistryMutex());
    if (static_cast<size_t>(n) >= CQuavix::s_DSDevices.size()) return nullptr;
    return CQuavix::s_DSDevices[static_cast<size_t>(n)]->pDirectSound;
}

IDirectSound* CWaveOut::DSAcquireDevice(int n)
{
    if (n < 0 || n >= DSNumDrivers() || !DSInit()) return nullptr;
    // Under the lock that DSExit takes to empty the registry: either the reference is
    // taken before the registry lets go of its own, or the record is gone.
    std::lock_guard<std::mutex> lock(RegistryMutex());
    if (static_cast<size_t>(n) >= CQuavix::s_DSDevices.size()) return nullptr;
    IDirectSound* pDS = CQuavix::s_DSDevices[static_cast<size_t>(n)]->pDirectSound;
    if (pDS != nullptr) pDS->AddRef();
    return pDS;
}

// What a DirectSound output reports is its driver's own DSCAPS record.
int CWaveOut::GetDeviceCaps(int n, QX_DevCaps* pCaps)
{
    DSInit();
    if (pCaps == nullptr) return 0;
    IDirectSound* pDS = DSAcquireDevice(n);
    if (pDS == nullptr) return 0;
    DSCAPS caps{};
    caps.dwSize = sizeof caps;
    HRESULT hr = pDS->GetCaps(&caps);
    pDS->Release();
    if (hr != DS_OK) {
        QXNotifyShared(QXN_DS_GETCAPS, static_cast<DWORD>(hr), static_cast<DWORD_PTR>(n));
        return 0;
    }
    std::memset(pCaps, 0, sizeof *pCaps);
    pCaps->dsOut = caps;
    return 1;
}

// On Linux the platform answers as an NT system on AMD64 (or ARM64), an architecture
// that the table's Intel rows do not match: 16 tracks, which the mixer holds easily.
int CWaveOut::GetRecommendedTrackCount()
{
    OSVERSIONINFOA version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExA(&version);
    bool bNT = version.dwPlatformId == VER_PLATFORM_WIN32_NT;
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    if (bNT) {
        if (info.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_INTEL) {
            switch (info.wProcessorLevel) {
            case 3: return 2;
            case 4: return 4;
            case 5: return 8;
            default: return 12;
            }
        }
        if (info.wProcessorArchitecture == 3) return 12;
        return 16;
    }
    switch (info.dwProcessorType) {
    case 386: return 2;
    case 486: return 4;
    case 586: return 8;
    default: return 12;
    }
}

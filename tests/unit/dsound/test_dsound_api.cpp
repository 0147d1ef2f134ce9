// The DirectSound objects: drivers, device objects, the primary buffer, argument checks
// and reference counts.
#include "DSTestUtil.h"

#include "platform/QXFaults.h"
#include "platform/backends/virtual/QXVirtual.h"

using namespace dstest;

namespace {

class DSoundApi : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kVirtualBackendSet, 0);
        m_liveBefore = qxplat::LiveDirectSoundObjects();
    }
    void TearDown() override
    {
        QXFaultClear();
        qxplat::QXVirtualSetDevices(1, 1, 1, 1);
        EXPECT_EQ(qxplat::LiveDirectSoundObjects(), m_liveBefore);
    }
    size_t m_liveBefore = 0;
};

} // namespace

TEST_F(DSoundApi, DriversAreTheDefaultThenOnePerOutput)
{
    int counts[4] = {1, 1, 1, 1};
    ASSERT_TRUE(qxplat::QXVirtualParseDevices("wave-out=3", counts));
    EXPECT_EQ(counts[3], 3);
    EXPECT_FALSE(qxplat::QXVirtualParseDevices("wave-out=x", counts));
    qxplat::QXVirtualSetDevices(1, 1, 1, counts[3]);

    std::vector<Driver> drivers;
    ASSERT_EQ(DirectSoundEnumerateA(Collect, &drivers), DS_OK);
    ASSERT_EQ(drivers.size(), 4u);
    EXPECT_FALSE(drivers[0].hasGuid);
    for (int n = 1; n <= 3; ++n) {
        EXPECT_TRUE(drivers[n].hasGuid);
        EXPECT_EQ(drivers[n].description, "Quavix Virtual Wave Out " + std::to_string(n));
        EXPECT_EQ(drivers[n].module, "virtual");
        for (int m = 1; m < n; ++m) EXPECT_FALSE(IsEqualGUID(drivers[n].guid, drivers[m].guid));
    }
    int calls = 0;
    auto firstOnly = [](LPGUID, LPCSTR, LPCSTR, LPVOID pCalls) -> BOOL {
        ++*static_cast<int*>(pCalls);
        return FALSE; // ends the enumeration
    };
    ASSERT_EQ(DirectSoundEnumerateA(firstOnly, &calls), DS_OK);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(DirectSoundEnumerateA(nullptr, nullptr), DSERR_INVALIDPARAM);

    // Each GUID opens its output; the default is the first; unknown GUIDs are no driver.
    LPDIRECTSOUND ds = nullptr;
    for (int n = 1; n <= 3; ++n) {
        ASSERT_EQ(DirectSoundCreate(&drivers[n].guid, &ds, nullptr), DS_OK);
        EXPECT_EQ(ds->AddRef(), 2u);
        EXPECT_EQ(ds->Release(), 1u);
        EXPECT_EQ(ds->Release(), 0u);
    }
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    ds->Release();
    GUID bogus = drivers[2].guid;
    bogus.Data4[7] ^= 1;
    EXPECT_EQ(DirectSoundCreate(&bogus, &ds, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(ds, nullptr);
    bogus = drivers[3].guid;
    bogus.Data1 += 1; // a fourth output that does not exist
    EXPECT_EQ(DirectSoundCreate(&bogus, &ds, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(DirectSoundCreate(nullptr, &ds, reinterpret_cast<IUnknown*>(&drivers)), DSERR_NOAGGREGATION);
    EXPECT_EQ(DirectSoundCreate(nullptr, nullptr, nullptr), DSERR_INVALIDPARAM);

    // Without outputs only the default entry is reported, and it cannot be opened.
    qxplat::QXVirtualSetDevices(1, 1, 1, 0);
    drivers.clear();
    ASSERT_EQ(DirectSoundEnumerateA(Collect, &drivers), DS_OK);
    ASSERT_EQ(drivers.size(), 1u);
    EXPECT_FALSE(drivers[0].hasGuid);
    EXPECT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DSERR_NODRIVER);
}

TEST_F(DSoundApi, PrimaryBufferNeedsThePriorityLevelAndOnlyLoops)
{
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    HWND hwnd = MakeWindow();
    ASSERT_NE(hwnd, nullptr);
    EXPECT_EQ(ds->SetCooperativeLevel(nullptr, DSSCL_PRIORITY), DSERR_INVALIDPARAM);
    EXPECT_EQ(ds->SetCooperativeLevel(hwnd, 0), DSERR_INVALIDPARAM);

    LPDIRECTSOUNDBUFFER primary = Primary(ds);
    ASSERT_NE(primary, nullptr);
    WAVEFORMATEX f = Pcm(22050, 2, 16), adpcm = Pcm(22050, 2, 16, 2), got{};
    EXPECT_EQ(primary->SetFormat(&f), DSERR_PRIOLEVELNEEDED);
    ASSERT_EQ(ds->SetCooperativeLevel(hwnd, DSSCL_PRIORITY), DS_OK);
    ASSERT_EQ(primary->SetFormat(&f), DS_OK);
    DWORD written = 0;
    ASSERT_EQ(primary->GetFormat(&got, sizeof got, &written), DS_OK);
    EXPECT_EQ(written, sizeof(WAVEFORMATEX));
    EXPECT_EQ(std::tuple(got.nSamplesPerSec, got.nBlockAlign), std::tuple(22050u, 4));
    EXPECT_EQ(primary->SetFormat(&adpcm), DSERR_BADFORMAT);
    EXPECT_EQ(primary->SetFormat(nullptr), DSERR_INVALIDPARAM);

    // The 32-bit layout's record size (36) is taken as well; one primary buffer per device.
    DSBUFFERDESC d36 = Desc(DSBCAPS_PRIMARYBUFFER);
    d36.dwSize = 36;
    LPDIRECTSOUNDBUFFER again = nullptr;
    ASSERT_EQ(ds->CreateSoundBuffer(&d36, &again, nullptr), DS_OK);
    EXPECT_EQ(again, primary);
    again->Release();
    d36.dwSize = 8;
    EXPECT_EQ(ds->CreateSoundBuffer(&d36, &again, nullptr), DSERR_INVALIDPARAM);

    EXPECT_EQ(primary->Play(0, 0, 0), DSERR_INVALIDPARAM);
    ASSERT_EQ(primary->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    DWORD status = 0;
    ASSERT_EQ(primary->GetStatus(&status), DS_OK);
    EXPECT_EQ(status, DSBSTATUS_PLAYING | DSBSTATUS_LOOPING);
    LPVOID p1, p2;
    DWORD b1, b2;
    EXPECT_EQ(primary->Lock(0, 4, &p1, &b1, &p2, &b2, 0), DSERR_INVALIDCALL);
    EXPECT_EQ(primary->SetFrequency(22050), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(primary->SetVolume(-100), DSERR_CONTROLUNAVAIL);
    ASSERT_EQ(primary->Stop(), DS_OK);
    ASSERT_EQ(primary->GetStatus(&status), DS_OK);
    EXPECT_EQ(status, 0u);

    DSCAPS caps{};
    caps.dwSize = sizeof caps;
    ASSERT_EQ(ds->GetCaps(&caps), DS_OK);
    EXPECT_EQ(std::tuple(caps.dwMinSecondarySampleRate, caps.dwMaxSecondarySampleRate), std::tuple(100u, 100000u));
    caps.dwSize = 4;
    EXPECT_EQ(ds->GetCaps(&caps), DSERR_INVALIDPARAM);

    // The primary buffer keeps the device alive after the application let go of it.
    EXPECT_EQ(ds->Release(), 1u);
    EXPECT_EQ(primary->Release(), 0u);
    DestroyWindow(hwnd);
}

TEST_F(DSoundApi, SettersCheckRangesAndControls)
{
    Offline off;
    LPDIRECTSOUNDBUFFER b = MakeBuffer(off.ds, Pcm(22050, 1, 16), 4410);
    for (LONG v : {1, -10001}) EXPECT_EQ(b->SetVolume(v), DSERR_INVALIDPARAM) << v;
    for (LONG v : {10001, -10001}) EXPECT_EQ(b->SetPan(v), DSERR_INVALIDPARAM) << v;
    for (DWORD v : {99, 100001}) EXPECT_EQ(b->SetFrequency(v), DSERR_INVALIDPARAM) << v;
    for (DWORD v : {100, 100000}) EXPECT_EQ(b->SetFrequency(v), DS_OK) << v;
    EXPECT_EQ(b->Play(1, 0, 0), DSERR_INVALIDPARAM);
    EXPECT_EQ(b->Play(0, 3, 0), DSERR_INVALIDPARAM);
    EXPECT_EQ(b->SetFormat(nullptr), DSERR_INVALIDCALL);
    EXPECT_EQ(b->Restore(), DS_OK);
    DWORD status = 0;
    ASSERT_EQ(b->GetStatus(&status), DS_OK);
    EXPECT_EQ(status & DSBSTATUS_BUFFERLOST, 0u);
    DSBCAPS caps{};
    caps.dwSize = sizeof caps;
    ASSERT_EQ(b->GetCaps(&caps), DS_OK);
    EXPECT_EQ(caps.dwBufferBytes, 4410u);
    EXPECT_TRUE(caps.dwFlags & DSBCAPS_CTRLVOLUME);
    // A failed setter changes nothing.
    LONG l;
    ASSERT_EQ(b->SetVolume(-200), DS_OK);
    QXFaultInject("IDirectSoundBuffer::SetVolume", static_cast<DWORD>(DSERR_GENERIC));
    EXPECT_EQ(b->SetVolume(-300), DSERR_GENERIC);
    ASSERT_EQ(b->GetVolume(&l), DS_OK);
    EXPECT_EQ(l, -200);
    b->Release();

    // Controls not asked for are unavailable, and so is the notification interface.
    LPDIRECTSOUNDBUFFER plain = MakeBuffer(off.ds, Pcm(22050, 1, 16), 4410, 0);
    DWORD dw;
    EXPECT_EQ(plain->SetVolume(-100), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(plain->GetVolume(&l), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(plain->SetPan(100), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(plain->GetPan(&l), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(plain->SetFrequency(44100), DSERR_CONTROLUNAVAIL);
    EXPECT_EQ(plain->GetFrequency(&dw), DSERR_CONTROLUNAVAIL);
    LPVOID notify = reinterpret_cast<LPVOID>(1), self = nullptr;
    EXPECT_EQ(plain->QueryInterface(IID_IDirectSoundNotify, &notify), E_NOINTERFACE);
    EXPECT_EQ(notify, nullptr);
    ASSERT_EQ(plain->QueryInterface(IID_IDirectSoundBuffer, &self), DS_OK);
    EXPECT_EQ(self, static_cast<LPVOID>(plain));
    EXPECT_EQ(plain->Release(), 1u);
    EXPECT_EQ(plain->Release(), 0u);

    WAVEFORMATEX f = Pcm(22050, 1, 16);
    DSBUFFERDESC d = Desc(DSBCAPS_CTRL3D, 4410, &f);
    LPDIRECTSOUNDBUFFER out = nullptr;
    EXPECT_EQ(off.ds->CreateSoundBuffer(&d, &out, nullptr), DSERR_CONTROLUNAVAIL);
    d.dwFlags = 0;
    EXPECT_EQ(off.ds->CreateSoundBuffer(&d, &out, reinterpret_cast<IUnknown*>(&d)), DSERR_NOAGGREGATION);
    EXPECT_EQ(off.ds->CreateSoundBuffer(&d, nullptr, nullptr), DSERR_INVALIDPARAM);
}

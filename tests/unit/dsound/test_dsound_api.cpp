// The DirectSound objects: drivers, device objects and the primary buffer.
#include "DSTestUtil.h"

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
    EXPECT_FALSE(qxplat::QXVirtualParseDevices("wave-out=x", counts));
    qxplat::QXVirtualSetDevices(1, 1, 1, counts[3]);

    std::vector<Driver> drivers;
    ASSERT_EQ(DirectSoundEnumerateA(Collect, &drivers), DS_OK);
    ASSERT_EQ(drivers.size(), 4u);
    EXPECT_FALSE(drivers[0].hasGuid);
    for (int n = 1; n <= 3; ++n) {
        EXPECT_EQ(drivers[n].description + drivers[n].module, "Quavix Virtual Wave Out " + std::to_string(n) + "virtual");
        for (int m = 1; m < n; ++m) EXPECT_FALSE(IsEqualGUID(drivers[n].guid, drivers[m].guid));
    }

    // Each GUID opens its output, no GUID the first; others are no driver.
    LPDIRECTSOUND ds = nullptr;
    for (int n = 1; n <= 3; ++n) {
        ASSERT_EQ(DirectSoundCreate(&drivers[n].guid, &ds, nullptr), DS_OK);
        EXPECT_EQ(ds->Release(), 0u);
    }
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    ds->Release();
    GUID bogus = drivers[3].guid;
    bogus.Data1 += 1;
    EXPECT_EQ(DirectSoundCreate(&bogus, &ds, nullptr), DSERR_NODRIVER);
    EXPECT_EQ(ds, nullptr);

    // Without outputs only the default entry is reported, and it cannot be opened.
    qxplat::QXVirtualSetDevices(1, 1, 1, 0);
    drivers.clear();
    ASSERT_EQ(DirectSoundEnumerateA(Collect, &drivers), DS_OK);
    EXPECT_EQ(drivers.size(), 1u);
    EXPECT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DSERR_NODRIVER);
}

TEST_F(DSoundApi, PrimaryBufferNeedsThePriorityLevelAndOnlyLoops)
{
    LPDIRECTSOUND ds = nullptr;
    ASSERT_EQ(DirectSoundCreate(nullptr, &ds, nullptr), DS_OK);
    HWND hwnd = MakeWindow();
    LPDIRECTSOUNDBUFFER primary = Primary(ds);
    ASSERT_NE(primary, nullptr);
    EXPECT_EQ(Primary(ds), primary) << "one primary buffer per device";
    primary->Release();
    WAVEFORMATEX f = Pcm(22050, 2, 16), adpcm = Pcm(22050, 2, 16, 2), got{};
    EXPECT_EQ(primary->SetFormat(&f), DSERR_PRIOLEVELNEEDED);
    ASSERT_EQ(ds->SetCooperativeLevel(hwnd, DSSCL_PRIORITY), DS_OK);
    ASSERT_EQ(primary->SetFormat(&f), DS_OK);
    ASSERT_EQ(primary->GetFormat(&got, sizeof got, nullptr), DS_OK);
    EXPECT_EQ(std::tuple(got.nSamplesPerSec, got.nBlockAlign), std::tuple(22050u, 4));
    EXPECT_EQ(primary->SetFormat(&adpcm), DSERR_BADFORMAT);

    EXPECT_EQ(primary->Play(0, 0, 0), DSERR_INVALIDPARAM);
    ASSERT_EQ(primary->Play(0, 0, DSBPLAY_LOOPING), DS_OK);
    DWORD status = 0;
    ASSERT_EQ(primary->GetStatus(&status), DS_OK);
    EXPECT_EQ(status, DSBSTATUS_PLAYING | DSBSTATUS_LOOPING);
    LPVOID p1, p2;
    DWORD b1, b2;
    EXPECT_EQ(primary->Lock(0, 4, &p1, &b1, &p2, &b2, 0), DSERR_INVALIDCALL);
    ASSERT_EQ(primary->Stop(), DS_OK);
    ASSERT_EQ(primary->GetStatus(&status), DS_OK);
    EXPECT_EQ(status, 0u);

    // The primary buffer keeps the device alive after the application let go of it.
    EXPECT_EQ(ds->Release(), 1u);
    EXPECT_EQ(primary->Release(), 0u);
    DestroyWindow(hwnd);
}

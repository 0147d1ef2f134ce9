// The DirectSound drivers and the device objects they open.
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

#include "tests/support/mount_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/catalogue_fixture.h"

void MountedDeviceTest::SetUp() {
    std::string reason = fuseUnavailableReason();
    if (devsim_program().empty()) reason = "devsim was not built";
    if (!reason.empty()) GTEST_SKIP() << "needs a FUSE mount against devsim: " << reason;
    tempDir = makeTempDir("quorvel-e2e-");
    ASSERT_FALSE(tempDir.empty());
    mount.mountPoint = tempDir + "/mnt";
    mount.logDir = tempDir + "/log";
    mkdir(mount.mountPoint.c_str(), 0755);
    mkdir(mount.logDir.c_str(), 0700);
    dialogs.create(tempDir);
    ASSERT_TRUE(tray.start(tempDir + "/tray.fifo"));
    mount.extraEnvironment = {"QUORVEL_DIALOG=" + dialogs.script, "QUORVEL_PIPE=" + tempDir + "/tray.fifo"};
}

void MountedDeviceTest::TearDown() {
    if (mount.pid > 0) mount.stop();
    if (sim.running()) sim.stop();
    tray.stop();
    removeTree(tempDir);
}

bool MountedDeviceTest::startDevice(const std::vector<DevsimImage> &images,
                                    const std::vector<std::string> &serveOptions) {
    if (!sim.start(images, serveOptions)) {
        ADD_FAILURE() << "devsim did not start: " << sim.error();
        return false;
    }
    // quorvelfs inherits the socket address devsim's fixture set.
    return true;
}

bool MountedDeviceTest::mountDevice(uint32_t locationId) { return mount.start(locationId); }

int MountedDeviceTest::unmountDevice() { return mount.stop(); }

bool MountedDeviceTest::mountAfresh(uint32_t locationId) {
    if (mount.pid > 0) {
        EXPECT_EQ(unmountDevice(), 0);
    }
    removeTree(mount.logDir);
    mkdir(mount.logDir.c_str(), 0700);
    unlink(dialogs.record.c_str());
    return mountDevice(locationId);
}

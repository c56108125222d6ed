// End-to-end fixture: devsim serving one or more images, quorvelfs mounted on
// one of them through real FUSE, dialogs recorded and the tray pipe read.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"
#include "tests/support/pipe_reader.h"

class MountedDeviceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts devsim with `images`; skips the test when something it needs is missing.
    bool startDevice(const std::vector<DevsimImage> &images, const std::vector<std::string> &serveOptions = {});
    // Mounts the device with this location id; false when no mount appeared.
    bool mountDevice(uint32_t locationId);
    // Unmounts and waits for the file-system process to end.
    int unmountDevice();
    // Unmounts what is mounted (expecting a clean exit), forgets its log and
    // dialogs, and mounts the device with this location id.
    bool mountAfresh(uint32_t locationId);

    std::string inMount(const std::string &volumePath) const { return mount.mountPoint + volumePath; }
    // Where the first image keeps its Storage, and an app's Documents.
    std::string storageImage() const { return sim.image_dir(0) + "/media/general_storage"; }
    std::string appImage(const std::string &bundle = "com.example.notes") const {
        return sim.image_dir(0) + "/apps/" + bundle + "/Documents";
    }

    std::string tempDir;
    Devsim sim;
    QuorvelMount mount;
    DialogRecorder dialogs;
    PipeReader tray;
};

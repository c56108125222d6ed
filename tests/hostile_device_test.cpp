// The device layer against a hostile device's sizes no file can have. Reply
// headers whose lengths lie and replies cut half-way are followed through the
// mount (hostile_e2e_test), where each must end as a lost connection.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "device/device_internal.h"
#include "tests/support/devsim_fixture.h"

namespace {

constexpr uint32_t kLocation = 81;
constexpr char kHostile[] = "/general_storage/Hostile";

struct HostileDevice {
    Devsim sim;
    libiusb_context *context = nullptr;
    libiusb_device_handle *handle = nullptr;
    libiusb_afc *afc = nullptr;

    // An empty text when the device is open; otherwise why not.
    std::string open() {
        if (devsim_program().empty()) return "devsim was not built";
        DevsimImage phone;
        phone.location_id = kLocation;
        phone.hostile = {"all"};
        if (!sim.start({phone})) return "devsim did not start: " + sim.error();
        libiusb_device *device = nullptr;
        if (libiusb_context_init(&context) != 0 || libiusb_device_find(context, kLocation, &device) != 0 ||
            libiusb_device_open(device, &handle) != 0 || libiusb_afc_init(handle, &afc) != 0)
            return "the device did not open";
        return "";
    }
    ~HostileDevice() {
        if (afc != nullptr) libiusb_afc_exit(afc);
        if (handle != nullptr) libiusb_device_close(handle);
        if (context != nullptr) libiusb_context_exit(context);
    }
};

std::string path(const std::string &below) { return std::string(kHostile) + "/" + below; }

// Through the mount the kernel stops at the size it was told, so only here is
// it seen that a read gives what the device sent, whatever its size said.
TEST(HostileDevice, LyingSizesGiveTheBytesTheDeviceSent) {
    HostileDevice device;
    std::string why = device.open();
    if (!why.empty()) GTEST_SKIP() << "needs devsim: " << why;
    libiusb_file_info info;
    std::string fewer = path("sizes/fewer.bin");
    ASSERT_EQ(libiusb_afc_file_get_info(device.afc, fewer.c_str(), &info), 0);
    EXPECT_EQ(info.size, 10u);
    uint64_t handle = 0;
    ASSERT_EQ(libiusb_afc_file_open(device.afc, fewer.c_str(), LIBIUSB_AFC_RDONLY, &handle), 0);
    std::string buffer(8192, '\0');
    uint32_t got = 0;
    ASSERT_EQ(libiusb_afc_file_read(device.afc, handle, &buffer[0], 8192, 0, &got), 0);
    EXPECT_EQ(got, 5000u) << "the bytes the device gave, whatever its size said";
    EXPECT_EQ(libiusb_afc_file_close(device.afc, handle), 0);
    // Sizes no file can have stop at the largest offset.
    for (const char *name : {"negative.bin", "wrapped.bin"}) {
        ASSERT_EQ(libiusb_afc_file_get_info(device.afc, path(std::string("sizes/") + name).c_str(), &info), 0);
        EXPECT_EQ(info.size, static_cast<uint64_t>(INT64_MAX)) << name;
    }
}

} // namespace

// The device layer against a hostile device: listing reply headers whose
// lengths lie and sizes no file can have. Each answer comes back promptly, as
// the bytes the device really sent or as a lost connection, and the request
// after a lost connection opens a new one. Replies cut half-way and lying read
// headers are followed through the mount (hostile_e2e_test).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

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

// Runs `request` on a thread of its own and waits a generous while: a guard
// against hanging, not a measure of speed. A request still running when the
// guard gives up is left to the test's time limit.
bool answersInTime(std::function<int()> request, int *result) {
    auto done = std::make_shared<std::promise<int>>();
    std::future<int> answer = done->get_future();
    std::thread([request, done] { done->set_value(request()); }).detach();
    if (answer.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return false;
    *result = answer.get();
    return true;
}

std::string path(const std::string &below) { return std::string(kHostile) + "/" + below; }

TEST(HostileDevice, LyingListingHeadersAreLostConnectionsAndLyingSizesGiveTheBytesSent) {
    HostileDevice device;
    std::string why = device.open();
    if (!why.empty()) GTEST_SKIP() << "needs devsim: " << why;
    libiusb_file_info info;
    int result = 0;
    // The device closed the connection after its lie: the request that meets
    // the closed connection fails, the one after opens a new one.
    auto answersAgain = [&] {
        ASSERT_TRUE(answersInTime([&] { return libiusb_afc_file_get_info(device.afc, kHostile, &info); }, &result));
        if (result != 0) {
            EXPECT_EQ(result, LIBIUSB_ERROR_CONNECTION_LOST);
            ASSERT_TRUE(answersInTime([&] { return libiusb_afc_file_get_info(device.afc, kHostile, &info); }, &result));
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(info.file_type, LIBIUSB_FILE_TYPE_FOLDER);
    };
    for (const char *folder : {"entire-beyond", "entire-huge", "entire-negative", "this-beyond-entire"}) {
        SCOPED_TRACE(folder);
        std::string listed = path(std::string("oversize/") + folder);
        char **names = nullptr;
        ASSERT_TRUE(answersInTime(
            [&] { return libiusb_afc_file_read_directory(device.afc, listed.c_str(), &names, nullptr); }, &result))
            << "the listing hung";
        if (result == 0) {
            // What came before the connection closed is all there is: no
            // byte of the claimed length that never arrived.
            std::string seen;
            for (char **name = names; name != nullptr && *name != nullptr; ++name) seen += std::string(*name) + ",";
            EXPECT_EQ(seen, ".,..,x,y,z,");
            libiusb_misc_free_strings_array(names);
        } else {
            EXPECT_EQ(result, LIBIUSB_ERROR_CONNECTION_LOST);
        }
        answersAgain();
    }

    // A file longer than its size says reads whole.
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

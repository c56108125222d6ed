// The records behind the device layer's opaque handles, and the one place that
// turns libimobiledevice results into our result codes. Private to device/ and
// its tests.
#pragma once

#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "device/libiusb.h"

struct libiusb_device {
    uint32_t location_id = 0;  // the usbmuxd device id
    uint32_t product_id = 0;
    std::string udid;
    // Filled on the first get_info through lockdown without a session; empty
    // when the device would not say.
    bool details_fetched = false;
    std::string name;
    std::string ios_version;
    std::string product_type;
};

struct libiusb_context {
    std::vector<libiusb_device *> devices;
    std::vector<libiusb_device *> null_terminated;  // what device_get_list hands out
};

struct libiusb_device_handle {
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;  // kept for starting services
    uint32_t location_id = 0;
    std::string udid;
    // Guards device and lockdown: lockdown clients are not safe for
    // concurrent requests, and a lost session is replaced under it.
    std::mutex lockdown_lock;
    // Device records of sessions replaced after a lost connection: AFC
    // clients made from them may still point at them, so they live as long as
    // the handle.
    std::vector<idevice_t> retired_devices;
};

// Starts a lockdown service, opening a new lockdown session first when the
// one the handle keeps was lost while the device stays attached. *device is
// the device record to make the service's client with.
int startDeviceService(libiusb_device_handle *handle, const char *name, lockdownd_service_descriptor_t *service,
                       idevice_t *device);
// A client of the device's media file system on a service of its own.
int startAfcClient(libiusb_device_handle *handle, afc_client_t *client);

enum class AfcKind {
    Media,             // the device's media file system
    HouseArrestNoApp,  // a house-arrest connection that has not vended an app yet
    HouseArrestApp,    // an AFC connection rooted at one app's container
};

// Marks a handle whose device-side position is not known, so the next read or
// write seeks first.
constexpr uint64_t kPositionUnknown = UINT64_MAX;

struct libiusb_afc {
    AfcKind kind = AfcKind::Media;
    libiusb_device_handle *owner = nullptr;
    afc_client_t client = nullptr;
    house_arrest_client_t house_arrest = nullptr;
    std::string bundle_id;  // the app a house-arrest connection serves
    // Requests hold it shared while they use client; a lost connection is
    // replaced under it held exclusively.
    std::shared_mutex connection_lock;
    // Set once a request found the connection lost; the next request opens a
    // new one (same service, same app) before it is sent.
    std::atomic<bool> lost{false};
    // Counts the connections this handle has had: a file handle opened on an
    // earlier one is opened again on the current one before it is used.
    uint64_t generation = 0;
    // Held across a seek and the transfer after it, so two threads sharing a
    // connection cannot move each other's file pointer in between.
    std::mutex transfer_lock;
    std::mutex positions_lock;
    // Per open file: where the device's file pointer stands, and whether every
    // write lands at the end whatever the pointer says.
    // The handles given out are ours, never the device's own numbers: the
    // device numbers handles per connection, so after a new connection an old
    // number could name another file.
    struct OpenFile {
        uint64_t device_handle = 0;  // the device's handle on connection `generation`
        uint64_t generation = 0;
        std::string path;
        int mode = 0;
        uint64_t position = 0;
        bool appends = false;
    };
    std::unordered_map<uint64_t, OpenFile> open_files;
    uint64_t last_file_handle = 0;
    // How many seeks read and write sent, for tests that check the seek is
    // skipped when the handle is already at the offset.
    uint64_t seeks_sent = 0;
};

struct libiusb_instproxy {
    instproxy_client_t client = nullptr;
};

// Where a native result came from.
enum class NativeSource {
    Usbmuxd,     // libusbmuxd: a negative errno from reaching the daemon
    Idevice,     // idevice_error_t
    Lockdown,    // lockdownd_error_t
    Afc,         // afc_error_t
    Instproxy,   // instproxy_error_t
    HouseArrest, // house_arrest_error_t
};

// Our code for a native result; 0 stays 0. Results the table does not name
// become LIBIUSB_ERROR_OTHER.
int mapNativeError(NativeSource source, int native);

// Our code for the "Error" string a house-arrest request answers with.
int mapHouseArrestReply(const char *error);

// One row of the table, for the documentation check and the tests.
struct NativeErrorRow {
    NativeSource source;
    int native;
    int code;
    const char *native_name;
};
const std::vector<NativeErrorRow> &nativeErrorTable();

// The parsing of device answers, apart from the connections that fetch them,
// so that the tests and the fuzz targets can feed it any answer a device
// might give.
//
// Fills `info` from the key/value pairs afc_get_file_info answers with (a
// null-terminated array: key, value, key, value, ...). Keys it does not know
// are skipped; a key without its value ends the parse. Fields no pair names
// are left as they are.
void parseFileInfoPairs(const char *const *pairs, libiusb_file_info *info);
// One file-information answer at the front of `bytes` (`available` of them)
// on an information stream, where answer `packet_number` is due: its result
// and `info`, as afc_get_file_info and libiusb_afc_file_get_info make them,
// with *length the bytes it takes. kInfoAnswerIncomplete when more bytes are
// needed (*length of them in all); kInfoAnswerOutOfStep when the bytes are no
// such answer (wrong magic or number, lengths no answer has).
constexpr int kInfoAnswerIncomplete = 1;
constexpr int kInfoAnswerOutOfStep = 2;
int parseInfoAnswer(const char *bytes, size_t available, uint64_t packet_number, size_t *length,
                    libiusb_file_info *info);
// What house-arrest's answer to a vend says: 0 when the app's documents are
// served from now on, else why not.
int vendResult(plist_t reply);
// The file-sharing apps of an installation proxy browse answer, in its order.
// An answer that is not an array is LIBIUSB_ERROR_OTHER and leaves *list
// alone; `apps` stays the caller's.
int appsFromBrowseReply(plist_t apps, libiusb_app_node **list);

// The device layer: the calls the file system makes to reach an iOS device,
// implemented over libimobiledevice / libusbmuxd / libplist. Every call returns
// 0 on success or one of the negative codes below; docs/device-errors.md maps
// each libimobiledevice result to them.
//
// Any client, this layer included, talks to the server named by
// USBMUXD_SOCKET_ADDRESS (for example "UNIX:/tmp/x.sock") instead of the
// system usbmuxd when that variable is set.
#pragma once

#include <cstddef>
#include <cstdint>

// Result codes the file system acts on.
enum {
    LIBIUSB_SUCCESS = 0,
    LIBIUSB_ERROR_NO_DEVICE = -14,                 // the device is not in the list
    LIBIUSB_ERROR_IO = -30,                        // transfer broke off; open and read treat it as a lost connection
    LIBIUSB_ERROR_CONNECTION_LOST = -32,           // the USB connection was lost
    LIBIUSB_ERROR_DIR_NOT_EMPTY = -33,             // the folder cannot be removed
    LIBIUSB_ERROR_TRUST_PENDING = -44,             // "Trust this computer?" is on screen
    LIBIUSB_ERROR_PASSWORD_PROTECTED = -45,        // the device is locked with a passcode
    LIBIUSB_ERROR_NO_SPACE = -62,                  // not enough space on the device
    LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND = -70,      // no such file or folder

    // Further results; docs/device-errors.md says which device answers give them.
    LIBIUSB_ERROR_INVALID_PARAM = -2,              // a null or unusable argument, or a handle in the wrong state
    LIBIUSB_ERROR_ACCESS = -3,                     // the device refused: permission denied
    LIBIUSB_ERROR_BUSY = -6,                       // the object is busy or locked
    LIBIUSB_ERROR_NO_MEM = -11,                    // out of memory, here or on the device
    LIBIUSB_ERROR_NOT_SUPPORTED = -12,             // the device does not know the request
    LIBIUSB_ERROR_USBMUXD_UNREACHABLE = -15,       // usbmuxd (or USBMUXD_SOCKET_ADDRESS) cannot be reached
    LIBIUSB_ERROR_NOT_PAIRED = -46,                // pairing refused, failed or no longer valid
    LIBIUSB_ERROR_SERVICE_UNAVAILABLE = -47,       // lockdown would not start the service
    LIBIUSB_ERROR_SERVICE_LIMIT = -48,             // the device opens no more services until some are closed
    LIBIUSB_ERROR_PAIRING_DENIED = -49,            // the user answered "Don't Trust"
    LIBIUSB_ERROR_PAIRING_REJECTED = -50,          // the device no longer accepts this computer's pairing record
    LIBIUSB_ERROR_AFC_OBJECT_EXISTS = -71,         // the name is taken
    LIBIUSB_ERROR_AFC_OBJECT_IS_DIR = -72,         // a folder where a file was expected
    LIBIUSB_ERROR_APP_NOT_FOUND = -73,             // house-arrest knows no app with that bundle id
    LIBIUSB_ERROR_OTHER = -99,                     // anything else
};

// A short English text for a result code ("connection lost", ...).
const char *libiusb_error_name(int code);

struct libiusb_context;       // one look at the attached devices
struct libiusb_device;        // an entry of the device list, owned by its context
struct libiusb_device_handle; // an opened device: a lockdown session
struct libiusb_afc;           // an AFC connection: the media root, or an app's sandbox through house-arrest
struct libiusb_instproxy;     // installation proxy client

// The device information block, 600 bytes. The file system reads the fields
// at fixed offsets; the rest carries what `quorvel list` shows.
struct libiusb_device_info {
    uint8_t reserved0[8];
    uint32_t location_id;      // offset 8: the usbmuxd device id
    uint8_t reserved1[4];
    uint64_t block_size;       // offset 16
    uint64_t total_capacity;   // offset 24, bytes
    uint64_t free_capacity;    // offset 32, bytes
    char udid[64];             // offset 40
    char product_type[32];     // offset 104
    uint8_t reserved2[160];    // offset 136
    char ios_version[16];      // offset 296
    char device_name[288];     // offset 312
};
static_assert(sizeof(libiusb_device_info) == 600, "the device information block is 600 bytes");
static_assert(offsetof(libiusb_device_info, location_id) == 8, "location id at 8");
static_assert(offsetof(libiusb_device_info, block_size) == 16, "block size at 16");
static_assert(offsetof(libiusb_device_info, total_capacity) == 24, "total capacity at 24");
static_assert(offsetof(libiusb_device_info, free_capacity) == 32, "free capacity at 32");
static_assert(offsetof(libiusb_device_info, ios_version) == 296, "iOS version at 296");
static_assert(offsetof(libiusb_device_info, device_name) == 312, "device name at 312");

enum {
    LIBIUSB_FILE_TYPE_FOLDER = 4,
    LIBIUSB_FILE_TYPE_REGULAR = 18,
    LIBIUSB_FILE_TYPE_LINK = 10,
    LIBIUSB_FILE_TYPE_OTHER = 0,
};

// What libiusb_afc_file_get_info reports of one path.
struct libiusb_file_info {
    int32_t file_type;       // LIBIUSB_FILE_TYPE_*
    uint64_t size;           // bytes
    int64_t birth_time;      // ns since 1970
    int64_t modify_time;     // ns since 1970
};

// One file-sharing app. Both strings are allocated with new[], the node with
// new; whoever receives the list frees it.
struct libiusb_app_node {
    char *display_name;
    char *bundle_id;
    libiusb_app_node *next;
};

// AFC open modes, as the device understands them.
enum {
    LIBIUSB_AFC_RDONLY = 1,  // r
    LIBIUSB_AFC_RW = 2,      // r+
    LIBIUSB_AFC_WRONLY = 3,  // w: create, truncate
    LIBIUSB_AFC_WR = 4,      // w+: create, truncate, read too
    LIBIUSB_AFC_APPEND = 5,  // a
    LIBIUSB_AFC_RDAPPEND = 6 // a+
};

int libiusb_init_ex(const char *resource_dir, int flags);

int libiusb_context_init(libiusb_context **out);
int libiusb_context_exit(libiusb_context *ctx);

// A null-terminated array, owned by the context and valid until context_exit.
int libiusb_device_get_list(libiusb_context *ctx, libiusb_device ***list);
int libiusb_device_get_info(libiusb_device *device, libiusb_device_info *info);
int libiusb_device_get_info(libiusb_device_handle *handle, libiusb_device_info *info);
// The list entry with that location id (usbmuxd device id) or UDID; -14 when
// the context's list holds none.
int libiusb_device_find(libiusb_context *ctx, uint32_t location_id, libiusb_device **out);
int libiusb_device_find_by_udid(libiusb_context *ctx, const char *udid, libiusb_device **out);
int libiusb_device_open(libiusb_device *device, libiusb_device_handle **out);
// Ends this computer's pairing with a device that no longer accepts it
// (libiusb_device_open gave LIBIUSB_ERROR_PAIRING_REJECTED, as after a reset
// or "forget this computer"): asks the device to unpair, which it may refuse,
// and deletes the record usbmuxd keeps, so the next open pairs afresh and the
// device asks "Trust this computer?" again.
int libiusb_device_forget_pairing(libiusb_device *device);
int libiusb_device_close(libiusb_device_handle *handle);

// Connections share nothing that changes but the device handle's lockdown
// client, which is locked while a service starts: different connections may
// be used from different threads at once (large listings do). Requests on one
// connection from several threads are taken one at a time; it is closed only
// once no other thread uses it.
int libiusb_afc_init(libiusb_device_handle *handle, libiusb_afc **out);
int libiusb_afc_exit(libiusb_afc *afc);

int libiusb_afc_file_open(libiusb_afc *afc, const char *path, int mode, uint64_t *file_handle);
// Reads and writes at an explicit offset; the seek is skipped when the handle
// is already there.
int libiusb_afc_file_read(libiusb_afc *afc, uint64_t file_handle, char *buf, uint32_t length, uint64_t offset,
                          uint32_t *bytes_read);
int libiusb_afc_file_write(libiusb_afc *afc, uint64_t file_handle, const char *buf, uint32_t length,
                           uint64_t offset, uint32_t *bytes_written);
int libiusb_afc_file_close(libiusb_afc *afc, uint64_t file_handle);
int libiusb_afc_file_truncate(libiusb_afc *afc, uint64_t file_handle, uint64_t size);
int libiusb_afc_truncate(libiusb_afc *afc, const char *path, uint64_t size);
int libiusb_afc_file_get_info(libiusb_afc *afc, const char *path, libiusb_file_info *info);
// With a null list only *count is filled (entries, "." and ".." included).
// Otherwise *list gets a null-terminated array freed with
// libiusb_misc_free_strings_array, and *count its length when count is given.
int libiusb_afc_file_read_directory(libiusb_afc *afc, const char *path, char ***list, uint32_t *count);
// Removes a file or an empty folder.
int libiusb_afc_file_remove(libiusb_afc *afc, const char *path);
int libiusb_afc_make_directory(libiusb_afc *afc, const char *path);
int libiusb_afc_rename(libiusb_afc *afc, const char *from, const char *to);
int libiusb_afc_set_modify_time(libiusb_afc *afc, const char *path, int64_t modify_time_ns);

// A media AFC connection of its own for asking many paths' information with
// several requests in flight: ask for each path in turn (requests are
// written out in bulk), then take the answers, in the order asked, each the
// result and information libiusb_afc_file_get_info would give. Once the
// connection fails, every answer still owed is LIBIUSB_ERROR_CONNECTION_LOST
// and the stream is only good for closing. Keep a few hundred requests
// unanswered at most: a device stops reading requests while its answers wait.
struct libiusb_afc_info_stream;
int libiusb_afc_info_stream_open(libiusb_device_handle *handle, libiusb_afc_info_stream **out);
// The same into one app's documents (paths as on a house-arrest connection:
// "/Documents/..."); an app the device will not vend is its reason.
int libiusb_afc_info_stream_open_app(libiusb_device_handle *handle, const char *bundle_id,
                                     libiusb_afc_info_stream **out);
// Asks for folder + "/" + name (name alone when folder is null).
int libiusb_afc_info_stream_ask(libiusb_afc_info_stream *stream, const char *folder, const char *name);
int libiusb_afc_info_stream_answer(libiusb_afc_info_stream *stream, libiusb_file_info *info);
void libiusb_afc_info_stream_close(libiusb_afc_info_stream *stream);

int libiusb_instproxy_init(libiusb_device_handle *handle, libiusb_instproxy **out);
int libiusb_instproxy_exit(libiusb_instproxy *instproxy);
// The file-sharing apps, in the order the device reports them.
int libiusb_instproxy_getAppId(libiusb_instproxy *instproxy, libiusb_app_node **list);
void libiusb_free_app_list(libiusb_app_node *list);

// A house-arrest handle becomes an AFC connection rooted at the app's
// container once libiusb_housearrest_openapp has succeeded.
int libiusb_housearrest_init(libiusb_device_handle *handle, libiusb_afc **out);
int libiusb_housearrest_openapp(libiusb_afc *house_arrest, const char *bundle_id);
// Like libiusb_afc_exit, frees the handle and returns 0 for any non-null
// handle, so a caller that retries after a failure never touches freed memory.
int libiusb_housearrest_exit(libiusb_afc *house_arrest);

void libiusb_misc_free_strings_array(char **list);

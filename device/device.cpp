// Devices: the snapshot of what usbmuxd lists, device information, and the
// lockdown session an opened device keeps for starting its services.
#include <plist/plist.h>
#include <signal.h>
#include <usbmuxd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "device/device_internal.h"

namespace {

const char kLabel[] = "quorvel";

void copyText(char *dst, size_t size, const std::string &text) {
    snprintf(dst, size, "%s", text.c_str());
}

std::string lockdownString(lockdownd_client_t lockdown, const char *domain, const char *key) {
    plist_t node = nullptr;
    std::string text;
    if (lockdownd_get_value(lockdown, domain, key, &node) == LOCKDOWN_E_SUCCESS && node != nullptr &&
        plist_get_node_type(node) == PLIST_STRING) {
        char *value = nullptr;
        plist_get_string_val(node, &value);
        if (value != nullptr) text = value;
        free(value);
    }
    if (node != nullptr) plist_free(node);
    return text;
}

bool lockdownNumber(lockdownd_client_t lockdown, const char *domain, const char *key, uint64_t *out) {
    plist_t node = nullptr;
    bool found = false;
    if (lockdownd_get_value(lockdown, domain, key, &node) == LOCKDOWN_E_SUCCESS && node != nullptr &&
        plist_get_node_type(node) == PLIST_UINT) {
        plist_get_uint_val(node, out);
        found = true;
    }
    if (node != nullptr) plist_free(node);
    return found;
}

// Name, version and model of a listed device, asked of lockdown without a
// session (these keys need no pairing). A device that will not answer, for
// instance one showing its trust prompt, keeps them empty: listing it must
// still work.
void fetchListedDetails(libiusb_device *device) {
    if (device->details_fetched) return;
    device->details_fetched = true;
    idevice_t idevice = nullptr;
    if (idevice_new_with_options(&idevice, device->udid.c_str(), IDEVICE_LOOKUP_USBMUX) != IDEVICE_E_SUCCESS) return;
    lockdownd_client_t lockdown = nullptr;
    if (lockdownd_client_new(idevice, &lockdown, kLabel) == LOCKDOWN_E_SUCCESS) {
        device->name = lockdownString(lockdown, nullptr, "DeviceName");
        device->ios_version = lockdownString(lockdown, nullptr, "ProductVersion");
        device->product_type = lockdownString(lockdown, nullptr, "ProductType");
        lockdownd_client_free(lockdown);
    }
    idevice_free(idevice);
}

uint64_t parseNumber(const char *text) {
    if (text == nullptr) return 0;
    return strtoull(text, nullptr, 10);
}

// Block size and capacities as the media file system reports them. Falls
// back to lockdown's disk-usage domain when AFC cannot be reached.
int fillCapacity(libiusb_device_handle *handle, libiusb_device_info *info) {
    afc_client_t afc = nullptr;
    int result = startAfcClient(handle, &afc);
    if (result == 0) {
        char **pairs = nullptr;
        result = mapNativeError(NativeSource::Afc, afc_get_device_info(afc, &pairs));
        if (result == 0 && pairs != nullptr) {
            for (int i = 0; pairs[i] != nullptr && pairs[i + 1] != nullptr; i += 2) {
                if (strcmp(pairs[i], "FSBlockSize") == 0) info->block_size = parseNumber(pairs[i + 1]);
                else if (strcmp(pairs[i], "FSTotalBytes") == 0) info->total_capacity = parseNumber(pairs[i + 1]);
                else if (strcmp(pairs[i], "FSFreeBytes") == 0) info->free_capacity = parseNumber(pairs[i + 1]);
            }
        }
        if (pairs != nullptr) afc_dictionary_free(pairs);
        afc_client_free(afc);
    }
    if (result == 0) return 0;

    std::lock_guard<std::mutex> guard(handle->lockdown_lock);
    uint64_t total = 0, available = 0;
    if (!lockdownNumber(handle->lockdown, "com.apple.disk_usage", "TotalDataCapacity", &total) ||
        !lockdownNumber(handle->lockdown, "com.apple.disk_usage", "TotalDataAvailable", &available)) {
        return result;
    }
    info->total_capacity = total;
    info->free_capacity = available;
    info->block_size = 4096;
    return 0;
}

// A lockdown session runs TLS, and OpenSSL writes its records with write(),
// which raises SIGPIPE once the phone has gone (unplugged, dropped): the
// process must see EPIPE instead of dying. A handler the program set itself
// is left alone.
void keepSigpipeFromKilling() {
    struct sigaction current;
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && !(current.sa_flags & SA_SIGINFO) &&
        current.sa_handler == SIG_DFL) {
        signal(SIGPIPE, SIG_IGN);
    }
}

// A lockdown session with the device of that UDID, as long as usbmuxd still
// lists it under location_id: the same UDID under another id is a device
// that was unplugged and came back, which is not the one that was opened.
int openSession(const std::string &udid, uint32_t location_id, idevice_t *device, lockdownd_client_t *lockdown) {
    idevice_t idevice = nullptr;
    idevice_error_t found = idevice_new_with_options(&idevice, udid.c_str(), IDEVICE_LOOKUP_USBMUX);
    if (found != IDEVICE_E_SUCCESS) return mapNativeError(NativeSource::Idevice, found);
    uint32_t mux_id = 0;
    idevice_get_handle(idevice, &mux_id);
    if (mux_id != location_id) {
        idevice_free(idevice);
        return LIBIUSB_ERROR_NO_DEVICE;
    }
    lockdownd_error_t shaken = lockdownd_client_new_with_handshake(idevice, lockdown, kLabel);
    if (shaken != LOCKDOWN_E_SUCCESS) {
        idevice_free(idevice);
        // The session's TLS handshake is where a device that forgot this
        // computer refuses the pairing record.
        if (shaken == LOCKDOWN_E_SSL_ERROR) return LIBIUSB_ERROR_PAIRING_REJECTED;
        return mapNativeError(NativeSource::Lockdown, shaken);
    }
    *device = idevice;
    return LIBIUSB_SUCCESS;
}

bool sessionLost(int result) { return result == LIBIUSB_ERROR_CONNECTION_LOST || result == LIBIUSB_ERROR_IO; }

// Replaces the handle's lost lockdown session; lockdown_lock is held. A device
// that is no longer attached is a lost connection to the caller, as before.
int reopenSession(libiusb_device_handle *handle) {
    keepSigpipeFromKilling();  // the old session is ended on a dead connection
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    int result = openSession(handle->udid, handle->location_id, &device, &lockdown);
    if (result == LIBIUSB_ERROR_NO_DEVICE) return LIBIUSB_ERROR_CONNECTION_LOST;
    if (result != 0) return result;
    if (handle->lockdown != nullptr) lockdownd_client_free(handle->lockdown);
    if (handle->device != nullptr) handle->retired_devices.push_back(handle->device);
    handle->device = device;
    handle->lockdown = lockdown;
    return LIBIUSB_SUCCESS;
}

} // namespace

int startDeviceService(libiusb_device_handle *handle, const char *name, lockdownd_service_descriptor_t *service,
                       idevice_t *device) {
    std::lock_guard<std::mutex> guard(handle->lockdown_lock);
    int result = mapNativeError(NativeSource::Lockdown, lockdownd_start_service(handle->lockdown, name, service));
    if (sessionLost(result)) {
        if (*service != nullptr) lockdownd_service_descriptor_free(*service);
        *service = nullptr;
        int reopened = reopenSession(handle);
        if (reopened != 0) return reopened == LIBIUSB_ERROR_CONNECTION_LOST ? result : reopened;
        result = mapNativeError(NativeSource::Lockdown, lockdownd_start_service(handle->lockdown, name, service));
    }
    *device = handle->device;
    return result;
}

int libiusb_init_ex(const char *resource_dir, int flags) {
    (void)resource_dir;  // nothing of ours lives there: libimobiledevice keeps its own state
    (void)flags;
    keepSigpipeFromKilling();
    const char *debug = getenv("QUORVEL_DEVICE_DEBUG");
    if (debug != nullptr && *debug != '\0' && strcmp(debug, "0") != 0) idevice_set_debug_level(1);
    return LIBIUSB_SUCCESS;
}

int libiusb_context_init(libiusb_context **out) {
    if (out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    keepSigpipeFromKilling();
    usbmuxd_device_info_t *listed = nullptr;
    int count = usbmuxd_get_device_list(&listed);
    if (count < 0 || (count > 0 && listed == nullptr)) {
        if (listed != nullptr) usbmuxd_device_list_free(&listed);
        return mapNativeError(NativeSource::Usbmuxd, count < 0 ? count : -ECONNREFUSED);
    }
    libiusb_context *context = new libiusb_context;
    for (int i = 0; i < count; i++) {
        // A device reached over Wi-Fi shows up a second time; only the USB one counts.
        if (listed[i].conn_type == CONNECTION_TYPE_NETWORK) continue;
        libiusb_device *device = new libiusb_device;
        device->location_id = listed[i].handle;
        device->product_id = listed[i].product_id;
        device->udid = listed[i].udid;
        context->devices.push_back(device);
    }
    if (listed != nullptr) usbmuxd_device_list_free(&listed);
    context->null_terminated = context->devices;
    context->null_terminated.push_back(nullptr);
    *out = context;
    return LIBIUSB_SUCCESS;
}

int libiusb_context_exit(libiusb_context *ctx) {
    if (ctx == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    for (libiusb_device *device : ctx->devices) delete device;
    delete ctx;
    return LIBIUSB_SUCCESS;
}

int libiusb_device_get_list(libiusb_context *ctx, libiusb_device ***list) {
    if (ctx == nullptr || list == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *list = ctx->null_terminated.data();
    return LIBIUSB_SUCCESS;
}

int libiusb_device_find(libiusb_context *ctx, uint32_t location_id, libiusb_device **out) {
    if (ctx == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    for (libiusb_device *device : ctx->devices) {
        if (device->location_id == location_id) {
            *out = device;
            return LIBIUSB_SUCCESS;
        }
    }
    return LIBIUSB_ERROR_NO_DEVICE;
}

int libiusb_device_find_by_udid(libiusb_context *ctx, const char *udid, libiusb_device **out) {
    if (ctx == nullptr || udid == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    for (libiusb_device *device : ctx->devices) {
        if (device->udid == udid) {
            *out = device;
            return LIBIUSB_SUCCESS;
        }
    }
    return LIBIUSB_ERROR_NO_DEVICE;
}

int libiusb_device_get_info(libiusb_device *device, libiusb_device_info *info) {
    if (device == nullptr || info == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    memset(info, 0, sizeof(*info));
    fetchListedDetails(device);
    info->location_id = device->location_id;
    copyText(info->udid, sizeof(info->udid), device->udid);
    copyText(info->device_name, sizeof(info->device_name), device->name);
    copyText(info->ios_version, sizeof(info->ios_version), device->ios_version);
    copyText(info->product_type, sizeof(info->product_type), device->product_type);
    return LIBIUSB_SUCCESS;
}

int libiusb_device_get_info(libiusb_device_handle *handle, libiusb_device_info *info) {
    if (handle == nullptr || info == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    memset(info, 0, sizeof(*info));
    info->location_id = handle->location_id;
    copyText(info->udid, sizeof(info->udid), handle->udid);
    {
        std::lock_guard<std::mutex> guard(handle->lockdown_lock);
        plist_t probe = nullptr;
        // One request that must succeed, so a dead session is reported rather
        // than a block of empty names.
        lockdownd_error_t asked = lockdownd_get_value(handle->lockdown, nullptr, "ProductVersion", &probe);
        if (sessionLost(mapNativeError(NativeSource::Lockdown, asked)) && reopenSession(handle) == 0) {
            if (probe != nullptr) plist_free(probe);
            probe = nullptr;
            asked = lockdownd_get_value(handle->lockdown, nullptr, "ProductVersion", &probe);
        }
        if (asked != LOCKDOWN_E_SUCCESS) {
            if (probe != nullptr) plist_free(probe);
            return mapNativeError(NativeSource::Lockdown, asked);
        }
        if (plist_get_node_type(probe) == PLIST_STRING) {
            char *value = nullptr;
            plist_get_string_val(probe, &value);
            if (value != nullptr) snprintf(info->ios_version, sizeof(info->ios_version), "%s", value);
            free(value);
        }
        plist_free(probe);
        copyText(info->device_name, sizeof(info->device_name), lockdownString(handle->lockdown, nullptr, "DeviceName"));
        copyText(info->product_type, sizeof(info->product_type),
                 lockdownString(handle->lockdown, nullptr, "ProductType"));
    }
    return fillCapacity(handle, info);
}

int libiusb_device_open(libiusb_device *device, libiusb_device_handle **out) {
    if (device == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    idevice_t idevice = nullptr;
    lockdownd_client_t lockdown = nullptr;
    int result = openSession(device->udid, device->location_id, &idevice, &lockdown);
    if (result != 0) return result;
    libiusb_device_handle *handle = new libiusb_device_handle;
    handle->device = idevice;
    handle->lockdown = lockdown;
    handle->location_id = device->location_id;
    handle->udid = device->udid;
    *out = handle;
    return LIBIUSB_SUCCESS;
}

int libiusb_device_forget_pairing(libiusb_device *device) {
    if (device == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    keepSigpipeFromKilling();
    idevice_t idevice = nullptr;
    idevice_error_t found = idevice_new_with_options(&idevice, device->udid.c_str(), IDEVICE_LOOKUP_USBMUX);
    if (found != IDEVICE_E_SUCCESS) return mapNativeError(NativeSource::Idevice, found);
    lockdownd_client_t lockdown = nullptr;
    if (lockdownd_client_new(idevice, &lockdown, kLabel) == LOCKDOWN_E_SUCCESS) {
        // A device that forgot us answers that it does not know this host;
        // either way the record below goes.
        lockdownd_unpair(lockdown, nullptr);
        lockdownd_client_free(lockdown);
    }
    idevice_free(idevice);
    // Kept, the record would be refused again at the next open.
    return usbmuxd_delete_pair_record(device->udid.c_str()) < 0 ? LIBIUSB_ERROR_NOT_PAIRED : LIBIUSB_SUCCESS;
}

int libiusb_device_close(libiusb_device_handle *handle) {
    if (handle == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    // Ending the session writes to the phone, perhaps after FUSE's clean-up
    // put SIGPIPE back to its default.
    keepSigpipeFromKilling();
    if (handle->lockdown != nullptr) lockdownd_client_free(handle->lockdown);
    if (handle->device != nullptr) idevice_free(handle->device);
    for (idevice_t retired : handle->retired_devices) idevice_free(retired);
    delete handle;
    return LIBIUSB_SUCCESS;
}

void libiusb_misc_free_strings_array(char **list) {
    if (list == nullptr) return;
    for (char **entry = list; *entry != nullptr; entry++) free(*entry);
    free(list);
}

// The one table from libimobiledevice results to our result codes.
// docs/device-errors.md explains every row; keep the two in step.
//
// libimobiledevice 1.3.0 reports a connection the peer closed in different
// ways per service: AFC answers AFC_E_MUX_ERROR when nothing arrives and
// AFC_E_NOT_ENOUGH_DATA when a reply is cut short; the plist services
// (lockdown, installation proxy, house-arrest) turn a closed socket into their
// UNKNOWN_ERROR and a refused connection into MUX_ERROR / CONN_FAILED. Both
// count as a lost connection here.
#include <cerrno>
#include <cstring>

#include "device/device_internal.h"

namespace {

#define ROW(source, native, code) {NativeSource::source, native, code, #native}

const std::vector<NativeErrorRow> kTable = {
    // Reaching usbmuxd at all: any negative errno from libusbmuxd.
    ROW(Usbmuxd, -ECONNREFUSED, LIBIUSB_ERROR_USBMUXD_UNREACHABLE),
    ROW(Usbmuxd, -ENOENT, LIBIUSB_ERROR_USBMUXD_UNREACHABLE),

    ROW(Idevice, IDEVICE_E_INVALID_ARG, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(Idevice, IDEVICE_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Idevice, IDEVICE_E_NO_DEVICE, LIBIUSB_ERROR_NO_DEVICE),
    ROW(Idevice, IDEVICE_E_NOT_ENOUGH_DATA, LIBIUSB_ERROR_IO),
    ROW(Idevice, IDEVICE_E_SSL_ERROR, LIBIUSB_ERROR_IO),
    ROW(Idevice, IDEVICE_E_TIMEOUT, LIBIUSB_ERROR_IO),

    ROW(Lockdown, LOCKDOWN_E_INVALID_ARG, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(Lockdown, LOCKDOWN_E_INVALID_CONF, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_PAIRING_FAILED, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_SSL_ERROR, LIBIUSB_ERROR_IO),
    ROW(Lockdown, LOCKDOWN_E_RECEIVE_TIMEOUT, LIBIUSB_ERROR_IO),
    ROW(Lockdown, LOCKDOWN_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Lockdown, LOCKDOWN_E_PASSWORD_PROTECTED, LIBIUSB_ERROR_PASSWORD_PROTECTED),
    ROW(Lockdown, LOCKDOWN_E_USER_DENIED_PAIRING, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING, LIBIUSB_ERROR_TRUST_PENDING),
    ROW(Lockdown, LOCKDOWN_E_MISSING_HOST_ID, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_INVALID_HOST_ID, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_MISSING_SERVICE, LIBIUSB_ERROR_SERVICE_UNAVAILABLE),
    ROW(Lockdown, LOCKDOWN_E_INVALID_SERVICE, LIBIUSB_ERROR_SERVICE_UNAVAILABLE),
    ROW(Lockdown, LOCKDOWN_E_SERVICE_LIMIT, LIBIUSB_ERROR_SERVICE_LIMIT),
    ROW(Lockdown, LOCKDOWN_E_MISSING_PAIR_RECORD, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_INVALID_PAIR_RECORD, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_SERVICE_PROHIBITED, LIBIUSB_ERROR_SERVICE_UNAVAILABLE),
    ROW(Lockdown, LOCKDOWN_E_ESCROW_LOCKED, LIBIUSB_ERROR_PASSWORD_PROTECTED),
    ROW(Lockdown, LOCKDOWN_E_PAIRING_PROHIBITED_OVER_THIS_CONNECTION, LIBIUSB_ERROR_NOT_PAIRED),
    ROW(Lockdown, LOCKDOWN_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),

    ROW(Afc, AFC_E_UNKNOWN_ERROR, LIBIUSB_ERROR_OTHER),
    ROW(Afc, AFC_E_NO_RESOURCES, LIBIUSB_ERROR_NO_MEM),
    ROW(Afc, AFC_E_READ_ERROR, LIBIUSB_ERROR_IO),
    ROW(Afc, AFC_E_WRITE_ERROR, LIBIUSB_ERROR_IO),
    ROW(Afc, AFC_E_UNKNOWN_PACKET_TYPE, LIBIUSB_ERROR_NOT_SUPPORTED),
    ROW(Afc, AFC_E_INVALID_ARG, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(Afc, AFC_E_OBJECT_NOT_FOUND, LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND),
    ROW(Afc, AFC_E_OBJECT_IS_DIR, LIBIUSB_ERROR_AFC_OBJECT_IS_DIR),
    ROW(Afc, AFC_E_PERM_DENIED, LIBIUSB_ERROR_ACCESS),
    ROW(Afc, AFC_E_SERVICE_NOT_CONNECTED, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Afc, AFC_E_OP_TIMEOUT, LIBIUSB_ERROR_IO),
    ROW(Afc, AFC_E_OP_NOT_SUPPORTED, LIBIUSB_ERROR_NOT_SUPPORTED),
    ROW(Afc, AFC_E_OBJECT_EXISTS, LIBIUSB_ERROR_AFC_OBJECT_EXISTS),
    ROW(Afc, AFC_E_OBJECT_BUSY, LIBIUSB_ERROR_BUSY),
    ROW(Afc, AFC_E_NO_SPACE_LEFT, LIBIUSB_ERROR_NO_SPACE),
    ROW(Afc, AFC_E_OP_WOULD_BLOCK, LIBIUSB_ERROR_BUSY),
    ROW(Afc, AFC_E_IO_ERROR, LIBIUSB_ERROR_IO),
    ROW(Afc, AFC_E_OP_IN_PROGRESS, LIBIUSB_ERROR_BUSY),
    ROW(Afc, AFC_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Afc, AFC_E_NO_MEM, LIBIUSB_ERROR_NO_MEM),
    // A reply cut short or framed wrong: the stream is out of step for good.
    ROW(Afc, AFC_E_NOT_ENOUGH_DATA, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Afc, AFC_E_OP_HEADER_INVALID, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Afc, AFC_E_DIR_NOT_EMPTY, LIBIUSB_ERROR_DIR_NOT_EMPTY),

    ROW(Instproxy, INSTPROXY_E_INVALID_ARG, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(Instproxy, INSTPROXY_E_CONN_FAILED, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(Instproxy, INSTPROXY_E_OP_IN_PROGRESS, LIBIUSB_ERROR_BUSY),
    ROW(Instproxy, INSTPROXY_E_RECEIVE_TIMEOUT, LIBIUSB_ERROR_IO),
    ROW(Instproxy, INSTPROXY_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),

    ROW(HouseArrest, HOUSE_ARREST_E_INVALID_ARG, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(HouseArrest, HOUSE_ARREST_E_CONN_FAILED, LIBIUSB_ERROR_CONNECTION_LOST),
    ROW(HouseArrest, HOUSE_ARREST_E_INVALID_MODE, LIBIUSB_ERROR_INVALID_PARAM),
    ROW(HouseArrest, HOUSE_ARREST_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST),
};

#undef ROW

} // namespace

const std::vector<NativeErrorRow> &nativeErrorTable() { return kTable; }

int mapNativeError(NativeSource source, int native) {
    if (native == 0) return LIBIUSB_SUCCESS;
    for (const NativeErrorRow &row : kTable) {
        if (row.source == source && row.native == native) return row.code;
    }
    // libusbmuxd hands back whatever errno connecting gave; every one of them
    // means the daemon is out of reach.
    if (source == NativeSource::Usbmuxd && native < 0) return LIBIUSB_ERROR_USBMUXD_UNREACHABLE;
    return LIBIUSB_ERROR_OTHER;
}

int mapHouseArrestReply(const char *error) {
    if (error == nullptr) return LIBIUSB_ERROR_OTHER;
    if (strcmp(error, "InstallationLookupFailed") == 0) return LIBIUSB_ERROR_APP_NOT_FOUND;
    return LIBIUSB_ERROR_OTHER;
}

const char *libiusb_error_name(int code) {
    switch (code) {
    case LIBIUSB_SUCCESS: return "success";
    case LIBIUSB_ERROR_INVALID_PARAM: return "invalid argument";
    case LIBIUSB_ERROR_ACCESS: return "permission denied";
    case LIBIUSB_ERROR_BUSY: return "busy";
    case LIBIUSB_ERROR_NO_MEM: return "out of memory";
    case LIBIUSB_ERROR_NOT_SUPPORTED: return "not supported";
    case LIBIUSB_ERROR_NO_DEVICE: return "device not found";
    case LIBIUSB_ERROR_USBMUXD_UNREACHABLE: return "usbmuxd cannot be reached";
    case LIBIUSB_ERROR_IO: return "transfer broke off";
    case LIBIUSB_ERROR_CONNECTION_LOST: return "connection lost";
    case LIBIUSB_ERROR_DIR_NOT_EMPTY: return "folder not empty";
    case LIBIUSB_ERROR_TRUST_PENDING: return "waiting for the user to trust this computer";
    case LIBIUSB_ERROR_PASSWORD_PROTECTED: return "device locked with a passcode";
    case LIBIUSB_ERROR_NOT_PAIRED: return "not paired";
    case LIBIUSB_ERROR_SERVICE_UNAVAILABLE: return "service unavailable";
    case LIBIUSB_ERROR_SERVICE_LIMIT: return "too many services open";
    case LIBIUSB_ERROR_NO_SPACE: return "not enough space on the device";
    case LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND: return "no such file or folder";
    case LIBIUSB_ERROR_AFC_OBJECT_EXISTS: return "already exists";
    case LIBIUSB_ERROR_AFC_OBJECT_IS_DIR: return "is a folder";
    case LIBIUSB_ERROR_APP_NOT_FOUND: return "no such app";
    case LIBIUSB_ERROR_OTHER: return "unexpected device error";
    default: return "unknown result code";
    }
}

// Room for new device services under the device's service limit.
#include "tarnifs/connections.h"

#include <chrono>
#include <thread>

#include "tarnifs/catalogue.h"
#include "tarnifs/info_queries.h"
#include "util/log.h"

namespace {

// A folder inside an app keeps the house-arrest client its last operation
// used; with nothing open in it, no one is using it now.
size_t closeIdleFolderClients(_KTL_OBJECT *folder) {
    size_t closed = 0;
    if (Extras(folder).hhandle != nullptr && Extras(folder).open_count == 0) {
        libiusb_housearrest_exit(Extras(folder).hhandle);
        EditExtras(folder).hhandle = nullptr;
        closed++;
    }
    for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
        _KTL_OBJECT *child = ObjectFromSibling(link);
        if (child->mode == KTL_MODE_FOLDER) closed += closeIdleFolderClients(child);
    }
    return closed;
}

// How long a start refused for the limit is tried again: the device counts a
// connection closed here as open until it has seen the close, a moment later.
constexpr int kLimitRetries = 20;
constexpr auto kLimitRetryPause = std::chrono::milliseconds(50);

template <typename Start>
int startWithRoom(_CONTEXT *ctx, Start start) {
    if (ctx == nullptr || ctx->device_handle == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    int result = start();
    if (result != LIBIUSB_ERROR_SERVICE_LIMIT) return result;
    CloseIdleConnections(ctx);
    for (int retry = 0; retry < kLimitRetries && result == LIBIUSB_ERROR_SERVICE_LIMIT; ++retry) {
        std::this_thread::sleep_for(kLimitRetryPause);
        result = start();
    }
    return result;
}

} // namespace

size_t CloseIdleConnections(_CONTEXT *ctx) {
    size_t closed = ctx->listing_stream != nullptr ? 1 : 0;
    closeStorageInfoStream(ctx);
    if (ctx->instproxy_handle != nullptr) {
        libiusb_instproxy_exit(ctx->instproxy_handle);
        ctx->instproxy_handle = nullptr;
        closed++;
    }
    _KTL_OBJECT *apps = FindObject("/Apps");
    if (apps != nullptr) closed += closeIdleFolderClients(apps);
    if (closed > 0)
        QNLog(3, "%s closed %zu idle connections: the device opens no more services", "CloseIdleConnections", closed);
    return closed;
}

int StartHouseArrest(_CONTEXT *ctx, libiusb_afc **out) {
    return startWithRoom(ctx, [&] { return libiusb_housearrest_init(ctx->device_handle, out); });
}

int StartInstproxy(_CONTEXT *ctx, libiusb_instproxy **out) {
    return startWithRoom(ctx, [&] { return libiusb_instproxy_init(ctx->device_handle, out); });
}

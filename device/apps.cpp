// The installation proxy: which installed apps share documents with a computer.
#include <plist/plist.h>

#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <string>

#include "device/device_internal.h"

namespace {

std::string stringItem(plist_t app, const char *key) {
    plist_t node = plist_dict_get_item(app, key);
    std::string text;
    if (node != nullptr && plist_get_node_type(node) == PLIST_STRING) {
        char *value = nullptr;
        plist_get_string_val(node, &value);
        if (value != nullptr) text = value;
        free(value);
    }
    return text;
}

// UIFileSharingEnabled is a boolean in well-formed Info.plists, but apps ship
// it as the text "YES" or as a number too, and the device passes it on as is.
bool sharesFiles(plist_t app) {
    plist_t node = plist_dict_get_item(app, "UIFileSharingEnabled");
    if (node == nullptr) return false;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
    }
    case PLIST_UINT: {
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return value != 0;
    }
    case PLIST_STRING: {
        char *value = nullptr;
        plist_get_string_val(node, &value);
        bool yes = value != nullptr && (strcasecmp(value, "YES") == 0 || strcasecmp(value, "true") == 0 ||
                                        strcmp(value, "1") == 0);
        free(value);
        return yes;
    }
    default:
        return false;
    }
}

char *copyToNew(const std::string &text) {
    char *copy = new char[text.size() + 1];
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

} // namespace

int appsFromBrowseReply(plist_t apps, libiusb_app_node **list) {
    if (list == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    if (apps == nullptr || plist_get_node_type(apps) != PLIST_ARRAY) return LIBIUSB_ERROR_OTHER;

    libiusb_app_node *head = nullptr;
    libiusb_app_node **tail = &head;
    uint32_t count = plist_array_get_size(apps);
    for (uint32_t i = 0; i < count; i++) {
        plist_t app = plist_array_get_item(apps, i);
        if (app == nullptr || plist_get_node_type(app) != PLIST_DICT || !sharesFiles(app)) continue;
        std::string bundle_id = stringItem(app, "CFBundleIdentifier");
        if (bundle_id.empty()) continue;  // nothing to open its sandbox by
        std::string display_name = stringItem(app, "CFBundleDisplayName");
        if (display_name.empty()) display_name = stringItem(app, "CFBundleName");
        if (display_name.empty()) display_name = bundle_id;
        libiusb_app_node *node = new libiusb_app_node;
        node->display_name = copyToNew(display_name);
        node->bundle_id = copyToNew(bundle_id);
        node->next = nullptr;
        *tail = node;
        tail = &node->next;
    }
    *list = head;
    return LIBIUSB_SUCCESS;
}

int libiusb_instproxy_init(libiusb_device_handle *handle, libiusb_instproxy **out) {
    if (handle == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    lockdownd_service_descriptor_t service = nullptr;
    idevice_t device = nullptr;
    int result = startDeviceService(handle, INSTPROXY_SERVICE_NAME, &service, &device);
    instproxy_client_t client = nullptr;
    if (result == 0) {
        result = mapNativeError(NativeSource::Instproxy, instproxy_client_new(device, service, &client));
    }
    if (service != nullptr) lockdownd_service_descriptor_free(service);
    if (result != 0) return result;
    libiusb_instproxy *instproxy = new libiusb_instproxy;
    instproxy->client = client;
    *out = instproxy;
    return LIBIUSB_SUCCESS;
}

int libiusb_instproxy_exit(libiusb_instproxy *instproxy) {
    if (instproxy == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    if (instproxy->client != nullptr) instproxy_client_free(instproxy->client);
    delete instproxy;
    return LIBIUSB_SUCCESS;
}

int libiusb_instproxy_getAppId(libiusb_instproxy *instproxy, libiusb_app_node **list) {
    if (list != nullptr) *list = nullptr;
    if (instproxy == nullptr || instproxy->client == nullptr || list == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;

    plist_t options = plist_new_dict();
    plist_dict_set_item(options, "ApplicationType", plist_new_string("User"));
    plist_t attributes = plist_new_array();
    for (const char *key : {"CFBundleIdentifier", "CFBundleDisplayName", "CFBundleName", "UIFileSharingEnabled"}) {
        plist_array_append_item(attributes, plist_new_string(key));
    }
    plist_dict_set_item(options, "ReturnAttributes", attributes);
    plist_t apps = nullptr;
    int result = mapNativeError(NativeSource::Instproxy, instproxy_browse(instproxy->client, options, &apps));
    plist_free(options);
    if (result != 0) {
        if (apps != nullptr) plist_free(apps);
        return result;
    }
    result = appsFromBrowseReply(apps, list);
    if (apps != nullptr) plist_free(apps);
    return result;
}

void libiusb_free_app_list(libiusb_app_node *list) {
    while (list != nullptr) {
        libiusb_app_node *next = list->next;
        delete[] list->display_name;
        delete[] list->bundle_id;
        delete list;
        list = next;
    }
}

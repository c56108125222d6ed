// installation_proxy: Browse (answered in several parts, as a phone does) and
// Lookup over the image's apps.
#include "devsim/server.h"

#include <algorithm>

namespace devsim {

namespace {

// Apps per BrowsingApplications message; small so that even the sample image
// is answered in more than one part.
constexpr size_t kAppsPerPart = 2;

plist_t app_dict(const DeviceImage& image, const AppInfo& app, plist_t wanted_attributes) {
  plist_t dict = plist_new_dict();
  auto put = [&](const char* key, plist_t value) {
    bool wanted = wanted_attributes == nullptr || plist_array_get_size(wanted_attributes) == 0;
    for (uint32_t i = 0; !wanted && i < plist_array_get_size(wanted_attributes); ++i) {
      plist_t item = plist_array_get_item(wanted_attributes, i);
      wanted = plist_get_node_type(item) == PLIST_STRING && plist_string_val_compare(item, key) == 0;
    }
    if (wanted) {
      plist_dict_set_item(dict, key, value);
    } else {
      plist_free(value);
    }
  };
  std::string container = "/private/var/mobile/Containers/Data/Application/" + app.bundle_id;
  put("CFBundleIdentifier", plist_new_string(app.bundle_id.c_str()));
  put("CFBundleDisplayName", plist_new_string(app.display_name.c_str()));
  put("CFBundleName", plist_new_string(app.display_name.c_str()));
  put("CFBundleExecutable", plist_new_string(app.display_name.c_str()));
  put("CFBundleVersion", plist_new_string("1.0"));
  put("CFBundleShortVersionString", plist_new_string("1.0"));
  put("ApplicationType", plist_new_string("User"));
  put("UIFileSharingEnabled", plist_new_bool(app.file_sharing ? 1 : 0));
  put("Container", plist_new_string(container.c_str()));
  put("Path", plist_new_string(("/private/var/containers/Bundle/Application/" + app.bundle_id + "/" +
                                app.display_name + ".app")
                                   .c_str()));
  (void)image;
  return dict;
}

// "User" and "Any" list every app of the image (all are user apps).
bool type_matches(plist_t options) {
  std::string type = options ? plist_string(options, "ApplicationType") : "";
  return type.empty() || type == "User" || type == "Any";
}

bool send_status(Connection& conn, plist_t message) {
  delay_reply(conn);
  bool sent = send_plist_message(conn, message);
  plist_free(message);
  return sent;
}

bool browse(Connection& conn, plist_t request) {
  const DeviceImage& image = conn.device->image;
  plist_t options = plist_dict_get_item(request, "ClientOptions");
  if (options && plist_get_node_type(options) != PLIST_DICT) options = nullptr;
  plist_t wanted = options ? plist_dict_get_item(options, "ReturnAttributes") : nullptr;
  if (wanted && plist_get_node_type(wanted) != PLIST_ARRAY) wanted = nullptr;

  std::vector<const AppInfo*> apps;
  if (type_matches(options)) {
    for (const AppInfo& app : image.apps) apps.push_back(&app);
  }
  for (size_t start = 0; start < apps.size(); start += kAppsPerPart) {
    size_t count = std::min(kAppsPerPart, apps.size() - start);
    plist_t list = plist_new_array();
    for (size_t i = start; i < start + count; ++i) plist_array_append_item(list, app_dict(image, *apps[i], wanted));
    plist_t part = plist_new_dict();
    plist_dict_set_item(part, "Status", plist_new_string("BrowsingApplications"));
    plist_dict_set_item(part, "CurrentList", list);
    plist_dict_set_item(part, "CurrentIndex", plist_new_uint(start));
    plist_dict_set_item(part, "CurrentAmount", plist_new_uint(count));
    plist_dict_set_item(part, "Total", plist_new_uint(apps.size()));
    plist_dict_set_item(part, "PercentComplete", plist_new_uint((start + count) * 100 / apps.size()));
    if (!send_status(conn, part)) return false;
  }
  plist_t done = plist_new_dict();
  plist_dict_set_item(done, "Status", plist_new_string("Complete"));
  return send_status(conn, done);
}

bool lookup(Connection& conn, plist_t request) {
  const DeviceImage& image = conn.device->image;
  plist_t options = plist_dict_get_item(request, "ClientOptions");
  if (options && plist_get_node_type(options) != PLIST_DICT) options = nullptr;
  plist_t wanted = options ? plist_dict_get_item(options, "ReturnAttributes") : nullptr;
  if (wanted && plist_get_node_type(wanted) != PLIST_ARRAY) wanted = nullptr;
  plist_t ids = options ? plist_dict_get_item(options, "BundleIDs") : nullptr;
  if (ids && plist_get_node_type(ids) != PLIST_ARRAY) ids = nullptr;

  plist_t result = plist_new_dict();
  for (const AppInfo& app : image.apps) {
    bool selected = ids == nullptr;
    for (uint32_t i = 0; !selected && i < plist_array_get_size(ids); ++i) {
      plist_t item = plist_array_get_item(ids, i);
      selected = plist_get_node_type(item) == PLIST_STRING && plist_string_val_compare(item, app.bundle_id.c_str()) == 0;
    }
    if (selected && type_matches(options)) {
      plist_dict_set_item(result, app.bundle_id.c_str(), app_dict(image, app, wanted));
    }
  }
  plist_t reply = plist_new_dict();
  plist_dict_set_item(reply, "LookupResult", result);
  plist_dict_set_item(reply, "Status", plist_new_string("Complete"));
  return send_status(conn, reply);
}

}  // namespace

void serve_installation_proxy(Connection& conn) {
  unsigned long long id = conn.id;
  for (;;) {
    plist_t request = next_plist_request(conn, "installation_proxy");
    if (request == nullptr) return;
    std::string command = plist_string(request, "Command");
    if (conn.server.verbose) log_line("[%llu] installation_proxy: %s", id, command.c_str());
    bool ok;
    if (command == "Browse") {
      ok = browse(conn, request);
    } else if (command == "Lookup") {
      ok = lookup(conn, request);
    } else {
      log_line("[%llu] installation_proxy: unknown command \"%s\", closing", id, command.c_str());
      ok = false;
    }
    plist_free(request);
    if (!ok) return;
  }
}

}  // namespace devsim

// house_arrest: vends an app's container; the connection then speaks AFC
// rooted at that container.
#include "devsim/server.h"

#include <sys/stat.h>

namespace devsim {

void serve_house_arrest(Connection& conn) {
  unsigned long long id = conn.id;
  const DeviceImage& image = conn.device->image;
  for (;;) {
    plist_t request = next_plist_request(conn, "house_arrest");
    if (request == nullptr) return;
    std::string command = plist_string(request, "Command");
    std::string bundle_id = plist_string(request, "Identifier");
    plist_free(request);
    if (conn.server.verbose) log_line("[%llu] house_arrest: %s %s", id, command.c_str(), bundle_id.c_str());
    if (command != "VendDocuments" && command != "VendContainer") {
      log_line("[%llu] house_arrest: unknown command \"%s\", closing", id, command.c_str());
      return;
    }
    const AppInfo* app = nullptr;
    for (const AppInfo& candidate : image.apps) {
      if (candidate.bundle_id == bundle_id) app = &candidate;
    }
    plist_t reply = plist_new_dict();
    // A phone gives the same answer for an unknown app and for one that does
    // not share its documents.
    if (bundle_id.empty()) {
      plist_dict_set_item(reply, "Error", plist_new_string("MissingIdentifier"));
      app = nullptr;
    } else if (app == nullptr || (command == "VendDocuments" && !app->file_sharing)) {
      plist_dict_set_item(reply, "Error", plist_new_string("InstallationLookupFailed"));
      app = nullptr;
    } else {
      plist_dict_set_item(reply, "Status", plist_new_string("Complete"));
    }
    delay_reply(conn);
    bool sent = send_plist_message(conn, reply);
    plist_free(reply);
    if (!sent) return;
    if (app != nullptr) {
      std::string container = image.dir + "/apps/" + app->bundle_id;
      mkdir((image.dir + "/apps").c_str(), 0755);
      mkdir(container.c_str(), 0755);
      mkdir((container + "/Documents").c_str(), 0755);
      serve_afc(conn, container);
      return;
    }
  }
}

}  // namespace devsim

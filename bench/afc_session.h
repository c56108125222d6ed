// The bare libimobiledevice connection the raw benchmark clients share:
// device, lockdown handshake and an AFC client on the media folder, released
// in order on every way out. The raw clients deliberately use none of
// Quorvel's device layer.
#pragma once

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <cstdio>
#include <string>

struct AfcSession {
    explicit AfcSession(const char *program) : program(program) {}
    AfcSession(const AfcSession &) = delete;
    AfcSession &operator=(const AfcSession &) = delete;
    ~AfcSession() {
        if (afc != nullptr) afc_client_free(afc);
        releaseLockdown();
        if (device != nullptr) idevice_free(device);
    }

    // A service's descriptor, or false (said on standard error).
    bool startService(const char *name, lockdownd_service_descriptor_t *service) {
        lockdownd_error_t started = lockdownd_start_service(lockdown, name, service);
        if (started != LOCKDOWN_E_SUCCESS || *service == nullptr) {
            std::fprintf(stderr, "%s: could not start %s (error %d)\n", program, name, started);
            if (*service != nullptr) lockdownd_service_descriptor_free(*service);
            *service = nullptr;
            return false;
        }
        return true;
    }

    // The lockdown connection is not needed once the services are up; a
    // phone limits how many connections a host may hold.
    void releaseLockdown() {
        if (lockdown != nullptr) lockdownd_client_free(lockdown);
        lockdown = nullptr;
    }

    // Device, handshake and the media AFC client; lockdown stays open when
    // the caller starts more services (it releases it then).
    bool connect(const std::string &udid, bool keepLockdown = false) {
        idevice_error_t found = idevice_new_with_options(&device, udid.c_str(), IDEVICE_LOOKUP_USBMUX);
        if (found != IDEVICE_E_SUCCESS) {
            std::fprintf(stderr, "%s: no device %s (idevice error %d)\n", program, udid.c_str(), found);
            return false;
        }
        lockdownd_error_t handshake = lockdownd_client_new_with_handshake(device, &lockdown, program);
        if (handshake != LOCKDOWN_E_SUCCESS) {
            std::fprintf(stderr, "%s: lockdown handshake failed (error %d)\n", program, handshake);
            return false;
        }
        lockdownd_service_descriptor_t service = nullptr;
        if (!startService("com.apple.afc", &service)) return false;
        afc_error_t opened = afc_client_new(device, service, &afc);
        lockdownd_service_descriptor_free(service);
        if (opened != AFC_E_SUCCESS) {
            std::fprintf(stderr, "%s: could not open an AFC client (error %d)\n", program, opened);
            afc = nullptr;
            return false;
        }
        if (!keepLockdown) releaseLockdown();
        return true;
    }

    const char *program;
    idevice_t device = nullptr;
    lockdownd_client_t lockdown = nullptr;
    afc_client_t afc = nullptr;
};

// The mapping from libimobiledevice results to our codes, and its page in
// docs/device-errors.md. The live rows (lost connection, no space, ...) are
// produced through the simulated device in device_devsim_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "device/device_internal.h"

namespace {

const char *sourceName(NativeSource source) {
    switch (source) {
    case NativeSource::Usbmuxd: return "usbmuxd";
    case NativeSource::Idevice: return "idevice";
    case NativeSource::Lockdown: return "lockdown";
    case NativeSource::Afc: return "afc";
    case NativeSource::Instproxy: return "instproxy";
    case NativeSource::HouseArrest: return "house_arrest";
    }
    return "?";
}

TEST(DeviceErrors, ResultsTheFileSystemActsOnWhicheverSourceReportsThem) {
    // The same number means different things per source (-3 is "no device"
    // for idevice but a plist error for lockdown; 8 is only AFC's): the
    // source decides.
    const struct {
        NativeSource source;
        int native;
        int code;
    } rows[] = {
        {NativeSource::Afc, AFC_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        // A reply cut short or framed wrong leaves the stream out of step: as lost.
        {NativeSource::Afc, AFC_E_NOT_ENOUGH_DATA, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Afc, AFC_E_OP_HEADER_INVALID, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Lockdown, LOCKDOWN_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Instproxy, INSTPROXY_E_CONN_FAILED, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::HouseArrest, HOUSE_ARREST_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Afc, AFC_E_NO_SPACE_LEFT, LIBIUSB_ERROR_NO_SPACE},
        {NativeSource::Afc, AFC_E_OBJECT_NOT_FOUND, LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND},
        {NativeSource::Afc, AFC_E_DIR_NOT_EMPTY, LIBIUSB_ERROR_DIR_NOT_EMPTY},
        {NativeSource::Idevice, IDEVICE_E_NO_DEVICE, LIBIUSB_ERROR_NO_DEVICE},
        {NativeSource::Lockdown, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING, LIBIUSB_ERROR_TRUST_PENDING},
        {NativeSource::Lockdown, LOCKDOWN_E_PASSWORD_PROTECTED, LIBIUSB_ERROR_PASSWORD_PROTECTED},
        {NativeSource::Idevice, -3, LIBIUSB_ERROR_NO_DEVICE},
        {NativeSource::Afc, 8, LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND},
    };
    for (const auto &row : rows)
        EXPECT_EQ(mapNativeError(row.source, row.native), row.code) << sourceName(row.source) << " " << row.native;
    EXPECT_NE(mapNativeError(NativeSource::Lockdown, -3), LIBIUSB_ERROR_NO_DEVICE);
    EXPECT_NE(mapNativeError(NativeSource::Instproxy, 8), LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND);
}

TEST(DeviceErrors, SuccessUnknownAndUnreachable) {
    for (NativeSource source : {NativeSource::Usbmuxd, NativeSource::Idevice, NativeSource::Lockdown,
                                NativeSource::Afc, NativeSource::Instproxy, NativeSource::HouseArrest}) {
        EXPECT_EQ(mapNativeError(source, 0), LIBIUSB_SUCCESS) << sourceName(source);
    }
    EXPECT_EQ(mapNativeError(NativeSource::Afc, 12345), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(mapNativeError(NativeSource::Lockdown, LOCKDOWN_E_MC_CHALLENGE_REQUIRED), LIBIUSB_ERROR_OTHER);
    // Whatever errno connecting to the daemon gave.
    EXPECT_EQ(mapNativeError(NativeSource::Usbmuxd, -EACCES), LIBIUSB_ERROR_USBMUXD_UNREACHABLE);
    EXPECT_EQ(mapHouseArrestReply("InstallationLookupFailed"), LIBIUSB_ERROR_APP_NOT_FOUND);
    EXPECT_EQ(mapHouseArrestReply("SomethingElse"), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(mapHouseArrestReply(nullptr), LIBIUSB_ERROR_OTHER);
}

TEST(DeviceErrors, TableHasNoDuplicateOrContradictoryRows) {
    std::set<std::pair<int, int>> seen;
    for (const NativeErrorRow &row : nativeErrorTable()) {
        EXPECT_NE(row.native, 0) << row.native_name;
        EXPECT_LT(row.code, 0) << row.native_name;
        EXPECT_TRUE(seen.insert({static_cast<int>(row.source), row.native}).second)
            << "two rows for " << sourceName(row.source) << " " << row.native_name;
        EXPECT_STRNE(libiusb_error_name(row.code), libiusb_error_name(12345)) << "code " << row.code << " has no name";
    }
}

TEST(DeviceErrors, DocumentationListsEveryRowWithItsCode) {
    std::ifstream page(std::string(QUORVEL_SOURCE_DIR) + "/docs/device-errors.md");
    ASSERT_TRUE(page.good()) << "docs/device-errors.md is missing";
    std::stringstream text;
    text << page.rdbuf();
    std::string contents = text.str();

    // "| afc | `AFC_E_NO_SPACE_LEFT` | -62 | ..."
    std::regex row("\\| (\\w+) \\| `([-A-Z_0-9]+)` \\| (-?\\d+) \\|");
    std::set<std::tuple<std::string, std::string, int>> documented;
    for (auto it = std::sregex_iterator(contents.begin(), contents.end(), row); it != std::sregex_iterator(); ++it) {
        documented.insert({(*it)[1].str(), (*it)[2].str(), std::stoi((*it)[3].str())});
    }
    std::set<std::tuple<std::string, std::string, int>> coded;
    for (const NativeErrorRow &entry : nativeErrorTable()) {
        coded.insert({sourceName(entry.source), entry.native_name, entry.code});
    }
    for (const auto &entry : coded) {
        EXPECT_TRUE(documented.count(entry)) << "not documented: " << std::get<0>(entry) << " "
                                             << std::get<1>(entry) << " -> " << std::get<2>(entry);
    }
    for (const auto &entry : documented) {
        EXPECT_TRUE(coded.count(entry)) << "documented but not in the table: " << std::get<0>(entry) << " "
                                        << std::get<1>(entry) << " -> " << std::get<2>(entry);
    }
}

} // namespace

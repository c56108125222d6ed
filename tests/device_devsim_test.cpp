// The device layer and `quorvel list` against one simulated device server
// holding three devices: device list and information, AFC file data at
// explicit offsets, folders, apps and house-arrest, the error table's rows as a
// device produces them, drops, trust prompts and unplugging, and no server.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device/device_internal.h"
#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

namespace {
// One opened device with its media AFC connection, closed in reverse order.
struct OpenDevice {
    libiusb_context *context = nullptr;
    libiusb_device_handle *handle = nullptr;
    libiusb_afc *afc = nullptr;

    int open(uint32_t location_id) {
        int result = libiusb_context_init(&context);
        if (result != 0) return result;
        libiusb_device *device = nullptr;
        result = libiusb_device_find(context, location_id, &device);
        if (result != 0) return result;
        result = libiusb_device_open(device, &handle);
        if (result != 0) return result;
        return libiusb_afc_init(handle, &afc);
    }
    ~OpenDevice() {
        if (afc != nullptr) libiusb_afc_exit(afc);
        if (handle != nullptr) libiusb_device_close(handle);
        if (context != nullptr) libiusb_context_exit(context);
    }
};

std::string readWhole(libiusb_afc *afc, const char *path) {
    uint64_t file = 0;
    if (libiusb_afc_file_open(afc, path, LIBIUSB_AFC_RDONLY, &file) != 0) return "<open failed>";
    std::string contents;
    char buffer[4096];
    for (uint64_t offset = 0;;) {
        uint32_t got = 0;
        if (libiusb_afc_file_read(afc, file, buffer, sizeof buffer, offset, &got) != 0) return "<read failed>";
        if (got == 0) break;
        contents.append(buffer, got);
        offset += got;
    }
    libiusb_afc_file_close(afc, file);
    return contents;
}

// The names in a folder, or "error N".
std::vector<std::string> listFolder(libiusb_afc *afc, const char *path) {
    char **list = nullptr;
    int result = libiusb_afc_file_read_directory(afc, path, &list, nullptr);
    if (result != 0) return {"error " + std::to_string(result)};
    std::vector<std::string> names;
    for (char **entry = list; *entry != nullptr; entry++) names.push_back(*entry);
    libiusb_misc_free_strings_array(list);
    return names;
}

using Names = std::vector<std::string>;
struct Ran {
    int status = -1;
    std::string out, err;
};

// Runs `quorvel ARGS...` with the current environment (which the devsim
// fixture has pointed at its socket); standard error is kept apart in a file.
Ran runQuorvel(const std::vector<std::string> &args) {
    Ran ran;
    const std::string folder = makeTempDir("quorvel-list-");
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", folder + "/err", quorvelProgram()};
    argv.insert(argv.end(), args.begin(), args.end());
    ran.out = runProgram(argv, &ran.status);
    ran.err = readLocal(folder + "/err");
    removeTree(folder);
    return ran;
}

// Column position in characters, so a name with accents does not shift it.
size_t charColumn(const std::string &line, const std::string &needle) {
    size_t at = line.find(needle);
    if (at == std::string::npos) return std::string::npos;
    size_t column = 0;
    for (size_t i = 0; i < at; i++) {
        if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) column++;
    }
    return column;
}

// One server, three devices: the first is only listed; the second's files,
// folders and apps are worked, from threads at once too; the third answers
// with errors, drops its connections, asks for trust and is unplugged. Then
// none is left, and then no server answers.
TEST(DeviceLayer, ThreeDevicesListedWorkedAndFailedThroughTheLibraryAndQuorvelList) {
    if (devsim_program().empty() || quorvelProgram().empty()) GTEST_SKIP() << "devsim or quorvel was not built";
    DevsimImage first;
    first.name = "First Phone";
    first.location_id = 7;
    first.ios_version = "12.4.1";
    DevsimImage second;
    second.name = "Zweites iPad \xc3\xa4";  // not ASCII on purpose
    second.location_id = 4242;
    second.ios_version = "16.7.2";
    second.product_type = "iPad7,5";
    second.capacity_bytes = 64ull << 30;
    second.block_size = 8192;
    second.files = {{"media/general_storage/a.bin", std::string(10000, 'a')},
                    {"media/general_storage/hello.txt", "hello, device"},
                    {"media/DCIM/b.jpg", std::string(2345, 'b')},
                    {"apps/com.example.notes/Documents/todo.txt", "milk"},
                    {"apps/com.example.docs/Documents/report.txt", "quarterly"}};
    second.folders = {"media/general_storage/empty"};
    second.apps = {{"com.example.notes", "Notes", true},
                   {"com.example.game", "Game", false},
                   {"com.example.docs", "Docs \xe2\x80\x94 Pro", true}};
    const int kEntries = 300;
    for (int i = 0; i < kEntries; ++i) {
        std::string name = "e" + std::to_string(i);
        second.files.push_back({"media/general_storage/many/" + name, std::string(static_cast<size_t>(i), 'm')});
        second.files.push_back(
            {"apps/com.example.docs/Documents/" + name, std::string(static_cast<size_t>(i * 2), 'a')});
    }
    DevsimImage third;
    third.location_id = 77;
    third.capacity_bytes = 1000000;
    third.files = {{"media/general_storage/full/inside.txt", "x"},
                   {"media/general_storage/readme.txt", std::string(300000, 'r')}};
    third.apps = {{"com.example.notes", "Notes", true}};
    const std::vector<DevsimImage> images = {first, second, third};
    Devsim sim;
    if (!sim.start(images)) GTEST_SKIP() << "devsim did not start: " << sim.error();
    OpenDevice device;
    ASSERT_EQ(device.open(4242), 0);

    libiusb_device **list = nullptr;
    ASSERT_EQ(libiusb_device_get_list(device.context, &list), 0);
    size_t count = 0;
    while (list[count] != nullptr) count++;
    EXPECT_EQ(count, images.size());
    // Listed entries carry the cheap figures, and `quorvel list` shows them as
    // a table aligned in characters, not bytes.
    Ran ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 0) << ran.err;
    std::vector<std::string> shown;
    std::istringstream out(ran.out);
    for (std::string line; std::getline(out, line);) shown.push_back(line);
    ASSERT_EQ(shown.size(), images.size() + 1) << ran.out;
    EXPECT_EQ(shown[0].find("LOCATION ID"), 0u) << shown[0];
    for (size_t n = 0; n < images.size(); n++) {
        SCOPED_TRACE(images[n].name);
        libiusb_device_info info{};
        for (size_t i = 0; i < count && info.location_id != images[n].location_id; i++)
            ASSERT_EQ(libiusb_device_get_info(list[i], &info), 0);
        ASSERT_EQ(info.location_id, images[n].location_id) << "not listed";
        EXPECT_STREQ(info.udid, sim.udid(n).c_str());
        EXPECT_STREQ(info.device_name, images[n].name.c_str());
        EXPECT_STREQ(info.ios_version, images[n].ios_version.c_str());
        auto row = std::find_if(shown.begin() + 1, shown.end(), [&](const std::string &line) {
            return line.find(sim.udid(n)) != std::string::npos;
        });
        ASSERT_NE(row, shown.end()) << ran.out;
        const std::string id = std::to_string(images[n].location_id) + " ";
        EXPECT_EQ(row->compare(0, id.size(), id), 0) << *row;
        EXPECT_NE(row->find(images[n].name), std::string::npos) << *row;
        EXPECT_EQ(charColumn(*row, sim.udid(n)), charColumn(shown[0], "UDID")) << *row;
        EXPECT_EQ(charColumn(*row, images[n].ios_version), charColumn(shown[0], "iOS")) << *row;
    }

    libiusb_device *chosen = nullptr;
    ASSERT_EQ(libiusb_device_find(device.context, 4242, &chosen), 0);
    libiusb_device *by_udid = nullptr;
    ASSERT_EQ(libiusb_device_find_by_udid(device.context, sim.udid(1).c_str(), &by_udid), 0);
    EXPECT_EQ(chosen, by_udid);
    libiusb_device *absent = nullptr;
    EXPECT_EQ(libiusb_device_find(device.context, 99, &absent), LIBIUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libiusb_device_find_by_udid(device.context, "0000", &absent), LIBIUSB_ERROR_NO_DEVICE);

    // The fields the file system reads at fixed offsets (libiusb.h pins them).
    libiusb_device_info block;
    memset(&block, 0xAB, sizeof block);
    ASSERT_EQ(libiusb_device_get_info(device.handle, &block), 0);
    EXPECT_EQ(block.location_id, 4242u);
    EXPECT_EQ(block.block_size, 8192u);
    EXPECT_EQ(block.total_capacity, 64ull << 30);
    // Free: less every stored byte, the apps' included.
    EXPECT_EQ(block.free_capacity,
              (64ull << 30) - 10000 - 13 - 2345 - 4 - 9 - 3 * (kEntries * (kEntries - 1) / 2));
    EXPECT_STREQ(block.ios_version, "16.7.2");
    EXPECT_STREQ(block.device_name, "Zweites iPad \xc3\xa4");
    EXPECT_STREQ(block.product_type, "iPad7,5");
    EXPECT_STREQ(block.udid, sim.udid(1).c_str());
    EXPECT_EQ(block.reserved0[0], 0) << "the block must be cleared, not left as the caller passed it";

    // Its files: offsets on a new file and an old one, skipping
    // the seeks a handle's own position makes needless; then two handles of
    // one file at random against a local model; then folders, names and
    // times; then a hostile device's sizes.
    auto onImage = [&](const std::string &device_path) { return sim.image_dir(1) + "/media" + device_path; };
    auto seeks = [&] { return device.afc->seeks_sent; };
    libiusb_afc *afc = device.afc;
    uint64_t file = 0;
    ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/data.bin", LIBIUSB_AFC_WR, &file), 0);
    ASSERT_NE(file, 0u);
    uint32_t done = 0;

    uint64_t before = seeks();
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "0123456789", 10, 0, &done), 0);  // a new handle is at 0
    EXPECT_EQ(done, 10u);
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "abcdef", 6, 10, &done), 0);  // sequential: no seek
    EXPECT_EQ(seeks(), before);

    char buffer[64] = {0};
    ASSERT_EQ(libiusb_afc_file_read(afc, file, buffer, 4, 3, &done), 0);  // back to 3: seek
    EXPECT_EQ(std::string(buffer, done), "3456");
    EXPECT_EQ(seeks(), before + 1);
    ASSERT_EQ(libiusb_afc_file_read(afc, file, buffer, 5, 7, &done), 0);  // continues at 7: no seek
    EXPECT_EQ(std::string(buffer, done), "789ab");
    EXPECT_EQ(seeks(), before + 1);
    // Overwrite in the middle right where the read stopped, then check by reading.
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "XY", 2, 12, &done), 0);
    EXPECT_EQ(seeks(), before + 1);
    // A short read at the end leaves the handle at the end, not at offset + asked.
    ASSERT_EQ(libiusb_afc_file_read(afc, file, buffer, 50, 14, &done), 0);
    EXPECT_EQ(std::string(buffer, done), "ef");
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "!", 1, 16, &done), 0);
    EXPECT_EQ(seeks(), before + 1);
    // Past the end: a read there reports 0 bytes.
    ASSERT_EQ(libiusb_afc_file_read(afc, file, buffer, 8, 100, &done), 0);
    EXPECT_EQ(done, 0u);
    ASSERT_EQ(libiusb_afc_file_close(afc, file), 0);

    EXPECT_EQ(readLocal(onImage("/general_storage/data.bin")), "0123456789abXYef!");
    EXPECT_EQ(readWhole(afc, "/general_storage/data.bin"), "0123456789abXYef!");

    // An existing file opened for reading and writing keeps its data at its offsets.
    ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/hello.txt", LIBIUSB_AFC_RW, &file), 0);
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "J", 1, 0, &done), 0);
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "D", 1, 7, &done), 0);
    ASSERT_EQ(libiusb_afc_file_truncate(afc, file, 12), 0);
    // ftruncate does not move the file pointer: 8 is still where the next write lands.
    ASSERT_EQ(libiusb_afc_file_write(afc, file, "E", 1, 8, &done), 0);
    libiusb_afc_file_close(afc, file);
    EXPECT_EQ(readLocal(onImage("/general_storage/hello.txt")), "Jello, DEvic");
    ASSERT_EQ(libiusb_afc_truncate(afc, "/general_storage/hello.txt", 5), 0);
    EXPECT_EQ(readWhole(afc, "/general_storage/hello.txt"), "Jello");

    // Two handles of one file at random: a wrongly skipped seek shows up as
    // wrong bytes.
    uint64_t writer = 0, reader = 0;
    ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/model.bin", LIBIUSB_AFC_WR, &writer), 0);
    ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/model.bin", LIBIUSB_AFC_RDONLY, &reader), 0);
    std::string model;
    std::mt19937 random(20240611);
    uint64_t skipped = 0;
    uint64_t writer_at = 0, reader_at = 0;  // where each handle's last transfer ended
    for (int step = 0; step < 300; step++) {
        bool write = model.empty() || random() % 2 == 0;
        uint64_t offset = model.empty() ? 0 : random() % (model.size() + 1);
        // Half the time continue where this handle stopped: the path that skips the seek.
        if (random() % 2 == 0) offset = write ? writer_at : reader_at;
        uint32_t length = 1 + random() % 700;
        uint64_t seeks_before = seeks();
        if (write) {
            std::string chunk;
            for (uint32_t i = 0; i < length; i++) chunk.push_back(static_cast<char>('A' + random() % 26));
            ASSERT_EQ(libiusb_afc_file_write(afc, writer, chunk.data(), length, offset, &done), 0) << step;
            ASSERT_EQ(done, length);
            if (model.size() < offset + length) model.resize(offset + length, '\0');
            model.replace(offset, length, chunk);
            writer_at = offset + length;
        } else {
            std::vector<char> buffer(length);
            ASSERT_EQ(libiusb_afc_file_read(afc, reader, buffer.data(), length, offset, &done), 0) << step;
            uint64_t expected = offset >= model.size() ? 0 : std::min<uint64_t>(length, model.size() - offset);
            ASSERT_EQ(done, expected) << step;
            ASSERT_EQ(std::string(buffer.data(), done), model.substr(offset, done)) << "step " << step;
            reader_at = offset + done;
        }
        if (seeks() == seeks_before) skipped++;
    }
    EXPECT_GT(skipped, 20u) << "the sequential path never skipped its seek";
    libiusb_afc_file_close(afc, reader);
    libiusb_afc_file_close(afc, writer);
    EXPECT_EQ(readLocal(onImage("/general_storage/model.bin")), model);

    // New files were written above: these two are put in the new folder from outside.
    ASSERT_EQ(libiusb_afc_make_directory(afc, "/general_storage/sub"), 0);
    ASSERT_TRUE(writeLocal(onImage("/general_storage/sub/one.txt"), "1"));
    ASSERT_EQ(symlink("../hello.txt", onImage("/general_storage/sub/link").c_str()), 0);

    uint32_t entries = 0;
    ASSERT_EQ(libiusb_afc_file_read_directory(afc, "/general_storage/sub", nullptr, &entries), 0);
    EXPECT_EQ(entries, 4u);  // ".", "..", one.txt, link
    char **names = nullptr;
    entries = 0;
    ASSERT_EQ(libiusb_afc_file_read_directory(afc, "/general_storage/sub", &names, &entries), 0);
    EXPECT_EQ(entries, 4u);
    ASSERT_NE(names, nullptr);
    EXPECT_EQ(names[entries], nullptr);
    libiusb_misc_free_strings_array(names);
    EXPECT_EQ(listFolder(afc, "/general_storage/empty"), (Names{".", ".."}));

    libiusb_file_info info;
    ASSERT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/sub", &info), 0);
    EXPECT_EQ(info.file_type, LIBIUSB_FILE_TYPE_FOLDER);
    ASSERT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/sub/one.txt", &info), 0);
    EXPECT_EQ(info.file_type, LIBIUSB_FILE_TYPE_REGULAR);
    EXPECT_EQ(info.size, 1u);
    EXPECT_GT(info.birth_time, 1000000000ll * 1000000000ll);  // after 2001, in ns
    ASSERT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/sub/link", &info), 0);
    EXPECT_EQ(info.file_type, LIBIUSB_FILE_TYPE_LINK);

    const int64_t when = 1500000000999999999ll;
    ASSERT_EQ(libiusb_afc_set_modify_time(afc, "/general_storage/sub/one.txt", when), 0);
    ASSERT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/sub/one.txt", &info), 0);
    EXPECT_EQ(info.modify_time / 1000000000, 1500000000);

    ASSERT_EQ(libiusb_afc_rename(afc, "/general_storage/sub/one.txt", "/general_storage/two.txt"), 0);
    EXPECT_EQ(readWhole(afc, "/general_storage/two.txt"), "1");
    ASSERT_EQ(libiusb_afc_file_remove(afc, "/general_storage/sub/link"), 0);
    ASSERT_EQ(libiusb_afc_file_remove(afc, "/general_storage/sub"), 0);
    ASSERT_EQ(libiusb_afc_file_remove(afc, "/general_storage/two.txt"), 0);
    EXPECT_EQ(listFolder(afc, "/general_storage"),
              (Names{".", "..", "a.bin", "data.bin", "empty", "hello.txt", "many", "model.bin"}));

    // A hostile device: reads give the bytes it sent whatever its size said
    // (through the mount the kernel stops at that size, so only here is it
    // seen). Its sizes no file can have ("-1", "9223372036854775808") are
    // FileInfoPairs rows, and hostile_e2e_test reads them through the mount.
    ASSERT_EQ(sim.control("hostile " + sim.udid(1) + " sizes"), "ok");
    ASSERT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/Hostile/sizes/fewer.bin", &info), 0);
    EXPECT_EQ(info.size, 10u);
    EXPECT_EQ(readWhole(afc, "/general_storage/Hostile/sizes/fewer.bin").size(), 5000u);

    // The apps listed, their Documents through house-arrest, and then separate
    // connections (media ones and one into an app), each asked from its own
    // thread for the information of every entry: the answers must be each
    // entry's own, whatever the others are doing at the same time.
    libiusb_instproxy *instproxy = nullptr;
    ASSERT_EQ(libiusb_instproxy_init(device.handle, &instproxy), 0);
    libiusb_app_node *apps = nullptr;
    ASSERT_EQ(libiusb_instproxy_getAppId(instproxy, &apps), 0);
    std::vector<std::pair<std::string, std::string>> seen;
    for (libiusb_app_node *node = apps; node != nullptr; node = node->next) {
        seen.push_back({node->display_name, node->bundle_id});
    }
    libiusb_free_app_list(apps);
    libiusb_instproxy_exit(instproxy);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, std::string>>{
                        {"Notes", "com.example.notes"}, {"Docs \xe2\x80\x94 Pro", "com.example.docs"}}));

    libiusb_afc *sandbox = nullptr;
    ASSERT_EQ(libiusb_housearrest_init(device.handle, &sandbox), 0);
    EXPECT_EQ(libiusb_afc_file_get_info(sandbox, "/Documents", &info), LIBIUSB_ERROR_INVALID_PARAM)
        << "no app opened yet";
    ASSERT_EQ(libiusb_housearrest_openapp(sandbox, "com.example.notes"), 0);
    EXPECT_EQ(listFolder(sandbox, "/Documents"), (Names{".", "..", "todo.txt"}));
    EXPECT_EQ(readWhole(sandbox, "/Documents/todo.txt"), "milk");
    // Writes land in that app's Documents, not on the media file system.
    ASSERT_EQ(libiusb_afc_file_open(sandbox, "/Documents/new.txt", LIBIUSB_AFC_WR, &file), 0);
    ASSERT_EQ(libiusb_afc_file_write(sandbox, file, "fresh", 5, 0, &done), 0);
    libiusb_afc_file_close(sandbox, file);
    EXPECT_EQ(readLocal(sim.image_dir(1) + "/apps/com.example.notes/Documents/new.txt"), "fresh");

    // The same handle opened for another app serves that app's container.
    ASSERT_EQ(libiusb_housearrest_openapp(sandbox, "com.example.docs"), 0);
    EXPECT_EQ(readWhole(sandbox, "/Documents/report.txt"), "quarterly");
    EXPECT_EQ(libiusb_housearrest_exit(sandbox), 0);

    // An information stream into an app's documents; an app the device does
    // not know, for a stream and for a house-arrest connection.
    libiusb_afc_info_stream *appStream = nullptr;
    ASSERT_EQ(libiusb_afc_info_stream_open_app(device.handle, "com.example.notes", &appStream), 0);
    EXPECT_EQ(libiusb_afc_info_stream_ask(appStream, "/Documents", "todo.txt"), 0);
    EXPECT_EQ(libiusb_afc_info_stream_answer(appStream, &info), 0);
    EXPECT_EQ(info.size, 4u);
    libiusb_afc_info_stream_close(appStream);
    EXPECT_EQ(libiusb_afc_info_stream_open_app(device.handle, "com.example.absent", &appStream),
              LIBIUSB_ERROR_APP_NOT_FOUND);
    ASSERT_EQ(libiusb_housearrest_init(device.handle, &sandbox), 0);
    EXPECT_EQ(libiusb_housearrest_openapp(sandbox, "com.example.absent"), LIBIUSB_ERROR_APP_NOT_FOUND);
    EXPECT_EQ(libiusb_afc_file_get_info(sandbox, "/Documents", &info), LIBIUSB_ERROR_INVALID_PARAM);

    std::vector<libiusb_afc *> connections = {device.afc};
    for (int i = 0; i < 3; ++i) {
        libiusb_afc *extra = nullptr;
        ASSERT_EQ(libiusb_afc_init(device.handle, &extra), 0);
        connections.push_back(extra);
    }
    // A handle that was refused an app still opens another.
    ASSERT_EQ(libiusb_housearrest_openapp(sandbox, "com.example.docs"), 0);
    connections.push_back(sandbox);

    std::vector<int> wrong(connections.size(), 0);
    std::vector<std::thread> threads;
    for (size_t c = 0; c < connections.size(); ++c) {
        threads.emplace_back([&, c] {
            bool inApp = connections[c] == sandbox;
            for (int round = 0; round < 3; ++round) {
                for (int n = 0; n < kEntries; ++n) {
                    int i = (n * 7 + static_cast<int>(c) * 31) % kEntries;  // each in its own order
                    std::string path = (inApp ? "/Documents/e" : "/general_storage/many/e") + std::to_string(i);
                    libiusb_file_info info;
                    int result = libiusb_afc_file_get_info(connections[c], path.c_str(), &info);
                    uint64_t size = static_cast<uint64_t>(inApp ? i * 2 : i);
                    if (result != 0 || info.file_type != LIBIUSB_FILE_TYPE_REGULAR || info.size != size) wrong[c]++;
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    for (size_t c = 0; c < connections.size(); ++c) EXPECT_EQ(wrong[c], 0) << "connection " << c;

    EXPECT_EQ(libiusb_housearrest_exit(sandbox), 0);
    for (size_t c = 1; c < 4; ++c) EXPECT_EQ(libiusb_afc_exit(connections[c]), 0);

    // The third: errors it answers map row by row and the connection survives
    // them; a dropped connection fails the request in flight and the next
    // opens it again.
    const std::string udid = sim.udid(2);
    {
        OpenDevice phone;
        ASSERT_EQ(phone.open(77), 0);
        libiusb_afc *afc = phone.afc;
        file = 0;
        EXPECT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/nope", &info), -70);
        EXPECT_EQ(libiusb_afc_file_open(afc, "/general_storage/nope", LIBIUSB_AFC_RDONLY, &file), -70);
        EXPECT_EQ(file, 0u);
        EXPECT_EQ(libiusb_afc_file_remove(afc, "/general_storage/nope"), -70);
        EXPECT_EQ(listFolder(afc, "/general_storage/nope"), (Names{"error -70"}));

        EXPECT_EQ(libiusb_afc_file_remove(afc, "/general_storage/full"), -33);
        EXPECT_EQ(readWhole(afc, "/general_storage/full/inside.txt"), "x");
        // An unexplained refusal of something else is not "not empty".
        ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/readme.txt unknown"), "ok");
        EXPECT_EQ(libiusb_afc_file_remove(afc, "/general_storage/readme.txt"), LIBIUSB_ERROR_OTHER);

        const std::pair<const char *, int> rows[] = {
            {"object-not-found", -70}, {"no-space", -62}, {"object-is-dir", -72}, {"permission-denied", -3},
            {"object-exists", -71},    {"io-error", -30}, {"busy", -6},           {"would-block", -6},
            {"invalid-argument", -2},  {"33", -33},       {"unknown", -99},       {"not-a-directory", -30},
            {"3", -11},                {"15", -12},       {"11", -32},            {"12", -30},
        };
        // An information stream, every row asked before the first answer is
        // read, answers each as the request alone does, in order.
        libiusb_afc_info_stream *stream = nullptr;
        ASSERT_EQ(libiusb_afc_info_stream_open(phone.handle, &stream), 0);
        int index = 0;
        for (const auto &row : rows) {
            std::string name = "fault" + std::to_string(index++);
            ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/" + name + " " + row.first), "ok");
            EXPECT_EQ(libiusb_afc_file_get_info(afc, ("/general_storage/" + name).c_str(), &info), row.second) << row.first;
            EXPECT_EQ(libiusb_afc_info_stream_ask(stream, "/general_storage", name.c_str()), 0);
        }
        EXPECT_EQ(libiusb_afc_info_stream_ask(stream, nullptr, "/general_storage/full/inside.txt"), 0);
        for (const auto &row : rows) EXPECT_EQ(libiusb_afc_info_stream_answer(stream, &info), row.second) << row.first;
        EXPECT_EQ(libiusb_afc_info_stream_answer(stream, &info), 0);
        EXPECT_EQ(info.size, 1u);
        EXPECT_EQ(libiusb_afc_info_stream_answer(stream, &info), LIBIUSB_ERROR_INVALID_PARAM) << "nothing is owed";
        EXPECT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/full/inside.txt", &info), 0);

        // Past the capacity: no space, and the refused handle still serves.
        ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/big.bin", LIBIUSB_AFC_WR, &file), 0);
        std::string chunk(800000, 'z');  // 300001 bytes are stored already, of 1000000
        EXPECT_EQ(libiusb_afc_file_write(afc, file, chunk.data(), chunk.size(), 0, &done), -62);
        ASSERT_EQ(sim.control("capacity " + udid + " 100000000"), "ok");
        ASSERT_EQ(libiusb_afc_file_write(afc, file, "head", 4, 0, &done), 0);
        libiusb_afc_file_close(afc, file);
        EXPECT_EQ(readWhole(afc, "/general_storage/big.bin").substr(0, 4), "head");
        ASSERT_EQ(sim.control("clear " + udid), "ok");

        uint64_t readme = 0, written = 0;
        ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/readme.txt", LIBIUSB_AFC_RDONLY, &readme), 0);
        ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/w.bin", LIBIUSB_AFC_WR, &written), 0);
        ASSERT_EQ(libiusb_afc_file_write(afc, written, "abc", 3, 0, &done), 0);
        ASSERT_EQ(libiusb_housearrest_init(phone.handle, &sandbox), 0);
        ASSERT_EQ(libiusb_housearrest_openapp(sandbox, "com.example.notes"), 0);
        ASSERT_EQ(libiusb_instproxy_init(phone.handle, &instproxy), 0);
        EXPECT_EQ(libiusb_afc_info_stream_ask(stream, nullptr, "/general_storage/readme.txt"), 0);
        ASSERT_EQ(sim.control("drop-now " + udid), "ok");
        // What a dropped stream owes, and all it is asked after, is lost.
        EXPECT_EQ(libiusb_afc_info_stream_answer(stream, &info), -32);
        EXPECT_EQ(libiusb_afc_info_stream_ask(stream, nullptr, "/general_storage/readme.txt"), -32);
        EXPECT_EQ(libiusb_afc_info_stream_answer(stream, &info), -32);
        libiusb_afc_info_stream_close(stream);

        // The request that meets the dropped connection fails: it is not sent
        // twice, since it may have been carried out already.
        EXPECT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/readme.txt", &info), -32);
        EXPECT_EQ(libiusb_afc_make_directory(sandbox, "/Documents/made"), -32);
        apps = nullptr;
        EXPECT_EQ(libiusb_instproxy_getAppId(instproxy, &apps), -32);
        EXPECT_EQ(apps, nullptr);
        libiusb_instproxy_exit(instproxy);

        // The next requests open the connections again, the app's included, and
        // the files open before go on at their offsets: the written one is not
        // truncated by being opened again.
        EXPECT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/readme.txt", &info), 0);
        EXPECT_EQ(info.size, 300000u);
        EXPECT_EQ(libiusb_afc_file_read(afc, readme, buffer, 3, 1000, &done), 0);
        EXPECT_EQ(std::string(buffer, done), "rrr");
        EXPECT_EQ(libiusb_afc_file_write(afc, written, "def", 3, 3, &done), 0);
        EXPECT_EQ(libiusb_afc_file_close(afc, written), 0);
        EXPECT_EQ(readWhole(afc, "/general_storage/w.bin"), "abcdef");
        EXPECT_EQ(libiusb_afc_make_directory(sandbox, "/Documents/made"), 0);
        struct stat made;
        EXPECT_EQ(stat((sim.image_dir(2) + "/apps/com.example.notes/Documents/made").c_str(), &made), 0);
        EXPECT_EQ(libiusb_device_get_info(phone.handle, &block), 0);
        EXPECT_EQ(block.location_id, 77u);

        // A handle opened before a drop never reaches a file opened after it,
        // though the device numbers each connection's handles afresh.
        ASSERT_EQ(sim.control("drop-now " + udid), "ok");
        EXPECT_EQ(libiusb_afc_file_get_info(afc, "/general_storage/readme.txt", &info), -32);
        uint64_t later = 0;
        ASSERT_EQ(libiusb_afc_file_open(afc, "/general_storage/full/inside.txt", LIBIUSB_AFC_RDONLY, &later), 0);
        EXPECT_EQ(libiusb_afc_file_read(afc, readme, buffer, 1, 0, &done), 0);
        EXPECT_EQ(std::string(buffer, done), "r");
        EXPECT_EQ(libiusb_afc_file_read(afc, later, buffer, 1, 0, &done), 0);
        EXPECT_EQ(std::string(buffer, done), "x");
        EXPECT_EQ(libiusb_housearrest_exit(sandbox), 0);
    }

    // A trust prompt, then the computer accepted, then unplugged.
    libiusb_device *listed = nullptr;
    ASSERT_EQ(libiusb_device_find(device.context, 77, &listed), 0);
    ASSERT_EQ(sim.control("trust-prompt " + udid + " 60"), "ok");
    libiusb_device_handle *handle = nullptr;
    EXPECT_EQ(libiusb_device_open(listed, &handle), LIBIUSB_ERROR_TRUST_PENDING);
    EXPECT_EQ(handle, nullptr);
    // Listing a device that shows its prompt still works.
    EXPECT_EQ(libiusb_device_get_info(listed, &block), 0);
    EXPECT_EQ(block.location_id, 77u);

    ASSERT_EQ(sim.control("trust-prompt " + udid + " 60 PasswordProtected"), "ok");
    EXPECT_EQ(libiusb_device_open(listed, &handle), LIBIUSB_ERROR_PASSWORD_PROTECTED);
    // A prompt of 0 seconds ends the one showing; one of 1 second ends by itself.
    ASSERT_EQ(sim.control("trust-prompt " + udid + " 0"), "ok");
    ASSERT_EQ(libiusb_device_open(listed, &handle), 0);
    libiusb_device_close(handle);
    handle = nullptr;
    ASSERT_EQ(sim.control("trust-prompt " + udid + " 1"), "ok");
    // eventually() asks once more at the end: an open that worked is not made twice.
    ASSERT_TRUE(eventually([&] { return handle != nullptr || libiusb_device_open(listed, &handle) == 0; }));

    ASSERT_EQ(sim.control("unplug " + udid), "ok");
    libiusb_device_handle *after = nullptr;
    EXPECT_EQ(libiusb_device_open(listed, &after), LIBIUSB_ERROR_NO_DEVICE);
    // The device opened before: house-arrest on it is a lost connection.
    sandbox = nullptr;
    EXPECT_EQ(libiusb_housearrest_init(handle, &sandbox), -32);
    EXPECT_EQ(sandbox, nullptr);
    libiusb_device_close(handle);

    // None left: an empty list is not an error.
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    ASSERT_EQ(sim.control("unplug " + sim.udid(1)), "ok");
    libiusb_context *context = nullptr;
    ASSERT_EQ(libiusb_context_init(&context), 0);
    ASSERT_EQ(libiusb_device_get_list(context, &list), 0);
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(libiusb_device_find(context, 77, &listed), LIBIUSB_ERROR_NO_DEVICE);
    libiusb_context_exit(context);
    ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, "No device found.\n");
    EXPECT_EQ(ran.err, "");

    // Nothing listening (devsim puts the address back when it stops).
    std::string nowhere = "UNIX:" + sim.work_dir() + "/nobody-listens.sock";
    setenv("USBMUXD_SOCKET_ADDRESS", nowhere.c_str(), 1);
    context = nullptr;
    EXPECT_EQ(libiusb_context_init(&context), LIBIUSB_ERROR_USBMUXD_UNREACHABLE);
    EXPECT_EQ(context, nullptr);
    ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "") << "nothing on standard output: scripts must not read an error as a device";
    EXPECT_NE(ran.err.find("cannot reach usbmuxd at " + nowhere), std::string::npos) << ran.err;

    Ran help = runQuorvel({"list", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: quorvel list"), std::string::npos);
    EXPECT_NE(help.out.find("USBMUXD_SOCKET_ADDRESS"), std::string::npos);
    Ran stray = runQuorvel({"list", "--bogus"});
    EXPECT_EQ(stray.status, 2);
    EXPECT_NE(stray.err.find("--bogus"), std::string::npos);
}
} // namespace

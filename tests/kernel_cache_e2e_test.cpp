// What the kernel keeps of the mount: listings hand it every entry's
// attributes, so listing a folder again asks next to nothing; and every change
// made through the mount is seen by the very next stat.
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

// Requests the file system received so far, as libfuse's debug output (-d) shows them.
std::vector<std::string> requests(const QuorvelMount &mount) {
    std::ifstream in(mount.logDir + "/quorvelfs.out");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        if (line.find(", opcode: ") != std::string::npos) lines.push_back(line);
    return lines;
}

class KernelCacheTest : public MountedDeviceTest {};

TEST_F(KernelCacheTest, ListingsHandOverAttributesAndChangesAreSeenByTheNextStat) {
    DevsimImage image;
    image.location_id = 41;
    image.files = {{"media/general_storage/notes.txt", "twelve bytes"}, {"media/general_storage/other.txt", "x"}};
    for (int i = 0; i < 1000; ++i) {
        // Sizes and kinds vary, so the attributes handed over are not all alike.
        if (i % 10 == 0)
            image.folders.push_back("media/general_storage/many/folder" + std::to_string(i));
        else
            image.files.push_back({"media/general_storage/many/file" + std::to_string(i) + ".txt", std::string(i, 'q')});
    }
    ASSERT_TRUE(startDevice({image}));
    ASSERT_TRUE(mount.start(41, {"-d"}));
    std::string folder = inMount("/Storage/many");

    std::string first = runProgram({"ls", "-lU", "--time-style=+%s", folder});
    size_t before = requests(mount).size();
    std::string second = runProgram({"ls", "-lU", "--time-style=+%s", folder});
    std::vector<std::string> asked = requests(mount);
    asked.erase(asked.begin(), asked.begin() + static_cast<long>(before));

    EXPECT_EQ(second, first) << "the same names, order and attributes";
    EXPECT_EQ(entriesIn(folder).size(), 1002u);
    // Every entry's size reached `ls` correctly through the listing.
    std::istringstream lines(second);
    std::string line;
    int files = 0;
    while (std::getline(lines, line)) {
        size_t at = line.find(" file");
        if (at == std::string::npos) continue;
        int number = std::stoi(line.substr(at + 5));
        EXPECT_NE(line.find(" " + std::to_string(number) + " "), std::string::npos) << line;
        ++files;
    }
    EXPECT_EQ(files, 900);
    // One request per page of entries, never one per entry.
    EXPECT_LT(asked.size(), 100u) << ::testing::PrintToString(asked);

    // Stat right after each change through the mount gives the new answer.
    // Listed and stat-ed once, so the kernel holds the old answers.
    std::string file = inMount("/Storage/notes.txt");
    runProgram({"ls", "-l", inMount("/Storage")});
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    ASSERT_EQ(st.st_size, 12);

    ASSERT_EQ(runStatus({"truncate", "-s", "4000", file}), 0);
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 4000);
    // A listing hands the kernel the same new size.
    std::string listing = runProgram({"ls", "-l", inMount("/Storage")});
    EXPECT_NE(listing.find(" 4000 "), std::string::npos) << listing;

    time_t now = time(nullptr);
    ASSERT_EQ(runStatus({"touch", "-d", "2001-01-01", file}), 0);
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_GE(st.st_mtime, now) << "a modification time change becomes the time of the change";

    // Extended attributes are kept in memory and answered at once.
    ASSERT_EQ(setxattr(file.c_str(), "user.colour", "blue", 4, 0), 0);
    char value[16] = {0};
    EXPECT_EQ(getxattr(file.c_str(), "user.colour", value, sizeof(value)), 4);
    EXPECT_STREQ(value, "blue");
    ASSERT_EQ(removexattr(file.c_str(), "user.colour"), 0);
    auto errnoOf = [](ssize_t result) { return result == -1 ? errno : 0; };
    EXPECT_EQ(errnoOf(getxattr(file.c_str(), "user.colour", value, sizeof(value))), ENODATA);
    // The kernel's own attribute families are not kept here.
    EXPECT_EQ(errnoOf(setxattr(file.c_str(), "security.selinux", "x", 1, 0)), EOPNOTSUPP);
    EXPECT_EQ(errnoOf(getxattr(file.c_str(), "system.posix_acl_access", value, sizeof(value))), EOPNOTSUPP);
}

} // namespace

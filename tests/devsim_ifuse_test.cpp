// ifuse, an unmodified client, mounts the simulated device over a TLS
// lockdown session; ordinary tools work on the mount and every byte matches
// the image folder. (Pairing, forgotten hosts and --no-tls sessions are
// walked with the same library's tools in devsim_afc_test.cpp.)
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

namespace fs = std::filesystem;

namespace {

class DevsimIfuseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is missing or not usable";
    std::string output;
    if (run_program({"sh", "-c", "command -v ifuse && { command -v fusermount3 || command -v fusermount; }"}, &output, 30) != 0)
      GTEST_SKIP() << "ifuse or fusermount is not installed";
    scratch_ = makeTempDir("devsim-ifuse-");
    ASSERT_FALSE(scratch_.empty());
    for (const char* dir : {"/mnt", "/docs", "/refused"}) fs::create_directories(scratch_ + dir);

    DevsimImage phone;
    phone.apps = {{"com.example.notes", "Notes", true}, {"com.example.vault", "Vault", false}};
    phone.files = {{"media/general_storage/readme.txt", "read me\n"},
                   {"media/general_storage/sub folder/it's $(x).txt", "odd name\n"},
                   {"apps/com.example.notes/Documents/note.txt", "a note\n"}};
    ASSERT_TRUE(sim_.start({phone})) << sim_.error();
    media_ = sim_.image_dir(0) + "/media";
  }

  void TearDown() override {
    for (const std::string& mount : mounted_) run_program({fusermountProgram(), "-u", "-z", mount});
    EXPECT_TRUE(sim_.stop()) << sim_.error();
    if (!scratch_.empty()) removeTree(scratch_);
  }

  void mount(const std::vector<std::string>& options, const std::string& where) {
    std::vector<std::string> argv = {"ifuse", "-u", sim_.udid(0)};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(where);
    std::string output;
    ASSERT_EQ(run_program(argv, &output), 0) << output << sim_.log();
    mounted_.push_back(where);
  }

  void run(const std::vector<std::string>& argv, std::string* output = nullptr) {
    std::string text;
    EXPECT_EQ(run_program(argv, &text), 0) << argv[0] << ": " << text;
    if (output) *output = text;
  }

  Devsim sim_;
  std::string scratch_, media_;
  std::vector<std::string> mounted_;
};

// The media root and an app's Documents mount, the media copying both ways; a
// mount needs a session, so none once the device forgot the computer. (Each
// AFC request these tools make, its errors, refused apps and the free space
// are pinned exactly in devsim_afc_test.cpp; writes into an app's Documents
// in device_devsim_test.cpp.)
TEST_F(DevsimIfuseTest, MountsMediaAndDocumentsAsOnAPhoneWhileTheDeviceAcceptsTheComputer) {
  std::string mnt = scratch_ + "/mnt", output;
  mount({}, mnt);
  std::string storage = mnt + "/general_storage";
  run({"ls", storage}, &output);
  EXPECT_EQ(output, "readme.txt\nsub folder\n");
  run({"cat", storage + "/sub folder/it's $(x).txt"}, &output);
  EXPECT_EQ(output, "odd name\n");

  // Both directions, byte for byte, including a 64 MiB file.
  std::string big = randomBytes(64 * 1024 * 1024, 12345);
  std::ofstream(scratch_ + "/big.bin", std::ios::binary) << big;
  run({"cp", scratch_ + "/big.bin", storage + "/big.bin"});
  EXPECT_TRUE(readLocal(media_ + "/general_storage/big.bin") == big);
  run({"cp", storage + "/big.bin", scratch_ + "/back.bin"});
  EXPECT_TRUE(readLocal(scratch_ + "/back.bin") == big);

  std::string docs = scratch_ + "/docs";
  mount({"--documents", "com.example.notes"}, docs);
  run({"cat", docs + "/note.txt"}, &output);
  EXPECT_EQ(output, "a note\n");

  ASSERT_EQ(sim_.control("forget-host " + sim_.udid(0)), "ok");
  EXPECT_NE(run_program({"ifuse", "-u", sim_.udid(0), scratch_ + "/refused"}, &output), 0) << output;
}

}  // namespace

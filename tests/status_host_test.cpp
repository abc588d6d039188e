#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/byteorder.h"
#include "platform/status.h"
#include "tests/fakes/fakes.h"

namespace {

const char kProfile[] = R"(<recorder>
  <device type="3" mcuVersion="MCU-2.1"/>
  <state recorderStatus="1" networkLink="4" watchdogExpired="0"/>
  <disk id="1" mount="${VELMAR_ROOT}/mnt/sd1" present="1" usage="18 6"/>
  <disk id="6" mount="${VELMAR_ROOT}/mnt/sd2" present="0" usage="18 6"/>
  <disk id="9" mount="${VELMAR_ROOT}/mnt/hdd" present="1" usage="14"/>
  <partition list="15" id="2" path="${VELMAR_ROOT}/mnt/sd1/rec"/>
</recorder>
)";

class HostStatusTest : public ::testing::Test {
 protected:
  // Writes the profile and moves its time stamp on, so that a rewrite is always noticed.
  void WriteProfile(const std::string& text) {
    root.Write("/etc/velmar/recorder.xml", text);
    std::string path = root.path() + "/etc/velmar/recorder.xml";
    struct timeval times[2] = {{++stamp, 0}, {stamp, 0}};
    utimes(path.c_str(), times);
  }

  TempRoot root;
  LogCapture log;
  time_t stamp = 1700000000;
};

TEST_F(HostStatusTest, RecordsComeFromTheProfile) {
  WriteProfile(kProfile);
  uint8_t rec[132];
  ASSERT_EQ(GetStatus(STATUS_RECORDER, rec), 0);
  EXPECT_EQ(LoadLE32(rec + 128), 1u);
  ASSERT_EQ(GetStatus(STATUS_DEVICE, rec), 0);
  EXPECT_EQ(LoadLE32(rec), 3u);
  ASSERT_EQ(GetStatus(STATUS_MCU_VERSION, rec), 0);
  EXPECT_STREQ(reinterpret_cast<char*>(rec), "MCU-2.1");
  uint8_t net[48];
  ASSERT_EQ(GetStatus(STATUS_NETWORK, net), 0);
  EXPECT_EQ(LoadLE32(net), 4u);

  uint8_t disks[100];
  ASSERT_EQ(GetStatus(STATUS_DISK, disks), 0);
  EXPECT_EQ(LoadLE32(disks), 3u);
  EXPECT_EQ(LoadLE32(disks + 4), 1u);   // id
  EXPECT_EQ(LoadLE32(disks + 12), 1u);  // present
  EXPECT_EQ(LoadLE32(disks + 16), 6u);
  EXPECT_EQ(LoadLE32(disks + 24), 0u);

  PartStatus_t list;
  ASSERT_EQ(GetDiskForCommUsage(DISK_USAGE_UPLOAD, &list, nullptr), 0);
  ASSERT_EQ(list.count, 1);  // the absent disk is not mounted
  EXPECT_EQ(list.part[0].type, 1);
  EXPECT_EQ(std::string(list.part[0].path), root.path() + "/mnt/sd1");
  ASSERT_EQ(GetDiskForCommUsage(DISK_USAGE_TYPE9, &list, nullptr), 0);
  ASSERT_EQ(list.count, 1);
  EXPECT_EQ(list.part[0].type, 9);

  ASSERT_EQ(GetStatus(STATUS_PART_LIST_A, &list), 0);
  ASSERT_EQ(list.count, 1);
  EXPECT_EQ(std::string(list.part[0].path), root.path() + "/mnt/sd1/rec");
  ASSERT_EQ(GetStatus(STATUS_PART_LIST_B, &list), 0);
  EXPECT_EQ(list.count, 0);
  EXPECT_EQ(CCommDog::Instance()->CheckDog(), 0);
}

TEST_F(HostStatusTest, EditedProfileIsPickedUpWithoutRestart) {
  WriteProfile(kProfile);
  PartStatus_t list;
  ASSERT_EQ(GetDiskForCommUsage(DISK_USAGE_UPLOAD, &list, nullptr), 0);
  EXPECT_EQ(list.count, 1);
  std::string edited = kProfile;
  edited.replace(edited.find("present=\"0\""), 11, "present=\"1\"");
  edited.replace(edited.find("watchdogExpired=\"0\""), 19, "watchdogExpired=\"1\"");
  WriteProfile(edited);
  ASSERT_EQ(GetDiskForCommUsage(DISK_USAGE_UPLOAD, &list, nullptr), 0);
  EXPECT_EQ(list.count, 2);
  EXPECT_GT(CCommDog::Instance()->CheckDog(), 0);
}

TEST_F(HostStatusTest, MissingOrMalformedProfileFailsWithOneLogLine) {
  uint8_t rec[132];
  EXPECT_EQ(GetStatus(STATUS_RECORDER, rec), -1);
  EXPECT_EQ(GetStatus(STATUS_RECORDER, rec), -1);
  EXPECT_EQ(log.Count("unusable: missing"), 1);

  WriteProfile("<recorder><disk id=");
  PartStatus_t list;
  EXPECT_EQ(GetDiskForCommUsage(DISK_USAGE_UPLOAD, &list, nullptr), -1);
  EXPECT_EQ(list.count, 0);
  EXPECT_EQ(CCommDog::Instance()->CheckDog(), 0);
  WriteProfile("<other/>");
  EXPECT_EQ(GetStatus(STATUS_DEVICE, rec), -1);

  WriteProfile(kProfile);  // repaired: works again
  EXPECT_EQ(GetStatus(STATUS_DEVICE, rec), 0);
  EXPECT_EQ(GetStatus(static_cast<STATUS_E>(99), rec), -1);
}

TEST_F(HostStatusTest, SetStatusPublishesTransferStateAndUpgrade) {
  WriteProfile(kProfile);
  uint8_t net[48] = {};
  StoreLE32(net, 4);
  StoreLE32(net + 4, 2);
  ASSERT_EQ(SetStatus(STATUS_NETWORK, net), 0);
  const char* pkg = "/mnt/sd1/X-1-2-3-4.sw";
  UpgradeNotify_t note{201, static_cast<uint16_t>(strlen(pkg)), pkg};
  ASSERT_EQ(SetStatus(STATUS_UPGRADE, &note), 0);
  std::ifstream in(root.path() + "/run/velmar/status.xml");
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("f1=\"2\""), std::string::npos);
  EXPECT_NE(text.str().find("code=\"201\" path=\"/mnt/sd1/X-1-2-3-4.sw\""), std::string::npos);
  uint8_t back[48];
  ASSERT_EQ(GetStatus(STATUS_NETWORK, back), 0);
  EXPECT_EQ(LoadLE32(back + 4), 2u);
  EXPECT_EQ(SetStatus(STATUS_DISK, net), -1);
}

}  // namespace

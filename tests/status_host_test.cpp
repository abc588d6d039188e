#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/byteorder.h"
#include "platform/status.h"
#include "tests/fakes/fakes.h"

namespace {

using Words = std::vector<uint32_t>;

const char kProfile[] = R"(<recorder>
  <device type="3" mcuVersion="MCU-2.1"/>
  <state recorderStatus="1" networkLink="4" watchdogExpired="0"/>
  <disk id="1" mount="/sd1" present="1" usage="18 6"/><disk id="9" mount="/hdd" usage="14"/>
  <disk id="6" mount="/sd2" present="0" usage="18 6"/>
  <partition list="15" id="2" path="${VELMAR_ROOT}/rec"/><partition list="17" id="3" path="/b"/>
</recorder>)";

// The first n words of a 132-byte buffer of 0xEE bytes after GetStatus; none when it fails.
Words Get(STATUS_E which, size_t n = 33) {
  uint8_t buf[132];
  memset(buf, 0xEE, sizeof(buf));
  if (GetStatus(which, buf) != 0) return {};
  Words out(n);
  for (size_t i = 0; i < out.size(); ++i) out[i] = LoadLE32(buf + 4 * i);
  return out;
}

// The disks of a usage, or the partitions of status 15..17, as "id:path ".
std::string Listed(int code) {
  PartStatus_t list;
  memset(&list, 1, sizeof(list));  // a count that shows when nothing cleared it
  int rc = code >= STATUS_PART_LIST_A && code <= STATUS_PART_LIST_B
               ? GetStatus(static_cast<STATUS_E>(code), &list)
               : GetDiskForCommUsage(static_cast<LOG_STATUS_E>(code), &list, nullptr);
  std::string out = rc == 0 ? "" : "fail";
  for (int i = 0; i < list.count && i < 8; ++i) {
    out += std::to_string(list.part[i].type) + ":" +
           std::string(list.part[i].path, strnlen(list.part[i].path, 128)) + " ";
  }
  return out;
}

TEST(HostStatusTest, AnswersFollowTheProfileAndSetStatusIsPublished) {
  TempRoot root;
  time_t stamp = 1700000000;
  // Writes the profile and moves its time stamp on, so that a rewrite is always noticed.
  auto WriteProfile = [&](const std::string& text) {
    root.Write("/etc/velmar/recorder.xml", text);
    struct timeval times[2] = {{++stamp, 0}, {stamp, 0}};
    utimes((root.path() + "/etc/velmar/recorder.xml").c_str(), times);
  };
  EXPECT_EQ(Get(STATUS_RECORDER), Words());  // no profile yet
  WriteProfile(kProfile);
  EXPECT_EQ(
      Words({Get(STATUS_RECORDER).at(32), Get(STATUS_DEVICE).at(0), Get(STATUS_NETWORK).at(0)}),
      Words({1, 3, 4}));
  // The disks: count, then (id, reserved, present) each.
  EXPECT_EQ(Get(STATUS_DISK, 11), Words({3, 1, 0, 1, 9, 0, 1, 6, 0, 0, 0}));
  char mcu[64];
  ASSERT_EQ(GetStatus(STATUS_MCU_VERSION, mcu), 0);
  EXPECT_STREQ(mcu, "MCU-2.1");
  // Only present disks are mounted; a disk serves every usage it lists.
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD) + Listed(DISK_USAGE_MAINTAIN), "1:/sd1 1:/sd1 ");
  EXPECT_EQ(Listed(DISK_USAGE_TYPE9), "9:/hdd ");
  EXPECT_EQ(Listed(STATUS_PART_LIST_A) + Listed(STATUS_PART_LIST_B) + Listed(STATUS_PART_LIST_C),
            "2:" + root.path() + "/rec 3:/b ");
  EXPECT_EQ(CCommDog::Instance()->CheckDog(), 0);

  // The same size, the same file: only the time stamp tells of the edit.
  std::string edited = kProfile;
  edited.replace(edited.find("present=\"0\""), 11, "present=\"1\"");
  edited.replace(edited.find("watchdogExpired=\"0\""), 19, "watchdogExpired=\"1\"");
  WriteProfile(edited);
  EXPECT_EQ(Listed(DISK_USAGE_UPLOAD), "1:/sd1 6:/sd2 ");
  EXPECT_GT(CCommDog::Instance()->CheckDog(), 0);

  for (const char* bad : {"<recorder><disk id=", "<other/>"}) {  // until repaired
    WriteProfile(bad);
    EXPECT_EQ(Get(STATUS_DEVICE), Words()) << bad;
    EXPECT_EQ(Listed(DISK_USAGE_MAINTAIN), "fail") << bad;  // and an empty list
    EXPECT_EQ(CCommDog::Instance()->CheckDog(), 0) << bad;
  }
  WriteProfile(kProfile);
  EXPECT_EQ(Get(STATUS_DEVICE).size(), 33u);
  EXPECT_EQ(Get(static_cast<STATUS_E>(99)), Words());

  uint8_t net[48] = {7, 0, 0, 0, 2};
  StoreLE32(net + 44, 0xFFFFFFFF);
  ASSERT_EQ(SetStatus(STATUS_NETWORK, net), 0);
  UpgradeNotify_t note{201, 21, "/mnt/sd1/X-1-2-3-4.swEXTRA"};  // the path is the first 21
  ASSERT_EQ(SetStatus(STATUS_UPGRADE, &note), 0);
  std::string text = ReadWholeFile(root.path() + "/run/velmar/status.xml");
  EXPECT_NE(text.find("<network f0=\"7\" f1=\"2\" f2=\"0\""), std::string::npos) << text;
  EXPECT_NE(text.find(" f11=\"-1\"/>"), std::string::npos) << text;
  EXPECT_NE(text.find("<upgrade code=\"201\" path=\"/mnt/sd1/X-1-2-3-4.sw\""), std::string::npos);
  // The link comes from the profile, the rest as set.
  EXPECT_EQ(Get(STATUS_NETWORK, 13), Words({4, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, ~0u, 0xEEEEEEEE}));
  EXPECT_EQ(SetStatus(STATUS_DISK, net), -1);
}

}  // namespace

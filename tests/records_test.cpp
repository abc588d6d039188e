#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "upload/ftp_records.h"

namespace {

const UserDefServerSet_t kServer{2121, "127.0.0.1", "u", "pw", "/up"};
// Transfer off while valid, so that a swap of the two shows.
const ftpFileInfo_t kRecord{1, 7, 2, 1, 0x12345678, "/r/1", "c", "d", 1, 5, 0, 2, kServer, {}};
// The same as a row: the directory comes before the name, and there is no outcome.
const __ftp_log kRow{0x12345678, 1, "/r/1", "d", "c", 1, 5, 0, 0, kServer, {}};

TEST(RecordsTest, RowAndRecordConvertBothWays) {
  ftpFileInfo_t rec = kRecord, back;
  __ftp_log row;
  RowFromRecord(rec, &row);
  EXPECT_EQ(0, memcmp(&row, &kRow, sizeof(row)));
  // Back again: the engine's counters (bytes 1..3) and the outcome are lost.
  rec.sendTimes = rec.connFailTimes = rec.delAfterUpload = rec.result = 0;
  RecordFromRow(row, &back);
  EXPECT_EQ(0, memcmp(&back, &rec, sizeof(rec)));
}

TEST(RecordsTest, WireRecordIsLittleEndianAndShortRecordsReadZero) {
  ftpFileInfo_t rec = kRecord;
  std::vector<uint8_t> wire(600, 0xEE);  // bytes past the record are ignored
  EncodeTaskRecord(rec, wire.data());
  // Little-endian fields in the record's layout: on this host, the record's memory.
  EXPECT_EQ(0, memcmp(wire.data(), &rec, kTaskRecordSize));
  // The first n bytes arrive: the decoded record is those bytes followed by zeros.
  for (size_t n : {size_t{0}, size_t{100}, size_t{300}, kTaskRecordSize, size_t{600}}) {
    uint8_t want[kTaskRecordSize] = {};
    memcpy(want, wire.data(), std::min(n, kTaskRecordSize));
    DecodeTaskRecord(wire.data(), n, &rec);
    EXPECT_EQ(0, memcmp(&rec, want, sizeof(want))) << n;
  }
}

// Rows and wire records full of 'x': every text ends inside its field; a row's type keeps its
// low 8 bits, its server is taken as it is and its bytes 1..3 are not the record's.
TEST(RecordsTest, UnterminatedTextsStayInsideTheirFields) {
  uint8_t wire[kTaskRecordSize], want[kTaskRecordSize];
  memset(wire, 'x', sizeof(wire));
  memset(want, 'x', sizeof(want));
  for (int at : {135, 199, 263, 494, 495}) want[at] = 0;
  __ftp_log row;
  memcpy(&row, wire, sizeof(row));
  row.type = 0x1FE;
  ftpFileInfo_t rec;
  RecordFromRow(row, &rec);
  want[0] = 0xFE;
  want[1] = want[2] = want[3] = 0;
  EXPECT_EQ(0, memcmp(&rec, want, sizeof(want)));

  DecodeTaskRecord(wire, sizeof(wire), &rec);
  want[0] = want[1] = want[2] = want[3] = 'x';
  for (int at : {270 + 31, 270 + 63, 270 + 95, 493}) want[at] = 0;  // the server's texts
  EXPECT_EQ(0, memcmp(&rec, want, sizeof(want)));
  UserDefServerSet_t server;
  DecodeServerSet(wire, 10, &server);  // 10 bytes: the rest is zero
  EXPECT_EQ(std::string(server.host) + "|" + server.user, "xxxxxxxx|");
}

}  // namespace

#include <gtest/gtest.h>

#include <cstring>

#include "upload/ftp_records.h"

namespace {

ftpFileInfo_t SampleRecord() {
  ftpFileInfo_t rec;
  memset(&rec, 0, sizeof(rec));
  rec.type = 1;
  rec.sendTimes = 7;
  rec.connFailTimes = 2;
  rec.delAfterUpload = 1;
  rec.seq = 0x12345678;
  strcpy(rec.fullName, "/0001_0000abcd_1_100_160_0_3000000.avi");
  strcpy(rec.fileName, "clip.avi");
  strcpy(rec.fileDir, "cam/front");
  rec.valid = 1;
  rec.net = 5;
  rec.trans = 0;  // differs from valid, so a swap of the two shows
  rec.result = 2;
  rec.server.port = 2121;
  strcpy(rec.server.host, "127.0.0.1");
  strcpy(rec.server.user, "user");
  strcpy(rec.server.password, "secret");
  strcpy(rec.server.path, "/upload");
  return rec;
}

TEST(RecordsTest, RoundTripThroughRowKeepsFieldsAndClearsCounters) {
  ftpFileInfo_t rec = SampleRecord();
  __ftp_log row;
  RowFromRecord(rec, &row);
  EXPECT_EQ(row.seq, rec.seq);
  EXPECT_EQ(row.type, 1u);
  EXPECT_STREQ(row.dir, "cam/front");  // directory and name change places
  EXPECT_STREQ(row.filename, "clip.avi");
  EXPECT_EQ(row.result, 0);  // the row never carries an outcome
  EXPECT_EQ(row.valid, 1);
  EXPECT_EQ(row.trans, 0);

  ftpFileInfo_t back;
  RecordFromRow(row, &back);
  EXPECT_EQ(back.type, rec.type);
  EXPECT_EQ(back.seq, rec.seq);
  EXPECT_STREQ(back.fullName, rec.fullName);
  EXPECT_STREQ(back.fileName, rec.fileName);
  EXPECT_STREQ(back.fileDir, rec.fileDir);
  EXPECT_EQ(back.valid, 1);
  EXPECT_EQ(back.net, 5);
  EXPECT_EQ(back.trans, 0);
  EXPECT_EQ(back.result, 0);
  EXPECT_EQ(0, memcmp(&back.server, &rec.server, sizeof(rec.server)));
  EXPECT_EQ(back.sendTimes, 0);
  EXPECT_EQ(back.connFailTimes, 0);
  EXPECT_EQ(back.delAfterUpload, 0);
}

TEST(RecordsTest, RowEdgeCasesAreCutToTheRecord) {
  __ftp_log row;
  memset(&row, 0, sizeof(row));
  row.type = 0x1FE;                                 // above 255: the record keeps the low 8 bits
  memset(row.fullpath, 'a', sizeof(row.fullpath));  // 128 characters, no terminator
  memset(row.dir, 'd', sizeof(row.dir));
  row.result = 3;  // bytes 264..267 are copied as they are
  ftpFileInfo_t rec;
  RecordFromRow(row, &rec);
  EXPECT_EQ(rec.type, 0xFE);
  EXPECT_EQ(strlen(rec.fullName), 127u);
  EXPECT_EQ(strlen(rec.fileDir), 63u);
  EXPECT_EQ(rec.result, 3);
}

TEST(RecordsTest, WireRecordIsLittleEndianAndShortRecordsReadZero) {
  ftpFileInfo_t rec = SampleRecord();
  uint8_t wire[kTaskRecordSize];
  EncodeTaskRecord(rec, wire);
  EXPECT_EQ(wire[4], 0x78);  // seq, least significant byte first
  EXPECT_EQ(wire[7], 0x12);
  EXPECT_EQ(wire[268], 2121 & 0xFF);
  EXPECT_EQ(wire[269], 2121 >> 8);
  EXPECT_STREQ(reinterpret_cast<const char*>(wire + 136), "clip.avi");

  ftpFileInfo_t full;
  DecodeTaskRecord(wire, sizeof(wire), &full);
  EXPECT_EQ(0, memcmp(&full, &rec, sizeof(rec)));

  // Only the first 100 bytes arrive: everything after them reads as zero.
  ftpFileInfo_t shortRec;
  DecodeTaskRecord(wire, 100, &shortRec);
  EXPECT_EQ(shortRec.seq, rec.seq);
  EXPECT_EQ(strncmp(shortRec.fullName, rec.fullName, 92), 0);
  EXPECT_EQ(shortRec.fullName[92], '\0');
  EXPECT_EQ(shortRec.valid, 0);
  EXPECT_EQ(shortRec.server.port, 0);
}

TEST(RecordsTest, UnterminatedWireTextsStayInsideTheirFields) {
  uint8_t wire[kTaskRecordSize];
  memset(wire, 'x', sizeof(wire));
  ftpFileInfo_t rec;
  DecodeTaskRecord(wire, sizeof(wire), &rec);
  EXPECT_EQ(strlen(rec.fullName), 127u);
  EXPECT_EQ(strlen(rec.fileName), 63u);
  EXPECT_EQ(strlen(rec.fileDir), 63u);
  EXPECT_EQ(strlen(rec.server.host), 31u);
  EXPECT_EQ(strlen(rec.server.path), 127u);

  UserDefServerSet_t server;
  DecodeServerSet(wire, 10, &server);  // 10 bytes: the rest is zero
  EXPECT_EQ(server.port, 0x7878);
  EXPECT_EQ(strlen(server.host), 8u);
  EXPECT_EQ(server.user[0], '\0');
}

}  // namespace

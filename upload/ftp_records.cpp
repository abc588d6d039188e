#include "upload/ftp_records.h"

#include <cstring>

#include "platform/byteorder.h"
#include "platform/text.h"

void RecordFromRow(const __ftp_log& row, ftpFileInfo_t* rec) {
  memset(rec, 0, sizeof(*rec));
  rec->type = static_cast<uint8_t>(row.type & 0xFF);
  rec->seq = row.seq;
  CopyField(rec->fullName, sizeof(rec->fullName), row.fullpath, sizeof(row.fullpath));
  CopyField(rec->fileDir, sizeof(rec->fileDir), row.dir, sizeof(row.dir));
  CopyField(rec->fileName, sizeof(rec->fileName), row.filename, sizeof(row.filename));
  rec->valid = row.valid;
  rec->net = row.net;
  rec->trans = row.trans;
  rec->result = row.result;
  rec->server = row.server;
}

void RowFromRecord(const ftpFileInfo_t& rec, __ftp_log* row) {
  memset(row, 0, sizeof(*row));
  row->seq = rec.seq;
  row->type = rec.type;
  CopyField(row->fullpath, sizeof(row->fullpath), rec.fullName, sizeof(rec.fullName));
  CopyField(row->dir, sizeof(row->dir), rec.fileDir, sizeof(rec.fileDir));
  CopyField(row->filename, sizeof(row->filename), rec.fileName, sizeof(rec.fileName));
  row->valid = rec.valid;
  row->net = rec.net;
  row->trans = rec.trans;
  row->result = 0;
  row->server = rec.server;
}

void DecodeTaskRecord(const uint8_t* bytes, size_t n, ftpFileInfo_t* rec) {
  uint8_t raw[kTaskRecordSize] = {};
  memcpy(raw, bytes, n < sizeof(raw) ? n : sizeof(raw));
  memset(rec, 0, sizeof(*rec));
  rec->type = raw[0];
  rec->sendTimes = raw[1];
  rec->connFailTimes = raw[2];
  rec->delAfterUpload = raw[3];
  rec->seq = LoadLE32(raw + 4);
  const char* text = reinterpret_cast<const char*>(raw);
  CopyField(rec->fullName, sizeof(rec->fullName), text + 8, 128);
  CopyField(rec->fileName, sizeof(rec->fileName), text + 136, 64);
  CopyField(rec->fileDir, sizeof(rec->fileDir), text + 200, 64);
  rec->valid = raw[264];
  rec->net = raw[265];
  rec->trans = raw[266];
  rec->result = raw[267];
  DecodeServerSet(raw + 268, kServerSetSize, &rec->server);
}

void EncodeTaskRecord(const ftpFileInfo_t& rec, uint8_t out[kTaskRecordSize]) {
  memset(out, 0, kTaskRecordSize);
  out[0] = rec.type;
  out[1] = rec.sendTimes;
  out[2] = rec.connFailTimes;
  out[3] = rec.delAfterUpload;
  StoreLE32(out + 4, rec.seq);
  char* text = reinterpret_cast<char*>(out);
  CopyField(text + 8, 128, rec.fullName, sizeof(rec.fullName));
  CopyField(text + 136, 64, rec.fileName, sizeof(rec.fileName));
  CopyField(text + 200, 64, rec.fileDir, sizeof(rec.fileDir));
  out[264] = rec.valid;
  out[265] = rec.net;
  out[266] = rec.trans;
  out[267] = rec.result;
  EncodeServerSet(rec.server, out + 268);
}

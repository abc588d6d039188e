// Decoding a task record or server block from arbitrary bytes stays inside the record.
#include <cstdint>
#include <cstring>

#include "upload/ftp_records.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftpFileInfo_t rec;
  DecodeTaskRecord(data, size, &rec);
  if (strlen(rec.fullName) >= sizeof(rec.fullName)) __builtin_trap();
  __ftp_log row;
  RowFromRecord(rec, &row);
  ftpFileInfo_t back;
  RecordFromRow(row, &back);
  if (strcmp(back.fullName, rec.fullName) != 0) __builtin_trap();
  UserDefServerSet_t server;
  DecodeServerSet(data, size, &server);
  return 0;
}

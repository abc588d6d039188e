// A valid, runnable task record for tests: transfer on, any link, server 127.0.0.1:21 "/up",
// remote directory "in" and name "remote.bin".
#pragma once

#include <cstring>
#include <string>

#include "upload/ftp_records.h"

inline ftpFileInfo_t SampleTask(uint32_t seq, const std::string& fullName, uint8_t type = 0) {
  ftpFileInfo_t t{};
  t.type = type;
  t.seq = seq;
  strncpy(t.fullName, fullName.c_str(), sizeof(t.fullName) - 1);
  strcpy(t.fileName, "remote.bin");
  strcpy(t.fileDir, "in");
  t.valid = 1;
  t.net = 7;
  t.trans = 1;
  t.server.port = 21;
  strcpy(t.server.host, "127.0.0.1");
  strcpy(t.server.path, "/up");
  return t;
}

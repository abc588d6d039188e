#include "upload/task_status.h"

#include <cstring>

#include "platform/byteorder.h"
#include "platform/env.h"

void BuildTaskStatus(int seq, int status, uint8_t out[kTaskStatusSize]) {
  memset(out, 0, kTaskStatusSize);
  StoreLE32(out, kCodeTaskStatus);
  StoreLE32(out + 4, 4);
  out[8] = 0;
  out[9] = static_cast<uint8_t>(status);
  StoreLE16(out + 10, static_cast<uint16_t>(seq));
}

void SendTaskStatusEvent(Env* env, int seq, int status) {
  uint8_t payload[kTaskStatusSize];
  BuildTaskStatus(seq, status, payload);
  env->DistributeEvent(EVENT_FILE_UPLOAD, static_cast<int>(kTaskStatusSize), payload);
}

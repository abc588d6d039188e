#include "platform/ftpserver.h"

#include <cstring>

#include "platform/byteorder.h"
#include "platform/text.h"

void DecodeServerSet(const uint8_t* bytes, size_t n, UserDefServerSet_t* server) {
  uint8_t raw[kServerSetSize] = {};
  memcpy(raw, bytes, n < sizeof(raw) ? n : sizeof(raw));
  memset(server, 0, sizeof(*server));
  server->port = LoadLE16(raw);
  const char* text = reinterpret_cast<const char*>(raw);
  CopyField(server->host, sizeof(server->host), text + 2, 32);
  CopyField(server->user, sizeof(server->user), text + 34, 32);
  CopyField(server->password, sizeof(server->password), text + 66, 32);
  CopyField(server->path, sizeof(server->path), text + 98, 128);
}

void EncodeServerSet(const UserDefServerSet_t& server, uint8_t out[kServerSetSize]) {
  memset(out, 0, kServerSetSize);
  StoreLE16(out, server.port);
  char* text = reinterpret_cast<char*>(out);
  CopyField(text + 2, 32, server.host, sizeof(server.host));
  CopyField(text + 34, 32, server.user, sizeof(server.user));
  CopyField(text + 66, 32, server.password, sizeof(server.password));
  CopyField(text + 98, 128, server.path, sizeof(server.path));
}

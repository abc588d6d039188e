// The settings of one FTP server, as a task record, a database row and the FTP client
// carry them (226 bytes, little-endian on the wire).
#pragma once

#include <cstddef>
#include <cstdint>

struct UserDefServerSet_t {
  uint16_t port;      // TCP port
  char host[32];      // server address, NUL-terminated
  char user[32];      // login name
  char password[32];  // login password
  char path[128];     // remote directory
};
static_assert(sizeof(UserDefServerSet_t) == 226, "UserDefServerSet_t layout");
static_assert(offsetof(UserDefServerSet_t, host) == 2, "host offset");
static_assert(offsetof(UserDefServerSet_t, user) == 34, "user offset");
static_assert(offsetof(UserDefServerSet_t, password) == 66, "password offset");
static_assert(offsetof(UserDefServerSet_t, path) == 98, "path offset");

constexpr size_t kServerSetSize = sizeof(UserDefServerSet_t);

// Decodes the first n bytes of a little-endian server block (missing bytes read as zero);
// every text ends up terminated inside its field.
void DecodeServerSet(const uint8_t* bytes, size_t n, UserDefServerSet_t* server);
void EncodeServerSet(const UserDefServerSet_t& server, uint8_t out[kServerSetSize]);

// The recorder's event bus: receivers register by name with a mask of event numbers and
// receive each event as one datagram on a Unix-domain socket.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>

// The event number travels as a u32 on the wire; the fixed underlying type makes every such
// number a valid EVENT_E value, named here or not, so a datagram of an unknown event can be
// decoded and then ignored.
enum EVENT_E : uint32_t {
  EVENT_HEARTBEAT = 6,
  EVENT_REMOTE_CMD = 16,
  EVENT_FILE_UPLOAD = 22,
};

constexpr int kEventPayloadMax = 8192;
constexpr int kEventHeaderSize = 12;  // "EVB1", event (u32 LE), payload length (u32 LE)

// Called once per datagram on the listener's own thread.
typedef int (*UnixDomainHandler_f)(int sock, struct sockaddr_un* from, unsigned int* fromLen,
                                   char* msg, int len, void* ctx);

// Registers the receiver name (its socket path, beginning with "/") for the events whose bit
// is set in mask, replacing any earlier registration of that name. 0 or -1.
int RegisterEventReciever(const char* name, int64_t mask);
// Removes the registration of name. 0, or -1 when there was none.
int UnregisterEventReciever(const char* name);

// Binds a datagram socket at path (under the sandbox root; a stale socket file is removed)
// and calls handler(…, ctx) for each datagram on a thread of its own. The handle, or null.
void* StartUnixDomainListen(const char* path, UnixDomainHandler_f handler, void* ctx);
// Ends the listener thread and closes the socket. 0, or -1 for null.
int StopUnixDomainListen(void* handle);

// Decodes one datagram: *event = its event number, and the payload (at most 8192 bytes)
// into payload. Returns the payload length, or -1 for a datagram that is short, has the
// wrong magic, a length over 8192 or a length that differs from the bytes that follow.
int ParseRecvEvent(const unsigned char* msg, int len, EVENT_E* event, int* reserved, void* payload);

// Encodes one event into out. Returns the datagram length, or -1 when len is negative, over
// 8192 or out is too small.
int EncodeEvent(EVENT_E event, const void* data, int len, unsigned char* out, size_t cap);

// Sends the event to every registered receiver whose mask has its bit. A receiver that is
// gone is skipped at once; one whose queue is full is given up to 2 s to make room (a burst
// is slowed down, not dropped), then skipped. Returns the number of receivers reached, or -1
// for a bad event or length.
int DistributeEvent(EVENT_E event, int len, void* data);
// The same for the one receiver registered under name (as given to RegisterEventReciever):
// 1 when it took the event, 0 when it is not registered for it, gone or still full, -1 for a
// bad event or length. For a sender that must know whether a request arrived.
int DistributeEventTo(const char* name, EVENT_E event, int len, void* data);

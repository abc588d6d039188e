// The task status event: event 22, code 0x702, announcing that every task of a sequence
// number is done (status 0) or that a task was given up (status 1).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t kTaskStatusSize = 1032;
constexpr uint32_t kCodeTaskStatus = 0x702;

// Fills the 1032-byte payload: code 0x702, length 4, 0, status, seq's low 16 bits.
void BuildTaskStatus(int seq, int status, uint8_t out[kTaskStatusSize]);
// Builds the payload and distributes it on env's bus.
class Env;
void SendTaskStatusEvent(Env* env, int seq, int status);

#include "messaging/MessageFrame.h"

#include "frame/Assert.h"

namespace {

void PutBigEndian(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

}  // namespace

size_t EncodeFrame(std::string_view text, tFrameBuffer& frame) {
  VOLDRAKE_ASSERT(text.size() <= kMaxMessageBytes);
  const size_t payloadBytes = 2 * (text.size() & 0x7FFF);
  PutBigEndian(&frame[0], 4 + payloadBytes);
  PutBigEndian(&frame[2], 0);
  PutBigEndian(&frame[4], payloadBytes);
  uint8_t* unit = &frame[6];
  for (const char byte : text) {
    unit[0] = 0;
    unit[1] = static_cast<uint8_t>(byte);
    unit += 2;
  }
  unit[0] = unit[1] = 0;
  return 6 + 2 * text.size();
}

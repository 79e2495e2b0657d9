#pragma once

#include <cstdint>
#include <string>

// Cards in a USB card reader are plain disks to the hardware service; their identity is asked of
// the reader itself, with a command of its vendor.

/// True for the readers that answer `ReadCardSerial`: vendor 0x0424, product 0x4040 or 0x2240.
[[nodiscard]] bool IsSmscCardReader(int32_t vendorId, int32_t productId);

/// True for the unit's own reader, whose slots have names: vendor 0x0424, product 0x4040.
[[nodiscard]] bool IsSmscMediaReader(int32_t vendorId, int32_t productId);

/// Asks the reader behind a block device for the card's identification register and writes it to
/// `cid` as 32 upper-case hexadecimal digits; 32 zeros when the reader does not answer, which is
/// logged. True when it answered. Blocks for at most the command's time-out of two seconds; opening
/// never waits. `device` is untrusted.
bool ReadCardSerial(const char* device, std::string& cid);

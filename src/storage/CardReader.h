#pragma once

#include <cstdint>
#include <string>

// Cards in a USB card reader are disks to the hardware service; their identity is asked of the
// reader.

/// True for the readers that answer `ReadCardSerial`: vendor 0x0424, product 0x4040 or 0x2240.
[[nodiscard]] bool IsSmscCardReader(int32_t vendorId, int32_t productId);

/// True for the unit's own reader, whose slots have names: vendor 0x0424, product 0x4040.
[[nodiscard]] bool IsSmscMediaReader(int32_t vendorId, int32_t productId);

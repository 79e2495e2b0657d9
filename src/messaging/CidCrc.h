#pragma once

#include <string>

/// Replaces the last two digits of a card identification register by the byte that the SD and MMC
/// standards put there: the CRC7 (polynomial x^7 + x^3 + 1, initial value 0) of the first 15 bytes
/// in bits 7..1, and a 1 in bit 0, as lowercase digits. The first 30 digits stay as they are; a
/// pair that is not hexadecimal counts as far as it is. A text of another length than 32 is warned
/// of and comes back unchanged. Any thread.
[[nodiscard]] std::string CidCrcCorrect(const std::string& cid);

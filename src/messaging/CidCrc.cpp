#include "messaging/CidCrc.h"

#include <cstdint>
#include <string_view>

#include "frame/Log.h"
#include "frame/Text.h"

namespace {

constexpr size_t kCidDigits = 32;
constexpr size_t kCrcPosition = 30;
constexpr char kDigits[] = "0123456789abcdef";

int DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

unsigned ByteOf(std::string_view pair) {
  int value = 0;
  for (const char digit : pair) {
    if (DigitValue(digit) < 0) break;
    value = value * 16 + DigitValue(digit);
  }
  return static_cast<unsigned>(value);
}

unsigned CrcByte(std::string_view cid) {
  unsigned crc = 0;
  for (size_t position = 0; position < kCrcPosition; position += 2) {
    const unsigned byte = ByteOf(cid.substr(position, 2));
    for (int bit = 7; bit >= 0; --bit) {
      crc = (crc << 1) & 0xFF;
      if (((crc >> 7) & 1) != ((byte >> bit) & 1)) crc ^= 0x09;
    }
  }
  return ((crc << 1) & 0xFF) | 1;
}

}  // namespace

std::string CidCrcCorrect(const std::string& cid) {
  if (cid.size() != kCidDigits) {
    Log("Error computing CID CRC - Invalid CID length", kLogWarning);
    return cid;
  }
  const unsigned crc = CrcByte(cid);
  const std::string crcText{kDigits[crc >> 4], kDigits[crc & 0xF]};
  Log(Printable(cid), kLogDebug);
  Log(crcText, kLogDebug);
  std::string corrected = cid.substr(0, kCrcPosition) + crcText;
  Log(Printable(corrected), kLogDebug);
  return corrected;
}

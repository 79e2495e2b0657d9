#include "storage/CardReader.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>

#include "frame/FileDescriptor.h"
#include "frame/Log.h"
#include "frame/SystemCall.h"
#include "frame/Text.h"

namespace {

constexpr int32_t kSmscVendor = 0x0424;
constexpr int32_t kMediaReaderProduct = 0x4040;
constexpr int32_t kCardReaderProduct = 0x2240;

constexpr size_t kAnswerBytes = 512;
constexpr size_t kSenseBytes = 32;
constexpr unsigned kCommandTimeoutMs = 2000;

using tCardRegister = std::array<uint8_t, 16>;

bool QueryReader(const char* device, tCardRegister& cardRegister) {
  const tFileDescriptor reader(
      RetryInterrupted([&] { return open(device, O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
  if (reader.Get() <= 0) return false;

  uint8_t command[] = {0xCF, 0x18, 0x00, 0x00, 0x20, 0x00};
  std::array<uint8_t, kAnswerBytes> answer{};
  std::array<uint8_t, kSenseBytes> sense{};
  sg_io_hdr_t request{};
  request.interface_id = 'S';
  request.dxfer_direction = SG_DXFER_FROM_DEV;
  request.cmd_len = sizeof command;
  request.mx_sb_len = sense.size();
  request.dxfer_len = answer.size();
  request.dxferp = answer.data();
  request.cmdp = command;
  request.sbp = sense.data();
  request.timeout = kCommandTimeoutMs;
  request.flags = SG_FLAG_LUN_INHIBIT;
  if (RetryInterrupted([&] { return ioctl(reader.Get(), SG_IO, &request); }) < 0) return false;
  // Readers answer with a SCSI status of their own making; only the driver's verdict counts.
  if (request.driver_status != 0) return false;
  std::copy_n(answer.begin(), cardRegister.size(), cardRegister.begin());
  return true;
}

}  // namespace

bool IsSmscCardReader(int32_t vendorId, int32_t productId) {
  return vendorId == kSmscVendor &&
         (productId == kMediaReaderProduct || productId == kCardReaderProduct);
}

bool IsSmscMediaReader(int32_t vendorId, int32_t productId) {
  return vendorId == kSmscVendor && productId == kMediaReaderProduct;
}

bool ReadCardSerial(const char* device, std::string& cid) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  tCardRegister cardRegister{};
  const bool answered = QueryReader(device, cardRegister);
  if (!answered) Log("Unable to read serial number from " + Printable(device), kLogInfo);
  cid.clear();
  for (const uint8_t byte : cardRegister) {
    cid += kDigits[byte >> 4];
    cid += kDigits[byte & 0xF];
  }
  return answered;
}

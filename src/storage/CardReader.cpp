#include "storage/CardReader.h"

namespace {

constexpr int32_t kSmscVendor = 0x0424;
constexpr int32_t kMediaReaderProduct = 0x4040;
constexpr int32_t kCardReaderProduct = 0x2240;

}  // namespace

bool IsSmscCardReader(int32_t vendorId, int32_t productId) {
  return vendorId == kSmscVendor &&
         (productId == kMediaReaderProduct || productId == kCardReaderProduct);
}

bool IsSmscMediaReader(int32_t vendorId, int32_t productId) {
  return vendorId == kSmscVendor && productId == kMediaReaderProduct;
}

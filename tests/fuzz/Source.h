#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

/// Ends the program when what must hold does not: that is a finding.
inline void Require(bool condition) {
  if (!condition) abort();
}

/// Takes bytes and texts off the front of an input; zeros and empty texts when it is used up.
class Source {
 public:
  Source(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool Empty() const { return size_ == 0; }

  unsigned Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }

  /// One of `count` small numbers.
  unsigned Choice(unsigned count) { return Byte() % count; }

  /// At most `longest` bytes, without a zero byte, as a C string would be.
  std::string Text(unsigned longest = 24) {
    std::string text;
    for (unsigned left = Byte() % longest; left > 0 && size_ > 0; --left) {
      const char byte = static_cast<char>(Byte());
      if (byte != '\0') text += byte;
    }
    return text;
  }

  /// Everything that is left.
  std::string Rest() {
    std::string text(reinterpret_cast<const char*>(data_), size_);
    size_ = 0;
    return text;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

// Turns a fuzz input into the decisions of a session. Numbers are taken from
// the end of the input, most significant byte first and only as many bytes
// as their range needs, and reduced modulo the range; an exhausted input
// gives the lower bound. (The same decoding as the provider that ships with
// clang, so seeds keep their meaning, but with no dependency on clang's
// headers: the corpus replays in the GCC, sanitizer and armhf builds too.)
#ifndef SEGCORE_FUZZ_BYTE_READER_H
#define SEGCORE_FUZZ_BYTE_READER_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <type_traits>

class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : data_(data), left_(size) {}

  size_t remaining() const { return left_; }

  // A value in [lo, hi].
  template <typename T>
  T range(T lo, T hi) {
    static_assert(std::is_integral<T>::value && sizeof(T) <= 8, "integers up to 64 bits");
    if (lo > hi) std::abort();
    // Unsigned 64-bit arithmetic: hi - lo and lo + value wrap to the right
    // result for signed bounds as well.
    const uint64_t span = static_cast<uint64_t>(hi) - static_cast<uint64_t>(lo);
    uint64_t value = 0;
    for (size_t used = 0; used < sizeof(T) && (span >> (8 * used)) != 0 && left_ > 0; ++used) {
      value = (value << 8) | data_[--left_];
    }
    if (span != std::numeric_limits<uint64_t>::max()) value %= span + 1;
    return static_cast<T>(static_cast<uint64_t>(lo) + value);
  }

  // Any value of T.
  template <typename T>
  T any() {
    return range<T>(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
  }

  bool flag() { return (any<uint8_t>() & 1) != 0; }

 private:
  const uint8_t* data_;
  size_t left_;
};

#endif

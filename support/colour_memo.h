// Results of a costly per-pixel function remembered by the pixel's three
// bytes.
//
// The working box's mixture likelihoods and the models' assignments are
// functions of a pixel's three 8-bit values alone (colour, or grey and two
// texture values); a photo repeats those triples a great deal, so each
// distinct one is worked out once per pass and looked up afterwards. The
// value looked up is the one computed for the same three bytes by the same
// code, so nothing changes in the result.
#ifndef SEGCORE_SUPPORT_COLOUR_MEMO_H
#define SEGCORE_SUPPORT_COLOUR_MEMO_H

#include <cstdint>
#include <new>
#include <vector>

// An open-addressing table from a 24-bit key to a value V, sized for up to
// `expected` distinct keys (twice that many slots, a power of two, at most
// 2^20). A table that could not get its memory is empty and remembers
// nothing (get() then always computes). One thread at a time.
// Costs: construction O(slots); get() one hash and a short probe, plus the
// computation on a key not seen before.
template <class V>
class ColourMemo {
 public:
  explicit ColourMemo(long expected) {
    long slots = 64;
    while (slots < 2 * expected && slots < (1L << 20)) slots *= 2;
    try {
      keys_.assign(static_cast<size_t>(slots), kEmpty);
      values_.resize(static_cast<size_t>(slots));
      mask_ = static_cast<uint32_t>(slots - 1);
      limit_ = slots / 2;
    } catch (const std::bad_alloc&) {
      keys_.clear();
      values_.clear();
    }
  }

  // The value for key (below 2^24): remembered, or compute() when it is new
  // (and remembered while the table is less than half full).
  template <class Compute>
  V get(uint32_t key, const Compute& compute) {
    if (keys_.empty()) return compute();
    uint32_t slot = (key * 2654435761u) >> 8 & mask_;
    for (;;) {
      const uint32_t k = keys_[slot];
      if (k == key) return values_[slot];
      if (k == kEmpty) break;
      slot = (slot + 1) & mask_;
    }
    const V value = compute();
    if (used_ < limit_) {
      keys_[slot] = key;
      values_[slot] = value;
      ++used_;
    }
    return value;
  }

 private:
  static constexpr uint32_t kEmpty = 0xFFFFFFFFu;
  std::vector<uint32_t> keys_;
  std::vector<V> values_;
  uint32_t mask_ = 0;
  long limit_ = 0;
  long used_ = 0;
};

#endif

// Skipping runs of one byte value along a row.
//
// The full-resolution re-cut walks boxes in which nearly every byte is the
// same "fixed" code and only a thin band differs; reading the runs a word at
// a time keeps that walk at a fraction of the box's size in steps.
#ifndef SEGCORE_SUPPORT_BYTE_RUNS_H
#define SEGCORE_SUPPORT_BYTE_RUNS_H

#include <cstdint>
#include <cstring>

// The first x' >= x below width with row[x'] != value, or width when the row
// holds value up to its end (x itself when x >= width).
// Reads: row[x .. width) at most, eight bytes at a time while they all equal
// value (memcpy, so row needs no alignment), then byte by byte. Writes
// nothing. Cost: (x' - x) / 8 word compares plus at most 8 byte compares.
inline int skipByteRun(const unsigned char* row, int x, int width, unsigned char value) {
  const uint64_t run8 = 0x0101010101010101ull * value;
  while (x + 8 <= width) {
    uint64_t word;
    std::memcpy(&word, row + x, 8);
    if (word != run8) break;
    x += 8;
  }
  while (x < width && row[x] == value) ++x;
  return x;
}

#endif

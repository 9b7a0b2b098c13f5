#!/usr/bin/env python3
"""Writes the seeds of fuzz/corpus/ that reach the hostile-argument steps of
session_fuzz.cpp (the random seed-NN files reach them only by chance).

Each seed is written as the decisions the target makes, in order; the
encoder lays them out as fuzz/byte_reader.h reads them (from the end of the
input, most significant byte first, as many bytes as the range needs).
Run from the repository root: python3 fuzz/make_seeds.py
"""
import os

INT_MIN, INT_MAX = -2**31, 2**31 - 1


class Seed:
    def __init__(self):
        self.consumed = []  # bytes in the order the target reads them

    def range(self, lo, hi, value, width=4):
        span = hi - lo
        assert lo <= value <= hi
        n = 0
        while n < width and (span >> (8 * n)) != 0:
            n += 1
        offset = value - lo
        assert offset < 256 ** n or n == width
        self.consumed += [(offset >> (8 * (n - 1 - i))) & 0xFF for i in range(n)]

    def any32(self, value):
        self.range(INT_MIN, INT_MAX, value)

    def flag(self, on):
        self.range(0, 255, 1 if on else 0, width=1)

    def photo(self, w, h, kind=3):
        self.range(0, 3, 1)          # not a large photo
        self.range(1, 100, w)
        self.range(1, 75, h)
        self.range(0, 4, kind)
        self.range(0, 2**32 - 1, 0xFFC04020)
        self.range(0, 2**32 - 1, 0xFF2040C0)
        self.range(0, 60, 10)

    def start(self, alive, fault_step=19, fault_index=0):
        self.range(0, 19, fault_step)    # 10 and up: no allocation fails
        self.range(0, 4095, fault_index)
        self.range(0, 7, 1 if alive else 0)

    def op(self, n):
        self.range(0, 25, n)

    def side(self, choice, value=None):
        self.range(0, 9, choice)
        if choice == 8:
            self.any32(value)
        elif choice == 9:
            self.range(1, 400, value)

    def bytes(self):
        # Padding at the front is read last: it keeps the loop going to the end.
        return bytes(reversed(self.consumed))


def sizes():
    s = Seed()
    s.photo(20, 15)
    s.start(True)
    s.op(14); s.flag(False); s.side(4); s.side(4)                  # 65536 x 65536 photo
    s.op(14); s.flag(False); s.side(3); s.side(9, 2)                # INT_MAX x 2
    s.op(14); s.flag(False); s.side(1); s.side(9, 15)               # -1 x 15: MEMORY_CRASH first
    s.op(14); s.flag(True); s.flag(False)                           # null pixels
    s.op(16); s.range(0, 3, 2); s.range(0, 2, 0); s.side(6); s.side(6); s.flag(False)   # 32768 x 32768 grid
    s.op(16); s.range(0, 3, 2); s.range(0, 2, 0); s.side(1); s.side(2); s.flag(False)   # -1 x INT_MIN grid
    s.op(16); s.range(0, 3, 2); s.range(0, 2, 2); s.any32(7)              # mode 7
    s.op(23); s.range(0, 3, 0); s.side(5); s.side(5)                # 70000 x 70000 rectangle
    s.op(23); s.range(0, 3, 0); s.side(8, -20); s.side(9, 3)        # negative width
    s.op(3)                                                          # a cut after it all
    return s


def nulls():
    s = Seed()
    s.photo(16, 12, kind=4)
    s.start(True)
    s.op(23); s.range(0, 3, 3)                                       # a rectangle first: an outline
    for flag, value in ((False, 2), (False, 3), (False, 13), (False, 9)):
        s.flag(flag); s.range(-16 if value < 12 else -12, 32 if value < 12 else 24, value)
    s.op(21); s.range(0, 2, 0)                                       # fetch into null array
    s.op(21); s.range(0, 2, 1)                                       # null count
    s.op(18); s.range(0, 2, 1); s.range(1, 3, 1)                     # undo, null blended
    s.op(18); s.range(0, 2, 2); s.range(1, 3, 2)                     # redo, null mask
    s.op(20); s.flag(True); s.flag(True)                             # loadMaskImageInfo(null)
    s.op(20); s.flag(False); s.flag(False)                           # loadBlendedImageInfo
    s.op(15); s.flag(True)                                           # copySourceImage(null)
    s.op(15); s.flag(False)                                          # copySourceImage(buffer)
    s.op(9)                                                          # the outline is still there
    return s


def counts():
    s = Seed()
    s.photo(12, 9)
    s.start(True)
    for kind, extra in ((0, None), (1, None), (2, None)):
        s.op(17)
        for v in (-5, 3000, 7, INT_MIN, INT_MAX, 2, 1, -1):
            s.any32(v)
        s.range(0, 2, kind)
        if kind == 0:
            s.flag(False); s.range(0, 3, 1)                           # count 3
        elif kind == 1:
            s.range(1, INT_MAX, 4)                                    # 4 points, null
        else:
            s.range(INT_MIN, 0, -3); s.flag(False)                    # -3 empties
    s.op(19); s.range(0, 64, 2); s.range(1, 64, 2)
    for code in (2, 2, 1, 1):
        s.range(0, 4, code)
    s.range(0, 3, 0); s.flag(True)                                    # processSegment on 2 x 2
    s.op(24); s.range(0, 3, 3)                                        # edit without a grid
    s.op(3)
    return s


def order():
    s = Seed()
    s.photo(10, 8)
    s.start(False)                                                    # no photo, no engine
    for op in (5, 6, 3, 22):
        s.op(op)
    s.op(20); s.flag(True); s.flag(False)
    s.op(15); s.flag(False)
    s.op(13); s.flag(False)                                           # now a context
    s.op(12)                                                          # and its end
    s.op(18); s.range(0, 2, 1); s.range(1, 3, 3)                      # requests after it
    s.op(4)
    return s


def wild():
    s = Seed()
    s.photo(24, 18)
    s.start(True)
    s.op(25)
    s.range(0, 3, 2); s.range(2, 48, 2)                               # a two-point stroke
    for x, y in ((3, 4), (20, 14)):
        s.flag(False); s.range(0, 23, x); s.range(0, 17, y)
    s.range(0, 4, 1)                                                  # one shape
    s.range(0, 4, 2); s.range(0, 23, 6); s.range(0, 23, 16); s.range(0, 17, 5); s.range(0, 17, 12); s.flag(False)
    s.range(0, 64, 4)
    for i, code in ((10, -7), (50, 300), (200, INT_MIN), (400, 255)):
        s.range(0, 24 * 18 - 1, i); s.any32(code)
    s.range(0, 3, 0)
    s.op(23); s.range(0, 3, 3)
    for v in (INT_MIN, INT_MIN, INT_MAX, INT_MAX):
        s.flag(True); s.any32(v)
    s.op(23); s.range(0, 3, 3)
    for v in (INT_MAX, 5, INT_MIN, 10):
        s.flag(True); s.any32(v)
    s.op(0)
    return s


def faults():
    # A cut whose allocations fail one after another in four sessions would
    # need four seeds; one seed per interesting index is enough to start from.
    s = Seed()
    s.photo(16, 12)
    s.start(True, fault_step=0, fault_index=40)
    s.op(10); s.flag(False)                                           # the rectangle that fails
    s.range(0, 15, 2); s.range(0, 15, 13); s.range(0, 11, 2); s.range(0, 11, 9)
    s.op(3)
    s.op(5)
    s.op(6)
    return s


def empty_photo():
    s = Seed()
    s.photo(20, 15)
    s.start(True)
    s.op(14); s.flag(False); s.side(0); s.side(9, 15)               # 0 x 15: logged and stored
    s.op(3)                                                          # every request refuses it
    s.op(0); s.range(0, 3, 0); s.range(0, 4, 0); s.range(0, 64, 0); s.range(0, 3, 2)
    s.op(5)
    s.op(6)
    s.op(22)                                                         # and so does the engine
    s.op(15); s.flag(True)                                           # copySourceImage(null): a photo is held
    s.op(15); s.flag(False)                                          # nothing to write
    s.op(14); s.flag(True); s.flag(True); s.side(9, 7); s.side(0)   # 7 x 0, null pixels: stored
    s.op(13); s.flag(False)                                          # a photo with pixels again
    return s
def empty_grid():
    s = Seed()
    s.photo(20, 15)
    s.start(True)
    s.op(19); s.range(0, 64, 0); s.range(0, 64, 5); s.range(0, 3, 2); s.flag(True)   # cut on a 0 x 5 grid
    s.op(19); s.range(0, 64, 0); s.range(0, 64, 0); s.range(0, 3, 1); s.flag(False)  # edit on 0 x 0
    s.op(16); s.range(0, 3, 2); s.range(0, 2, 0); s.side(9, 20); s.side(0); s.flag(True)  # 20 x 0, null
    s.op(16); s.range(0, 3, 1); s.range(0, 2, 0); s.side(0); s.side(0); s.flag(False)     # 0 x 0
    s.op(16); s.range(0, 3, 1); s.range(0, 2, 0); s.side(0); s.side(1); s.flag(False)     # 0 x -1: refused
    s.op(3)                                                          # the photo still cuts
    return s
def main():
    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
    for name, make in (("args-sizes", sizes), ("args-nulls", nulls), ("args-counts", counts),
                       ("args-order", order), ("args-wild", wild), ("args-fault", faults),
                       ("args-empty-photo", empty_photo), ("args-empty-grid", empty_grid)):
        data = make().bytes()
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        print(f"{name}: {len(data)} bytes")


if __name__ == "__main__":
    main()

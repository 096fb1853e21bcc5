#!/usr/bin/python3
"""Writes the seed corpus of fuzz_entry_points (fuzz/corpus/): for every
entry point a few inputs in each argument form, decoded as described at the
top of fuzz_entry_points.cpp. Deterministic: rerunning it gives the same
files. Seeds are small (at most a few hundred bytes) so that the checked-in
corpus stays small; the fuzzer grows its own working corpus from them."""
import os
import random

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")
ENTRIES = 20  # the last: the exact initial routines


def seeds():
    rng = random.Random(20261121)
    for entry in range(ENTRIES):
        # raw argument lists: a few lengths
        for nargs in (0, 3, 9, 12):
            body = bytes(rng.randrange(256) for _ in range(24 * nargs))
            yield f"e{entry:02d}_raw{nargs}", bytes([entry, 0, nargs]) + body
        # model-shaped lists: N, m, n, then fill bytes; style byte 0 gives
        # identity-like matrices (a well-posed model), others special values
        for form, (N, m, n) in enumerate([(0, 1, 6), (1, 2, 8), (2, 3, 5), (0, 0, 4)], start=1):
            for style in (0, 2, 4):
                fill = bytes((style if k % 7 == 0 else rng.randrange(232)) for k in range(160))
                yield f"e{entry:02d}_f{form}_s{style}", bytes([entry, form, N, m, n]) + fill


def main():
    os.makedirs(OUT, exist_ok=True)
    for name in os.listdir(OUT):
        os.remove(os.path.join(OUT, name))
    count = 0
    for name, data in seeds():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)
        count += 1
    print(f"{count} seeds in {OUT}")


if __name__ == "__main__":
    main()

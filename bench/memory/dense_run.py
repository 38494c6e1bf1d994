#!/usr/bin/python3
"""Writes a synthetic .ms1/.ms2 pair of N MS1 scans of P peaks each (one MS2
scan after every MS1 scan), to measure the memory of a run on dense data.

usage: dense_run.py <directory> <scans> <peaks per scan>
"""
import os
import random
import sys

directory, scans, peaks = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
os.makedirs(directory, exist_ok=True)
rng = random.Random(7)
with open(os.path.join(directory, "dense.ms1"), "w") as ms1, \
        open(os.path.join(directory, "dense.ms2"), "w") as ms2:
    for scan in range(1, scans + 1):
        ms1.write(f"S\t{2 * scan - 1}\t{2 * scan - 1}\nI\tRetTime\t{scan / 60:.4f}\n"
                  "I\tInstrumentType\tFTMS\n")
        step = 1600.0 / peaks
        ms1.write("".join(f"{400 + i * step:.5f} {rng.uniform(1e3, 1e6):.1f}\n"
                          for i in range(peaks)))
        target = 400 + rng.uniform(100, 1400)
        ms2.write(f"S\t{2 * scan}\t{2 * scan}\t{target:.5f}\nI\tActivationType\tHCD\n"
                  f"I\tActivationCenter\t{target:.5f}\nI\tPrecursorScan\t{2 * scan - 1}\n"
                  f"I\tInstrumentType\tFTMS\nI\tRetTime\t{scan / 60:.4f}\n"
                  f"Z\t2\t{2 * target - 1.007276:.5f}\n200.1 10\n300.2 20\n")

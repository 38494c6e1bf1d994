"""Isolation purity against the simulator's truth.

For every MS2 scan whose dominant ion (the largest window_share of the truth
file: its true share of the MS1 intensity in the isolation window of the survey
scan) kSieve wrote, the absolute difference between the purity of the evidence
table and that share. Prints n, the mean absolute error and the mean signed
error, and exits 1 when the mean absolute error exceeds the limit.

Usage: purity_mae.py <stem>.precursors.tsv <stem>_truth.csv [limit (0.05)] [ppm (10)]
"""

import csv
import sys


def dominant_ions(truth_path):
    dominant = {}
    with open(truth_path, encoding="utf-8", newline="") as f:
        for row in csv.DictReader(f):
            scan = int(row["ms2_scan"])
            share = float(row["window_share"])
            if scan not in dominant or share > dominant[scan][2]:
                dominant[scan] = (int(row["charge"]), float(row["mono_mz"]), share)
    return dominant


def main():
    table_path, truth_path = sys.argv[1:3]
    limit = float(sys.argv[3]) if len(sys.argv) > 3 else 0.05
    ppm = float(sys.argv[4]) if len(sys.argv) > 4 else 10.0
    dominant = dominant_ions(truth_path)
    errors = []
    seen = set()
    with open(table_path, encoding="utf-8", newline="") as f:
        for row in csv.DictReader(f, delimiter="\t"):
            scan = int(row["scan"])
            if scan in seen or scan not in dominant:
                continue
            charge, mono, share = dominant[scan]
            mz = float(row["mz"])
            if int(row["charge"]) == charge and abs(mz - mono) <= ppm * mono / 1e6:
                seen.add(scan)
                errors.append(float(row["purity"]) - share)
    if not errors:
        sys.exit("no dominant ion written")
    mae = sum(abs(e) for e in errors) / len(errors)
    bias = sum(errors) / len(errors)
    print(f"n = {len(errors)} of {len(dominant)} scans; MAE = {mae:.4f}; "
          f"mean signed error = {bias:+.4f}")
    return 0 if mae <= limit else 1


if __name__ == "__main__":
    sys.exit(main())

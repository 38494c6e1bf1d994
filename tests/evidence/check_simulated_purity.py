"""Isolation purity against truth at two simulator settings: the default run,
and a crowded one (twice the elution rate, a 3 m/z window, twice the noise
peaks). tools/accuracy/purity_mae.py fails the check above a mean absolute
error of 0.05 for the dominant precursors.

Usage: check_simulated_purity.py <simulator> <run dir> <source dir> <scratch dir>
"""

import os
import shutil
import subprocess
import sys

SETTINGS = {
    "default": ("2.0", []),
    "crowded": ("3.0", ["--seed", "7", "--feature-rate", "16", "--isolation-width", "3.0",
                        "--noise-peaks", "300"]),
}


def run(command, cwd):
    done = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False)
    print(done.stdout, end="")
    if done.returncode != 0:
        sys.exit(f"{os.path.basename(command[0])} failed ({done.returncode}): "
                 f"{done.stderr[-2000:]}")


def main():
    simulator, run_dir, source, scratch = (os.path.abspath(a) for a in sys.argv[1:5])
    shutil.rmtree(scratch, ignore_errors=True)
    for name, (width, options) in SETTINGS.items():
        out = os.path.join(scratch, name)
        os.makedirs(out)
        run([simulator, "--fasta", os.path.join(source, "data", "sim_proteins.fasta"),
             "--out-dir", out, "--stem", name, "--ms2-scans", "3000"] + options, out)
        shutil.copy(os.path.join(run_dir, "IPV.txt"), out)
        params = os.path.join(out, "run.params")
        with open(params, "w", encoding="utf-8") as f:
            f.write(f"datapath = {os.path.join(out, name + '.ms1')}\nprecursor_table = 1\n"
                    f"isolation_width = {width}\noutput_ks = 0\noutput_mgf = 0\n")
        run([os.path.join(run_dir, "kSieve"), params], out)
        print(f"{name}: ", end="")
        run([sys.executable, os.path.join(source, "tools", "accuracy", "purity_mae.py"),
             os.path.join(out, name + ".precursors.tsv"),
             os.path.join(out, name + "_truth.csv")], out)
    return 0


if __name__ == "__main__":
    sys.exit(main())

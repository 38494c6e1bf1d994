#!/usr/bin/python3
"""Tells Snakemake how a Slurm job is doing: prints running, success or failed.

scontrol knows a job while it runs and for a few minutes after (MinJobAge);
after that only accounting (sacct) remembers it, where accounting exists. A job
that neither knows any more has left the queue, so it counts as done, and
Snakemake then checks that its output files are there.
"""

import subprocess
import sys

RUNNING = {"PENDING", "RUNNING", "CONFIGURING", "COMPLETING", "SUSPENDED", "REQUEUED",
           "RESIZING", "SIGNALING", "STAGE_OUT", "REQUEUE_HOLD", "REQUEUE_FED"}


def ask(args):
    try:
        done = subprocess.run(args, capture_output=True, text=True, timeout=60, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return ""
    return done.stdout if done.returncode == 0 else ""


def state_from_scontrol(job):
    for field in ask(["scontrol", "show", "job", "-o", job]).split():
        if field.startswith("JobState="):
            return field.split("=", 1)[1]
    return None


def state_from_sacct(job):
    lines = ask(["sacct", "-j", job, "-X", "-n", "-P", "-o", "State"]).split()
    return lines[0].split()[0] if lines else None


def verdict(state):
    if state is None or state == "COMPLETED":
        return "success"
    return "running" if state in RUNNING else "failed"


def main():
    job = sys.argv[1].split(";")[0]
    print(verdict(state_from_scontrol(job) or state_from_sacct(job)))


if __name__ == "__main__":
    main()

"""Starts the program a rule names, with the argument list the rule built.

Every rule runs through this file with Snakemake's `script:` directive, never
with `run:` or `shell:`: Snakemake starts a `run:` job as a shell command that
holds the job's wildcards and configuration as text, so a run or folder name
with `$( )`, backquotes or quotes in it would be run as a command. A `script:`
job gets its values as Python objects, and this file hands them on as an
argument list, so a file name is only ever a file name.

The rule's `params.argv` is the script name (in this folder) or the program,
then its arguments; a script is started with Debian's Python.
"""

import subprocess
import sys
from pathlib import Path

PYTHON = "/usr/bin/python3"


def command(argv):
    first, *rest = [str(a) for a in argv]
    script = Path(__file__).resolve().parent / first
    return [PYTHON, str(script), *rest] if first.endswith(".py") else [first, *rest]


def main(argv, log):
    """Runs the command, its streams into the log when the rule has one; returns its exit code."""
    if not log:
        return subprocess.run(command(argv), check=False).returncode
    with open(log, "w", encoding="utf-8") as stream:
        return subprocess.run(command(argv), stdout=stream, stderr=subprocess.STDOUT,
                              check=False).returncode


# `snakemake` is the object Snakemake gives a `script:` job.
sys.exit(main(snakemake.params.argv,  # noqa: F821
              snakemake.params.get("log_streams", "")))  # noqa: F821

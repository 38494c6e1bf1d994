"""Helpers shared by the workflow's stage scripts.

Every external program is started with an argument list, never through a shell,
so a file name is only ever a file name. A stage that fails leaves a one-line
note naming the run and the cause in <run dir>/failed/<stage>.txt; the report
reads these notes, and a new attempt at the stage removes its own note first.
"""

import json
import os
import re
import subprocess
import sys
from pathlib import Path

# Masses in daltons: a proton, which turns neutral masses into m/z, and a
# hydrogen atom, which OpenMS uses for the same (one electron heavier).
PROTON = 1.007276
HYDROGEN = 1.007825032

# The title kSieve writes on each MGF block ends in .<scan>.<scan>.<charge>.<index>.dta;
# Comet names a spectrum read from an .ms2 file <base>.<scan>.<scan>.<charge>.
SPECTRUM_ID = re.compile(r"\.(\d+)\.(\d+)\.(-?\d+)(?:\.(\d+)\.dta)?$")

# A name Snakemake can hand to a job it starts elsewhere (a cluster job, a job
# script): there it is written between single quotes into a shell line and,
# for an output path, also read as a pattern, so it must hold no quote,
# backslash or brace, no line break or other unprintable character, and be
# UTF-8. Run names also travel as `rule:run=<name>` lists, hence no ',' or '='.
UNCARRIED = re.compile(r"['\\{}]")
UNCARRIED_IN_RUN = re.compile(r"['\\{},=]")


def carried(text, refused=UNCARRIED):
    """True when Snakemake can pass the text to the jobs it starts unchanged and inert."""
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        return False
    return text.isprintable() and not refused.search(text)


def refused_path(what, path):
    """The one line that refuses a path Snakemake cannot carry, or None for a path it can."""
    if carried(str(path)):
        return None
    return (f"{what} {shown(path)} cannot be used: a path here may not hold a "
            "single quote, a backslash, a brace, a line break or bytes that are not UTF-8")


def shown(text):
    """A name as it can go on the console: as it is, or quoted with its odd characters escaped."""
    return str(text) if carried(str(text)) else repr(str(text))


class StageError(Exception):
    """A stage of one run failed; the text says why, in the user's words.

    `output` holds what the failed program printed, when a program failed.
    """

    def __init__(self, message, output=""):
        super().__init__(message)
        self.output = output


def scan_of(spectrum_reference):
    """Scan number in a spectrum identity written by kSieve or by Comet, else None."""
    match = SPECTRUM_ID.search(spectrum_reference)
    return int(match.group(1)) if match else None


def block_of(spectrum_reference):
    """Index of a kSieve MGF block among its scan's blocks (0, its best rank, for a
    spectrum identity without one)."""
    match = SPECTRUM_ID.search(spectrum_reference)
    return int(match.group(4)) if match and match.group(4) else 0


def failure_note(run_dir, stage):
    return Path(run_dir) / "failed" / f"{stage}.txt"


def run_tool(args, log, cwd=None, env=None):
    """Runs one program, appending its command and both streams to the open log.

    Returns the captured standard output; raises StageError with the program's
    last error line when it fails or cannot be started.
    """
    log.write("$ " + " ".join(str(a) for a in args) + "\n")
    log.flush()
    try:
        done = subprocess.run([str(a) for a in args], cwd=cwd, env=env, capture_output=True,
                              text=True, errors="replace", check=False)
    except OSError as error:
        raise StageError(f"{Path(str(args[0])).name} could not be started: {error}") from error
    log.write(done.stdout)
    log.write(done.stderr)
    log.flush()
    if done.returncode != 0:
        output = done.stdout + done.stderr
        raise StageError(f"{Path(str(args[0])).name} exited with {done.returncode}: "
                         f"{last_error_line(output)}", output)
    return done.stdout


def last_error_line(text):
    """The most telling line of a failed program's output."""
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    for line in reversed(lines):
        if re.search(r"error|fail|cannot|unable|not found|invalid", line, re.IGNORECASE):
            return line
    return lines[-1] if lines else "no message"


def run_stage(run, run_dir, stage, log_path, body):
    """Runs body(log) as one stage of one run, keeping the failure note in step.

    On failure the note is written, a message naming the run goes to standard
    error and the process exits with 1, so the workflow engine marks the job failed.
    """
    note = failure_note(run_dir, stage)
    note.unlink(missing_ok=True)
    Path(log_path).parent.mkdir(parents=True, exist_ok=True)
    with open(log_path, "w", encoding="utf-8") as log:
        try:
            body(log)
        except (StageError, OSError, ValueError) as error:
            message = f"{stage} failed: {error}"
            log.write(message + "\n")
            note.parent.mkdir(parents=True, exist_ok=True)
            note.write_text(message + "\n", encoding="utf-8")
            print(f"run {run}: {message} (log: {log_path})", file=sys.stderr)
            sys.exit(1)


def write_json(path, value):
    """Writes through a temporary name so that a half-written file never looks finished."""
    path = Path(path)
    partial = path.with_name(path.name + ".partial")
    partial.write_text(json.dumps(value, indent=1, sort_keys=True) + "\n", encoding="utf-8")
    os.replace(partial, path)


def read_json(path):
    return json.loads(Path(path).read_text(encoding="utf-8"))


def tool_version(args, marker):
    """The line of a program's own output that names its version."""
    try:
        done = subprocess.run(args, capture_output=True, text=True, errors="replace",
                              timeout=60, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return "not found"
    for line in (done.stdout + done.stderr).splitlines():
        if marker in line:
            return " ".join(line.replace('"', "").split())
    return "unknown"

"""kSieve's own account of one run, and every kSieve key that was in force for it.

The account comes from <run>.summary.json and <run>.precursors.tsv, which kSieve
writes beside its MGF files with `precursor_table = 1`: per MS2 scan, whether the
declared precursor was confirmed, corrected, replaced or kept unconfirmed, and
how many scans and precursors are co-eluted ones. Without them the account is
None, and the report says the table was not written rather than showing zeros.

The keys in force are pieced together from what the run left. kSieve's log
echoes the original keys between BEGIN and END PARAMETERS and, after END, each
newer key that differs from its default; the workflow's parameter file holds
what the workflow asked for. kSieve decides the input format per file from its
extension, while the echo shows the `input_format` word as configured (`raw` by
default, also for an mzML), so the format is given as the file had it.
"""

import csv
import json
import re
from pathlib import Path

# The per-scan counts of kSieve's run summary, in the order the report shows them.
SCAN_ACCOUNT = (("declared_confirmed", "declared precursor confirmed"),
                ("declared_corrected", "declared precursor corrected (isotope peak or charge)"),
                ("declared_replaced", "declared precursor replaced by detected ones"),
                ("declared_kept", "declared precursor kept unconfirmed"),
                ("scans_with_coeluted", "scans with co-eluted precursors"))
LOG_LINE = re.compile(r"^\[kSieve\] <INFO> - (.*)$")
NUMBERED = re.compile(r"^\d+: ")
# kSieve's format words by file ending, longest first (a compressed file by its inner ending).
FORMATS = ((".mzml.gz", "mzml"), (".mzxml.gz", "mzxml"), (".mzml", "mzml"),
           (".mzxml", "mzxml"), (".raw", "raw"))


def account(summary_json, precursors_tsv):
    """{"scans": [[label, count], ...], "coeluted_precursors": n or None, "precursors": n},
    or None when kSieve wrote no run summary."""
    if not Path(summary_json).is_file():
        return None
    counts = json.loads(Path(summary_json).read_text(encoding="utf-8")).get("precursors", {})
    coeluted = None
    if Path(precursors_tsv).is_file():
        with open(precursors_tsv, encoding="utf-8", errors="replace", newline="") as table:
            coeluted = sum(1 for row in csv.DictReader(table, delimiter="\t")
                           if row.get("origin") == "coeluted")
    return {"scans": [[label, counts.get(key)] for key, label in SCAN_ACCOUNT],
            "scans_written": counts.get("scans_written"),
            "precursors": counts.get("precursors_written"),
            "coeluted_precursors": coeluted}


def logged_keys(log_text):
    """(echoed keys, keys logged after the echo) from kSieve's log, each as [key, value]."""
    echoed, after, state = [], [], "before"
    for line in log_text.splitlines():
        match = LOG_LINE.match(line)
        if not match:
            continue
        text = match.group(1)
        if "BEGIN PARAMETERS" in text or "END PARAMETERS" in text:
            state = "echo" if "BEGIN" in text else "after"
            continue
        key, sep, value = text.partition(" = ")
        if state == "echo" and sep:
            echoed.append([NUMBERED.sub("", key), value])
        elif state == "after" and sep and " " not in key:
            after.append([key, value])
    return echoed, after


def parameter_file_keys(path):
    """[key, value] of each line of the workflow's kSieve parameter file; none without it."""
    if not path or not Path(path).is_file():
        return []
    pairs = []
    for line in Path(path).read_text(encoding="utf-8", errors="replace").splitlines():
        key, sep, value = line.partition(" = ")
        if sep:
            pairs.append([key.strip(), value.strip()])
    return pairs


def input_format(path):
    name = str(path).lower()
    return next((word for ending, word in FORMATS if name.endswith(ending)), None)


def parameter_file_used(job_log_text, parameter_file):
    """True when the workflow's kSieve job started kSieve on the parameter file: a file
    left from an earlier configuration is not what this run read."""
    return bool(parameter_file) and any(
        line.startswith("$ ") and line.endswith(" " + str(parameter_file))
        for line in job_log_text.splitlines())


def summary_keys(summary_json):
    """Every logged key with its value in force, from kSieve's run summary; none without it."""
    if not Path(summary_json).is_file():
        return []
    parameters = json.loads(Path(summary_json).read_text(encoding="utf-8")).get("parameters", {})
    return [[key, str(value)] for key, value in parameters.items()]


def keys_in_force(log_text, parameter_file, input_path, summary_json=""):
    """[key, value, where it was read] for every key in force, echo order first.

    A later source wins: a key the log gives after the echo, kSieve's run summary
    (which lists the newer keys at their defaults too), the workflow's parameter
    file, then the input file's own format.
    """
    echoed, after = logged_keys(log_text)
    keys = {key: [value, "kSieve's echo"] for key, value in echoed}
    for key, value in after:
        keys[key] = [value, "kSieve's log, after the echo"]
    for key, value in summary_keys(summary_json):
        if keys.get(key, [None])[0] != value:
            keys[key] = [value, "kSieve's run summary"]
    for key, value in parameter_file_keys(parameter_file):
        keys[key] = [value, "the workflow's parameter file"]
    actual = input_format(input_path)
    if actual and keys.get("input_format", [actual])[0].lower() != actual:
        said = keys["input_format"][0]
        keys["input_format"] = [actual, f"the input file's extension (the echo says {said}: "
                                        f"kSieve reads each file by its extension)"]
    return [[key, value, source] for key, (value, source) in keys.items()]


def retention_span(precursors_tsv):
    """(first, last) retention time in seconds of the MS2 scans kSieve wrote; None without
    its precursor table or times."""
    if not Path(precursors_tsv).is_file():
        return None
    times = []
    with open(precursors_tsv, encoding="utf-8", errors="replace", newline="") as table:
        for row in csv.DictReader(table, delimiter="\t"):
            try:
                times.append(float(row.get("rt_seconds") or ""))
            except ValueError:
                continue
    return [min(times), max(times)] if times else None

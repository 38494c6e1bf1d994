"""Runs kSieve on one instrument file into the run's own output directory.

kSieve starts its companion extractor from its working directory and reads the
isotope table from there, so it runs with the directory that holds kSieve,
spexor_xml.exe, spexor_raw.exe and IPV.txt as its working directory. The thread
count goes in through KSIEVE_THREADS. Afterwards the versions, the parameter
echo and the companion's account of the scans are kept in a small JSON file,
because the .ms1/.ms2 pair is removed once the searches have read it.
"""

import argparse
import csv
import gzip
import os
import re
import shutil
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from wfcommon import StageError, run_stage, run_tool, write_json  # noqa: E402


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--run", required=True)
    parser.add_argument("--input", required=True)
    parser.add_argument("--bin", required=True, help="directory holding kSieve and its companions")
    parser.add_argument("--outdir", required=True)
    parser.add_argument("--run-dir", required=True)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--log", required=True)
    parser.add_argument("--info", required=True)
    parser.add_argument("--scans", required=True, help="scan table to write, TSV")
    parser.add_argument("--option", nargs=2, action="append", default=[],
                        metavar=("LETTER", "VALUE"), help="a kSieve command-line option")
    parser.add_argument("--parameter", nargs=2, action="append", default=[],
                        metavar=("KEY", "VALUE"), help="a kSieve parameter-file key")
    return parser.parse_args()


# --- Temporary: until the companion reads .mzML.gz/.mzXML.gz itself, a compressed
# --- run is inflated into the run directory first and removed afterwards.
def inflate_if_compressed(path, run_dir):
    if not path.name.endswith(".gz"):
        return path, None
    plain = Path(run_dir) / "input" / path.name[:-3]
    plain.parent.mkdir(parents=True, exist_ok=True)
    try:
        with gzip.open(path, "rb") as source, open(plain, "wb") as target:
            shutil.copyfileobj(source, target, 1 << 20)
    except (OSError, EOFError) as error:
        plain.unlink(missing_ok=True)
        raise StageError(f"cannot decompress {path}: {error}") from error
    return plain, plain
# --- end of the temporary decompression


def marker_counts(marker):
    """The companion's account of the scans, as key/value lines of its marker file.

    Lines are `key<TAB>value`; older markers write `key: value`. Every key is kept,
    in file order, so the report shows whatever the companion counted.
    """
    counts = []
    if not marker.is_file():
        return counts
    for line in marker.read_text(encoding="utf-8", errors="replace").splitlines():
        key, sep, value = line.partition("\t")
        if not sep:
            key, sep, value = line.rpartition(": ")
        if sep and key.strip():
            counts.append([key.strip(), value.strip()])
    return counts


def companion_header(ms2):
    """The H lines at the top of the companion's .ms2 file, as a mapping."""
    header = {}
    with open(ms2, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if not line.startswith("H\t"):
                break
            _, key, value = (line.rstrip("\n").split("\t", 2) + [""])[:3]
            header[key] = value
    return header


SCAN_COLUMNS = ["scan", "rt_seconds", "native_id"]


def ksieve_keys(preset, mzml, parameters):
    """The parameter-file keys kSieve runs with: the preset, `output_mzml = 1` when the
    workflow's mzML switch is on, then the user's keys, which win over both."""
    keys = dict(preset or {})
    if mzml:
        keys["output_mzml"] = 1
    keys.update(parameters or {})
    return keys


def write_scan_table(ms2, path):
    """Each MS2 scan's retention time in seconds and the instrument's native id (empty
    when the run has none), from the companion's .ms2 (`I RetTime` in minutes, `I
    NativeID`), so that every PSM table can name its spectrum as the lab's other
    tools do after the .ms2 is gone."""
    rows, scan = [], None
    with open(ms2, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if line.startswith("S\t"):
                scan = {"scan": line.split("\t")[1].strip(), "rt_seconds": "", "native_id": ""}
                rows.append(scan)
            elif line.startswith("I\t") and scan is not None:
                _, key, value = (line.rstrip("\r\n").split("\t", 2) + [""])[:3]
                if key == "RetTime":
                    scan["rt_seconds"] = f"{float(value) * 60:.4f}"
                elif key == "NativeID":
                    scan["native_id"] = value
    partial = Path(str(path) + ".partial")
    with open(partial, "w", encoding="utf-8", newline="") as out:
        writer = csv.DictWriter(out, SCAN_COLUMNS, delimiter="\t", lineterminator="\n")
        writer.writeheader()
        writer.writerows(rows)
    os.replace(partial, path)


def parameter_echo(log_text):
    inside = re.search(r"BEGIN PARAMETERS -+\n(.*?)\n[^\n]*END PARAMETERS", log_text, re.S)
    if not inside:
        return []
    return [re.sub(r"^.*?- \d+: ", "", line) for line in inside.group(1).splitlines()]


def write_parameter_file(args, source, outdir):
    """kSieve reads parameter-file keys only from a parameter file: one in the
    run directory, with the input, the output directory and the given keys."""
    if args.option:
        raise StageError("ksieve_options and ksieve_parameters cannot be combined: "
                         "give every kSieve option as a parameter-file key")
    # A parameter file ends a value at '#' and a line at a line break, and a key at '='.
    pairs = [("datapath", str(source)), ("outputpath", str(outdir))] + args.parameter
    for key, value in pairs:
        if any(c in key + value for c in "\n\r#") or "=" in key or key[:1] in (";", "["):
            raise StageError(f"kSieve parameter {key!r} = {value!r} cannot be written "
                             "to a parameter file")
    lines = [f"{key} = {value}" for key, value in pairs]
    path = Path(args.run_dir).resolve() / "ksieve.params"
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return path


VALIDATION_LINE = re.compile(r"Precursor validation in .*: (.+)")


def count_item(item, verb):
    """One "<number> <words>" or "<words> <number>" of the validation line."""
    number, _, words = item.partition(" ")
    if not number.isdigit():
        words, _, number = item.rpartition(" ")
    return [verb + words, int(number)]


def validation_counts(log_text):
    """The precursor validation stage's counts from its last log line, each named
    by the line's own words: a group of several "<words> <number>" counts shares
    its first word ("removed: charge alias"). None when the stage did not run."""
    found = VALIDATION_LINE.findall(log_text)
    if not found:
        return None
    counts = []
    for group in found[-1].split("; "):
        items = group.split(", ")
        verb = ""
        if len(items) > 1 and not items[0][:1].isdigit():
            first, _, items[0] = items[0].partition(" ")
            verb = first + ": "
        counts += [count_item(item, verb) for item in items]
    return counts


def ksieve(args, log):
    outdir = Path(args.outdir).resolve()
    # Whatever an earlier attempt left (a marker without its .ms1/.ms2 pair, half a
    # table) would make kSieve skip work; each attempt starts from an empty directory.
    shutil.rmtree(outdir, ignore_errors=True)
    outdir.mkdir(parents=True)
    source, inflated = inflate_if_compressed(Path(args.input).resolve(), args.run_dir)
    env = dict(os.environ, KSIEVE_THREADS=str(args.threads))
    log.write(f"KSIEVE_THREADS={args.threads}\n")
    command = ["./kSieve", "-D", source, "-O", outdir]
    for letter, value in args.option:
        command += [letter, value]
    if args.parameter:
        command = ["./kSieve", write_parameter_file(args, source, outdir)]
    try:
        stdout = run_tool(command, log, cwd=args.bin, env=env)
    except StageError as error:
        raise StageError(f"{args.input}: {ksieve_error(error.output) or error}") from error
    finally:
        if inflated:
            inflated.unlink(missing_ok=True)
            inflated.parent.rmdir()
    table = outdir / f"{args.run}.csv"
    if not table.is_file():
        raise StageError(f"kSieve wrote no precursor table for {args.input}")
    banner = re.search(r"(kSieve[\w.]+ \(\w+\))", stdout)
    log_text = (outdir / "kSievePlusLog.txt").read_text(encoding="utf-8", errors="replace")
    ms2 = outdir / f"{args.run}.ms2"
    write_scan_table(ms2, args.scans)
    write_json(args.info, {
        "ksieve_version": banner.group(1) if banner else "unknown",
        "companion": companion_header(ms2) if ms2.is_file() else {},
        "parameters": parameter_echo(log_text),
        "scan_account": marker_counts(outdir / f"{args.run}.spexor"),
        "mgf": sorted(p.name for p in outdir.glob(f"{args.run}_*.mgf")),
        "validation": validation_counts(log_text),
    })


def ksieve_error(output):
    """The line that says best what went wrong: the companion's own message when
    it failed (it names the file and the cause), else kSieve's ERROR line."""
    lines = output.splitlines()
    for prefix in ("spexor_xml.exe:", "spexor_raw.exe:", "[kSieve] <ERROR>"):
        found = [line for line in lines if line.startswith(prefix)]
        if found:
            return found[-1].split("<ERROR> - ", 1)[-1].strip()
    return None


def main():
    args = parse_args()
    run_stage(args.run, args.run_dir, "kSieve", args.log, lambda log: ksieve(args, log))


if __name__ == "__main__":
    main()

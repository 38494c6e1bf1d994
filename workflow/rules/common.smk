# Finds the runs, checks the inputs before anything runs, and holds the helpers
# that the rules share. Paths in the configuration are taken from the folder
# Snakemake runs in.
import json
import os
import re
import subprocess
import sys
from pathlib import Path

# Longest first, so that run.mzML.gz is a compressed mzML, not a file "run.mzML".
RUN_EXTENSIONS = (".mzml.gz", ".mzxml.gz", ".mzml", ".mzxml", ".raw")
SCRIPTS = Path(workflow.basedir) / "scripts"
PYTHON = "/usr/bin/python3"
sys.path.insert(0, str(SCRIPTS))
from run_ksieve import ksieve_keys  # noqa: E402
from wfcommon import UNCARRIED_IN_RUN, carried, refused_path, shown  # noqa: E402


def stop(message):
    """A clear message about bad input, one line, and nothing runs (sys.exit would add
    Snakemake's account of the exit)."""
    print(f"kSieve workflow: {message}", file=sys.stderr, flush=True)
    os._exit(1)


def find_runs(folder):
    """Run name -> file, for every instrument file directly in the folder.

    A run whose name Snakemake could not carry is refused by name, and the
    others go on.
    """
    if not folder.is_dir():
        stop(f"input folder {shown(folder)} does not exist or is not a folder")
    runs = {}
    for path in sorted(folder.iterdir()):
        ending = next((e for e in RUN_EXTENSIONS if path.name.lower().endswith(e)), None)
        if ending is None or not path.is_file():
            continue
        name = path.name[: -len(ending)]
        if not carried(name, UNCARRIED_IN_RUN) or name.startswith("-"):
            print(f"kSieve workflow: run file {shown(path.name)} refused: rename it without quotes, "
                  "backslashes, braces, ',', '=', a leading '-', line breaks or bytes that are "
                  "not UTF-8", file=sys.stderr)
            continue
        if name in runs:
            stop(f"{runs[name].name} and {path.name} in {folder} would both be run '{name}'")
        runs[name] = path.resolve()
    if not runs:
        stop(f"no runs in {folder}: expected .mzML, .mzXML, .mzML.gz, .mzXML.gz or .raw files")
    return runs


PROTEIN_SEQUENCE = re.compile(rb"[A-Za-z*]+")


def check_fasta(path):
    """Refuses a database that is not FASTA, naming its first bad line, before any search.

    The whole file is read, line by line; a UTF-8 byte-order mark may open it.
    """
    if not path.is_file():
        stop(f"FASTA file {shown(path)} does not exist")
    headers = sequences = 0
    with open(path, "rb") as lines:
        for number, line in enumerate(lines, start=1):
            text = (line.removeprefix(b"\xef\xbb\xbf") if number == 1 else line).strip()
            if text.startswith(b">"):
                headers += 1
            elif text and (headers == 0 or not PROTEIN_SEQUENCE.fullmatch(text)):
                what = "a protein sequence" if headers else "a '>' header line"
                stop(f"{shown(path)} is not a FASTA file: line {number} is not {what}: "
                     f"{text[:60].decode('utf-8', 'replace')!r}")
            elif text:
                sequences += 1
    if sequences == 0:
        stop(f"{shown(path)} is not a FASTA file: it holds no protein sequence")


def check_ksieve(folder):
    missing = [n for n in ("kSieve", "spexor_xml.exe", "IPV.txt") if not (folder / n).is_file()]
    if missing:
        stop(f"{folder} lacks {', '.join(missing)}: build kSieve first (make build)")


def python_script(name, *args):
    """Runs one of the workflow's scripts with Debian's Python, without a shell."""
    subprocess.run([PYTHON, str(SCRIPTS / name), *map(str, args)], check=True)


def checked_path(what, key):
    """A path setting: `make workflow` passes it in KSIEVE_WORKFLOW_<KEY>, which wins over
    the configuration, so that no path is ever part of a command line. Snakemake writes
    the paths into lock files and into the command lines of the jobs it starts
    elsewhere; a path it cannot carry is refused."""
    path = Path(os.environ.get(f"KSIEVE_WORKFLOW_{key.upper()}") or config[key]).resolve()
    refusal = refused_path(what, path)
    if refusal:
        stop(refusal)
    return path


OUT = str(checked_path("output folder", "out"))
INPUT = checked_path("input folder", "input")
FASTA = checked_path("FASTA file", "fasta")
KSIEVE_BIN = checked_path("kSieve folder", "ksieve_bin")
RUNS = find_runs(INPUT)
check_fasta(FASTA)
check_ksieve(KSIEVE_BIN)
# Cluster jobs write their own logs here; sbatch does not create the folder.
Path(OUT, "logs", "slurm").mkdir(parents=True, exist_ok=True)

# What the stage scripts need to know of the configuration, as one file.
SETTINGS = {key: config[key] for key in ("fdr", "enzyme", "decoy_prefix", "comet",
                                         "entrapment", "entrapment_prefix", "rescoring",
                                         "calibration", "calibration_tolerance",
                                         "ksieve_options", "ksieve_preset",
                                         "ksieve_parameters", "ksieve_mzml",
                                         "ksieve_threads", "search_threads")}
STAGE = str(SCRIPTS / "stage.py")


KSIEVE_KEYS = ksieve_keys(config["ksieve_preset"], config["ksieve_mzml"],
                          config["ksieve_parameters"])
if config["ksieve_options"] and KSIEVE_KEYS:
    stop("ksieve_options cannot be combined with parameter-file keys (ksieve_preset, "
         "ksieve_mzml, ksieve_parameters): give every kSieve option as a key in "
         "ksieve_parameters, or set ksieve_preset to {}")


def ksieve_arguments():
    options = [arg for item in config["ksieve_options"].items()
               for arg in ("--option", *map(str, item))]
    return options + [arg for item in KSIEVE_KEYS.items()
                      for arg in ("--parameter", *map(str, item))]


def report_arguments(settings):
    return [f"--out={OUT}", f"--settings={settings}", *(f"--run={run}" for run in RUNS)]


wildcard_constraints:
    run="|".join(re.escape(name) for name in RUNS),
    side="ksieve|declared",


localrules:
    all,
    settings,
    report,


rule settings:
    output:
        f"{OUT}/work/settings.json",
    params:
        argv=lambda wildcards, output: ["write_settings.py", output[0],
                                        json.dumps(SETTINGS)],
    script:
        STAGE


onerror:
    # With --keep-going the runs that could finish have finished; the report says
    # which did not and why.
    if Path(f"{OUT}/work/settings.json").is_file():
        python_script("report.py", *report_arguments(f"{OUT}/work/settings.json"))

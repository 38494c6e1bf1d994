# Finds the runs, checks the inputs before anything runs, and holds the helpers
# that the rules share. Paths in the configuration are taken from the folder
# Snakemake runs in.
import json
import re
import subprocess
import sys
from pathlib import Path

# Longest first, so that run.mzML.gz is a compressed mzML, not a file "run.mzML".
RUN_EXTENSIONS = (".mzml.gz", ".mzxml.gz", ".mzml", ".mzxml", ".raw")
SCRIPTS = Path(workflow.basedir) / "scripts"
PYTHON = "/usr/bin/python3"


def stop(message):
    """A clear message about bad input, and nothing runs."""
    print(f"kSieve workflow: {message}", file=sys.stderr)
    sys.exit(1)


def find_runs(folder):
    """Run name -> file, for every instrument file directly in the folder."""
    if not folder.is_dir():
        stop(f"input folder {folder} does not exist or is not a folder")
    runs = {}
    for path in sorted(folder.iterdir()):
        ending = next((e for e in RUN_EXTENSIONS if path.name.lower().endswith(e)), None)
        if ending is None or not path.is_file():
            continue
        name = path.name[: -len(ending)]
        if name in runs:
            stop(f"{runs[name].name} and {path.name} in {folder} would both be run '{name}'")
        runs[name] = path.resolve()
    if not runs:
        stop(f"no runs in {folder}: expected .mzML, .mzXML, .mzML.gz, .mzXML.gz or .raw files")
    return runs


def check_fasta(path):
    """Refuses a database that is not FASTA before any search starts on it."""
    if not path.is_file():
        stop(f"FASTA file {path} does not exist")
    with open(path, "rb") as handle:
        head = handle.read(1 << 16)
    lines = [line.strip() for line in head.decode("utf-8", "replace").splitlines() if line.strip()]
    if len(head) == 1 << 16:
        lines = lines[:-1]  # the last line read may be cut short
    sequence = re.compile(r"^[A-Za-z*]+$")
    if not lines or not lines[0].startswith(">"):
        stop(f"{path} is not a FASTA file: it does not start with a '>' header line")
    body = [line for line in lines[1:] if not line.startswith(">")]
    if not body or not all(sequence.match(line) for line in body):
        stop(f"{path} is not a FASTA file: the lines after the headers are not protein sequences")


def check_ksieve(folder):
    missing = [n for n in ("kSieve", "spexor_xml.exe", "IPV.txt") if not (folder / n).is_file()]
    if missing:
        stop(f"{folder} lacks {', '.join(missing)}: build kSieve first (make build)")


def python_script(name, *args):
    """Runs one of the workflow's scripts with Debian's Python, without a shell."""
    subprocess.run([PYTHON, str(SCRIPTS / name), *map(str, args)], check=True)


OUT = str(Path(config["out"]).resolve())
FASTA = Path(config["fasta"]).resolve()
KSIEVE_BIN = Path(config["ksieve_bin"]).resolve()
RUNS = find_runs(Path(config["input"]).resolve())
check_fasta(FASTA)
check_ksieve(KSIEVE_BIN)
# Cluster jobs write their own logs here; sbatch does not create the folder.
Path(OUT, "logs", "slurm").mkdir(parents=True, exist_ok=True)

# What the stage scripts need to know of the configuration, as one file.
SETTINGS = {key: config[key] for key in ("fdr", "enzyme", "decoy_prefix", "comet",
                                         "ksieve_options", "ksieve_parameters",
                                         "ksieve_threads", "search_threads")}


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
        settings=SETTINGS,
    run:
        Path(output[0]).write_text(json.dumps(params.settings, indent=1, sort_keys=True) + "\n")


onerror:
    # With --keep-going the runs that could finish have finished; the report says
    # which did not and why.
    if Path(f"{OUT}/work/settings.json").is_file():
        python_script("report.py", "--out", OUT, "--settings", f"{OUT}/work/settings.json",
                      "--runs", *RUNS)

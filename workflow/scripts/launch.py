"""Starts the workflow for `make workflow`, with every path as an argument, never as shell text.

The Makefile hands the paths over in the environment (INPUT, FASTA, OUT,
PROFILE, KSIEVE_BIN, relative to the folder make runs in) and the workflow
settings as arguments (`key=value`, as WORKFLOW_CONFIG holds them). Snakemake
starts in OUT and gets the paths in KSIEVE_WORKFLOW_<KEY> variables, which its
jobs inherit, so that a blank, a quote or `$( )` in a path stays part of the name.
"""

import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from wfcommon import refused_path  # noqa: E402

WORKFLOW = Path(__file__).resolve().parent.parent


def main(settings):
    paths = {key: Path(os.environ[name]).absolute() for key, name in
             (("input", "INPUT"), ("fasta", "FASTA"), ("out", "OUT"), ("ksieve_bin", "KSIEVE_BIN"))}
    out = paths["out"]
    refusal = refused_path("output folder", out)
    if refusal:
        print(f"kSieve workflow: {refusal}", file=sys.stderr)
        return 1
    out.mkdir(parents=True, exist_ok=True)
    command = ["snakemake", "-s", WORKFLOW / "Snakefile", "--directory", out, "--cores", "all",
               "--keep-going"]
    profile = os.environ.get("PROFILE", "")
    if profile:
        command += ["--profile", WORKFLOW / "profiles" / profile]
    if settings:
        command += ["--config", *settings]
    env = dict(os.environ, **{f"KSIEVE_WORKFLOW_{key.upper()}": str(path)
                              for key, path in paths.items()})
    return subprocess.run([str(c) for c in command], cwd=out, env=env, check=False).returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

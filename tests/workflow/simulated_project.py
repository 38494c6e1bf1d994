"""A project of many small simulated runs, through the workflow's real per-run and report scripts.

usage: simulated_project.py <output folder> <runs>

Searching hundreds of runs does not fit a test's time, so the stages before the
run table are simulated: for each run a seeded generator writes what kSieve and
the FDR stage leave in the run's folder (the precursor table, the run info, the
log, the PSM tables, the rescoring account, and for every other run kSieve's
run summary and precursor evidence table). Everything after is the workflow's
own code: run_table.py per run, as the run_table rule starts it, then report.py.
"""

import json
import random
import shutil
from concurrent.futures import ThreadPoolExecutor
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
SCRIPTS = ROOT / "workflow" / "scripts"
PYTHON = "/usr/bin/python3"
PEPTIDES = ["LVNELTEFAK", "HLVDEPQNLIK", "YLYEIAR", "AEFVEVTK", "QTALVELLK", "LGEYGFQNALIVR",
            "DDSPDLPK", "SHCIAEVEK", "ECCHGDLLECADDR", "FKDLGEEHFK", "VPQVSTPTLVEVSR"]
PSM_COLUMNS = ["spectrum", "scan", "charge", "mz", "sequence", "q_value", "accessions", "group",
               "e_value", "entrapment", "score", "ppm_error"]
ECHO = ["check_activationcenter = 1", "co-elute = 1", "input_format = raw", "isolation_width = "
        "2.000000", "mstol = 20.000000"]


def write(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")


def precursor_rows(draw, run, scans):
    """kSieve's precursor table (CSV) and evidence table rows: (scan, [(mz, z, origin)])."""
    rows = []
    for scan in range(1, scans + 1):
        mz, charge = round(draw.uniform(400, 1200), 6), draw.choice([2, 2, 3])
        found = [(mz, charge, draw.choice(["declared_confirmed", "corrected", "detected"]))]
        if draw.random() < 0.2:
            found.append((round(draw.uniform(400, 1200), 6), 2, "coeluted"))
        rows.append((scan, mz, charge, found))
    return rows


def psm_table(draw, run, rows, side, accepted_share):
    """(all, accepted) PSM tables of one side: targets only, as the FDR stage writes them."""
    header = "\t".join(PSM_COLUMNS)
    lines, accepted = [header], [header]
    for scan, mz, charge, found in rows:
        if draw.random() > 0.6:
            continue
        blocks = found if side == "ksieve" else found[:1]
        for index, (block_mz, z, _) in enumerate(blocks):
            q = round(draw.random() * 0.12 if draw.random() > accepted_share else
                      draw.random() * 0.01, 6)
            line = "\t".join(str(v) for v in [
                f"{run}.{scan}.{scan}.{z}.{index}.dta", scan, z, block_mz,
                draw.choice(PEPTIDES), q, "sp|P02769|ALBU_BOVIN",
                "primary" if index == 0 else "secondary", f"{draw.random():.3g}", 0,
                f"{draw.uniform(-1, 3):.4f}", f"{draw.uniform(-5, 5):.3f}"])
            lines.append(line)
            if q <= 0.01:
                accepted.append(line)
    return "\n".join(lines) + "\n", "\n".join(accepted) + "\n"


def simulated_run(out, run, draw, with_account):
    run_dir = out / "runs" / run
    ksieve = run_dir / "ksieve"
    rows = precursor_rows(draw, run, draw.randint(20, 60))
    csv_lines = ["ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, "
                 "TotleNumOfPrecursor, PrecursorIdentifier, MZ, Charge"]
    evidence = ["scan\tnative_id\trt_seconds\ttitle\trank\tmz\tcharge\torigin"]
    for scan, mz, charge, found in rows:
        blocks = "".join(f"{i + 1}, {m:.6f}, {z}, " for i, (m, z, _) in enumerate(found))
        csv_lines.append(f"HCD, FT, {scan}, {mz:.6f}, {charge}, {len(found)}, {blocks}")
        evidence += [f"{scan}\tscan={scan}\t{scan * 3.5:.7f}\t{run}.{scan}.{scan}.{z}.{i}.dta"
                     f"\t{i + 1}\t{m:.6f}\t{z}\t{origin}" for i, (m, z, origin) in enumerate(found)]
    write(ksieve / f"{run}.csv", "\n".join(csv_lines) + "\n")
    log = ["[kSieve] <INFO> - --------- BEGIN PARAMETERS -----------"]
    log += [f"[kSieve] <INFO> - {i + 1:02d}: {line}" for i, line in enumerate(ECHO)]
    log += ["[kSieve] <INFO> - --------- END PARAMETERS -------------"]
    if with_account:
        log.append("[kSieve] <INFO> - precursor_table = 1")
        write(ksieve / f"{run}.precursors.tsv", "\n".join(evidence) + "\n")
        origins = [found[0][2] for _, _, _, found in rows]
        write(ksieve / f"{run}.summary.json", json.dumps({"precursors": {
            "scans_written": len(rows), "precursors_written": sum(len(f) for *_, f in rows),
            "declared_confirmed": origins.count("declared_confirmed"),
            "declared_corrected": origins.count("corrected"), "declared_kept": 0,
            "declared_replaced": origins.count("detected"),
            "scans_with_coeluted": sum(1 for *_, f in rows if len(f) > 1)}}))
    write(ksieve / "kSievePlusLog.txt", "\n".join(log) + "\n")
    write(run_dir / "ksieve_info.json", json.dumps({
        "ksieve_version": "kSieve2.0.8 (simulated)", "companion": {}, "parameters": ECHO,
        "scan_account": [["ms1_read", str(len(rows) // 4)], ["ms2_read", str(len(rows))]],
        "mgf": [f"{run}_HCDFT.mgf"], "validation": None}))
    share = draw.uniform(0.2, 0.8)
    for side in ("declared", "ksieve"):
        every, accepted = psm_table(draw, run, rows, side, share)
        write(run_dir / "fdr" / f"{side}_all.tsv", every)
        write(run_dir / "fdr" / f"{side}_accepted.tsv", accepted)
        write(run_dir / "fdr" / f"{side}_rescoring.json", json.dumps(
            {"features": ["xcorr"], "weights": None, "notes": ["rescoring off (simulated)"]}))
    write(out / "inputs" / f"{run}.mzML", "")
    return run_dir


def run_table(out, run):
    run_dir = out / "runs" / run
    fdr = run_dir / "fdr"
    subprocess.run([PYTHON, str(SCRIPTS / "run_table.py"), f"--run={run}",
                    f"--table={run_dir / 'ksieve' / (run + '.csv')}",
                    f"--info={run_dir / 'ksieve_info.json'}", "--psms",
                    *(str(fdr / f"{side}_{kind}.tsv") for side in ("declared", "ksieve")
                      for kind in ("all", "accepted")),
                    "--rescoring", str(fdr / "declared_rescoring.json"),
                    str(fdr / "ksieve_rescoring.json"),
                    f"--input={out / 'inputs' / (run + '.mzML')}",
                    f"--parameter-file={run_dir / 'ksieve.params'}",
                    f"--out={run_dir / 'summary.json'}", f"--mzqc={run_dir / (run + '.mzQC')}"],
                   check=True)


def main(out, count):
    out = Path(out)
    shutil.rmtree(out, ignore_errors=True)
    draw = random.Random(19)
    runs = [f"sim{i:03d}" for i in range(count)]
    for index, run in enumerate(runs):
        simulated_run(out, run, draw, with_account=index % 2 == 0)
    # Two at a time, as the workflow on two cores would run them.
    with ThreadPoolExecutor(2) as pool:
        list(pool.map(lambda run: run_table(out, run), runs))
    # One run failed before its table: the overview lists it with its cause.
    failed = "sim_failed"
    write(out / "runs" / failed / "failed" / "kSieve.txt", "kSieve failed: simulated failure\n")
    settings = {"fdr": 0.01, "rescoring": False, "entrapment": False}
    write(out / "work" / "settings.json", json.dumps(settings))
    subprocess.run([PYTHON, str(SCRIPTS / "report.py"), f"--out={out}",
                    f"--settings={out / 'work' / 'settings.json'}",
                    *(f"--run={run}" for run in runs + [failed])], check=True)


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]))

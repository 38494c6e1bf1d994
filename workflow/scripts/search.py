"""Searches one run's spectra with Comet and indexes the hits against the target-decoy database.

Side "ksieve": every MGF kSieve wrote for the run, one block per precursor. Each
block keeps its own identity through the search: Comet carries the MGF title
(<stem>.<scan>.<scan>.<charge>.<index>.dta) into its results, and OpenMS keeps
it as the spectrum reference, so two co-eluted precursors of one scan and one
charge stay two spectra and give two PSMs.

Side "declared": the companion's .ms2 file, which holds the precursors the
instrument declared, cut to the scans of each MGF, so both sides search the
same scans with the same fragment settings.

The fragment settings follow the MS2 analyzer named at the end of the MGF name
(`IT` ion trap, `FT` Orbitrap/FT): coarse bins for ion-trap spectra, fine bins
for high-resolution ones.

Comet writes the names of its input, output and database files unescaped into
its pepXML (as absolute paths), so a quote or an ampersand in a run or folder
name would spoil the XML: Comet runs in a temporary folder of its own and sees
links with neutral names only (`<key>.mgf`, `<key>_declared.ms2`,
`database.fasta`; the key is kSieve's <activation><analyzer>).
"""

import argparse
import shutil
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import calibration  # noqa: E402
import fdr  # noqa: E402
from wfcommon import StageError, read_json, run_stage, run_tool, scan_of, write_json  # noqa: E402


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--side", choices=["ksieve", "declared"], required=True)
    parser.add_argument("--run", required=True)
    parser.add_argument("--run-dir", required=True)
    parser.add_argument("--ksieve-dir", required=True)
    parser.add_argument("--info", required=True)
    parser.add_argument("--database", required=True, help="target-decoy FASTA")
    parser.add_argument("--settings", required=True, help="search settings (JSON)")
    parser.add_argument("--template", required=True, help="Comet parameter file to start from")
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--out", required=True, help="indexed hits, idXML")
    parser.add_argument("--log", required=True)
    return parser.parse_args()


def key_of(mgf_name, run):
    """The <activation><instrument> key of an MGF name; its last two letters are `IT` or `FT`."""
    key = mgf_name[len(run) + 1:-len(".mgf")]
    if key[-2:] not in ("IT", "FT") or not key.isalnum():
        raise StageError(f"{mgf_name}: cannot tell the MS2 analyzer from '{key}' (expected IT or FT)")
    return key


def comet_parameters(template, settings, analyzer, database, threads):
    """The template with the configured values put in; an unknown key is an error."""
    values = dict(settings["comet"]["common"])
    values.update(settings["comet"][analyzer])
    values.update({"database_name": database, "num_threads": threads, "decoy_search": 0,
                   "num_output_lines": 1, "output_pepxmlfile": 1, "output_txtfile": 0,
                   "output_sqtfile": 0, "output_percolatorfile": 0,
                   "decoy_prefix": settings["decoy_prefix"]})
    lines, seen = [], set()
    for line in Path(template).read_text(encoding="utf-8").splitlines():
        key = line.split("=", 1)[0].strip()
        if "=" in line and not line.startswith("#") and key in values:
            comment = line.split("#", 1)[1] if "#" in line else ""
            line = f"{key} = {values[key]}" + (f"  # {comment.strip()}" if comment else "")
            seen.add(key)
        lines.append(line)
    unknown = sorted(set(values) - seen)
    if unknown:
        raise StageError(f"Comet has no parameter named {', '.join(unknown)}")
    return "\n".join(lines) + "\n"


def mgf_scans(mgf):
    scans = set()
    with open(mgf, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if line.startswith("TITLE="):
                scan = scan_of(line[6:].strip())
                if scan is not None:
                    scans.add(scan)
    return scans


def cut_ms2(ms2, scans, target):
    """Copies the header and the scans in `scans` of an .ms2 file; returns how many scans."""
    kept, keep = 0, True
    with open(ms2, encoding="utf-8", errors="replace") as source, \
            open(target, "w", encoding="utf-8") as out:
        for line in source:
            if line.startswith("S\t"):
                fields = line.split("\t")
                keep = len(fields) > 1 and fields[1].strip().isdigit() and int(fields[1]) in scans
                kept += keep
            if keep:
                out.write(line)
    return kept


def search_inputs(args, work):
    """(spectrum file, neutral name, analyzer) for the side, in MGF name order."""
    run_ksieve_dir = Path(args.ksieve_dir)
    mgfs = read_json(args.info)["mgf"]
    pairs = []
    for name in mgfs:
        key = key_of(name, args.run)
        if args.side == "ksieve":
            pairs.append((run_ksieve_dir / name, f"{key}.mgf", key[-2:]))
        elif cut_ms2(run_ksieve_dir / f"{args.run}.ms2", mgf_scans(run_ksieve_dir / name),
                     work / f"{key}_declared.ms2"):
            pairs.append((work / f"{key}_declared.ms2", f"{key}_declared.ms2", key[-2:]))
    return pairs


def comet_search(args, settings, inputs, folder, work, log, label=""):
    """Comet on each (spectrum file, neutral name, analyzer) in `folder`, which holds the
    database link, with its parameter file at work/<label>comet_<analyzer>.params; the
    hits of all inputs merged and indexed into folder/indexed.idXML."""
    found = []
    for spectra, name, analyzer in inputs:
        link = folder / name
        link.symlink_to(Path(spectra).resolve())
        params = work / f"{label}comet_{analyzer}.params"
        params.write_text(comet_parameters(args.template, settings, analyzer,
                                           "database.fasta", args.threads), encoding="utf-8")
        run_tool(["comet-ms", f"-P{params}", f"-N{link.stem}", name], log, cwd=folder)
        run_tool(["IDFileConverter", "-in", folder / f"{link.stem}.pep.xml",
                  "-out", folder / f"{link.stem}.idXML"], log)
        found.append(folder / f"{link.stem}.idXML")
    if not found:
        raise StageError("no MS2 spectra to search: kSieve wrote no MS2 scan for this run")
    merged = folder / "merged.idXML"
    if len(found) == 1:
        shutil.copyfile(found[0], merged)
    else:
        run_tool(["IDMerger", "-in", *found, "-out", merged], log)
    index_hits(args, settings, merged, folder / "indexed.idXML", log)
    return folder / "indexed.idXML"


def search_folder(neutral, args, name):
    """A fresh folder of the temporary one with a link to the database."""
    folder = Path(neutral) / name
    folder.mkdir()
    (folder / "database.fasta").symlink_to(Path(args.database).resolve())
    return folder


def calibrated_inputs(args, settings, inputs, neutral, work, log):
    """The inputs with their precursors moved by the side's offset, measured by a first
    search at the calibration tolerance (calibration.py); the inputs themselves when the
    offset cannot be measured. The offset goes to <side>_calibration.json."""
    wide = dict(settings, comet=dict(settings["comet"], common=dict(
        settings["comet"]["common"], peptide_mass_tolerance=settings["calibration_tolerance"])))
    hits = comet_search(args, wide, inputs, search_folder(neutral, args, "first"), work, log,
                        label="calibration_")
    psms = []
    if "<PeptideHit" in hits.read_text(encoding="utf-8", errors="replace"):
        psms = fdr.exported_hits(hits, work, log)
    offset, count = calibration.offset_ppm(psms, settings["fdr"])
    write_json(Path(args.out).parent / f"{args.side}_calibration.json",
               {"offset_ppm": offset, "psms": count,
                "first_search_tolerance_ppm": settings["calibration_tolerance"]})
    log.write(f"calibration: {count} confident PSMs at {settings['calibration_tolerance']} ppm, "
              + (f"offset {offset:.3f} ppm taken off every precursor\n" if offset is not None
                 else f"fewer than {calibration.MINIMUM_PSMS}: precursors searched as given\n"))
    if offset is None:
        return inputs
    moved = []
    for spectra, name, analyzer in inputs:
        calibration.calibrate(spectra, work / f"calibrated_{name}", offset)
        moved.append((work / f"calibrated_{name}", name, analyzer))
    return moved


def search(args, log):
    settings = read_json(args.settings)
    out = Path(args.out)
    work = out.parent / f"{args.side}_work"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    with tempfile.TemporaryDirectory(prefix="ksieve_comet_") as neutral:
        inputs = search_inputs(args, work)
        if settings.get("calibration") and inputs:
            inputs = calibrated_inputs(args, settings, inputs, neutral, work, log)
        hits = comet_search(args, settings, inputs, search_folder(neutral, args, "main"), work,
                            log)
        shutil.copyfile(hits, out)
    shutil.rmtree(work)


def index_hits(args, settings, merged, out, log):
    """Marks each hit target or decoy from the database; a run without hits stays empty."""
    if "<PeptideHit" not in merged.read_text(encoding="utf-8", errors="replace"):
        shutil.copyfile(merged, out)
        return
    run_tool(["PeptideIndexer", "-in", merged, "-fasta", Path(args.database).resolve(),
              "-out", out, "-decoy_string", settings["decoy_prefix"],
              "-decoy_string_position", "prefix", "-enzyme:name", settings["enzyme"],
              "-enzyme:specificity", "full", "-missing_decoy_action", "warn"], log)


def main():
    args = parse_args()
    run_stage(args.run, args.run_dir, f"search_{args.side}", args.log, lambda log: search(args, log))


if __name__ == "__main__":
    main()

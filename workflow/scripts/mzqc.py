"""One run's quality metrics as a PSI mzQC 1.0.0 file, for MultiQC-style tools.

A metric carries a PSI-MS term where the PSI-MS vocabulary on this machine has
one of that name: the accession is looked up by name in the psi-ms.obo found
there, never written down here, so a newer vocabulary brings its terms in by
itself. A metric without a term gets a term of the workflow's own local
vocabulary (prefix KSW, declared in the file's list of vocabularies), the
userParam of this format.
"""

import re
from datetime import datetime, timezone
from pathlib import Path

from ksieve_account import input_format

VERSION = "1.0.0"
OBO_PLACES = (Path("/usr/share/openms/CV/psi-ms.obo"), Path("/usr/share/OpenMS/CV/psi-ms.obo"))
LOCAL_PREFIX = "KSW"
# The local terms are described in the workflow section of the project's README.
LOCAL_VOCABULARY = {"name": "kSieve workflow local terms (not PSI-MS)",
                    "uri": (Path(__file__).resolve().parents[2] / "README.md").as_uri(),
                    "version": "1"}
# The input file's format and the search engine, by their PSI-MS names.
FILE_FORMATS = {"mzml": "mzML format", "mzxml": "ISB mzXML format", "raw": "Thermo RAW format"}
SEARCH_ENGINE = "Comet"
# (PSI-MS name to look up, local number when the vocabulary lacks it, description, value)
# in the order written; a local number, once given, is never reused for another metric.
METRICS = (
    ("number of MS1 spectra", 1, "MS1 scans in the input file, as the companion read them",
     lambda n: companion_count(n, "ms1_read")),
    ("number of MS2 spectra", 2, "MS2 scans in the input file, as the companion read them",
     lambda n: companion_count(n, "ms2_read")),
    ("number of spectra searched", 3, "MS2 scans kSieve wrote, the scans both searches cover",
     lambda n: n["ms2_scans"]),
    ("number of precursors determined", 4, "precursors kSieve determined for the MS2 scans",
     lambda n: n["precursors"]),
    ("count of identified spectra", 5, "MS2 scans identified at the FDR threshold, kSieve's "
     "precursors", lambda n: n["ksieve"]["scans"]),
    ("count of identified peptides", 6, "distinct peptide sequences at the FDR threshold, "
     "kSieve's precursors", lambda n: n["ksieve"]["peptides"]),
    ("count of identified peptide spectrum matches", 7, "PSMs at the FDR threshold, kSieve's "
     "precursors, primary and secondary", lambda n: n["ksieve"]["psms"]),
    ("count of identified spectra, declared precursors", 8, "MS2 scans identified at the FDR "
     "threshold with the precursors the instrument declared", lambda n: n["declared"]["scans"]),
    ("count of identified peptides, declared precursors", 9, "distinct peptide sequences at "
     "the FDR threshold with the declared precursors", lambda n: n["declared"]["peptides"]),
    ("count of identifications from co-eluted precursors", 10, "secondary PSMs at the FDR "
     "threshold, kSieve's precursors", lambda n: n["ksieve"]["psms_secondary"]),
    ("chromatography duration", 11, "seconds from the first to the last MS2 scan kSieve wrote",
     lambda n: n["retention_span"] and round(n["retention_span"][1] - n["retention_span"][0], 3)),
)
TERM = re.compile(r"^\[Term\]\nid: (MS:\d+)\nname: (.+)$", re.M)


def companion_count(numbers, key):
    """A count of the companion's account of the scans; None when it did not give it."""
    value = dict(numbers["info"].get("scan_account") or []).get(key)
    return int(value) if value is not None and value.isdigit() else None


def vocabulary():
    """(PSI-MS name -> accession, data-version, path) of the first psi-ms.obo found, or
    ({}, None, None)."""
    for path in OBO_PLACES:
        if path.is_file():
            text = path.read_text(encoding="utf-8", errors="replace")
            version = re.search(r"^data-version: (\S+)", text, re.M)
            return ({name: accession for accession, name in TERM.findall(text)},
                    version.group(1) if version else "unknown", path)
    return {}, None, None


def term(terms, name, local):
    accession = terms.get(name)
    return (accession, True) if accession else (f"{LOCAL_PREFIX}:{local:07d}", False)


def quality_metrics(numbers, terms):
    metrics = []
    for name, local, description, value_of in METRICS:
        value = value_of(numbers)
        if value is None:
            continue
        accession, _ = term(terms, name, local)
        metrics.append({"accession": accession, "name": name, "description": description,
                        "value": value})
    return metrics


def document(numbers, input_path, versions):
    """The mzQC document of one run. numbers: the run table; versions: {program: text}."""
    terms, obo_version, obo_path = vocabulary()
    file_format = FILE_FORMATS[input_format(input_path)]
    software = [
        {"accession": term(terms, SEARCH_ENGINE, 12)[0], "name": SEARCH_ENGINE,
         "version": versions.get("Comet", "unknown")},
        {"accession": f"{LOCAL_PREFIX}:0000013", "name": "kSieve",
         "version": versions.get("kSieve", "unknown")},
    ]
    vocabularies = [LOCAL_VOCABULARY]
    if obo_path:
        vocabularies.insert(0, {"name": "Proteomics Standards Initiative Mass Spectrometry "
                                        "Ontology", "uri": obo_path.resolve().as_uri(),
                                "version": obo_version})
    return {"mzQC": {
        "version": VERSION,
        "creationDate": datetime.now(timezone.utc).isoformat(timespec="seconds"),
        "contactName": "kSieve workflow",
        "description": f"Quality metrics of run {numbers['run']}: kSieve's precursors "
                       f"searched with Comet, target-decoy FDR per MS2 scan",
        "runQualities": [{
            "metadata": {
                "label": numbers["run"],
                "inputFiles": [{"location": Path(input_path).resolve().as_uri(),
                                "name": Path(input_path).name,
                                "fileFormat": {"accession": term(terms, file_format, 14)[0],
                                               "name": file_format}}],
                "analysisSoftware": software,
            },
            "qualityMetrics": quality_metrics(numbers, terms),
        }],
        "controlledVocabularies": vocabularies,
    }}

"""Semi-supervised linear rescoring of one run's PSMs, with three-fold cross-validation.

The algorithm is the one the field uses for target-decoy searches: starting from
the best single feature (Comet's e-value), the targets at or below 1 % FDR are
positives and all decoys negatives; a linear classifier learns to part them,
its score ranks the PSMs again, and so on for a few rounds. Models learn from each
scan's best block, as the FDR counts each scan once, and score every block.
The PSMs are split by MS2 scan into three folds (the blocks of one scan stay together), and each
fold is scored by a model trained on the other two, so that no PSM is scored by
a model that saw it. Each fold's scores are put on one scale (0 at the training
set's 1 % cut, -1 at its median decoy) before the folds are pooled.

When any fold's training set has too few scans below 1 % to learn from or no decoy, or its
model accepts fewer training scans than the e-value does, the run keeps Comet's
e-value, and the report says so. Folds and the classifier are seeded, so a run rescored twice
gives the same scores.
"""

import math
import random
import re

import numpy as np
from sklearn.preprocessing import StandardScaler
from sklearn.svm import LinearSVC
from wfcommon import PROTON

SEED = 19
FOLDS = 3
ROUNDS = 3
TRAIN_FDR = 0.01
MINIMUM_POSITIVES = 50  # scans below 1 % in a training set: with fewer, a model overfits
FALLBACK = (f"a fold's training set has fewer than {MINIMUM_POSITIVES} scans below 1 % FDR to "
            "learn from, or no decoy, or its model is no better than Comet's e-value: Comet's "
            "e-value ranks the PSMs")
ISOTOPE_STEP = 1.003355  # daltons between isotope peaks of a peptide
COMET_FEATURES = ("xcorr", "delta_cn", "log_e_value", "matched_ion_fraction", "abs_ppm_error",
                  "charge", "length", "missed_cleavages")
KSIEVE_FEATURES = ("origin_declared", "ksieve_score", "purity", "log_intensity", "rank")
# Monoisotopic residue masses, and the modifications the searches set.
RESIDUES = {"G": 57.021464, "A": 71.037114, "S": 87.032028, "P": 97.052764, "V": 99.068414,
            "T": 101.047679, "C": 103.009185, "L": 113.084064, "I": 113.084064, "N": 114.042927,
            "D": 115.026943, "Q": 128.058578, "K": 128.094963, "E": 129.042593, "M": 131.040485,
            "H": 137.058912, "F": 147.068414, "R": 156.101111, "Y": 163.06332, "W": 186.079313}
MODIFICATIONS = {"Carbamidomethyl": 57.021464, "Oxidation": 15.994915}
WATER = 18.010565
MODIFICATION = re.compile(r"\((\w+)\)")


def peptide_mass(sequence):
    """Neutral monoisotopic mass of an OpenMS sequence such as LC(Carbamidomethyl)VK; None
    for a residue or modification it does not know."""
    plain = MODIFICATION.sub("", sequence).replace(".", "")
    if any(r not in RESIDUES for r in plain):
        return None
    mods = MODIFICATION.findall(sequence)
    if any(m not in MODIFICATIONS for m in mods):
        return None
    return WATER + sum(RESIDUES[r] for r in plain) + sum(MODIFICATIONS[m] for m in mods)


def ppm_error(sequence, mz, charge):
    """Precursor mass error in ppm, after the nearest whole isotope step (isotope error searches)."""
    theoretical = peptide_mass(sequence)
    if theoretical is None or charge <= 0:
        return 0.0
    delta = (mz - PROTON) * charge - theoretical
    return (delta - round(delta / ISOTOPE_STEP) * ISOTOPE_STEP) / theoretical * 1e6


def missed_cleavages(sequence):
    plain = MODIFICATION.sub("", sequence)
    return sum(1 for i, r in enumerate(plain[:-1]) if r in "KR" and plain[i + 1] != "P")


def log_e_value(fields):
    """-log10 of Comet's e-value times the blocks searched for the PSM's MS2 scan
    (`scan_blocks`, 1 when not given): the score of a scan's best block weighed as one
    search against all its blocks' candidates."""
    return -math.log10(max(float(fields["score"]), 1e-300) * fields.get("scan_blocks", 1))


def comet_features(fields):
    """The search features of one exported hit (TextExporter's columns)."""
    sequence = fields["sequence"]
    charge = int(fields["charge"])
    total = float(fields.get("MS:1002259") or 0)
    return [float(fields.get("MS:1002252") or 0), float(fields.get("MS:1002253") or 0),
            log_e_value(fields),
            float(fields.get("MS:1002258") or 0) / total if total else 0.0,
            abs(ppm_error(sequence, float(fields["mz"]), charge)), charge,
            len(MODIFICATION.sub("", sequence)), missed_cleavages(sequence)]


def ksieve_features(row):
    """kSieve's evidence for one block, from its precursor table row (None: no row)."""
    if row is None:
        return [0.0] * len(KSIEVE_FEATURES)
    number = lambda key: float(row.get(key) or 0) if _is_number(row.get(key)) else 0.0  # noqa: E731
    # `declared_confirmed` or `declared_kept`: the declared ion as the instrument gave it.
    return [float(row.get("origin", "").startswith("declared")), number("score"),
            number("purity"), math.log10(max(number("intensity"), 1.0)), number("rank")]


def _is_number(text):
    try:
        return math.isfinite(float(text))
    except (TypeError, ValueError):
        return False


def accepted_count(scores, decoys, fdr=TRAIN_FDR):
    """Targets at or below the FDR (D / T, monotone) when ranked by score, and the score at the cut."""
    order = np.argsort(-scores, kind="stable")
    d = np.cumsum(decoys[order])
    t = np.cumsum(~decoys[order])
    q = np.minimum.accumulate((d / np.maximum(t, 1))[::-1])[::-1]
    passing = np.nonzero(q <= fdr)[0]
    if len(passing) == 0:
        return 0, scores[order[0]] if len(order) else 0.0
    last = passing[-1]
    return int(t[last]), scores[order[last]]


def fit(features, decoys, start):
    """The rounds of learning on one training set: (scaler, model, final scores), or None
    when the targets below 1 % are too few to learn from, or there is no decoy to part
    them from (a small, clean run)."""
    scores, fitted = start, None
    for _ in range(ROUNDS):
        count, cut = accepted_count(scores, decoys)
        if count < MINIMUM_POSITIVES or not decoys.any():
            return None
        positives = (~decoys) & (scores >= cut)
        chosen = positives | decoys
        scaler = StandardScaler().fit(features[chosen])
        model = LinearSVC(C=0.1, class_weight="balanced", random_state=SEED, dual=False,
                          max_iter=10000).fit(scaler.transform(features[chosen]),
                                              positives[chosen])
        scores = model.decision_function(scaler.transform(features))
        fitted = (scaler, model, scores)
    return fitted


def scans_accepted(scores, decoys, scans):
    """Targets at or below 1 % FDR counted as the workflow's FDR counts them: each scan's best
    block competing once."""
    top = best_per_scan(scans, scores)
    return accepted_count(scores[top], decoys[top])[0]


def train(features, decoys, scans, start):
    """A function that scores PSMs, learnt on one training set from each scan's best block;
    None when no model can be learnt or the model accepts fewer of the training set's scans
    than the start score."""
    top = best_per_scan(scans, start)
    fitted = fit(features[top], decoys[top], start[top])
    if fitted is None:
        return None
    scaler, model, _ = fitted
    scores = model.decision_function(scaler.transform(features))
    if scans_accepted(scores, decoys, scans) < scans_accepted(start, decoys, scans):
        return None
    return lambda x: model.decision_function(scaler.transform(x))


def calibrated(scores, training_scores, training_decoys):
    """Scores on the training set's scale: 0 at its 1 % cut, -1 at its median decoy."""
    cut = accepted_count(training_scores, training_decoys)[1]
    median = np.median(training_scores[training_decoys]) if training_decoys.any() else cut - 1
    spread = cut - median if cut > median else 1.0
    return (scores - cut) / spread


def folds(scans):
    """The fold of each PSM: scans dealt to the folds in a seeded random order, so that the
    blocks of one scan share a fold."""
    order = sorted(set(scans))
    random.Random(SEED).shuffle(order)
    fold_of_scan = {scan: i % FOLDS for i, scan in enumerate(order)}
    return np.array([fold_of_scan[s] for s in scans])


def best_per_scan(scans, start):
    """True for each scan's best block by the start score: the PSMs a model learns from, as
    the FDR counts each scan once."""
    best = {}
    for i, (scan, score) in enumerate(zip(scans, start)):
        if scan not in best or score > start[best[scan]]:
            best[scan] = i
    top = np.zeros(len(scans), dtype=bool)
    top[list(best.values())] = True
    return top


def rescore(features, decoys, scans, start):
    """New scores for every PSM, and the notes for the report (empty, or why the start
    score was kept).

    features: PSMs x features; decoys: bools; scans: the MS2 scan of each PSM; start:
    the score to begin with (higher is better). Models learn from each scan's best block
    and score every block.
    """
    fold, top = folds(scans), best_per_scan(scans, start)
    scans = np.array(scans)
    scorers = [train(features[fold != k], decoys[fold != k], scans[fold != k], start[fold != k])
               for k in range(FOLDS)]
    if any(scorer is None for scorer in scorers):
        return start.copy(), [FALLBACK]
    result = np.zeros(len(scans))
    for k, scorer in enumerate(scorers):
        held, learnt = fold == k, (fold != k) & top
        result[held] = calibrated(scorer(features[held]), scorer(features[learnt]),
                                  decoys[learnt])
    return result, []


def weights(features, decoys, scans, start):
    """The weight of each feature (standardised) in a model learnt on every scan's best
    block, for the report only; None when no model can be learnt."""
    top = best_per_scan(scans, start)
    fitted = fit(features[top], decoys[top], start[top])
    return None if fitted is None else [float(w) for w in fitted[1].coef_[0]]

"""Adds an entrapment database to the targets: entrapment.py <targets> <out> <prefix>.

Each target protein gets an entrapment twin, its header's first word marked by
the prefix: the protein with every tryptic peptide shuffled, the cleavage
residue (K or R at the peptide's end) kept in place, so the twin has the
targets' size, composition and cleavage sites but peptides that are not in the
sample. Hits to them are false by construction; counted as targets through the
search and the FDR, their share among the accepted PSMs estimates the
false-discovery proportion. The shuffle is seeded, so the database is the same
on every run.
"""

import random
import re
import sys

SEED = 19
TRYPTIC = re.compile(r"[^KR]*(?:[KR]|$)")


def tryptic_peptides(sequence):
    """The sequence cut after every K and R (the last piece may end otherwise)."""
    return [piece for piece in TRYPTIC.findall(sequence) if piece]


def shuffled_protein(sequence, draw):
    """The sequence with each tryptic peptide's residues shuffled, its last K or R kept last."""
    pieces = []
    for peptide in tryptic_peptides(sequence):
        cut = peptide[-1] if peptide[-1:] in ("K", "R") else ""
        body = list(peptide[: len(peptide) - len(cut)])
        draw.shuffle(body)
        pieces.append("".join(body) + cut)
    return "".join(pieces)


def entrapment_records(lines, prefix, draw):
    """(header, sequence) of each record's entrapment twin, in the order of the targets."""
    header, sequence = None, []
    for line in lines:
        line = line.rstrip("\r\n").removeprefix("\ufeff")
        if line.startswith(">"):
            if header is not None:
                yield header, shuffled_protein("".join(sequence), draw)
            header, sequence = ">" + prefix + line[1:], []
        elif line.strip():
            sequence.append(line.strip())
    if header is not None:
        yield header, shuffled_protein("".join(sequence), draw)


def main(targets, out, prefix):
    draw = random.Random(SEED)
    with open(targets, encoding="utf-8", errors="replace") as source, \
            open(out, "w", encoding="utf-8") as written:
        for line in source:
            written.write(line.removeprefix("\ufeff") if written.tell() == 0 else line)
        if written.tell() and not line.endswith("\n"):
            written.write("\n")
        source.seek(0)
        for header, sequence in entrapment_records(source, prefix, draw):
            written.write(f"{header}\n")
            for start in range(0, len(sequence), 60):
                written.write(sequence[start:start + 60] + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:4])

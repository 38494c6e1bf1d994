"""A scan's primary PSM does not depend on the order in which the search wrote its blocks.

Comet searching with several threads writes a scan's blocks in no fixed order,
and blocks of one scan often tie (the same peptide found from two isotope
peaks, or two peptides at Comet's floor e-value). The tie goes to kSieve's
block of best rank, the lowest index in the MGF title.
"""

import itertools
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent.parent / "workflow" / "scripts"))

import qvalues  # noqa: E402
from wfcommon import block_of  # noqa: E402


def block(index, score, sequence):
    return qvalues.Psm(spectrum=f"run.141.141.2.{index}.dta", scan=141, score=score, decoy=False,
                       sequence=sequence, fields={})


class TiedBlocks(unittest.TestCase):
    def test_the_primary_is_the_same_in_every_order_the_blocks_come_in(self):
        blocks = [(0, 2.4, "APGASADDPDESEFAALLRR"), (1, 2.4, "EGDSSVANSGLAALITDGPGGAK"),
                  (2, 1.0, "WSGTEPK"), (10, 2.4, "CYGGDISR")]
        for order in itertools.permutations(blocks):
            psms = [block(*b) for b in order]
            primary = [p for p in qvalues.assign_groups(psms) if p.group == qvalues.PRIMARY]
            self.assertEqual([p.spectrum for p in primary], ["run.141.141.2.0.dta"], order)

    def test_block_index_of_kSieve_and_Comet_names(self):
        self.assertEqual(block_of("run.141.141.2.10.dta"), 10)
        self.assertEqual(block_of("a.b.7.7.3.2.dta"), 2)
        self.assertEqual(block_of("HCDFT_declared.00034.00034.2"), 0)
        self.assertEqual(block_of("not a scan"), 0)


if __name__ == "__main__":
    unittest.main()

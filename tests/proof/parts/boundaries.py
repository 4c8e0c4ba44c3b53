"""Streams and payloads cut, changed and truncated in every way that can be counted. The finished library reads them
beside a second reader, which was written from docs/wire-format.md alone: messages down to each value, records to the
letter, what is written back and whether the connection lives have to be the same after each piece.

Pieces are exact: the program interposes recv, which gives the library what has been let in and nothing between two
pieces. Values go into every 16-bit field of good block headers, header items and elements, at every place where the
samples have one."""

import concurrent.futures

from builds import PRESETS
from report import Result

NAME = "boundaries"
PROVES = "however a stream is cut, wherever it ends and whatever a header announces, the outcome is the page's"


def run(builds):
    options = [] if builds.is_full else ["--quick"]
    for bits in PRESETS:
        builds.build(PRESETS[bits], "boundary_proof")
    result = Result()
    # Each needs one core alone.
    with concurrent.futures.ThreadPoolExecutor(len(PRESETS)) as pool:
        for proved in pool.map(lambda bits: builds.proof(bits, "boundary_proof", *options), PRESETS):
            result.add(proved)
    return result

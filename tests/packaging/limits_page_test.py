"""Whether docs/limits.md is right: about the tests, and about the numbers in the source.

Arguments: the build folder, the source folder. Each row of a limit names tests, and each of them is in the suite; each
place that the page names is in the source as it is quoted; and each number above 2 and each numeric constant of the
source is quoted by the page, as a limit or as none.
"""

import pathlib
import re
import sys

CODE = re.compile(r"`([^`]+)`")
TEST = re.compile(r"^\w+\.\w+$")
ADDED_TEST = re.compile(r"^\s*add_test\(\W*(?:\w+/)?(\w+\.\w+)", re.M)
NUMBER = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|[0-9]+)[uUlL]*\b")
CONSTANT = re.compile(r"\bconstexpr\s+(?!char\b)(?:unsigned\s+)?[\w:]+\s+(\w+)\s*=")
COMMENT_OR_TEXT = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S)
SMALLEST = 3  # 0, 1 and 2 are everywhere and limit nothing by themselves

LIMIT_COLUMNS = ["limit", "place", "up to it", "beyond it", "tests"]
OTHER_COLUMNS = ["numbers", "why they are none"]


class Page:
    """The rows of the page's tables."""

    def __init__(self, text):
        self.limits, self.others = [], []
        rows = None
        for line in text.splitlines():
            if not line.startswith("|"):
                rows = None
                continue
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
            if cells == LIMIT_COLUMNS:
                rows = self.limits
            elif cells == OTHER_COLUMNS:
                rows = self.others
            elif rows is not None and not set(cells[0]) <= set("-"):
                rows.append(cells)

    def tests_of(self, row):
        return [name for name in CODE.findall(row[-1]) if TEST.match(name)]

    def all_tests(self):
        return {name for row in self.limits for name in self.tests_of(row)}

    def quotes(self):
        """What the page quotes of each file."""
        cells = [row[1] for row in self.limits] + [row[0] for row in self.others]
        return {tuple(quote.split(": ", 1)) for cell in cells for quote in CODE.findall(cell) if ": " in quote}


def tests_in(build):
    """The names of all tests of a build, as ctest reads them; those with parameters once, without these."""
    names = set()
    for listing in [*build.rglob("*_tests.cmake"), *build.rglob("CTestTestfile.cmake")]:
        names.update(ADDED_TEST.findall(listing.read_text()))
    return names


def blanked(match):
    return re.sub(r"[^\n]", " ", match.group())


class Source:
    """The code of one file: `code` without comments, `bare` without texts too; all places are those of the file."""

    def __init__(self, path):
        text = path.read_text()
        self.path = path
        self.code = COMMENT_OR_TEXT.sub(lambda match: blanked(match) if match.group()[0] == "/" else match.group(), text)
        self.bare = COMMENT_OR_TEXT.sub(blanked, text)

    def numbers(self):
        """What has to be quoted: place and text of each number and each constant's name."""
        for match in CONSTANT.finditer(self.bare):
            yield match.start(1), match.end(1)
        for match in NUMBER.finditer(self.bare):
            digits = match.group(1)
            value = int(digits, 16) if digits[:2] in ("0x", "0X") else int(digits, 8 if digits[0] == "0" else 10)
            if value >= SMALLEST:
                yield match.start(), match.end()

    def places(self, quote):
        return [(match.start(), match.end()) for match in re.finditer(re.escape(quote), self.code)]

    def line(self, place):
        return self.code.count("\n", 0, place) + 1


def sources(folder):
    files = [path for top in ("include", "src") for path in sorted((folder / top).rglob("*"))]
    return [Source(path) for path in files if path.suffix in (".h", ".cpp")]


def faults_of_rows(page, tests):
    found = []
    for row in page.limits:
        if len(row) != len(LIMIT_COLUMNS):
            found.append(f"not a whole row: {row[0]}")
            continue
        named = page.tests_of(row)
        if not named:
            found.append(f"no test for: {row[0]}")
        found += [f"no test {name}, which is to hold: {row[0]}" for name in named if name not in tests]
    return found


def faults_of_numbers(page, read):
    found = []
    quoted = {}
    for file, quote in sorted(page.quotes()):
        places = [(source, place) for source in read if source.path.name == file for place in source.places(quote)]
        if not places:
            found.append(f"not in the source: {file}: {quote}")
        for source, place in places:
            quoted.setdefault(source.path, []).append(place)
    for source in read:
        for start, end in source.numbers():
            if not any(first <= start and end <= last for first, last in quoted.get(source.path, [])):
                line = source.line(start)
                text = source.code.splitlines()[line - 1].strip()
                found.append(f"a number that is not on the page: {source.path.name}:{line}: {text}")
    return list(dict.fromkeys(found))  # a constant and its number share a line


def page_of(folder):
    return Page((folder / "docs" / "limits.md").read_text())


def checked(build, folder):
    """What is wrong, and the figures: limits, limits with tests, tests named, numbers of the source."""
    page = page_of(folder)
    tests = tests_in(build)
    read = sources(folder)
    named = page.all_tests()
    covered = [row for row in page.limits if page.tests_of(row) and set(page.tests_of(row)) <= tests]
    figures = {
        "limits": len(page.limits),
        "covered": len(covered),
        "named": len(named),
        "found": len(named & tests),
        "suite": len(tests),
        "numbers": sum(len(list(source.numbers())) for source in read),
    }
    found = faults_of_rows(page, tests) + faults_of_numbers(page, read)
    if not page.limits or not read:
        found.append("there is no page, or no source")
    return found, figures


def main():
    build, folder = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    found, figures = checked(build, folder)
    print("\n".join([*found, str(figures)]))
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()

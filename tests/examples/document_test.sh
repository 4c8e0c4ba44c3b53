#!/usr/bin/env bash
# Every program in a document stands behind a line that names its file, or a region of it, and is exactly that:
#
#     <!-- from: examples/guide/shop.cpp region: send -->
#
# A region lies between [send] and [/send] in comments of the file. Records in the first column of a table are to stand
# in the sources of the library. Arguments: root of the sources, documents.
set -euo pipefail
cd "$1"
shift
failures=0

complain() {
    printf 'FAILED: %s\n' "$1" >&2
    failures=$((failures + 1))
}

# The file or the region of it, without the indentation that all lines have.
quoted() {
    awk -v region="$2" '
        region != "" && index($0, "[/" region "]") { inside = 0 }
        region == "" || inside { lines[++count] = $0 }
        region != "" && index($0, "[" region "]") { inside = 1 }
        END {
            for (i = 1; i <= count; ++i)
                if (lines[i] != "") { match(lines[i], /^ */); if (least == "" || RLENGTH < least) least = RLENGTH }
            for (i = 1; i <= count; ++i) print substr(lines[i], least + 1)
        }' "$1"
}

# The blocks of a document, one a line: line number, language, file, region; their text goes to BLOCKS/line-number.
list_blocks() {
    awk -v folder="$2" '
        /^```/ && inside { inside = 0; next }
        /^```/ { inside = 1; print NR, substr($0, 4), from; name = folder "/" NR; printf "" > name; from = ""; next }
        inside { print > name; next }
        /^<!-- from: / { from = $3; if ($4 == "region:") from = from " " $5; next }
        { from = "" }' "$1"
}

check_block() {
    local document=$1 line=$2 language=$3 file=${4-} region=${5-}
    if [ -z "$file" ]; then
        case "$language" in
            cpp | c | cmake | sh | text | xml) complain "$document:$line shows $language of no file" ;;
        esac
        return 0
    fi
    [ -s "$blocks/$line" ] || complain "$document:$line is empty"
    diff "$blocks/$line" <(quoted "$file" "$region") || complain "$document:$line is not $file $region"
}

check_records() {
    local record
    while read -r record; do
        grep --quiet --recursive --fixed-strings -- "$record" src || complain "$1: no record \"$record\""
    done < <(sed -n 's/^| `\([^`]*\)` |.*/\1/p' "$1")
}

blocks=$(mktemp -d "${TMPDIR:-/tmp}/vekmsg-test.XXXXXX")
trap 'rm -rf "$blocks"' EXIT
for document in "$@"; do
    count=0
    while read -r line language file region; do
        check_block "$document" "$line" "$language" "$file" "$region"
        count=$((count + 1))
    done < <(list_blocks "$document" "$blocks")
    [ "$count" != 0 ] || complain "$document shows nothing"
    check_records "$document"
    printf '%s: %s blocks\n' "$document" "$count"
done
exit $((failures != 0))

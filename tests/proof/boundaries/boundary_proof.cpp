// What does the library make of bytes that come in any pieces, end anywhere and hold any number in a header?
// Each case goes to the finished library and to a second reader, which was written from docs/wire-format.md
// alone.

#include "proof/boundaries/boundary_run.h"

int main(int argc, char** argv) {
    BoundaryRun_ run(ProofOptions_(argc, argv));
    proveCuts(run);
    proveFields(run);
    proveTruncations(run);
    return run.finish();
}

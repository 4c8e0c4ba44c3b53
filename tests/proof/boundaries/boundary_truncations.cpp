// Samples that end anywhere: a payload, a message whose block is that short, and a stream that is closed
// there.

#include "proof/boundaries/boundary_run.h"
#include "proof/boundaries/boundary_samples.h"
#include "support/wire_bytes.h"

namespace {

using End_ = SideBySide_::End_;

/// Lengths from nothing to everything.
unsigned int lengthsOf(const samples::Sample_& sample) {
    return static_cast<unsigned int>(sample.m_bytes.size()) + 1;
}

/// Behind the end there are once the sample's own bytes and once others: neither may be looked at.
void truncatePayload(BoundaryRun_& run, const samples::Sample_& sample) {
    run.each("truncations of an element, " + sample.m_name, lengthsOf(sample), [&](unsigned int length) {
        const std::string_view bytes = sample.m_bytes;
        const std::string difference = run.reader().payload(bytes.substr(0, length), bytes.substr(length));
        return difference.empty() ? run.reader().payload(bytes.substr(0, length), "\xff\xff\xff\xff\xff\xff")
                                  : difference;
    });
}

void truncateMessage(BoundaryRun_& run, const samples::Sample_& sample) {
    run.each("truncations of a message, " + sample.m_name, lengthsOf(sample), [&](unsigned int length) {
        return run.reader().block(wire::messageBlock(sample.m_bytes.substr(0, length)));
    });
}

template <class Check>
void truncateStream(BoundaryRun_& run, const std::string& name, const samples::Sample_& sample, Check check) {
    for (const End_ end : {End_::Later, End_::AtOnce}) {
        const std::string when = end == End_::Later ? ", the end seen later" : ", the end seen at once";
        run.each("truncations of " + name + ", " + sample.m_name + when, lengthsOf(sample),
                 [&](unsigned int length) {
                     return check(sample.m_bytes.substr(0, length), SideBySide_::Pieces_{length}, end);
                 });
    }
}

void truncateStreams(BoundaryRun_& run) {
    for (const samples::Sample_& sample : samples::streams())
        truncateStream(run, "a stream", sample,
                       [&](const auto&... stream) { return run.reader().stream(stream...); });
    for (const samples::Sample_& sample : samples::openedStreams())
        truncateStream(run, "an opened stream", sample,
                       [&](const auto&... stream) { return run.reader().openedStream(stream...); });
}

}  // namespace

void proveTruncations(BoundaryRun_& run) {
    run.beginFigure("truncations of elements");
    for (const samples::Sample_& sample : samples::elements()) truncatePayload(run, sample);
    run.beginFigure("truncations of messages");
    for (const samples::Sample_& sample : samples::messages()) truncateMessage(run, sample);
    run.beginFigure("truncations of streams");
    truncateStreams(run);
}

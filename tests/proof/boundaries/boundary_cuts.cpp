// Streams in pieces: however they are cut, the outcome is that of the page, which knows of no pieces.

#include "proof/boundaries/boundary_run.h"
#include "proof/boundaries/boundary_samples.h"
#include "support/wire_bytes.h"

namespace {

using Pieces_ = SideBySide_::Pieces_;
using End_ = SideBySide_::End_;
using wire::sizeOf;

/// Cuts a block of the greatest size at every place inside it.
void splitInTwo(BoundaryRun_& run, const std::string& name, const std::string& before,
                const std::string& block, const std::string& behind) {
    const std::string bytes = before + block + behind;
    run.beginFigure("splits in two of the greatest " + name);
    run.each("splits in two of the greatest " + name, sizeOf(block) - 1, [&](unsigned int number) {
        const unsigned int first = sizeOf(before) + number + 1;
        return run.reader().stream(bytes, {first, sizeOf(bytes) - first}, End_::Later);
    });
}

/// Cuts `bytes` in all ways: each place between two bytes is a bit of the case's number. A message follows,
/// in one piece, to show that the stream is where it should be.
void cutInAllWays(BoundaryRun_& run, const std::string& name, const std::string& bytes) {
    const std::string tail = wire::messageBlock(samples::shortestMessage());
    run.each("cuts of " + name, 1U << (bytes.size() - 1), [&](unsigned int number) {
        Pieces_ pieces(1, 1);
        for (std::size_t place = 0; place + 1 < bytes.size(); ++place) {
            if ((number >> place & 1U) != 0) pieces.push_back(0);
            ++pieces.back();
        }
        pieces.push_back(sizeOf(tail));
        return run.reader().stream(bytes + tail, pieces, End_::Later);
    });
}

/// Cuts `bytes` at all pairs of places: numbered so that each `second` has the numbers of all `first` before
/// it.
template <class Check>
void cutInThree(BoundaryRun_& run, const std::string& name, const std::string& bytes, Check check) {
    const unsigned int places = sizeOf(bytes) - 1;
    run.each("cuts in three of " + name, places * (places - 1) / 2, [&](unsigned int number) {
        unsigned int second = 2;
        while (second * (second - 1) / 2 <= number) ++second;
        const unsigned int first = number - (second - 1) * (second - 2) / 2 + 1;
        return check(bytes, Pieces_{first, second - first, sizeOf(bytes) - second});
    });
}

void cutMessagesInThree(BoundaryRun_& run, const std::string& name, const std::string& shortest) {
    const auto withName = [&](const std::string& bytes, const Pieces_& pieces) {
        return run.reader().stream(bytes, pieces, End_::Later);
    };
    const auto behindName = [&](const std::string& bytes, Pieces_ pieces) {
        pieces.front() += sizeOf(name);
        return run.reader().stream(name + bytes, pieces, End_::Later);
    };
    const auto opened = [&](const std::string& bytes, const Pieces_& pieces) {
        return run.reader().openedStream(bytes, pieces, End_::Later);
    };
    cutInThree(run, "a shortest message", shortest, behindName);
    cutInThree(run, "a shortest message on an opened stream", shortest, opened);
    cutInThree(run, "a name and a shortest message", name + shortest, withName);
    cutInThree(run, "the worked example", name + samples::ofPage("message-block"), withName);
    cutInThree(run, "a ping", samples::ofPage("ping-request"), behindName);
}

}  // namespace

void proveCuts(BoundaryRun_& run) {
    using samples::kLongestBlock;
    const std::string name = wire::nameBlock("panel");
    const std::string great = wire::messageBlock(samples::greatestMessage());
    const std::string shortest = wire::messageBlock(samples::shortestMessage());
    splitInTwo(run, "name block", "", wire::nameBlock(std::string(kLongestBlock - 1, 'n')), great + shortest);
    splitInTwo(run, "message block", name, great, shortest);
    splitInTwo(run, "skipped block", name, wire::block(7, std::string(kLongestBlock, 's')), shortest);

    run.beginFigure("ways to cut the 19 bytes of a name and a skipped block");
    cutInAllWays(run, "a name of 3 and a skipped block", wire::nameBlock("abc") + wire::block(7, "skipped"));
    cutInAllWays(run, "a name of 5 and a skipped block", name + wire::block(7, "skips"));
    // As many bytes as a name has are asked for behind it: here more than the next block has.
    cutInAllWays(run, "a name of 8 and a skipped block", wire::nameBlock("operator") + wire::block(7, "sk"));

    run.beginFigure("ways to cut a message in three");
    cutMessagesInThree(run, name, shortest);
}

#ifndef VEKMSG_TESTS_PROOF_SHORT_COUNTS_H
#define VEKMSG_TESTS_PROOF_SHORT_COUNTS_H

#include <functional>
#include <string>
#include <vector>

#include "proof/calls/scene.h"

/// Blocks of which a first call moves only some bytes, each number of them in turn: then the next call moves
/// the rest, or would block once before that. The message has to be there afterwards, whole, equal and once.
class ShortCounts_ {
public:
    enum class Way_ { Received, Sent };

    ShortCounts_(Way_ way, unsigned int messageSize) : m_way(way), m_messageSize(messageSize) {}

    std::string name() const;

    /// The numbers of bytes: 1 up to this, exclusively.
    unsigned int blockSize() const { return m_messageSize + 4; }

    /// Plays the counts from `first` up to `last`, exclusively, each in both ways. Returns the runs made.
    unsigned long play(Scene_& scene, unsigned int first, unsigned int last, unsigned int stride) const;

    /// Moves a block byte by byte.
    void crawl(Scene_& scene) const;

private:
    void begin(Scene_& scene) const;
    void plan(Scene_& scene, unsigned int count, bool wouldBlock) const;
    bool moves(Scene_& scene, unsigned int seed, unsigned int passes) const;
    bool receives(Scene_& scene, unsigned int seed, unsigned int passes) const;
    bool sends(Scene_& scene, unsigned int seed, unsigned int passes) const;

    Way_ m_way;
    unsigned int m_messageSize;
};

/// The greatest message that a component takes, received and sent, and the greatest that it can send.
std::vector<ShortCounts_> shortCounts();

#endif

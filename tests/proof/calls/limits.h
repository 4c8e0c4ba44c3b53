#ifndef VEKMSG_TESTS_PROOF_LIMITS_H
#define VEKMSG_TESTS_PROOF_LIMITS_H

#include <functional>
#include <string>
#include <vector>

#include "proof/calls/scene.h"

/// Something that is not one error of one call: a limit of time, or a result of 0.
struct Case_ {
    std::string m_name;
    Transport_ m_transport;
    std::function<void(Scene_&)> m_play;
};
using Cases_ = std::vector<Case_>;

Cases_ timeLimits();     // of connecting and of sending, before, at and after; the clock is moved for it
Cases_ waitLimits();     // time-outs of waits, cut into slices; poll answers without waiting
Cases_ namesInPieces();  // of which a first call moves only some bytes, each number of them
Cases_ emptyResults();   // calls that move no bytes

#endif

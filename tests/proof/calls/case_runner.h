#ifndef VEKMSG_TESTS_PROOF_CASE_RUNNER_H
#define VEKMSG_TESTS_PROOF_CASE_RUNNER_H

#include <functional>
#include <string>

#include "proof/calls/scene.h"
#include "proof/calls/verdict.h"

/// Plays cases one after another. Each has a scene and a thread of its own, and a time limit that ends the
/// program with the name of the case. At its end the terminal is closed, opened and used once more. After
/// each, all that was taken has to be back: descriptors, but for those that the accept path leaves open, and
/// memory.
class CaseRunner_ {
public:
    using Case_ = std::function<void(Scene_&)>;

    /// What turned out wrong.
    Verdict_ play(const std::string& name, Transport_ transport, const Case_& play);

    /// Descriptors that accepting left open, and that were closed here.
    unsigned int leftDescriptors() const { return m_left; }

private:
    unsigned int m_left = 0;
};

#endif

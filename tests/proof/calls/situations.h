#ifndef VEKMSG_TESTS_PROOF_SITUATIONS_H
#define VEKMSG_TESTS_PROOF_SITUATIONS_H

#include <string>
#include <vector>

#include "proof/calls/errors.h"
#include "proof/calls/scene.h"

/// Something that a component does in the course of which the library makes a call that can fail. `m_play`
/// brings the call about, has it fail in the way given, and states what has to come of it: the result of the
/// public call, the records, and what works afterwards. It is played once for each error of the call, and
/// with EINTR two and three times in a row.
struct Situation_ {
    using Play_ = void (*)(Scene_& scene, const Failure_& failure);

    std::string name() const { return m_name + (m_transport == Transport_::Tcp ? ", TCP" : ", local"); }
    const Errors_& errors() const { return m_isPendingError ? pendingErrors() : errorsOf(m_call); }

    SystemCalls_::Call_ m_call;
    Transport_ m_transport;
    std::string m_name;
    Play_ m_play;
    bool m_isPendingError = false;  // the errors are values of SO_ERROR and not results of the call
};
using Situations_ = std::vector<Situation_>;

constexpr Transport_ kLocal = Transport_::Local;
constexpr Transport_ kTcp = Transport_::Tcp;

// By what the component is doing.
Situations_ openingSituations();     // its own addresses, and the end of them
Situations_ readingSituations();     // the directory file, and standard error
Situations_ acceptingSituations();   // guests, and what they write
Situations_ connectingSituations();  // the stream to a peer
Situations_ sendingSituations();     // what is written to it
Situations_ waitingSituations();     // poll

/// Plays `attempt` as often as the failure is repeated, with one failing call each time.
template <class Attempt>
void eachTime(const Failure_& failure, Attempt attempt) {
    for (unsigned int i = 0; i < failure.m_times; ++i) attempt();
}

// Records that end a connection.
Record_ deletingActive(const std::string& peerName);
Record_ deletingUnresolved();
Record_ givingUp(unsigned int attempts);  // the budget of the connection to "peer" is used up
Record_ reconnecting(unsigned int failures);
Record_ unrecoverable();

#endif

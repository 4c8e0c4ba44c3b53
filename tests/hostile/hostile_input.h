#ifndef VEKMSG_TESTS_HOSTILE_INPUT_H
#define VEKMSG_TESTS_HOSTILE_INPUT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>

/// Chance, the same for the same seed and input number on every machine.
class Random_ {
public:
    Random_(std::uint64_t seed, std::uint64_t input);

    /// 0 to limit - 1.
    unsigned int below(unsigned int limit);
    bool oneIn(unsigned int chances) { return below(chances) == 0; }
    char byte() { return static_cast<char>(below(256)); }
    std::string bytes(unsigned int size);

    /// `size` characters of `alphabet`.
    std::string text(unsigned int size, const std::string& alphabet);

private:
    std::mt19937_64 m_engine;
};

/// Changes bytes, numbers and places of a few parts; sometimes nothing.
void mutate(Random_& random, std::string& bytes);

/// An element that is well-formed, of at most about `size` bytes.
std::string randomElement(Random_& random, unsigned int size, unsigned int depth = 0);

/// Well-formed message bytes.
std::string randomMessage(Random_& random, const std::string& destination, const std::string& source);

/// Bytes that end where the memory of the process ends, so that reading one byte too many is seen in every
/// build.
class GuardedBytes_ {
public:
    GuardedBytes_();
    ~GuardedBytes_();
    GuardedBytes_(const GuardedBytes_&) = delete;
    GuardedBytes_& operator=(const GuardedBytes_&) = delete;

    /// The bytes, until the next call.
    const unsigned char* place(const std::string& bytes);

    /// `size` bytes of room.
    unsigned char* room(unsigned int size);

private:
    unsigned char* m_p_memory;
};

/// Calls a check, which tells whether its input was accepted, with one input's chance after the other, as
/// often as VEKMSG_HOSTILE_COUNT says (2,000) or, where that is set, the setting that `p_ownCount` names.
/// Some inputs must be accepted and some refused. It stops at the first failure and names it, so that it can
/// be had again: VEKMSG_HOSTILE_SEED sets the seed, VEKMSG_HOSTILE_FIRST the number of the first input.
/// (Streams meet what the ones before them left behind: have those again from the first on.)
/// VEKMSG_HOSTILE_PROGRESS shows how far it is.
///
/// Everything runs in a thread of its own, at whose end all memory must be back with the heap, and all
/// descriptors must be closed. `prepare` makes the check in that thread.
using Check_ = std::function<bool(Random_&)>;
void forEachInput(const char* p_what, const std::function<Check_()>& prepare,
                  const char* p_ownCount = nullptr);

/// Makes a check out of an object that it keeps.
template <class Object>
Check_ checkBy() {
    return [sp_object = std::make_shared<Object>()](Random_& random) { return (*sp_object)(random); };
}

/// Takes the records of the process and forgets them: they are formatted, and cost no memory.
class SilentRecords_ {
public:
    SilentRecords_();
    ~SilentRecords_();
    SilentRecords_(const SilentRecords_&) = delete;
    SilentRecords_& operator=(const SilentRecords_&) = delete;
};

/// Descriptors that the process has open.
unsigned int openDescriptors();

/// Blocks that this thread has taken from the heap and not given back.
long liveBlocks();

#endif

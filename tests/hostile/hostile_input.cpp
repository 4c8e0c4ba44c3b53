#include "hostile/hostile_input.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/allocation_failure.h"
#include "support/record_notes.h"
#include "support/wire_bytes.h"
#include "vekmsg/log.h"

namespace {

constexpr std::size_t kGuardedSize = 1 << 17;
constexpr std::size_t kPage = 1 << 16;  // a multiple of every page size that is in use here

unsigned long setting(const char* p_name, unsigned long otherwise) {
    const char* p_value = std::getenv(p_name);
    return p_value != nullptr ? std::strtoul(p_value, nullptr, 10) : otherwise;
}

std::uint64_t seed() {
    static const std::uint64_t s_seed = setting("VEKMSG_HOSTILE_SEED", std::random_device()());
    return s_seed;
}

void showProgress(const char* p_what, unsigned long done, unsigned long count) {
    static const bool s_isWanted = setting("VEKMSG_HOSTILE_PROGRESS", 0) != 0;
    if (!s_isWanted || done % std::max(count / 10, 1UL) != 0) return;
    std::printf("  %s: %lu of %lu\n", p_what, done, count);
    std::fflush(stdout);
}

/// A number of 16 bits that is likely to be on some edge.
std::string edgeNumber(Random_& random) {
    static const unsigned int s_edges[] = {0,    1,    2,    3,    4,    5,    6,     7,      9,     10,
                                           12,   16,   0x7f, 0x80, 0xff, 256,  9396,  9397,   9399,  9400,
                                           9401, 9412, 4096, 8192, 0x7f, 1000, 32767, 0x8000, 65534, 65535};
    return wire::u16(s_edges[random.below(sizeof(s_edges) / sizeof(s_edges[0]))]);
}

void mutateOnce(Random_& random, std::string& bytes) {
    const auto size = static_cast<unsigned int>(bytes.size());
    const unsigned int at = random.below(size + 1);
    const unsigned int count = random.below(std::min(size - at, 40U) + 1);
    switch (random.below(10)) {
        case 0:
            if (at < size) bytes[at] = random.byte();
            break;
        case 1:
            if (at < size) bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.below(8)));
            break;
        case 2:
            bytes.replace(at, std::min(2U, size - at), edgeNumber(random));
            break;
        case 3:
            bytes.resize(at);
            break;
        case 4:
            bytes.erase(at, count);
            break;
        case 5:
            bytes.insert(at, random.bytes(random.below(12)));
            break;
        case 6:
            bytes.insert(at, bytes.substr(at, count));
            break;
        case 7:
            if (at + 1 < size)  // a length that is off by a little
                bytes[at + 1] = static_cast<char>(bytes[at + 1] + static_cast<char>(random.below(7)) - 3);
            break;
        case 8:
            bytes.resize(size - std::min(size, 1 + random.below(3)));
            break;
        default:
            bytes.replace(at, count, std::string(count, random.oneIn(2) ? '\0' : '\xff'));
            break;
    }
}

std::string randomChildren(Random_& random, unsigned int size, unsigned int depth) {
    const unsigned int count = 1 + random.below(4);
    std::string children;
    for (unsigned int i = 0; i < count; ++i) children += randomElement(random, size / count, depth + 1);
    return children;
}

struct Run_ {
    const char* m_p_what;
    unsigned long m_count;
    const std::function<Check_()>& m_prepare;
    long m_left = 0;  // blocks not given back when all objects of the thread are gone
};

/// Made before the library's lists of used blocks, and so gone after them.
struct LastWord_ {
    Run_* m_p_run = nullptr;
    ~LastWord_() {
        if (m_p_run != nullptr) m_p_run->m_left = liveBlocks();
    }
};
thread_local LastWord_ t_lastWord;

void runInputs(const char* p_what, unsigned long count, const Check_& check) {
    const unsigned long first = setting("VEKMSG_HOSTILE_FIRST", 0);
    unsigned long accepted = 0;
    for (unsigned long i = 0; i < count; ++i) {
        Random_ random(seed(), first + i);
        if (check(random)) ++accepted;
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << p_what << ": have this input again with VEKMSG_HOSTILE_SEED=" << seed()
                          << " VEKMSG_HOSTILE_FIRST=" << first + i << " VEKMSG_HOSTILE_COUNT=1";
            return;
        }
        showProgress(p_what, i + 1, count);
    }
    std::printf("  %lu of %s accepted, %lu refused\n", accepted, p_what, count - accepted);
    if (count < 100) return;
    EXPECT_NE(accepted, 0U);
    EXPECT_NE(accepted, count);
}

// A bare thread: what the standard one allocates for itself is given back on the wrong side of the count.
void* runThread(void* p_argument) {
    auto* p_run = static_cast<Run_*>(p_argument);
    t_lastWord.m_p_run = p_run;
    try {
        runInputs(p_run->m_p_what, p_run->m_count, p_run->m_prepare());
    } catch (const std::exception& exception) {
        ADD_FAILURE() << exception.what();
    }
    return nullptr;
}

void forget(void*, int severity, const LogSite* p_site, const char* p_text) {
    noteSeen(severity, p_site, p_text);
}

}  // namespace

Random_::Random_(std::uint64_t seed, std::uint64_t input) : m_engine(seed * 1000003 + input) {}

unsigned int Random_::below(unsigned int limit) {
    return static_cast<unsigned int>(m_engine() % limit);
}

std::string Random_::bytes(unsigned int size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = this->byte();
    return bytes;
}

std::string Random_::text(unsigned int size, const std::string& alphabet) {
    std::string text(size, '\0');
    for (char& character : text) character = alphabet[below(static_cast<unsigned int>(alphabet.size()))];
    return text;
}

void mutate(Random_& random, std::string& bytes) {
    for (unsigned int times = random.below(5); times != 0; --times) mutateOnce(random, bytes);
}

std::string randomElement(Random_& random, unsigned int size, unsigned int depth) {
    const unsigned int tag = random.oneIn(8) ? random.below(65536) : random.below(6);
    const unsigned int most = std::min(size, random.oneIn(20) ? 9500U : 40U);
    if (depth < 30 && size > 40 && random.oneIn(2))
        return wire::element(tag, wire::Complex, randomChildren(random, size - 12, depth));
    switch (random.below(3)) {
        case 0:
            return wire::element(tag, wire::Uint, random.bytes(random.oneIn(4) ? random.below(9) : 4));
        case 1:
            return wire::element(tag, wire::String,
                                 random.text(random.below(most + 1), "abc ") +
                                     std::string(random.oneIn(4) ? random.below(3) : 1, '\0'));
        default:
            return wire::element(tag, wire::Binary, random.bytes(random.below(most + 1)));
    }
}

std::string randomMessage(Random_& random, const std::string& destination, const std::string& source) {
    return wire::header(destination, source, random.below(5), random.text(random.below(20), "hostile ")) +
           randomElement(random, random.oneIn(10) ? 9000 : 300);
}

GuardedBytes_::GuardedBytes_() {
    void* p_memory =
        mmap(nullptr, kGuardedSize + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p_memory == MAP_FAILED) throw std::runtime_error("no guarded memory");
    m_p_memory = static_cast<unsigned char*>(p_memory);
    if (mprotect(m_p_memory + kGuardedSize, kPage, PROT_NONE) != 0) throw std::runtime_error("no guard");
}

GuardedBytes_::~GuardedBytes_() {
    munmap(m_p_memory, kGuardedSize + kPage);
}

const unsigned char* GuardedBytes_::place(const std::string& bytes) {
    unsigned char* p_start = room(static_cast<unsigned int>(bytes.size()));
    std::memcpy(p_start, bytes.data(), bytes.size());
    return p_start;
}

unsigned char* GuardedBytes_::room(unsigned int size) {
    if (size > kGuardedSize) throw std::runtime_error("more than the guarded memory holds");
    return m_p_memory + kGuardedSize - size;
}

void forEachInput(const char* p_what, const std::function<Check_()>& prepare, const char* p_ownCount) {
    const unsigned long usualCount = setting("VEKMSG_HOSTILE_COUNT", 2000);
    const unsigned long count = p_ownCount != nullptr ? setting(p_ownCount, usualCount) : usualCount;
    std::printf("  %lu of %s, seed %llu\n", count, p_what, static_cast<unsigned long long>(seed()));
    std::fflush(stdout);  // in case that an input ends the process
    const SilentRecords_ silence;
    const unsigned int descriptors = openDescriptors();
    Run_ run{p_what, count, prepare};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, runThread, &run), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(openDescriptors(), descriptors);
    if (testing::Test::HasFailure()) return;  // its texts are kept
    EXPECT_EQ(run.m_left, 0) << "blocks not given back";
}

SilentRecords_::SilentRecords_() {
    vekmsg_log_set_sink(forget, nullptr);
    vekmsg_log_set_threshold(7);
}

SilentRecords_::~SilentRecords_() {
    vekmsg_log_set_sink(nullptr, nullptr);
    vekmsg_log_set_threshold(4);
}

unsigned int openDescriptors() {
    DIR* p_folder = opendir("/proc/self/fd");
    unsigned int count = 0;
    while (readdir(p_folder) != nullptr) ++count;
    closedir(p_folder);
    return count;
}

long liveBlocks() {
    return static_cast<long>(allocationCount() - releaseCount());
}

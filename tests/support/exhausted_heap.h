#ifndef VEKMSG_TESTS_EXHAUSTED_HEAP_H
#define VEKMSG_TESTS_EXHAUSTED_HEAP_H

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

/// As long as it lives, malloc has no block of a page or more for anybody. For what the C library and malloc
/// itself do then; allocations of the library are failed by AllocationFailure_.
class ExhaustedHeap_ {
public:
#if defined(__SANITIZE_ADDRESS__)
    static constexpr bool kIsPossible = false;
#else
    static constexpr bool kIsPossible = true;
#endif
    static constexpr char kWhyNot[] = "the sanitizer's heap ends the process where there is no memory";

    ExhaustedHeap_() {
        if (getrlimit(RLIMIT_AS, &m_limit) != 0) throw std::runtime_error("no limit to be had");
        rlimit narrow = m_limit;
        narrow.rlim_cur = usedAddressSpace();
        if (setrlimit(RLIMIT_AS, &narrow) != 0) throw std::runtime_error("no limit to be set");
        while (auto* p_block = static_cast<Block_*>(std::malloc(kBlockSize))) {
            p_block->m_p_next = m_p_blocks;
            m_p_blocks = p_block;
        }
    }
    ~ExhaustedHeap_() {
        while (m_p_blocks != nullptr) {
            Block_* p_block = m_p_blocks;
            m_p_blocks = p_block->m_p_next;
            std::free(p_block);
        }
        setrlimit(RLIMIT_AS, &m_limit);
    }
    ExhaustedHeap_(const ExhaustedHeap_&) = delete;
    ExhaustedHeap_& operator=(const ExhaustedHeap_&) = delete;

private:
    struct Block_ {
        Block_* m_p_next;
    };
    static constexpr std::size_t kBlockSize = 4096;

    static rlim_t usedAddressSpace() {
        unsigned long pages = 0;
        std::FILE* p_file = std::fopen("/proc/self/statm", "r");
        if (p_file == nullptr || std::fscanf(p_file, "%lu", &pages) != 1)
            throw std::runtime_error("no size to be read");
        std::fclose(p_file);
        return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
    }

    rlimit m_limit;
    Block_* m_p_blocks = nullptr;
};

#endif

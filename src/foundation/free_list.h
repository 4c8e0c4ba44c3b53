#ifndef VEKMSG_FOUNDATION_FREE_LIST_H
#define VEKMSG_FOUNDATION_FREE_LIST_H

#include <cstddef>
#include <memory>
#include <new>

#include "foundation/thread_access.h"
#include "foundation/thread_end.h"

// Off for builds that watch memory (sanitizers, failing allocations): there every object must come from the
// heap.
#ifndef VEKMSG_FREE_LISTS
#define VEKMSG_FREE_LISTS 1
#endif

namespace libcpp {

/// What the lists do when they are empty: apart from the paths that are taken all the time. Null when memory
/// is short.
[[gnu::cold]] void* takeFromHeap(std::size_t size) noexcept;

/// Memory blocks of one size that this thread has used and will soon use again, so that the steady exchange
/// of messages asks nothing of the heap. At most `MaxHeld` blocks wait per thread; they go back to the heap
/// when the thread ends, and blocks released after that go there directly. A block may be released by any
/// thread.
template <std::size_t BlockSize, unsigned int MaxHeld>
class FreeList_ {
    struct Chain_;

public:
    /// At least BlockSize bytes, aligned for any object; null when memory is short.
    static void* take() noexcept {
        Chain_& chain = threadChain();
        if (chain.m_p_first == nullptr) return takeFromHeap(kSize);
        Link_* p_link = chain.m_p_first;
        chain.m_p_first = p_link->m_p_next;
        --chain.m_held;
        return p_link;
    }

    /// Whether the next block is at hand, so that to take it asks nothing of the heap.
    static bool hasOne() noexcept { return threadChain().m_p_first != nullptr; }

    /// Null is ignored.
    static void give(void* p_block) noexcept {
        if (p_block != nullptr) OfThisThread_().give(p_block);
    }

    /// The list of this thread. To look it up costs more than to give a block: who gives several in a row
    /// does it once.
    class OfThisThread_ {
    public:
        OfThisThread_() noexcept : m_chain(threadChain()) {}

        /// Requires a block.
        void give(void* p_block) const noexcept {
            if (m_chain.m_phase != Phase_::Open || m_chain.m_held == kMaxHeld) {
                giveFirst(m_chain, p_block);
            } else {
                add(m_chain, p_block);
            }
        }

    private:
        Chain_& m_chain;
    };

private:
    struct Link_ {
        Link_* m_p_next;
    };
    enum class Phase_ : unsigned char { Unused, Open, Drained };

    // Trivial on purpose: it stays readable while the thread's other objects are being destroyed.
    struct Chain_ {
        Link_* m_p_first;
        unsigned int m_held;
        Phase_ m_phase;
    };

    static inline Chain_ s_chain{nullptr, 0, Phase_::Unused};

    struct Drain_ {
        Chain_* m_p_chain = nullptr;
        ~Drain_() {
            m_p_chain->m_phase = Phase_::Drained;
            while (m_p_chain->m_p_first != nullptr) ::operator delete(take());
        }
    };

    static constexpr std::size_t kSize = BlockSize < sizeof(Link_) ? sizeof(Link_) : BlockSize;
    static constexpr unsigned int kMaxHeld = VEKMSG_FREE_LISTS ? MaxHeld : 0;

    static void add(Chain_& chain, void* p_block) noexcept {
        chain.m_p_first = ::new (p_block) Link_{chain.m_p_first};
        ++chain.m_held;
    }

    /// To a list that may not be in use yet, or full, or drained. Apart, like `takeFromHeap`.
    [[gnu::cold]] static void giveFirst(Chain_& chain, void* p_block) noexcept {
        if (chain.m_phase == Phase_::Unused) armDrain(chain);
        if (chain.m_phase == Phase_::Open && chain.m_held < kMaxHeld) {
            add(chain, p_block);
        } else {
            ::operator delete(p_block);
        }
    }

    static void armDrain(Chain_& chain) noexcept {
        if (kMaxHeld == 0 || !canNoteThreadEnd()) return;  // the list stays unused
        threadDrain().m_p_chain = &chain;
        chain.m_phase = Phase_::Open;
    }

    static Chain_& threadChain() noexcept { return isLoadingThread() ? s_chain : otherThreadChain(); }

    [[gnu::const]] VEKMSG_THREAD_ACCESS static Chain_& otherThreadChain() noexcept {
        static thread_local Chain_ t_chain{nullptr, 0, Phase_::Unused};
        return t_chain;
    }

    VEKMSG_THREAD_ACCESS static Drain_& threadDrain() noexcept {
        static thread_local Drain_ t_drain;
        return t_drain;
    }
};

/// Puts the nodes of standard containers on the thread's free lists. Arrays come from the heap.
template <class T>
struct FreeListAllocator_ {
    using value_type = T;

    FreeListAllocator_() noexcept = default;
    template <class U>
    FreeListAllocator_(const FreeListAllocator_<U>&) noexcept {}

    T* allocate(std::size_t count) {
        if (count != 1) return std::allocator<T>().allocate(count);
        void* p_memory = Nodes_::take();
        if (p_memory == nullptr) throw std::bad_alloc();
        return static_cast<T*>(p_memory);
    }
    void deallocate(T* p_memory, std::size_t count) noexcept {
        if (count == 1) {
            Nodes_::give(p_memory);
        } else {
            std::allocator<T>().deallocate(p_memory, count);
        }
    }

    template <class U>
    bool operator==(const FreeListAllocator_<U>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const FreeListAllocator_<U>&) const noexcept {
        return false;
    }

private:
    using Nodes_ = FreeList_<sizeof(T), 256>;
};

/// Gives a class its memory from a free list: derive the class from this and create it with a non-throwing
/// `new`.
template <class T, unsigned int MaxHeld>
struct FromFreeList_ {
    /// A template, because T is not complete before it is used.
    template <class U = T>
    using List_ = FreeList_<sizeof(U), MaxHeld>;

    /// Whether one more can be made without asking the heap. One that would be made and dropped at once need
    /// not be made then: nothing could fail, and nothing would be left of it.
    static bool isAtHand() noexcept { return List_<>::hasOne(); }

    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
        return size == sizeof(T) ? List_<>::take() : takeFromHeap(size);
    }
    static void* operator new(std::size_t size) {
        void* p_memory = operator new(size, std::nothrow);
        if (p_memory == nullptr) throw std::bad_alloc();
        return p_memory;
    }
    static void operator delete(void* p_memory, std::size_t size) noexcept {
        if (size == sizeof(T)) {
            List_<>::give(p_memory);
        } else {
            ::operator delete(p_memory);
        }
    }
    // Called when the constructor throws; a heap block of another size may be released the same way.
    static void operator delete(void* p_memory, const std::nothrow_t&) noexcept {
        ::operator delete(p_memory);
    }
};

}  // namespace libcpp

#endif

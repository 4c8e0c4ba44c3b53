#ifndef LIBCPP_SMART_POINTER_H
#define LIBCPP_SMART_POINTER_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "libcpp/basic_object.h"

namespace libcpp {

/// How a holder destroys an object that knows no reference count.
template <class T>
struct DefaultFreer_ {
    static void free(T* p_object) { delete p_object; }
};

/// Counts the owners of an object whose own type does not: every SmartPointer_ to it points here.
template <class T, class Freer = DefaultFreer_<T>>
class smartPointerToDumbTypePointer_ {
public:
    explicit smartPointerToDumbTypePointer_(T* p_object) noexcept : m_p_object(p_object) {}
    smartPointerToDumbTypePointer_(const smartPointerToDumbTypePointer_&) = delete;
    smartPointerToDumbTypePointer_& operator=(const smartPointerToDumbTypePointer_&) = delete;
    virtual ~smartPointerToDumbTypePointer_() { Freer::free(m_p_object); }

    T* object() const noexcept { return m_p_object; }

    void addRef() noexcept { ++m_count; }

    void removeRef() {
        if (m_count > 1) {
            --m_count;
        } else {
            delete this;
        }
    }

protected:
    T* m_p_object;

private:
    std::uint32_t m_count = 1;
};

/// Where the reference count of a T lives: in the object itself, or else in a holder beside it.
template <class T, bool isCounted>
struct CountPlace_ {
    using Pointee = T;

    static T* object(Pointee* p_pointee) noexcept { return p_pointee; }

    /// The pointee that stands for `p_object`, with a reference for the caller.
    static Pointee* take(Pointee*, T* p_object) {
        if (p_object != nullptr) p_object->addRef();
        return p_object;
    }
};

template <class T>
struct CountPlace_<T, false> {
    using Pointee = smartPointerToDumbTypePointer_<T, DefaultFreer_<T>>;

    static T* object(Pointee* p_pointee) noexcept {
        return p_pointee != nullptr ? p_pointee->object() : nullptr;
    }

    /// Null, with `p_object` destroyed, when there is no memory for a holder.
    static Pointee* take(Pointee* p_present, T* p_object) {
        if (p_object == nullptr) return nullptr;
        if (p_present != nullptr && p_present->object() == p_object) {
            p_present->addRef();
            return p_present;
        }
        auto* p_holder = new (std::nothrow) Pointee(p_object);
        if (p_holder == nullptr) DefaultFreer_<T>::free(p_object);
        return p_holder;
    }
};

/// Looked at when a smart pointer is used and not when it is named, so that a class can name smart pointers
/// to itself.
template <class T>
struct SmartPointerTypeTraits_ : CountPlace_<T, std::is_base_of<BasicObject_, T>::value> {};

/// A checked cast, which searches the class hierarchy only where the object is not exactly a T.
template <class T, class Other>
T* castTo(Other* p_object) {
    if constexpr (std::is_base_of<Other, T>::value) {
        if (p_object != nullptr && &typeid(*p_object) == &typeid(T)) return static_cast<T*>(p_object);
    }
    return dynamic_cast<T*>(p_object);
}

/// One owner of a shared object, or of none (null). Copies share the object; it goes when the last owner
/// goes.
///
/// A T that derives from BasicObject_ carries its own count. Any other T gets a holder when a raw pointer is
/// handed over; where there is no memory for that holder, the object is destroyed and the smart pointer is
/// null.
///
/// A smart pointer converts to one of a related class by a checked cast: null where the object is not of that
/// class.
template <class T, class Traits = SmartPointerTypeTraits_<T>>
class SmartPointer_ {
public:
    using Pointee = typename Traits::Pointee;

    SmartPointer_() noexcept = default;
    SmartPointer_(std::nullptr_t) noexcept {}
    explicit SmartPointer_(T* p_object) : m_p_pointee(Traits::take(nullptr, p_object)) {}
    SmartPointer_(const SmartPointer_& other) : m_p_pointee(other.m_p_pointee) { addRef(); }
    SmartPointer_(SmartPointer_&& other) noexcept : m_p_pointee(std::exchange(other.m_p_pointee, nullptr)) {}

    template <class Other, class = std::enable_if_t<std::is_base_of<BasicObject_, Other>::value &&
                                                    std::is_base_of<BasicObject_, T>::value>>
    SmartPointer_(const SmartPointer_<Other>& other) : SmartPointer_(castTo<T>(other.get())) {}

    virtual ~SmartPointer_() { removeRef(m_p_pointee); }

    SmartPointer_& operator=(const SmartPointer_& other) {
        if (this == &other) return *this;
        SmartPointer_ shared(other);
        swap(shared);
        return *this;
    }
    SmartPointer_& operator=(SmartPointer_&& other) noexcept {
        SmartPointer_(std::move(other)).swap(*this);
        return *this;
    }
    /// A raw pointer that this smart pointer owns already stays with its present holder.
    SmartPointer_& operator=(T* p_object) {
        removeRef(std::exchange(m_p_pointee, Traits::take(m_p_pointee, p_object)));
        return *this;
    }
    SmartPointer_& operator=(std::nullptr_t) {
        reset();
        return *this;
    }

    /// Takes over a holder that already counts the reference of this smart pointer.
    static SmartPointer_ adopt(Pointee* p_pointee) noexcept {
        SmartPointer_ sp_adopted;
        sp_adopted.m_p_pointee = p_pointee;
        return sp_adopted;
    }

    /// Gives the pointee, with the reference of this smart pointer, to the caller and is null then.
    Pointee* detach() noexcept { return std::exchange(m_p_pointee, nullptr); }

    void reset() { removeRef(std::exchange(m_p_pointee, nullptr)); }
    void swap(SmartPointer_& other) noexcept { std::swap(m_p_pointee, other.m_p_pointee); }

    T* get() const noexcept { return Traits::object(m_p_pointee); }
    T* operator->() const noexcept { return get(); }
    T& operator*() const noexcept { return *get(); }
    bool isNull() const noexcept { return get() == nullptr; }
    explicit operator bool() const noexcept { return !isNull(); }

    friend bool operator==(const SmartPointer_& a, const SmartPointer_& b) noexcept {
        return a.get() == b.get();
    }
    friend bool operator!=(const SmartPointer_& a, const SmartPointer_& b) noexcept {
        return a.get() != b.get();
    }

private:
    void addRef() {
        if (m_p_pointee != nullptr) m_p_pointee->addRef();
    }
    static void removeRef(Pointee* p_pointee) {
        if (p_pointee != nullptr) p_pointee->removeRef();
    }

    Pointee* m_p_pointee = nullptr;
};

/// Orders smart pointers by what they point to, null first: by `isLess` where the pointee has it, else by
/// `<`.
template <class SmartPointer>
struct IsLess_;

template <class T>
struct IsLess_<SmartPointer_<T>> {
    bool operator()(const SmartPointer_<T>& a, const SmartPointer_<T>& b) const {
        if (a.isNull() || b.isNull()) return a.isNull() && !b.isNull();
        return isLess(*a, *b, 0);
    }

private:
    template <class U>
    static auto isLess(const U& a, const U& b, int) -> decltype(a.isLess(&b)) {
        return a.isLess(&b);
    }
    template <class U>
    static bool isLess(const U& a, const U& b, long) {
        return a < b;
    }
};

using SP_StdString_ = SmartPointer_<std::string>;

}  // namespace libcpp

using libcpp::SmartPointer_;
using libcpp::SP_StdString_;

#endif

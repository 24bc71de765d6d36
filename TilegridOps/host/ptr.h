#pragma once
#include <atomic>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

/// Reference counting of the host. `Ptr` shares an object that nobody changes; `MutablePtr` is its only owner and may
/// change it. `toMutable` leads from the first to the second (copy-on-write), a move assignment leads back.
namespace Corvid {

namespace detail {

/// Counts the holders of one object, and knows how to destroy and to clone it, whatever type a pointer sees it as.
class ControlBlock {
public:
    virtual ~ControlBlock() = default;
    virtual void* object() = 0;
    virtual ControlBlock* clone() const = 0;
    std::atomic<long> uses{1};
};

template <class T> class ControlBlockOf final : public ControlBlock {
public:
    explicit ControlBlockOf(T* object) : object_(object) {}
    void* object() override { return const_cast<std::remove_const_t<T>*>(object_.get()); }
    ControlBlock* clone() const override
    {
        if constexpr (std::is_copy_constructible_v<T>)
            return new ControlBlockOf(new T(*object_));
        else
            return nullptr;
    }

private:
    std::unique_ptr<T> object_;
};

/// What both pointers are: an object as the holder sees it, and its control block.
template <class T> class Holder {
public:
    Holder() = default;
    Holder(T* object, ControlBlock* block) : object_(object), block_(block) {}
    T* object_ = nullptr;
    ControlBlock* block_ = nullptr;

    void release()
    {
        if (block_ && block_->uses.fetch_sub(1, std::memory_order_acq_rel) == 1) delete block_;
        object_ = nullptr;
        block_ = nullptr;
    }
    /// A holder of a copy of the same complete object, seen as the same base.
    Holder cloned() const
    {
        ControlBlock* copy = block_->clone();
        if (!copy) return {};
        using Byte = std::conditional_t<std::is_const_v<T>, std::byte const, std::byte>;
        const auto offset = reinterpret_cast<std::byte const*>(object_) - static_cast<std::byte const*>(block_->object());
        return {reinterpret_cast<T*>(static_cast<Byte*>(copy->object()) + offset), copy};
    }
};

}  // namespace detail

template <class T> class Ptr;

/// Sole owner of an object that may be changed. Moves only. Null after it was moved from.
template <class T> class MutablePtr {
public:
    MutablePtr() = default;
    MutablePtr(std::nullptr_t) {}
    /// Takes ownership of an object made by `new`.
    explicit MutablePtr(T* object)
    {
        if (object) hold_ = {object, new detail::ControlBlockOf<T>(object)};
    }
    MutablePtr(MutablePtr&& other) noexcept { std::swap(hold_, other.hold_); }
    template <class U> requires std::is_convertible_v<U*, T*>
    MutablePtr(MutablePtr<U>&& other) noexcept : hold_(other.hold_.object_, other.hold_.block_) { other.hold_ = {}; }
    MutablePtr& operator=(MutablePtr other) noexcept
    {
        std::swap(hold_, other.hold_);
        return *this;
    }
    ~MutablePtr() { hold_.release(); }

    T* get() const { return hold_.object_; }
    template <class U = T> U& operator*() const { return *hold_.object_; }
    T* operator->() const { return hold_.object_; }
    explicit operator bool() const { return hold_.object_ != nullptr; }
    void reset() { hold_.release(); }

private:
    template <class U> friend class MutablePtr;
    template <class U> friend class Ptr;
    template <class U> friend MutablePtr<U> toMutable(Ptr<U>& pointer);
    template <class U, class V> friend MutablePtr<U> dynamicPointerCast(MutablePtr<V>&& pointer);
    detail::Holder<T> hold_;
};

/// One of several holders of an object that nobody changes while it is shared. Copies share; safe to copy and destroy from
/// different threads, as long as each pointer itself is used by one.
template <class T> class Ptr {
public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    Ptr(Ptr const& other) : hold_(other.hold_) { addUse(); }
    Ptr(Ptr&& other) noexcept { std::swap(hold_, other.hold_); }
    template <class U> requires std::is_convertible_v<U*, T*>
    Ptr(Ptr<U> const& other) : hold_(other.hold_.object_, other.hold_.block_) { addUse(); }
    template <class U> requires std::is_convertible_v<U*, T*>
    Ptr(MutablePtr<U>&& other) noexcept : hold_(other.hold_.object_, other.hold_.block_) { other.hold_ = {}; }
    /// Replaces the object held: the old one loses this holder, and is destroyed if it was the last. Safe on itself.
    Ptr& operator=(Ptr other) noexcept
    {
        std::swap(hold_, other.hold_);
        return *this;
    }
    ~Ptr() { hold_.release(); }

    T const* get() const { return hold_.object_; }
    template <class U = T> U const& operator*() const { return *hold_.object_; }
    T const* operator->() const { return hold_.object_; }
    explicit operator bool() const { return hold_.object_ != nullptr; }
    long useCount() const { return hold_.block_ ? hold_.block_->uses.load(std::memory_order_acquire) : 0; }
    void reset() { hold_.release(); }
    template <class U> friend bool operator==(Ptr const& a, Ptr<U> const& b) { return a.get() == b.get(); }
    friend bool operator==(Ptr const& a, std::nullptr_t) { return a.get() == nullptr; }

private:
    void addUse()
    {
        if (hold_.block_) hold_.block_->uses.fetch_add(1, std::memory_order_relaxed);
    }
    template <class U> friend class Ptr;
    template <class U> friend MutablePtr<U> toMutable(Ptr<U>& pointer);
    template <class U, class V> friend Ptr<U> dynamicPointerCast(Ptr<V> const& pointer);
    detail::Holder<T> hold_;
};

/// A new object, owned by the pointer returned.
template <class T, class... Args> MutablePtr<T> makeMutable(Args&&... args)
{
    return MutablePtr<T>(new T(std::forward<Args>(args)...));
}

/// Copy-on-write: the object of `pointer` for its only owner. Used by nobody else it moves out without a copy; otherwise it
/// is cloned and the holder gives up its share. `pointer` is null afterwards in both cases; null gives null.
template <class T> MutablePtr<T> toMutable(Ptr<T>& pointer)
{
    MutablePtr<T> result;
    if (!pointer) return result;
    if (pointer.useCount() == 1) {
        std::swap(result.hold_, pointer.hold_);
    } else {
        result.hold_ = pointer.hold_.cloned();
        pointer.reset();
    }
    return result;
}

/// The same object seen as a U, or null if it is none. A `MutablePtr` keeps its object if the cast fails.
template <class U, class T> Ptr<U> dynamicPointerCast(Ptr<T> const& pointer)
{
    Ptr<U> result;
    if (auto* object = dynamic_cast<U*>(pointer.hold_.object_)) {
        result.hold_ = {object, pointer.hold_.block_};
        result.addUse();
    }
    return result;
}
template <class U, class T> MutablePtr<U> dynamicPointerCast(MutablePtr<T>&& pointer)
{
    MutablePtr<U> result;
    if (auto* object = dynamic_cast<U*>(pointer.hold_.object_)) {
        result.hold_ = {object, pointer.hold_.block_};
        pointer.hold_ = {};
    }
    return result;
}

}  // namespace Corvid

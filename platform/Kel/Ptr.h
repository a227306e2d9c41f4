// Kel::Ptr<T>: an intrusive reference-counted pointer to an entity (Kel/Entity.h).
//
// Copying a Ptr increments the entity's count, destroying one decrements it, and the
// entity is destroyed when the count reaches zero. By default the counts are plain
// (single-threaded, as every reactor runs on its agent's one thread); after
// Kel::ptrThreadSafeModeIs(true) every increment and decrement is atomic. Switch the mode
// before a second thread touches any Ptr. No other locking is done.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kel {

namespace internal {
extern std::atomic<bool> ptrThreadSafeMode;
}

inline bool ptrThreadSafeMode() noexcept {
  return internal::ptrThreadSafeMode.load(std::memory_order_relaxed);
}
void ptrThreadSafeModeIs(bool threadSafe) noexcept;

// The reference count embedded in every entity.
class RefCounted {
 public:
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

  uint32_t kelRefCount() const noexcept { return refs_.load(std::memory_order_relaxed); }

  void kelRef() const noexcept {
    if (ptrThreadSafeMode()) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  // Returns true when this released the last reference.
  bool kelUnref() const noexcept {
    if (ptrThreadSafeMode()) {
      // acq_rel: the destroying thread must see every write made before other releases.
      return refs_.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    uint32_t n = refs_.load(std::memory_order_relaxed) - 1;
    refs_.store(n, std::memory_order_relaxed);
    return n == 0;
  }

 protected:
  RefCounted() = default;
  ~RefCounted() = default;

 private:
  mutable std::atomic<uint32_t> refs_{0};
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT
  Ptr(T* p) noexcept : p_(p) { retain(); }  // NOLINT: an entity may hand out `this`
  Ptr(const Ptr& o) noexcept : p_(o.p_) { retain(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(const Ptr<U>& o) noexcept : p_(o.get()) {  // NOLINT
    retain();
  }
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}  // NOLINT
  ~Ptr() { releaseRef(); }

  Ptr& operator=(const Ptr& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void reset() noexcept { Ptr().swap(*this); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without decrementing.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
  friend auto operator<=>(const Ptr& a, const Ptr& b) noexcept {
    return std::compare_three_way()(a.p_, b.p_);
  }

 private:
  void retain() const noexcept {
    if (p_) {
      p_->kelRef();
    }
  }
  void releaseRef() noexcept {
    if (p_ && p_->kelUnref()) {
      delete p_;
    }
  }

  T* p_ = nullptr;
};

template <class T>
using PtrConst = Ptr<const T>;

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(static_cast<T*>(p.get()));
}

template <class T, class U>
Ptr<T> ptrDynamicCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
  size_t operator()(const Kel::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};

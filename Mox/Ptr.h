#pragma once
// Intrusive reference counting. Objects derive from PtrInterface and are held by Ptr<T>;
// the last Ptr to go deletes the object. Counts are plain integers because every agent runs
// one event-loop thread; the build switch MOX_THREAD_SAFE_PTR makes them atomic for the
// few objects that cross threads.

#include <Mox/Types.h>

#include <cstddef>
#include <functional>
#include <utility>
#if MOX_THREAD_SAFE_PTR
#include <atomic>
#endif

namespace Mox {

class PtrInterface {
 public:
  void ref() const noexcept { ++references_; }
  void unref() const noexcept {
    if (--references_ == 0) delete this;
  }
  U32 references() const noexcept { return references_; }

 protected:
  PtrInterface() noexcept = default;
  // A copy is a new object: it starts with no references of its own.
  PtrInterface(const PtrInterface&) noexcept {}
  PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }
  virtual ~PtrInterface() = default;

 private:
#if MOX_THREAD_SAFE_PTR
  mutable std::atomic<U32> references_{0};
#else
  mutable U32 references_ = 0;
#endif
};

template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* object) noexcept : object_(object) { acquire(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& other) noexcept : object_(other.get()) {
    acquire();
  }
  template <class U>
  Ptr(Ptr<U>&& other) noexcept : object_(other.release()) {}
  ~Ptr() { releaseReference(); }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  // Gives up ownership without dropping the reference; for moves between pointer types.
  T* release() noexcept { return std::exchange(object_, nullptr); }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return !a.object_; }

 private:
  void acquire() const noexcept {
    if (object_) object_->ref();
  }
  void releaseReference() noexcept {
    if (object_) std::exchange(object_, nullptr)->unref();
  }

  T* object_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Mox

template <class T>
struct std::hash<Mox::Ptr<T>> {
  size_t operator()(const Mox::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};

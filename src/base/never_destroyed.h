/// An object that is made at its first use and never destroyed, since tasks outlive main. It has its room
/// from the start: a first use cannot fail for want of memory, as long as the object's constructor takes
/// none.
///
///   static base::NeverDestroyed<Registry> registry;
///   return *registry;
#pragma once

#include <new>

namespace base {

template <class T>
class NeverDestroyed {
 public:
  NeverDestroyed() : object_(new (room_) T) {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() { return *object_; }

 private:
  alignas(T) unsigned char room_[sizeof(T)];
  T* object_;
};

}  // namespace base

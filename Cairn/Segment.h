#pragma once
// Named POSIX shared-memory segments, the ground the tables stand on. A name is checked
// before it reaches the system ([A-Za-z0-9_-], 1 to 40 characters), so no "/" or ".."
// trick can name a file outside the shared-memory directory. Segments are created for
// their owner only (0600) unless the program asks for a group (0660, that group).
//
//   Cairn::NamedSegment counter("vrf-writer", Cairn::Access{}, true);
//   auto* last = static_cast<std::atomic<Mox::U32>*>(counter.attach(4));
//   ...
//   counter.detach();
//   Cairn::NamedSegment::remove("vrf-writer");

#include <Mox/Types.h>

#include <sys/types.h>

#include <string>

namespace Cairn {

using Mox::U32;
using Mox::U64;
using Mox::U8;

// Who may open what this process creates: the owner only, or also one group.
struct Access {
  static constexpr gid_t noGroup = static_cast<gid_t>(-1);
  gid_t group = noGroup;
};

// Throws Mox::RangeException "Invalid shared-memory name <name>" unless the name is usable.
void validateName(const std::string& name);

// The shared-memory object names (for shm_open) and file paths the library uses.
std::string tableObject(const std::string& name);
std::string segmentObject(const std::string& name);
std::string shmPath(const std::string& object);  // "/dev/shm/" + object

// An open descriptor of a shared-memory object and its mapping; closes and unmaps on
// destruction. Failures close what was opened and throw Mox::ErrnoException naming the step.
class Mapping {
 public:
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() { reset(); }

  // Opens `object` read-write, creating it (with `access`) when `create` is set.
  void openWritable(const std::string& object, bool create, const Access& access);
  // Opens `object` read-only.
  void openReadOnly(const std::string& object);
  // Grows the object to `size` bytes when it is smaller.
  void ensureSize(size_t size);
  size_t objectSize() const;
  // Maps the first `size` bytes (read-write when opened so, else read-only).
  void* map(size_t size);
  void unmap() noexcept;
  void reset() noexcept;

  // Byte-range locks owned by the open description, so they die with the process.
  bool tryLock(U32 byte, bool exclusive);
  void lockWait(U32 byte, bool exclusive);
  void unlock(U32 byte);
  // Whether some other open description holds a lock on `byte` that excludes readers.
  bool lockedExclusively(U32 byte) const;

  int descriptor() const noexcept { return fd_; }
  void* address() const noexcept { return address_; }
  size_t size() const noexcept { return size_; }
  const std::string& object() const noexcept { return object_; }

 private:
  void open(const std::string& object, int flags, const Access& access);

  std::string object_;
  int fd_ = -1;
  bool writable_ = false;
  void* address_ = nullptr;
  size_t size_ = 0;
};

// A small named segment a program keeps across restarts (the VRF writer's id counter).
class NamedSegment {
 public:
  // Opens the segment `name`, creating it when missing and `create` is set.
  NamedSegment(const std::string& name, const Access& access, bool create);
  // Maps the first `size` bytes (grown to that size if needed) and returns their address.
  void* attach(size_t size);
  void detach() noexcept { mapping_.unmap(); }
  void* address() const noexcept { return mapping_.address(); }
  static bool remove(const std::string& name);

 private:
  Mapping mapping_;
};

}  // namespace Cairn

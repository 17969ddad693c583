#include <Cairn/Segment.h>

#include <Mox/Exception.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Cairn {

namespace {

constexpr size_t maxNameLength = 40;

[[noreturn]] void fail(const std::string& step) {
  throw Mox::ErrnoException(errno, step);
}

struct flock byteLock(U32 byte, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  return lock;
}

}  // namespace

void validateName(const std::string& name) {
  bool ok = !name.empty() && name.size() <= maxNameLength;
  for (char c : name) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '_' || c == '-';
    ok = ok && allowed;
  }
  if (!ok) throw Mox::RangeException("Invalid shared-memory name <" + name + ">");
}

std::string tableObject(const std::string& name) {
  validateName(name);
  return "cairn." + name;
}

std::string segmentObject(const std::string& name) {
  validateName(name);
  return "cairn-segment." + name;
}

std::string shmPath(const std::string& object) {
  return "/dev/shm/" + object;
}

void Mapping::open(const std::string& object, int flags, const Access& access) {
  reset();
  const mode_t mode = access.group == Access::noGroup ? 0600 : 0660;
  const int fd = shm_open(("/" + object).c_str(), flags | O_CLOEXEC, mode);
  if (fd < 0) fail("shm_open(" + object + ")");
  fd_ = fd;
  object_ = object;
  writable_ = (flags & O_ACCMODE) == O_RDWR;
  if (!(flags & O_CREAT)) return;
  // The umask must not widen or narrow what the program asked for.
  struct stat status {};
  if (fstat(fd_, &status) != 0) fail("fstat(" + object + ")");
  if (status.st_uid != geteuid()) return;
  if (access.group != Access::noGroup && fchown(fd_, -1, access.group) != 0) {
    const int error = errno;
    reset();
    throw Mox::ErrnoException(error, "fchown(" + object + ")");
  }
  if (fchmod(fd_, mode) != 0) {
    const int error = errno;
    reset();
    throw Mox::ErrnoException(error, "fchmod(" + object + ")");
  }
}

void Mapping::openWritable(const std::string& object, bool create, const Access& access) {
  open(object, O_RDWR | (create ? O_CREAT : 0), access);
}

void Mapping::openReadOnly(const std::string& object) {
  open(object, O_RDONLY, Access{});
}

size_t Mapping::objectSize() const {
  struct stat status {};
  if (fstat(fd_, &status) != 0) fail("fstat(" + object_ + ")");
  return static_cast<size_t>(status.st_size);
}

void Mapping::ensureSize(size_t size) {
  if (objectSize() < size && ftruncate(fd_, static_cast<off_t>(size)) != 0) {
    fail("ftruncate(" + object_ + ")");
  }
}

void* Mapping::map(size_t size) {
  unmap();
  const int protection = writable_ ? PROT_READ | PROT_WRITE : PROT_READ;
  void* address = mmap(nullptr, size, protection, MAP_SHARED, fd_, 0);
  if (address == MAP_FAILED) fail("mmap(" + object_ + ")");
  address_ = address;
  size_ = size;
  return address;
}

void Mapping::unmap() noexcept {
  if (address_) munmap(address_, size_);
  address_ = nullptr;
  size_ = 0;
}

void Mapping::reset() noexcept {
  unmap();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool Mapping::tryLock(U32 byte, bool exclusive) {
  struct flock lock = byteLock(byte, exclusive ? F_WRLCK : F_RDLCK);
  if (fcntl(fd_, F_OFD_SETLK, &lock) == 0) return true;
  if (errno == EAGAIN || errno == EACCES) return false;
  fail("fcntl(F_OFD_SETLK)");
}

void Mapping::lockWait(U32 byte, bool exclusive) {
  struct flock lock = byteLock(byte, exclusive ? F_WRLCK : F_RDLCK);
  while (fcntl(fd_, F_OFD_SETLKW, &lock) != 0) {
    if (errno != EINTR) fail("fcntl(F_OFD_SETLKW)");
  }
}

void Mapping::unlock(U32 byte) {
  struct flock lock = byteLock(byte, F_UNLCK);
  if (fcntl(fd_, F_OFD_SETLK, &lock) != 0) fail("fcntl(F_OFD_SETLK)");
}

bool Mapping::lockedExclusively(U32 byte) const {
  struct flock lock = byteLock(byte, F_RDLCK);
  if (fcntl(fd_, F_OFD_GETLK, &lock) != 0) fail("fcntl(F_OFD_GETLK)");
  return lock.l_type != F_UNLCK;
}

NamedSegment::NamedSegment(const std::string& name, const Access& access, bool create) {
  mapping_.openWritable(segmentObject(name), create, access);
}

void* NamedSegment::attach(size_t size) {
  mapping_.ensureSize(size);
  return mapping_.map(size);
}

bool NamedSegment::remove(const std::string& name) {
  return shm_unlink(("/" + segmentObject(name)).c_str()) == 0;
}

}  // namespace Cairn

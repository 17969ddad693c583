#pragma once
// Damages a table behind its writer's back, as a stray write would: flips bits of one byte
// `offset` bytes past the last place where `pattern` occurs in the table's shared memory.

#include <Cairn/Segment.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace CairnTest {

inline bool damage(const std::string& table, const std::string& pattern, size_t offset, char bits) {
  const int fd = open(Cairn::shmPath(Cairn::tableObject(table)).c_str(), O_RDWR);
  if (fd < 0) return false;
  const off_t size = lseek(fd, 0, SEEK_END);
  auto* bytes = static_cast<char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  close(fd);
  if (bytes == MAP_FAILED) return false;
  char* found = std::find_end(bytes, bytes + size, pattern.begin(), pattern.end());
  const bool hit = found != bytes + size && found + offset < bytes + size;
  if (hit) found[offset] ^= bits;
  munmap(bytes, size);
  return hit;
}

}  // namespace CairnTest

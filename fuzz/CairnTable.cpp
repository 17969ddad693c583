// A shared-memory table as a reader finds it, after another process damaged its bytes.
// Each shape's table is written once by a real writer; an input picks a shape, then patches
// {offset (2 bytes), length (1 byte), bytes}, and a final length byte may cut the segment
// short. The reader must not crash, and what it reports must hold together: an undamaged
// table reads back exactly as written; any entry a look-up finds is one its walk delivers;
// the change ring yields whole keys.
#include "FuzzCheck.h"

#include <Cairn/Segment.h>
#include <Cairn/Table.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

using namespace KorvaFuzz;
using Mox::U32;
using Mox::U8;

namespace {

std::string_view input;

struct Shape {
  std::string name;
  Cairn::TableShape shape;
  std::vector<U8> image;  // the segment as its writer left it
  std::map<std::vector<U8>, std::vector<U8>> entries;
};

std::string segmentPath(const std::string& name) {
  return "/dev/shm/" + Cairn::tableObject(name);
}

std::vector<U8> bytesOf(U32 seed, U32 size) {
  std::vector<U8> bytes(size);
  for (U32 i = 0; i < size; ++i) bytes[i] = U8(seed * 131 + i * 7 + 1);
  return bytes;
}

// A table of the shape, half full, some entries replaced and deleted so that the ring, the
// tombstones and the journal all hold something.
Shape written(const Cairn::TableShape& shape) {
  Shape made{"fuzz-" + std::to_string(getpid()) + "-" + std::to_string(shape.keySize) + "-" +
                 std::to_string(shape.valueSize),
             shape,
             {},
             {}};
  Cairn::removeTable(made.name);
  {
    Cairn::TableWriterCore writer(made.name, shape, Cairn::Access{});
    for (U32 i = 0; i < shape.capacity; ++i) {
      const std::vector<U8> key = bytesOf(i, shape.keySize),
                            value = bytesOf(i + 99, shape.valueSize);
      writer.set(key.data(), value.data());
      made.entries[key] = value;
    }
    for (U32 i = 0; i < shape.capacity; i += 2) {
      const std::vector<U8> key = bytesOf(i, shape.keySize);
      writer.del(key.data());
      made.entries.erase(key);
    }
  }
  const int fd = open(segmentPath(made.name).c_str(), O_RDONLY | O_CLOEXEC);
  made.image.resize(size_t(lseek(fd, 0, SEEK_END)));
  require(pread(fd, made.image.data(), made.image.size(), 0) == ssize_t(made.image.size()),
          "the written segment reads", "");
  close(fd);
  return made;
}

// The tables live as long as the run and leave nothing in /dev/shm.
struct Tables : std::vector<Shape> {
  Tables() {
    for (const Cairn::TableShape& shape :
         {Cairn::TableShape{4, 4, 8}, Cairn::TableShape{8, 20, 6}, Cairn::TableShape{12, 8, 5}}) {
      push_back(written(shape));
    }
  }
  ~Tables() {
    for (const Shape& table : *this) Cairn::removeTable(table.name);
  }
};

std::vector<Shape>& shapes() {
  static Tables made;
  return made;
}

// Applies the patches; true when any byte changed or the segment was cut.
bool damage(std::vector<U8>& image, const U8* data, size_t size) {
  bool damaged = false;
  while (size >= 3) {
    const size_t offset = (data[0] | data[1] << 8) % image.size();
    const size_t length = std::min<size_t>({data[2], size - 3, image.size() - offset});
    damaged |= !std::equal(data + 3, data + 3 + length, image.begin() + offset);
    std::copy(data + 3, data + 3 + length, image.begin() + offset);
    data += 3 + length;
    size -= 3 + length;
  }
  if (size == 1) {
    image.resize(image.size() * data[0] / 256);
    damaged = true;
  }
  return damaged;
}

void checkReader(const Shape& table, bool damaged) {
  Cairn::TableReaderCore reader(table.name, table.shape);
  std::multimap<std::vector<U8>, std::vector<U8>> walked;
  reader.forEach([&](const void* key, const void* value) {
    const U8* k = static_cast<const U8*>(key);
    const U8* v = static_cast<const U8*>(value);
    walked.emplace(std::vector<U8>(k, k + table.shape.keySize),
                   std::vector<U8>(v, v + table.shape.valueSize));
  });
  std::vector<U8> value(table.shape.valueSize);
  for (U32 i = 0; i < table.shape.capacity; ++i) {
    const std::vector<U8> key = bytesOf(i, table.shape.keySize);
    if (!reader.find(key.data(), value.data())) continue;
    const auto [first, last] = walked.equal_range(key);
    require(std::any_of(first, last, [&](const auto& entry) { return entry.second == value; }),
            "a look-up found an entry the walk does not deliver", input);
  }
  Mox::U64 cursor = 0;
  std::vector<U8> keys;
  std::vector<bool> notified;
  reader.changesSince(cursor, keys, notified);
  require(keys.size() % table.shape.keySize == 0 &&
              notified.size() == keys.size() / table.shape.keySize,
          "the change ring yields part of a key", input);
  if (damaged) return;
  require(reader.valid() && reader.size() == table.entries.size() &&
              std::equal(walked.begin(), walked.end(), table.entries.begin(), table.entries.end()),
          "an undamaged table reads back otherwise", input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Cairn::corruptionHandlerIs([](const Cairn::Corruption&) {}), true);
  (void)quiet;
  if (size < 1) return 0;
  input = std::string_view(reinterpret_cast<const char*>(data), size);
  const Shape& table = shapes()[data[0] % shapes().size()];
  std::vector<U8> image = table.image;
  const bool damaged = damage(image, data + 1, size - 1);
  const int fd = open(segmentPath(table.name).c_str(), O_RDWR | O_TRUNC | O_CLOEXEC);
  require(fd >= 0 && write(fd, image.data(), image.size()) == ssize_t(image.size()),
          "the damaged segment is written", input);
  close(fd);
  checkReader(table, damaged);
  return 0;
}

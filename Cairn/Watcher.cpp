#include <Cairn/Watcher.h>

#include <unordered_map>
#include <vector>

namespace Cairn {

class WatcherCore::Wakeup : public Mox::FileDescriptor::Notifiee {
 public:
  explicit Wakeup(WatcherCore& watcher) : watcher_(watcher) {}
  void onReadableCount() override { watcher_.sync(); }

 private:
  WatcherCore& watcher_;
};

WatcherCore::WatcherCore(const std::string& name, const TableShape& shape, const Access& access)
    : Mox::Entity(name),
      reader_(name, shape),
      receiver_(name, access),
      records_(size_t(shape.keySize) + shape.valueSize) {
  fd_ = Mox::make<Mox::FileDescriptor>(name + " wake-up", receiver_.releaseDescriptor());
  wakeup_ = std::make_unique<Wakeup>(*this);
  wakeup_->notifierIs(fd_);
  // The first turn walks the table, after the program has attached its notifiees.
  receiver_.poke(fd_->descriptor());
}

WatcherCore::~WatcherCore() = default;

const void* WatcherCore::seen(const void* key) const {
  const auto found =
      seen_.find(std::string_view(static_cast<const char*>(key), reader_.shape().keySize));
  return found == seen_.end() ? nullptr : found->second.record + reader_.shape().keySize;
}

char* WatcherCore::Records::take() {
  if (!free_.empty()) {
    char* record = free_.back();
    free_.pop_back();
    return record;
  }
  if (used_ == chunkRecords) {
    chunks_.push_back(std::make_unique<char[]>(chunkRecords * recordSize_));
    used_ = 0;
  }
  return chunks_.back().get() + recordSize_ * used_++;
}

void WatcherCore::sync() {
  Mox::Ptr<WatcherCore> keepAlive(this);
  receiver_.acknowledge(fd_->descriptor());
  std::vector<U8> keys;
  std::vector<bool> notified;
  if (!walked_ || !reader_.changesSince(cursor_, keys, notified)) {
    // The cursor has moved to the ring's head: changes from here on come by the ring.
    resyncs_ += walked_;
    walked_ = true;
    return walk();
  }
  // Each key once, in the order of its first record, announced if any record announced it.
  const size_t keySize = reader_.shape().keySize;
  std::vector<std::string> order;
  std::unordered_map<std::string, bool> announced;
  for (size_t offset = 0, at = 0; offset < keys.size(); offset += keySize, ++at) {
    std::string key(reinterpret_cast<const char*>(&keys[offset]), keySize);
    auto [entry, added] = announced.try_emplace(key, false);
    entry->second = entry->second || notified[at];
    if (added) order.push_back(std::move(key));
  }
  for (const std::string& key : order) examine(key, announced[key]);
}

void WatcherCore::examine(const std::string& key, bool announced) {
  std::string value(reader_.shape().valueSize, '\0');
  const bool present = reader_.find(key.data(), value.data());
  report(key, present ? std::optional<std::string_view>(value) : std::nullopt, announced);
}

void WatcherCore::walk() {
  cursor_ = reader_.changeCount();
  const TableShape& shape = reader_.shape();
  const size_t entrySize = size_t(shape.keySize) + shape.valueSize;
  // Every entry's key and value back to back: one buffer, not an allocation per entry.
  std::string entries;
  entries.reserve((size_t(reader_.size()) + 16) * entrySize);
  reader_.forEach([&](const void* key, const void* value) {
    entries.append(static_cast<const char*>(key), shape.keySize);
    entries.append(static_cast<const char*>(value), shape.valueSize);
  });
  const std::string_view all(entries);
  const U64 walk = ++walks_;
  for (size_t at = 0; at < all.size(); at += entrySize) {
    const auto found = seen_.find(all.substr(at, shape.keySize));
    if (found != seen_.end()) found->second.walk = walk;
  }
  std::vector<std::string> gone;
  for (const auto& [key, seen] : seen_) {
    if (seen.walk != walk) gone.emplace_back(key);
  }
  for (const std::string& key : gone) report(key, std::nullopt);
  seen_.reserve(all.size() / entrySize);
  for (size_t at = 0; at < all.size(); at += entrySize) {
    report(all.substr(at, shape.keySize), all.substr(at + shape.keySize, shape.valueSize));
  }
}

void WatcherCore::report(std::string_view key, std::optional<std::string_view> value,
                         bool announced) {
  const auto found = seen_.find(key);
  const size_t keySize = key.size();
  if (!value) {
    if (found == seen_.end()) return;
    char* record = found->second.record;
    seen_.erase(found);
    records_.give(record);
    return onChange(key.data(), nullptr);
  }
  if (found == seen_.end()) {
    char* record = records_.take();
    std::memcpy(record, key.data(), keySize);
    std::memcpy(record + keySize, value->data(), value->size());
    seen_.emplace(std::string_view(record, keySize), Seen{record, walks_});
  } else if (std::memcmp(found->second.record + keySize, value->data(), value->size()) == 0) {
    if (!announced) return;
  } else {
    std::memcpy(found->second.record + keySize, value->data(), value->size());
  }
  onChange(key.data(), value->data());
}

}  // namespace Cairn

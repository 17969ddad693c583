// The rules of generated model code, checked on test models that use every construct of the
// model language (models/ModelTest/Shapes.mox).

#include <ModelTest/Shapes.mox.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace ModelTest {
namespace {

// Records every hook in the order it fires.
class Recorder : public Special::Notifiee {
 public:
  explicit Recorder(Counters* counters) { Counters::Notifiee::notifierIs(counters); }
  explicit Recorder(Special* special) { notifierIs(special); }

  void onHits() override { events.push_back("hits"); }
  void onMisses() override { events.push_back("misses"); }
  void onLimit() override { events.push_back("limit"); }
  void onLabel() override { events.push_back("label"); }
  void onMode() override { events.push_back("mode"); }
  void onEntry(const Label& key) override { events.push_back("entry " + key.value()); }
  void onEntryByKey(PartKey key) override { events.push_back("entryByKey " + key.stringValue()); }
  void onFlag(Mox::U32 key) override { events.push_back("flag " + std::to_string(key)); }
  void onSlot(PartKey index) override { events.push_back("slot " + index.stringValue()); }
  void onPending(Mox::U32 key) override { events.push_back("pending " + std::to_string(key)); }
  void onExtra() override { events.push_back("extra"); }

  std::vector<std::string> take() { return std::exchange(events, {}); }

  std::vector<std::string> events;
};

using Events = std::vector<std::string>;

Entry entryOf(Mox::U8 key, const std::string& label, double weight = 0) {
  return Entry(PartKey(key), Label(label), Source::evpn, weight, Part(8, true, '.'));
}

// The line of the test model that starts with `text`, as a decimal number.
std::string modelLineOf(const std::string& text) {
  std::ifstream model(KORVA_SOURCE_DIR "/tests/Models/models/ModelTest/Shapes.mox");
  std::string line;
  for (int number = 1; std::getline(model, line); ++number) {
    if (line.starts_with(text)) return std::to_string(number);
  }
  return "none";
}

template <class F>
std::string rangeMessage(F&& f) {
  try {
    f();
  } catch (const Mox::RangeException& e) {
    return e.what();
  }
  return "no exception";
}

// --- notification -------------------------------------------------------------------------

class ModelsNotify : public ::testing::Test {
 protected:
  Mox::Ptr<Counters> counters_ = countersFactory("c");
  Recorder recorder_{counters_.get()};
};

TEST_F(ModelsNotify, ScalarsNotifyOnlyOnRealChange) {
  counters_->hitsIs(5);
  counters_->hitsIs(5);
  counters_->hitsInc(0);
  counters_->hitsInc(2);
  counters_->missesInc();
  EXPECT_EQ(recorder_.take(), (Events{"hits", "hits", "misses"}));
  EXPECT_EQ(counters_->hits(), 7u);
  EXPECT_EQ(counters_->misses(), 1u);

  counters_->hitsDel();
  counters_->hitsDel();
  EXPECT_EQ(counters_->hits(), 0u);
  counters_->limitDel();  // already at its model default
  counters_->limitIs(7);
  counters_->limitDel();
  EXPECT_EQ(counters_->limit(), 100u);
  EXPECT_EQ(counters_->mode(), Counters::Mode::connecting);
  counters_->modeIs(Counters::Mode::connected);
  counters_->modeIs(Counters::Mode::connected);
  EXPECT_EQ(recorder_.take(), (Events{"hits", "limit", "limit", "mode"}));
}

TEST_F(ModelsNotify, MapNotifiesPerKeyOnRealChange) {
  counters_->entryIs(Label("b"), entryOf(1, "x"));
  counters_->entryIs(Label("b"), entryOf(1, "x"));
  counters_->entryIs(Label("a"), entryOf(2, "y"));
  counters_->entryIs(Label("b"), entryOf(3, "z"));
  // newX keeps what is there and answers it.
  EXPECT_EQ(counters_->newEntry(Label("a"), entryOf(0, "ignored")), entryOf(2, "y"));
  EXPECT_EQ(counters_->newEntry(Label("c"), entryOf(0, "c")), entryOf(0, "c"));
  counters_->entryDel(Label("absent"));
  counters_->entryNotify(Label("a"));
  EXPECT_EQ(recorder_.take(), (Events{"entry b", "entry a", "entry b", "entry c", "entry a"}));

  EXPECT_EQ(counters_->entry(Label("b")), entryOf(3, "z"));
  EXPECT_EQ(counters_->entry(Label("absent")), Entry());
  std::vector<std::string> keys;
  for (const auto& [key, entry] : counters_->entryColl()) keys.push_back(key.value());
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "b", "c"}));

  counters_->entryDel(Label("b"));
  counters_->entryDelAll();
  EXPECT_EQ(counters_->entrySize(), 0u);
  EXPECT_EQ(recorder_.take(), (Events{"entry b", "entry a", "entry c"}));
}

TEST_F(ModelsNotify, CollectionKeyedByValueAttribute) {
  counters_->entryByKeyIs(entryOf(2, "first"));
  counters_->entryByKeyIs(entryOf(2, "second"));  // same key: replaces
  counters_->newEntryByKey(entryOf(2, "third"));  // present: kept
  counters_->entryByKeyDel(PartKey(1));
  EXPECT_EQ(counters_->entryByKeySize(), 1u);
  EXPECT_EQ(counters_->entryByKey(PartKey(2)).label(), Label("second"));
  EXPECT_EQ(recorder_.take(), (Events{"entryByKey 2", "entryByKey 2"}));
}

// A notifiee that changes the collection from inside its hook sees each removal once.
class Deleter : public Counters::Notifiee {
 public:
  explicit Deleter(Counters* counters) { notifierIs(counters); }
  void onFlag(Mox::U32 key) override {
    seen.push_back(key);
    notifier()->flagDel(key + 1);
  }
  std::vector<Mox::U32> seen;
};

TEST_F(ModelsNotify, HooksMayChangeTheCollectionTheyWatch) {
  for (Mox::U32 key : {1, 2, 3, 5}) counters_->flagIs(key, true);
  Deleter deleter(counters_.get());
  counters_->flagDelAll();
  EXPECT_EQ(counters_->flagSize(), 0u);
  // Removing 1 deletes 2 from the hook, whose hook deletes 3 (then the absent 4); 5 is
  // still removed once, and its hook finds no 6.
  EXPECT_EQ(deleter.seen, (std::vector<Mox::U32>{1, 2, 3, 5}));
}

TEST_F(ModelsNotify, ArrayEndsAtItsLastEntry) {
  counters_->slotIs(PartKey(2), Label("two"));
  counters_->slotIs(PartKey(0), Label("zero"));
  counters_->slotIs(PartKey(1), Label());  // default over default: no change
  EXPECT_EQ(counters_->slotSize(), 3u);
  EXPECT_EQ(counters_->slot(PartKey(1)), Label());
  EXPECT_EQ(counters_->slot(PartKey(3)), Label());
  counters_->slotDel(PartKey(2));
  EXPECT_EQ(counters_->slotSize(), 1u);
  counters_->slotDel(PartKey(3));
  counters_->slotIs(PartKey(3), Label("three"));
  counters_->slotDelAll();
  EXPECT_EQ(counters_->slotSize(), 0u);
  EXPECT_EQ(recorder_.take(), (Events{"slot 2", "slot 0", "slot 2", "slot 3", "slot 0", "slot 3"}));

  auto other = countersFactory("other");
  counters_->packetIs(65535, other);
  EXPECT_EQ(counters_->packetSize(), 65536u);
  EXPECT_EQ(counters_->packet(65535), other);
  counters_->packetDelAll();
  EXPECT_EQ(other->references(), 1u);
}

// Order, entries and metadata under random work are checked against a map below.
TEST_F(ModelsNotify, QueueNotifiesPerSequenceAndItsTailFollowsTheLastKey) {
  EXPECT_EQ(counters_->pendingEnq(entryOf(0, "a")), 1u);
  counters_->pendingEnq(entryOf(0, "b"));
  counters_->pendingEnq(entryOf(0, "c"));
  EXPECT_EQ(counters_->pendingDeq().label(), Label("a"));
  counters_->pendingDel(2);
  counters_->pendingIs(3, entryOf(0, "c"));  // unchanged
  counters_->pendingIs(9, entryOf(0, "i"));  // past the tail
  EXPECT_EQ(counters_->pendingEnq(entryOf(0, "j")), 10u);
  EXPECT_EQ(counters_->pendingDeq().label(), Label("c"));
  counters_->pendingDelAll();
  EXPECT_EQ(counters_->pendingMetadata(), (Mox::QueueMetadata{11, 11}));
  EXPECT_EQ(recorder_.take(),
            (Events{"pending 1", "pending 2", "pending 3", "pending 1", "pending 2", "pending 9",
                    "pending 10", "pending 3", "pending 9", "pending 10"}));
}

// Random queue work against a map of sequences: the queue reuses and moves its slots, which
// must never show in its order, its entries or its metadata.
TEST(ModelsQueue, MatchesAMapOfSequencesUnderRandomWork) {
  Mox::Ptr<Counters> counters = countersFactory("q");
  std::map<Mox::U32, std::string> expected;
  Mox::U32 tail = 1;
  std::mt19937 random(7);
  for (int step = 0; step < 20000; ++step) {
    const Mox::U32 choice = random() % 20;
    const std::string label = std::to_string(step);
    if (choice < 9) {
      EXPECT_EQ(counters->pendingEnq(entryOf(0, label)), tail);
      expected[tail++] = label;
    } else if (choice < 18) {
      const Entry taken = counters->pendingDeq();
      EXPECT_EQ(taken.label().value(), expected.empty() ? "" : expected.begin()->second);
      if (!expected.empty()) expected.erase(expected.begin());
    } else if (choice < 19) {
      const Mox::U32 key = tail - 1 - random() % std::min<Mox::U32>(tail, 8);
      counters->pendingDel(key);
      expected.erase(key);
    } else {
      const Mox::U32 key = tail - random() % std::min<Mox::U32>(tail, 8);
      counters->pendingIs(key, entryOf(0, label));
      expected[key] = label;
      tail = std::max(tail, key + 1);
    }
    std::map<Mox::U32, std::string> actual;
    for (const auto& [key, entry] : counters->pendingColl()) actual[key] = entry.label().value();
    ASSERT_EQ(actual, expected) << "step " << step;
    ASSERT_EQ(counters->pendingSize(), expected.size());
    const Mox::U32 head = expected.empty() ? tail : expected.begin()->first;
    ASSERT_EQ(counters->pendingMetadata(), (Mox::QueueMetadata{head, tail}));
  }
}

class LeafWatcher : public Dir::Notifiee {
 public:
  explicit LeafWatcher(Dir* dir) { notifierIs(dir); }
  void onLeaf(const Mox::Name& key) override { seen.push_back(key); }
  std::vector<std::string> seen;
};

TEST_F(ModelsNotify, ChildEntitiesAreMadeOncePerKey) {
  auto dir = dirFactory("dir");
  LeafWatcher watcher(dir.get());
  auto a = dir->newLeaf("a");
  EXPECT_EQ(dir->newLeaf("a"), a);  // present: the same child, no hook
  dir->newLeaf("b");
  EXPECT_EQ(dir->leaf("a"), a);
  EXPECT_EQ(dir->leaf("c"), nullptr);
  dir->leafDel("c");
  dir->leafDelAll();
  EXPECT_EQ(dir->leafSize(), 0u);
  EXPECT_EQ(a->references(), 1u);
  EXPECT_EQ(watcher.seen, (std::vector<std::string>{"a", "b", "a", "b"}));

  // Arrays of bool: false is the default and counts as absent.
  a->seenIs(4, true);
  a->seenIs(1, true);
  a->seenDel(4);
  EXPECT_EQ(a->seenSize(), 2u);
  EXPECT_TRUE(a->seen(1));
  EXPECT_FALSE(a->seen(0));
}

// --- derived entities and hand-written subclasses ---------------------------------------

TEST(ModelsDerived, NotifieeOfDerivedEntityHearsBaseAndOwnHooks) {
  auto special = specialFactory("s", 3);
  EXPECT_EQ(special->weight(), 3u);
  Recorder recorder(special.get());
  special->hitsInc();
  special->extraIs("more");
  special->extraIs("more");
  EXPECT_EQ(recorder.take(), (Events{"hits", "extra"}));
}

// Hand-written behaviour derives from the generated class and overrides its virtual setters.
class CappedCounters : public Counters {
 public:
  static Mox::Ptr<CappedCounters> make() { return Mox::Ptr<CappedCounters>(new CappedCounters); }
  void hitsInc(Mox::U32 delta) override { Counters::hitsInc(std::min(delta, 10 - hits())); }

 private:
  CappedCounters() : Counters("capped") {}
};

TEST(ModelsDerived, HandWrittenSubclassOverridesVirtualSetters) {
  auto capped = CappedCounters::make();
  Recorder recorder(capped.get());
  Mox::Ptr<Counters> counters = capped;
  counters->hitsInc(7);
  counters->hitsInc(7);
  counters->hitsInc(7);  // capped: no change, no hook
  EXPECT_EQ(counters->hits(), 10u);
  EXPECT_EQ(recorder.take(), (Events{"hits", "hits"}));
}

class OnHandWatcher : public OnHand::Notifiee {
 public:
  explicit OnHandWatcher(OnHand* onHand) { notifierIs(onHand); }
  void onPoked() override { events.push_back("poked"); }
  void onPointers(Mox::U8 typeId) override {
    events.push_back("pointers " + std::to_string(typeId));
  }
  Events events;
};

TEST(ModelsDerived, ModelEntityOnAHandWrittenBase) {
  auto onHand = onHandFactory("hand", 9);
  EXPECT_EQ(onHand->size(), 9u);
  OnHandWatcher watcher(onHand.get());
  onHand->poke();
  auto desc = descFactory(5, "Et");
  onHand->pointersIs(desc);
  EXPECT_EQ(onHand->newPointers(descFactory(5, "Other")), desc);  // keyed by its typeId
  EXPECT_EQ(onHand->pointers(5), desc);
  onHand->pointersDelAll();
  EXPECT_EQ(watcher.events, (Events{"poked", "pointers 5", "pointers 5"}));
}

TEST(ModelsDeathTest, PointerEntryWithoutObjectHasNoKey) {
  auto onHand = onHandFactory("hand", 9);
  EXPECT_DEATH(onHand->pointersIs(nullptr), "Assertion \"value\" failed");
}

// --- bounds -------------------------------------------------------------------------------

TEST(ModelsBounds, MessagesNameTheTypeAndTheBound) {
  EXPECT_EQ(rangeMessage([] { PartKey(4); }),
            "PartKey::value < PartKey::min or > PartKey::max not allowed");
  EXPECT_EQ(rangeMessage([] { Ttl(0); }), "Ttl::value < Ttl::min or > Ttl::max not allowed");
  EXPECT_EQ(rangeMessage([] { Nibble(16); }), "Nibble::value > 0xf not allowed");
  EXPECT_EQ(rangeMessage([] { ShortPrefix("Ether"); }), "no exception");
  EXPECT_EQ(rangeMessage([] { ShortPrefix("Ethern"); }), "ShortPrefix::bytes > 5 not allowed");
  EXPECT_EQ(rangeMessage([] { Part(33, false, '/'); }), "Part::size > 32 not allowed");
  // A bound that is an expression, not a number, names the model line instead.
  EXPECT_EQ(rangeMessage([] { descFactory(127, "Et"); }),
            "Desc::typeId > Expr @Shapes.mox:" + modelLineOf("entity Desc(") + " not allowed");
  EXPECT_EQ(rangeMessage([] { descFactory(126, "Et")->minPartIs(0); }),
            "Desc::minPart < 1 not allowed");
  EXPECT_EQ(Ttl().value(), 1u);  // a bounded value starts at its minimum
}

TEST(ModelsBounds, RefusedValueChangesNothing) {
  auto counters = countersFactory("c");
  counters->limitIs(1000);
  Recorder recorder(counters.get());
  EXPECT_EQ(rangeMessage([&] { counters->limitIs(1001); }), "Counters::limit > 1000 not allowed");
  EXPECT_EQ(counters->limit(), 1000u);
  EXPECT_TRUE(recorder.take().empty());

  Nibble nibble(7);
  EXPECT_EQ(rangeMessage([&] { nibble.stringValueIs("16"); }), "Nibble::value > 0xf not allowed");
  EXPECT_EQ(rangeMessage([&] { nibble.stringValueIs("x"); }), "Invalid Nibble");
  EXPECT_EQ(rangeMessage([&] { nibble.valueIs(99); }), "Nibble::value > 0xf not allowed");
  EXPECT_EQ(nibble, Nibble(7));
  nibble.stringValueIs("15");
  EXPECT_EQ(nibble.value(), 15u);
}

// --- text ---------------------------------------------------------------------------------

TEST(ModelsText, EnumerationUsesItsTextTable) {
  EXPECT_EQ(valueToStrep(Source::cli), "command line");
  EXPECT_EQ(valueToStrep(Source::arpSuppression), "arpSuppression");
  EXPECT_EQ(valueToStrep(static_cast<Source>(7)), "7");
  std::string text = "arpSuppression, rest";
  Mox::TextIter it = text.data();
  Source source = Source::dynamic;
  sequenceToValue(it, text.data() + text.size(), &source);
  EXPECT_EQ(source, Source::arpSuppression);
  EXPECT_EQ(std::string(it), ", rest");
  EXPECT_EQ(Mox::valueFromText<Source>("command line", "bad"), Source::cli);
  EXPECT_EQ(rangeMessage([] { Mox::valueFromText<Source>("cli", "bad"); }), "bad");
  std::ostringstream os;
  os << Source::evpn;
  EXPECT_EQ(os.str(), "evpn");
  // Nested in an entity, with a text of its own.
  EXPECT_EQ(valueToStrep(Counters::Mode::connected), "up");
  EXPECT_EQ(Mox::valueFromText<Counters::Mode>("idle", "bad"), Counters::Mode::idle);
  EXPECT_EQ(rangeMessage([] { Mox::valueFromText<Counters::Mode>("down", "bad"); }), "bad");
}

TEST(ModelsText, CompositeValueFormAndFailedParseChangesNothing) {
  const Entry entry(PartKey(3), Label("it's"), Source::cli, 0.5, Part(4, false, '/'));
  const std::string text =
      "Value('ModelTest::Entry', ** {'key': 3, 'label': 'it\\'s', 'source': command line, "
      "'weight': 0.5, 'part': Value('ModelTest::Part', ** {'size': 4, 'zeroBased': False, "
      "'separator': '/'})})";
  EXPECT_EQ(entry.stringValue(), text);
  EXPECT_EQ(valueToStrep(entry), text);
  Entry parsed;
  parsed.stringValueIs(text);
  EXPECT_EQ(parsed, entry);
  EXPECT_EQ(Label("a'b").stringValue(), "a'b");

  std::string trailing = text + ", rest";
  Mox::TextIter next = trailing.data();
  sequenceToValue(next, trailing.data() + trailing.size(), &parsed);
  EXPECT_EQ(std::string(next), ", rest");

  // A bound is part of parsing; so are each attribute's name, order and form.
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string copy = text;
    return copy.replace(copy.find(from), from.size(), to);
  };
  for (const std::string& bad :
       {text.substr(0, text.size() - 1), text.substr(0, text.find("'part'")),
        edited("'key': 3", "'key': 4"), edited("'label'", "'lable'"), edited("False", "false"),
        std::string("Value('ModelTest::Part', ** {})"), std::string()}) {
    EXPECT_THROW(parsed.stringValueIs(bad), Mox::RangeException) << bad;
    Mox::TextIter it = bad.data();
    EXPECT_THROW(sequenceToValue(it, bad.data() + bad.size(), &parsed), Mox::RangeException);
    EXPECT_EQ(it, bad.data());
    EXPECT_EQ(parsed, entry);
  }
  EXPECT_EQ(rangeMessage([&] { parsed.stringValueIs(text + " "); }), "Invalid Entry");
}

Entry randomEntry(std::mt19937& random) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::string label;
  for (int i = byte(random) % 6; i > 0; --i) label += static_cast<char>(byte(random));
  static const Source sources[] = {Source::dynamic, Source::cli, Source::evpn,
                                   Source::arpSuppression};
  return Entry(PartKey(byte(random) % 4), Label(label), sources[byte(random) % 4],
               byte(random) / 7.0,
               Part(byte(random) % 33, byte(random) % 2, static_cast<char>(byte(random))));
}

TEST(ModelsText, FlagsOfAnIntegerValue) {
  Options options(0x5);
  EXPECT_TRUE(options.txTtl() && !options.txDs() && options.rxMinTtl());
  options.txTtlIs(false);
  options.md5AuthIs(true);
  EXPECT_EQ(options.value(), 0xcu);
  const std::string text =
      "Value('ModelTest::Options', ** {'txTtl': False, 'txDs': False, 'rxMinTtl': True, "
      "'md5Auth': True})";
  EXPECT_EQ(options.stringValue(), text);
  for (Mox::U8 value = 0; value < 16; ++value) {
    Options parsed;
    parsed.stringValueIs(Options(value).stringValue());
    EXPECT_EQ(parsed.value(), value);
  }
  EXPECT_EQ(rangeMessage([&] { options.stringValueIs("12"); }), "Invalid Options");
  EXPECT_EQ(options.value(), 0xcu);
}

// --- order and hash -----------------------------------------------------------------------

TEST(ModelsOrder, LexicographicByAttributesInModelOrder) {
  std::mt19937 random(7);
  for (int i = 0; i < 2000; ++i) {
    const Entry a = randomEntry(random);
    const Entry b =
        i % 3 ? randomEntry(random)
              : Entry(a.key(), a.label(), a.source(), a.weight(), randomEntry(random).part());
    auto tuple = [](const Entry& e) {
      return std::make_tuple(e.key().value(), e.label().value(), e.source(), e.weight(),
                             e.part().size(), e.part().zeroBased(), e.part().separator());
    };
    ASSERT_EQ(a < b, tuple(a) < tuple(b)) << a << " " << b;
    ASSERT_EQ(a == b, tuple(a) == tuple(b));
  }
  // Enumerations order by value, not by listing.
  EXPECT_LT(Source::dynamic, Source::arpSuppression);
  EXPECT_LT(Source::arpSuppression, Source::evpn);
  EXPECT_LT(Source::evpn, Source::cli);
}

TEST(ModelsText, RandomValuesRoundTripAndHashEqual) {
  std::mt19937 random(11);
  std::set<Mox::U32> hashes;
  std::set<Entry> entries;
  for (int i = 0; i < 2000; ++i) {
    const Entry entry = randomEntry(random);
    Entry copy;
    copy.stringValueIs(entry.stringValue());
    ASSERT_EQ(copy, entry) << entry;
    ASSERT_EQ(std::hash<Entry>()(copy), entry.hash());
    entries.insert(entry);
    hashes.insert(entry.hash());
  }
  EXPECT_GE(hashes.size() + 5, entries.size());  // different values spread
  // Each attribute takes part in the hash.
  const Entry base = entryOf(1, "x");
  Entry other = base;
  other.weightIs(1);
  EXPECT_NE(other.hash(), base.hash());
  other = base;
  other.partIs(Part(8, false, '.'));
  EXPECT_NE(other.hash(), base.hash());
}

}  // namespace
}  // namespace ModelTest

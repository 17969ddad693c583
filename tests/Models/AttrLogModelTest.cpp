// The attribute-log forms that moxgen generates for enumerations, bounded and flagged
// values and composite values (models/ModelTest/Shapes.mox).

#include <ModelTest/Shapes.mox.h>

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace ModelTest {
namespace {

using namespace std::string_literals;

Entry randomEntry(std::mt19937& rng) {
  const Source sources[] = {Source::dynamic, Source::cli, Source::evpn, Source::arpSuppression};
  return Entry(PartKey(static_cast<Mox::U8>(rng() % 4)), Label(std::to_string(rng())),
               sources[rng() % 4], static_cast<double>(rng()) / 7.0,
               Part(static_cast<Mox::U8>(rng() % 33), rng() & 1, static_cast<char>(rng())));
}

TEST(AttrLogModel, CompositeValuesRoundTrip) {
  std::mt19937 rng(18);
  for (int i = 0; i < 500; ++i) {
    const Entry entry = randomEntry(rng);
    const std::string bytes = Mox::attrLogBytes(entry);
    Mox::AttrLogReader in(bytes);
    EXPECT_EQ(Mox::attrLogGet<Entry>(in), entry);
    EXPECT_EQ(in.remaining(), 0u);
    Options options(static_cast<Mox::U8>(rng() % 16));
    const std::string flagBytes = Mox::attrLogBytes(options);
    Mox::AttrLogReader flags(flagBytes);
    EXPECT_EQ(Mox::attrLogGet<Options>(flags), options);
  }
}

// The model's widths and order: the enum's base type, bounded values as their wrapped type.
TEST(AttrLogModel, KnownBytes) {
  EXPECT_EQ(Mox::attrLogBytes(Source::cli), "\xc8"s);
  EXPECT_EQ(Mox::attrLogBytes(Part(5, true, '/')), "\x05\x01/"s);
  EXPECT_EQ(Mox::attrLogBytes(ShortPrefix("ab")), "\0\0\0\2ab"s);
}

// A value outside the model's bounds or table is refused with the model's message, and the
// value read into stays as it was.
TEST(AttrLogModel, OutOfBoundsIsRefused) {
  const std::string outsideBytes = "\x04"s, unknownBytes = "\x05"s, tooBigBytes = "\x21\x00."s,
                    tooLongBytes = "\0\0\0\6abcdef"s;
  PartKey key(2);
  Mox::AttrLogReader outside(outsideBytes);
  try {
    attrLogRead(outside, &key);
    ADD_FAILURE() << "PartKey 4 accepted";
  } catch (const Mox::RangeException& e) {
    EXPECT_EQ(std::string(e.what()), "PartKey::value < PartKey::min or > PartKey::max not allowed");
  }
  EXPECT_EQ(key, PartKey(2));
  Source source = Source::evpn;
  Mox::AttrLogReader unknown(unknownBytes);
  EXPECT_THROW(attrLogRead(unknown, &source), Mox::AttrLogError);
  EXPECT_EQ(source, Source::evpn);
  Part part(1, false, '.');
  Mox::AttrLogReader tooBig(tooBigBytes);
  EXPECT_THROW(attrLogRead(tooBig, &part), Mox::RangeException);
  EXPECT_EQ(part, Part(1, false, '.'));
  ShortPrefix prefix;
  Mox::AttrLogReader tooLong(tooLongBytes);
  EXPECT_THROW(attrLogRead(tooLong, &prefix), Mox::RangeException);
}

}  // namespace
}  // namespace ModelTest

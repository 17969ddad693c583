#pragma once
// A table-driven check of the bit fields that header structures split out of their shared
// words: written into a header of random bytes, each field reads back what was written,
// and the header's wire bytes change in exactly that field's bits of its big-endian word.

#include <Korva/Types.h>

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <random>

namespace KorvaTest {

template <class Hdr>
struct HdrField {
  const char* name;
  void (*set)(Hdr&, Mox::U32);
  Mox::U32 (*get)(const Hdr&);
  Mox::U32 byte;   // where the field's word starts in the header
  Mox::U32 bytes;  // the word's width
  Mox::U32 shift;  // the field's lowest bit in the word, counted from its least significant
  Mox::U32 width;
};

// A row for the accessor pair `field()` / `fieldIs()` of `Hdr`.
// clang-format off
#define KORVA_HDR_FIELD(Hdr, field, byte, bytes, shift, width)                            \
  KorvaTest::HdrField<Hdr>{#field, [](Hdr& h, Mox::U32 v) { h.field##Is(v); },          \
                           [](const Hdr& h) { return Mox::U32(h.field()); },            \
                           byte, bytes, shift, width}
// clang-format on

template <class Hdr>
void expectFieldsRoundTrip(std::initializer_list<HdrField<Hdr>> fields) {
  std::mt19937 rng(sizeof(Hdr));
  for (const HdrField<Hdr>& field : fields) {
    const Mox::U64 mask = (Mox::U64(1) << field.width) - 1;
    for (int round = 0; round < 100; ++round) {
      Mox::U8 expected[sizeof(Hdr)];
      for (Mox::U8& b : expected) b = Mox::U8(rng());
      Hdr hdr;
      std::memcpy(static_cast<void*>(&hdr), expected, sizeof hdr);
      const Mox::U32 value = Mox::U32(rng() & mask);
      field.set(hdr, value);
      ASSERT_EQ(field.get(hdr), value) << field.name;
      Mox::U64 word = 0;
      for (Mox::U32 i = 0; i < field.bytes; ++i) word = word << 8 | expected[field.byte + i];
      word = (word & ~(mask << field.shift)) | Mox::U64(value) << field.shift;
      for (Mox::U32 i = field.bytes; i-- > 0; word >>= 8) expected[field.byte + i] = Mox::U8(word);
      ASSERT_EQ(std::memcmp(&hdr, expected, sizeof hdr), 0) << field.name << " = " << value;
    }
  }
}

}  // namespace KorvaTest

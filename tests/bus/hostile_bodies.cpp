#include "tests/bus/hostile_bodies.h"

#include <array>
#include <ostream>

namespace zq {
namespace {

using wire::Order;
using wire::Writer;

constexpr bool kPasses = true;
constexpr bool kCutsItsSender = false;

Writer text(std::string_view content) {
  return Writer().text(content);
}

Writer number(uint32_t value) {
  return Writer().number(4, value);
}

Writer variant(std::string_view signature, const Writer::Content& value) {
  return Writer().variant(signature, value);
}

/// A number in as many variants, one in the other.
Writer nestedVariants(int levels) {
  Writer to;
  for (int i = 1; i < levels; ++i) to.signature("v");
  return to.signature("y").number(1, 7);
}

std::string repeated(std::size_t count, const std::string& text) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

Writer blocks(std::size_t count, std::size_t length, Order order = Order::Little) {
  return Writer(order).array(4, [=](Writer& list) {
    for (std::size_t i = 0; i < count; ++i) {
      list.array(1, [=](Writer& block) { block.raw(std::string(length, 'b')); });
    }
  });
}

Writer variants(std::size_t count, std::string_view signature, const Writer::Content& value) {
  return Writer().array(1, [&](Writer& list) {
    for (std::size_t i = 0; i < count; ++i) list.variant(signature, value);
  });
}

/// An array whose elements are said to take that many bytes, and three numbers.
Writer arrayOfLength(uint32_t length) {
  return number(length).number(4, 1).number(4, 2).number(4, 3);
}

void refused(Writer& to) {
  to.text("\xEF\xBF\xBE");
}

Writer swapped() {
  return Writer(Order::Big);
}

}  // namespace

void PrintTo(Fate fate, std::ostream* out) {
  constexpr std::array kWords = {"read", "unreadable", "dropped", "cut"};
  *out << kWords.at(static_cast<std::size_t>(fate));
}

// Texts that the bus daemon takes for such, and sd-bus does not, are why this table exists: any
// client of the bus can send them.
const std::vector<OddBody>& oddBodies() {
  using enum Fate;
  static const std::vector<OddBody> all = {
      {"text with U+FFFE", Unreadable, kPasses, "s", text("a\xEF\xBF\xBE")},
      {"text with U+FFFF", Unreadable, kPasses, "s", text("a\xEF\xBF\xBF")},
      {"text with U+FDD0", Unreadable, kPasses, "s", text("\xEF\xB7\x90")},
      {"text with U+FDEF", Unreadable, kPasses, "is", number(1).text("\xEF\xB7\xAF")},
      {"text with U+1FFFE", Unreadable, kPasses, "s", text("\xF0\x9F\xBF\xBE")},
      {"such a text in a variant", Unreadable, kPasses, "v", variant("s", refused)},
      {"such a text in a list of variants", Unreadable, kPasses, "av", variants(1, "s", refused)},
      {"such a text in an array", Unreadable, kPasses, "as", Writer().array(4, refused)},
      {"such a text in a dictionary", Unreadable, kPasses, "a{ss}",
       Writer().array(8, [](Writer& entry) { entry.text("key"), refused(entry); })},

      {"block in the other byte order", Read, kPasses, "ay",
       swapped().array(1, [](Writer& block) { block.raw("abc"); })},
      {"blocks in the other byte order", Read, kPasses, "aay", blocks(3, 5, Order::Big)},
      {"text of any bytes in the other byte order", Read, kPasses, "(ay)",
       swapped().structure(
           [](Writer& fields) { fields.array(1, [](Writer& block) { block.raw("\xFF"); }); })},
      {"numbers and text in the other byte order", Read, kPasses, "qixs",
       swapped().number(2, 1).number(4, 2).number(8, 3).text("four")},
      {"refused text in the other byte order", Unreadable, kPasses, "s",
       swapped().text("\xEF\xBF\xBE")},

      {"index of a descriptor without one", Unreadable, kPasses, "h", number(0)},
      {"index behind the only descriptor", Unreadable, kPasses, "h", number(7), 1, 1},
      {"descriptor", Unreadable, kPasses, "h", number(0), 1, 1},
      {"descriptor in an array", Unreadable, kPasses, "iah",
       number(5).array(4, [](Writer& list) { list.number(4, 0); }), 1, 1},
      {"descriptor in a variant", Unreadable, kPasses, "v",
       variant("h", [](Writer& to) { to.number(4, 0); }), 1, 1},
      {"descriptor in a list of variants", Unreadable, kPasses, "av",
       variants(1, "h", [](Writer& to) { to.number(4, 0); }), 1, 1},
      {"descriptors that are not of the body", Read, kPasses, "i", number(5), 3, 3},
      {"descriptor that is announced only", Dropped, kCutsItsSender, "h", number(0), 1, 0},
      {"253 descriptors that are not announced", Dropped, kCutsItsSender, "i", number(5), 0, 253},

      {"signature of 255 characters", Dropped, kPasses, std::string(255, 'y'),
       Writer().raw(std::string(255, '\1'))},
      {"signature of 255 characters and descriptors", Dropped, kPasses, std::string(255, 'y'),
       Writer().raw(std::string(255, '\1')), 16, 16},
      {"signature of 254 characters", Read, kPasses, std::string(254, 'y'),
       Writer().raw(std::string(254, '\1'))},
      {"empty array of arrays, 32 deep", Read, kPasses, std::string(32, 'a') + "y", number(0)},
      {"empty array of arrays, 33 deep", Dropped, kCutsItsSender, std::string(33, 'a') + "y",
       number(0)},
      {"structures 32 deep", Read, kPasses, std::string(32, '(') + "y" + std::string(32, ')'),
       Writer().number(1, 7)},
      {"variants 60 deep", Read, kPasses, "v", nestedVariants(60)},
      {"variants 200 deep", Unreadable, kCutsItsSender, "v", nestedVariants(200)},
      {"types without an equivalent", Read, kPasses, "da{sv}",
       Writer().number(8, 0).array(8, [](Writer&) {})},

      {"array of 4 GiB", Unreadable, kCutsItsSender, "ai", arrayOfLength(0xFFFFFFFF)},
      {"array of 64 MiB and a byte", Unreadable, kCutsItsSender, "ay",
       arrayOfLength((64 << 20) + 1)},
      {"array one byte longer than the message", Unreadable, kCutsItsSender, "ay",
       arrayOfLength(13)},
      {"array of two elements and a half", Unreadable, kCutsItsSender, "ai", arrayOfLength(10)},
      {"block beyond its list", Unreadable, kCutsItsSender, "aay",
       number(4).number(4, 100).raw(std::string(100, 'b'))},
      {"text of 4 GiB", Unreadable, kCutsItsSender, "s", number(0xFFFFFFFF).raw("abcd")},
      {"text without its end", Unreadable, kCutsItsSender, "s", number(4).raw("abcd")},
      {"text with a NUL", Unreadable, kCutsItsSender, "s", text({"a\0b", 3})},
      {"text that is not UTF-8", Unreadable, kCutsItsSender, "s", text("\xFF")},
      {"text with a surrogate", Unreadable, kCutsItsSender, "s", text("\xED\xA0\x80")},
      {"bool of 2", Read, kCutsItsSender, "b", number(2)},
      {"path without a slash", Unreadable, kCutsItsSender, "o", text("path")},
      {"path with a slash at its end", Unreadable, kCutsItsSender, "o", text("/path/")},
      {"signature of half a type", Unreadable, kCutsItsSender, "g", Writer().signature("a")},
      {"signature beyond the message", Unreadable, kCutsItsSender, "g",
       Writer().number(1, 200).raw("ii")},
      {"variant without a type", Unreadable, kCutsItsSender, "v", variant("", [](Writer&) {})},
      {"variant of two types", Unreadable, kCutsItsSender, "v",
       variant("yy", [](Writer& to) { to.raw("ab"); })},
      {"variant of half a type", Unreadable, kCutsItsSender, "v",
       variant("a", [](Writer& to) { to.number(4, 0); })},
      {"padding that is not zero", Unreadable, kCutsItsSender, "yi",
       Writer().raw("\1\2\3\4").number(4, 5)},
      {"body that ends in a number", Unreadable, kCutsItsSender, "ix", number(1)},
      {"body that ends in padding", Unreadable, kCutsItsSender, "yx", Writer().raw("\1")},
      {"no body for its signature", Unreadable, kCutsItsSender, "s", Writer()},
      {"body beyond its signature", Read, kCutsItsSender, "i", number(1).number(4, 2)},
      {"body without a signature", Read, kCutsItsSender, "", number(1)},
      {"empty structure", Dropped, kCutsItsSender, "()", Writer()},
      {"dictionary outside of an array", Unreadable, kCutsItsSender, "{ss}",
       text("key").text("value")},
      {"unknown type", Dropped, kCutsItsSender, "z", number(1)},
  };
  return all;
}

const std::vector<OddBody>& thriftyBodies() {
  using enum Fate;
  constexpr std::size_t kMany = 100'000;
  static const std::vector<OddBody> all = {
      {"empty blocks", Read, kPasses, "aay", blocks(kMany, 0)},
      {"blocks of a byte", Read, kPasses, "aay", blocks(kMany, 1)},
      {"small numbers in variants", Read, kPasses, "av",
       variants(kMany, "y", [](Writer& to) { to.number(1, 7); })},
      {"empty blocks in variants", Read, kPasses, "av",
       variants(kMany, "ay", [](Writer& to) { to.number(4, 0); })},
      {"lists of a block in variants", Read, kPasses, "av",
       variants(2 * kMany, "aay",
                [](Writer& to) { to.array(4, [](Writer& list) { list.number(4, 0); }); })},
      {"as many blocks as a signature holds", Read, kPasses, repeated(127, "ay"),
       Writer().raw(std::string(127 * 4, '\0'))},
  };
  return all;
}

void setBody(wire::Message& message, const OddBody& body) {
  message.order = body.content.order();
  message.announcedDescriptors = body.announcedDescriptors;
  message.with(body.signature, body.content.bytes());
}

}  // namespace zq

// The codec against itself, against two independent ones (libplist and Python's plistlib), and against files
// that are damaged or made to hurt.
//
// plistlib writes 0.0 and -0.0 as one object, so that only one of them takes part there.

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <Platform/PropertyList.h>

namespace {

using namespace std::string_literals;
using qx::Array;
using qx::Data;
using qx::Date;
using qx::Dictionary;
using qx::ErrorPtr;
using qx::Value;

constexpr auto kInt64Min = std::numeric_limits<std::int64_t>::min();
constexpr auto kInt64Max = std::numeric_limits<std::int64_t>::max();
constexpr auto kUInt64Max = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string encoded(const Value& value) {
  ErrorPtr error;
  const auto bytes = qx::writeBinaryPropertyList(value, &error);
  EXPECT_TRUE(bytes) << error->localizedDescription();
  return bytes.value_or("");
}

std::string problemReading(std::string_view bytes) {
  ErrorPtr error;
  if (const auto value = qx::readBinaryPropertyList(bytes, &error)) return "read " + value->description();
  if (!error || error->domain() != "NSCocoaErrorDomain" || error->code() != 3840) return "wrong error";
  return error->localizedDescription();
}

/// Every kind, every size class of every kind.
Value everything() {
  const std::string longText(300, 'x');
  return Dictionary{
      {"", "empty key"},
      {"bools", Array{true, false}},
      {"integers",
       Array{0, 1, 255, 256, 65535, 65536, 4294967295, 4294967296, -1, -128, kInt64Min, kInt64Max}},
      {"unsigned", Array{std::uint64_t{1} << 63U, kUInt64Max}},
      {"reals", Array{0.0, 1.5, -1e300, 5e-324, kInfinity, -kInfinity}},
      {"dates", Array{Date{0}, Date{-0.25}, Date{-3155673600.5}, Date{7.125e8}, Date{-1e11}}},
      {"strings", Array{"", "a\0b"s, "\0"s, std::string(14, 'a'), std::string(15, 'b'), longText, "Zürich",
                        "日本", "\U0001F5A8 printer", "\xEF\xBF\xBD"}},
      {"data", Array{Data(), Data("\0\xFF\x80"s), Data(longText + longText)}},
      {"empty", Array{Array{}, Dictionary{}}},
      {"nested", Dictionary{{"a", Dictionary{{"b", Array{Array{Dictionary{{"c", Data("d")}}}}}}}}},
      {"日本", 1},
  };
}

/// A file with these objects, references of one byte, offsets of two.
std::string fileOf(const std::vector<std::string>& objects, std::uint8_t top = 0) {
  std::string file = "bplist00";
  std::string table;
  const auto put = [](std::string& text, std::uint64_t number, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
      text += static_cast<char>(number >> (8 * i) & 0xFFU);
  };
  for (const std::string& object : objects) {
    put(table, file.size(), 2);
    file += object;
  }
  const std::size_t tableOffset = file.size();
  file += table + "\0\0\0\0\0\0\2\1"s;
  put(file, objects.size(), 8);
  put(file, top, 8);
  put(file, tableOffset, 8);
  return file;
}

TEST(BinaryPropertyList, ReadsBackExactlyWhatItWrote) {
  const Value value = everything();
  const std::string bytes = encoded(value);
  const auto again = qx::readBinaryPropertyList(bytes);
  ASSERT_TRUE(again);
  EXPECT_EQ(*again, value);
  EXPECT_EQ(encoded(*again), bytes);

  // Kinds and signs, which equality does not see.
  const Array doubtful{true, 1, 1.0, -0.0, std::nan(""), kUInt64Max};
  const auto read = qx::readBinaryPropertyList(encoded(doubtful));
  ASSERT_TRUE(read);
  const Array& items = *read->asArray();
  for (std::size_t i = 0; i < doubtful.size(); ++i)
    EXPECT_EQ(items[i].kind(), doubtful[i].kind());
  EXPECT_TRUE(std::signbit(*items[3].asReal()));
  EXPECT_TRUE(std::isnan(*items[4].asReal()));
}

TEST(BinaryPropertyList, WritesEqualDictionariesAsEqualBytesWhateverTheirHistory) {
  Dictionary forwards, backwards;
  for (int i = 0; i < 300; ++i)
    forwards.set(std::to_string(i), i);
  for (int i = 299; i >= 0; --i)
    backwards.set(std::to_string(i), i);
  const std::string bytes = encoded(forwards);
  EXPECT_EQ(bytes, encoded(backwards));
  EXPECT_EQ(*qx::readBinaryPropertyList(bytes), Value(forwards));  // 601 objects: references of two bytes
}

TEST(BinaryPropertyList, RefusesToWriteWhatItCannotHoldAndSaysWhere) {
  Value deep = 1;
  for (int i = 0; i < 512; ++i)
    deep = Array{std::move(deep)};
  EXPECT_TRUE(qx::readBinaryPropertyList(encoded(deep)));
  const struct {
    Value value;
    std::string_view problem;
  } cases[] = {
      {nullptr, "the null marker."},
      {Dictionary{{"a b", Array{1, nullptr}}}, "the null marker at key \"a b\", index 1."},
      {Array{"\xC3\x28"}, "a string that is not UTF-8 at index 0."},
      {Dictionary{{"\xED\xA0\x80", 1}}, "a string that is not UTF-8"},
      {Array{deep}, "more than 512 collections inside each other"},
  };
  for (const auto& [value, problem] : cases) {
    ErrorPtr error;
    ASSERT_FALSE(qx::writeBinaryPropertyList(value, &error)) << problem;
    EXPECT_EQ(error->code(), 3851);
    EXPECT_NE(error->localizedDescription().find(problem), std::string::npos)
        << error->localizedDescription();
  }
}

TEST(BinaryPropertyList, ReadsTheFormsThatOnlyOtherWritersUse) {
  const auto read = [](const std::string& object) { return *qx::readBinaryPropertyList(fileOf({object})); };
  EXPECT_EQ(read("\x22\x3F\xC0\x00\x00"s), Value(1.5));
  EXPECT_EQ(read("\x14\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x80\x00\x00\x00\x00\x00\x00\x00"s), Value(kInt64Min));
  EXPECT_EQ(read("\x14\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x07"s), Value(7));
  EXPECT_EQ(read("\x5F\x13\x00\x00\x00\x00\x00\x00\x00\x02hi"s), Value("hi"));
  // Keys out of order and given twice: the last counts.
  const auto shared = qx::readBinaryPropertyList(
      fileOf({"\xD3\1\2\1\3\4\5"s, "\x51z", "\x51\x61", "\x10\1"s, "\x10\2"s, "\x10\3"s}));
  EXPECT_EQ(*shared, Value(Dictionary{{"a", 2}, {"z", 3}}));
}

TEST(BinaryPropertyList, NamesWhatIsWrongWithADamagedFile) {
  std::string noSuchTop = fileOf({"\x09"});
  noSuchTop[noSuchTop.size() - 9] = 1;
  std::string hugeCount = fileOf({"\x09"});
  hugeCount.replace(hugeCount.size() - 24, 8, 8, '\xFF');
  std::string hugeTable = fileOf({"\x09"});
  hugeTable.replace(hugeTable.size() - 8, 8, 8, '\xFF');
  std::string offsetPastEnd = fileOf({"\x09"});
  offsetPastEnd[9] = '\x7F';
  const struct {
    std::string file;
    std::string_view problem;
  } cases[] = {
      {"", "header"},
      {"bplist00", "no trailer"},
      {"bplist15" + fileOf({"\x09"}).substr(8), "header"},
      {noSuchTop, "no such top object"},
      {hugeCount, "more objects than the offset table holds"},
      {hugeTable, "an offset table outside the file"},
      {offsetPastEnd, "an offset outside the objects at offset 9"},
      {fileOf({"\xA1\x05"}), "a reference to no object at offset 9"},
      {fileOf({"\xA1\x01", "\xA1\x00"s}), "a collection that contains itself"},
      {fileOf({"\xD1\x01\x00"s, "\x51k"}), "a collection that contains itself"},
      {fileOf({"\xD1\x01\x01", "\x09"}), "a key that is no string"},
      {fileOf({"\x00"s}), "unknown kind"},
      {fileOf({"\x80\x01"}), "unknown kind"},
      {fileOf({"\xC1\x01", "\x09"}), "unknown kind"},
      {fileOf({"\x15" + std::string(32, '\0')}), "an integer of unknown size"},
      {fileOf({"\x14\x01" + std::string(15, '\0')}), "more than 64 bits"},
      {fileOf({"\x24" + std::string(16, '\0')}), "a real of unknown size"},
      {fileOf({"\x13\1\1"}), "runs past the end"},
      {fileOf({"\x5F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}), "runs past the end"},
      {fileOf({"\x6F\x13\x80\x00\x00\x00\x00\x00\x00\x01xx"s}), "runs past the end"},
      {fileOf({"\xDF\x13\x80\x00\x00\x00\x00\x00\x00\x00"s}), "runs past the end"},
      {fileOf({"\x4F\x09"}), "a count that is no integer"},
      {fileOf({"\x51\xE4"}), "a string that is not ASCII"},
      {fileOf({"\x61\xD8\x00"s}), "a string that is not UTF-16"},
      {fileOf({"\x62\xDC\x00\xD8\x00"s}), "a string that is not UTF-16"},
  };
  for (const auto& [file, problem] : cases) {
    const std::string message = problemReading(file);
    EXPECT_TRUE(message.starts_with("The binary property list") && message.find(problem) != std::string::npos)
        << "expected: " << problem << "\nmessage: " << message;
  }
}

TEST(BinaryPropertyList, SurvivesEveryTruncationAndEveryChangedByte) {
  Value value = everything();
  value.asDictionary()->erase("data");
  value.asDictionary()->erase("strings");
  value.asDictionary()->set("text", "Zürich \U0001F5A8");
  const std::string good = encoded(value);
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(qx::readBinaryPropertyList(good.substr(0, length))) << length;
  }
  std::size_t readable = 0;
  for (std::size_t position = 0; position < good.size(); ++position) {
    std::string bad = good;
    for (int change = 1; change < 256; ++change) {
      bad[position] = static_cast<char>(good[position] ^ change);
      const auto read = qx::readBinaryPropertyList(bad);
      if (!read) continue;
      ++readable;
      if (change % 16 == 1) {
        EXPECT_TRUE(qx::readBinaryPropertyList(encoded(*read))) << position;
      }
    }
  }
  EXPECT_GT(readable, good.size());  // changed content, but a good file
}

TEST(BinaryPropertyList, BoundsWhatSharedReferencesExpandTo) {
  std::vector<std::string> arrays, texts;
  for (char i = 1; i < 40; ++i)
    arrays.push_back("\xAA"s + std::string(10, i));
  texts = arrays;
  arrays.push_back("\xA0");
  EXPECT_NE(problemReading(fileOf(arrays)).find("more values than the limit"), std::string::npos);

  texts.resize(4);
  texts.push_back("\x4F\x11\x75\x30"s + std::string(30000, 'x'));  // 10^4 uses of 30,000 bytes
  EXPECT_NE(problemReading(fileOf(texts)).find("bytes than the limit"), std::string::npos);

  std::vector<std::string> circle{"\xAA" + std::string(10, '\0')};
  EXPECT_NE(problemReading(fileOf(circle)).find("contains itself"), std::string::npos);
  EXPECT_NE(problemReading(std::string((64U << 20U) + 1, 'x')).find("more than the limit"),
            std::string::npos);
}

TEST(BinaryPropertyList, RefusesAHundredThousandNestedArrays) {
  constexpr std::uint32_t kCount = 100000;
  std::string file = "bplist00";
  std::string table;
  const auto put = [](std::string& text, std::uint32_t number) {
    for (int i = 24; i >= 0; i -= 8)
      text += static_cast<char>(number >> i & 0xFFU);
  };
  for (std::uint32_t i = 0; i < kCount; ++i) {
    put(table, static_cast<std::uint32_t>(file.size()));
    file += '\xA1';
    put(file, i + 1 < kCount ? i + 1 : i);
  }
  const auto tableOffset = static_cast<std::uint32_t>(file.size());
  file += table + std::string(6, '\0') + "\4\4\0\0\0\0"s;
  put(file, kCount);
  file += std::string(12, '\0');
  put(file, tableOffset);
  EXPECT_NE(problemReading(file).find("more collections inside each other"), std::string::npos);
}

/// What a libplist node holds. Its strings end at a NUL and its dates have 32 bits: not for those.
Value valueOf(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return flag != 0;
    }
    case PLIST_UINT: {
      std::uint64_t number = 0;
      plist_get_uint_val(node, &number);
      return static_cast<std::int64_t>(number);
    }
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return number;
    }
    case PLIST_DATE: {
      std::int32_t seconds = 0, microseconds = 0;
      plist_get_date_val(node, &seconds, &microseconds);
      return Date{seconds + microseconds / 1e6};
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return std::string(text, length);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return Data(std::string(bytes, length));
    }
    case PLIST_ARRAY: {
      Array array;
      for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i)
        array.push_back(valueOf(plist_array_get_item(node, i)));
      return array;
    }
    case PLIST_DICT: {
      Dictionary dictionary;
      plist_dict_iter iterator = nullptr;
      plist_dict_new_iter(node, &iterator);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, iterator, &key, &item);
        if (item == nullptr) break;
        dictionary.set(key, valueOf(item));
        free(key);
      }
      free(iterator);
      return dictionary;
    }
    default:
      return nullptr;
  }
}

TEST(BinaryPropertyList, AgreesWithLibplistInBothDirections) {
  Value value = everything();
  Dictionary& entries = *value.asDictionary();
  entries.erase("unsigned");
  entries.set("dates", Array{Date{0}, Date{7.125e8}, Date{-5}});
  Array& strings = *entries.find("strings")->asArray();
  std::erase_if(strings, [](const Value& text) { return text.asString()->find('\0') != std::string::npos; });

  const std::string ours = encoded(value);
  plist_t node = nullptr;
  plist_from_bin(ours.data(), static_cast<std::uint32_t>(ours.size()), &node);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(valueOf(node), value);

  char* bytes = nullptr;
  std::uint32_t size = 0;
  plist_to_bin(node, &bytes, &size);
  const auto read = qx::readBinaryPropertyList({bytes, size});
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, value);
  EXPECT_LT(size, ours.size());  // it shares equal objects, so that this reads shared ones
  free(bytes);
  plist_free(node);
}

TEST(BinaryPropertyList, AgreesWithPythonInBothDirections) {
  if (std::system("python3 -c 'import plistlib' 2>/dev/null") != 0)
    GTEST_SKIP() << "no python3 with plistlib here";
  char folder[] = "/tmp/qx-plist-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = folder;
  // The literal is what `ours` must read as; `theirs` is written from the literal, keys in reverse order.
  std::ofstream(path + "/check.py") << R"(
import datetime, plistlib, sys
inf = float('inf')
expected = {
    'z': [True, False, 0, 255, 256, 65536, 2**32, -1, -2**63, 2**63 - 1, 2**63, 2**64 - 1],
    'y': [-0.0, 1.5, -1e300, 5e-324, inf, -inf],
    'x': [datetime.datetime(2001, 1, 1), datetime.datetime(1901, 1, 1, 23, 59, 59, 500000)],
    'w': ['', 'a\0b', 'b' * 15, 'x' * 300, 'Z\u00fcrich', '\u65e5\u672c', '\U0001F5A8 printer'],
    'v': [b'', b'\0\xff\x80', [], {}, {'k': {'': [[b'd']]}}],
    '\u65e5': 1,
}
with open(sys.argv[1] + '/ours', 'rb') as file:
    ours = plistlib.load(file)
assert repr(sorted(ours.items())) == repr(sorted(expected.items())), repr(ours)
with open(sys.argv[1] + '/theirs', 'wb') as file:
    plistlib.dump(expected, file, fmt=plistlib.FMT_BINARY, sort_keys=False)
)";
  const Value value = Dictionary{
      {"z", Array{true, false, 0, 255, 256, 65536, 4294967296, -1, kInt64Min, kInt64Max,
                  std::uint64_t{1} << 63U, kUInt64Max}},
      {"y", Array{-0.0, 1.5, -1e300, 5e-324, kInfinity, -kInfinity}},
      {"x", Array{Date{0}, Date{-3155673600.5}}},
      {"w", Array{"", "a\0b"s, std::string(15, 'b'), std::string(300, 'x'), "Zürich", "日本",
                  "\U0001F5A8 printer"}},
      {"v", Array{Data(), Data("\0\xFF\x80"s), Array{}, Dictionary{},
                  Dictionary{{"k", Dictionary{{"", Array{Array{Data("d")}}}}}}}},
      {"日", 1},
  };
  const std::string ours = encoded(value);
  std::ofstream(path + "/ours", std::ios::binary) << ours;
  EXPECT_EQ(std::system(("python3 " + path + "/check.py " + path).c_str()), 0);

  std::ostringstream theirs;
  theirs << std::ifstream(path + "/theirs", std::ios::binary).rdbuf();
  ErrorPtr error;
  const auto read = qx::readBinaryPropertyList(theirs.str(), &error);
  ASSERT_TRUE(read) << error->localizedDescription();
  EXPECT_EQ(encoded(*read), ours);
  std::filesystem::remove_all(path);
}

std::string inPlist(const std::string& body) {
  return "<?xml version=\"1.0\"?><plist version=\"1.0\">" + body + "</plist>";
}

TEST(XMLPropertyList, ReadsBackWhatItWrote) {
  Value value = everything();
  Dictionary& entries = *value.asDictionary();
  entries.set("dates", Array{Date{0}, Date{-3155673600}, Date{-3.15e10}, Date{9e9}});
  entries.set("strings",
              Array{"", " <&>\"' ", "line\r\nline\tend", "Zürich 日本 \U0001F5A8", "]]>", "&amp;"});
  ErrorPtr error;
  const auto text = qx::writeXMLPropertyList(value, &error);
  ASSERT_TRUE(text) << error->localizedDescription();
  const auto read = qx::readXMLPropertyList(*text, &error);
  ASSERT_TRUE(read) << error->localizedDescription();
  for (const auto& [key, item] : entries)
    EXPECT_EQ(*read->asDictionary()->find(key), item) << key;
}

TEST(XMLPropertyList, RefusesToWriteWhatXMLCannotHold) {
  Value deep = 1;
  for (int i = 0; i < 65; ++i)
    deep = Array{std::move(deep)};
  for (const Value& value : {Value(), Value("a\0b"s), Value(Array{"\x1B[0m"}), Value(Dictionary{{"\x01", 1}}),
                             Value("\xFF"), Value(Date{1e12}), Value(Date{-6e10}), Value(Date{std::nan("")}),
                             deep, Value(std::string(2U << 20U, 'x'))}) {
    ErrorPtr error;
    EXPECT_FALSE(qx::writeXMLPropertyList(value, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3851);
  }
}

TEST(XMLPropertyList, ReadsHandWrittenFiles) {
  const auto read = [](const std::string& body) {
    return qx::readXMLPropertyList(inPlist(body)).value_or(nullptr);
  };
  EXPECT_EQ(
      read("<!-- <array> --><dict>\n <key>a</key> <string>x<![CDATA[<array>]]>&#233;</string>\n</dict>"),
      Value(Dictionary{{"a", "x<array>é"}}));
  EXPECT_EQ(read("<array><integer> -5 "
                 "</integer><integer>0x10</integer><integer>18446744073709551615</integer></array>"),
            Value(Array{-5, 16, kUInt64Max}));
  EXPECT_EQ(
      read("<array><real>1.5e3</real><real>-infinity</real><true/><string/><data>\n\tAAEC\n</data></array>"),
      Value(Array{1500.0, -kInfinity, true, "", Data("\0\1\2"s)}));
  EXPECT_EQ(*qx::readXMLPropertyList("\xEF\xBB\xBF" + inPlist("<dict/>")), Value(Dictionary{}));
}

TEST(XMLPropertyList, RefusesWhatIsNone) {
  std::string nested, hidden;
  for (int i = 0; i < 100000; ++i)
    nested += "<array>";
  for (int i = 0; i < 20000; ++i)
    hidden += "<array a=\"></array><x b=\">";
  for (const std::string& text : {""s,
                                  "{}"s,
                                  "bplist00"s,
                                  "<plist></plist>"s,
                                  "\0"s,
                                  "\xFF\xFE<"s,
                                  std::string((1U << 20U) + 1, ' '),
                                  nested,
                                  hidden,
                                  inPlist("<integer>junk</integer>"),
                                  inPlist("<integer>18446744073709551616</integer>"),
                                  inPlist("<integer/>"),
                                  inPlist("<real>1,5</real>"),
                                  inPlist("<date>2001-02-30T00:00:00Z</date>"),
                                  inPlist("<data>A?</data>"),
                                  inPlist("<dict><key>a</key></dict>"),
                                  inPlist("<dict><true/></dict>"),
                                  inPlist("<array><key>a</key></array>"),
                                  inPlist("<array></dict>"),
                                  inPlist("<unknown/>"),
                                  inPlist("<string>&bad;</string>"),
                                  "<!DOCTYPE plist [<!ENTITY a \"b\">]>" + inPlist("<string>&a;</string>")}) {
    ErrorPtr error;
    EXPECT_FALSE(qx::readXMLPropertyList(text, &error)) << text.substr(0, 80);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3840);
  }
}

TEST(XMLPropertyList, ReadsRegularFilesOnly) {
  char folder[] = "/tmp/qx-plist-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::filesystem::path path = folder;
  std::ofstream(path / "good") << inPlist("<integer>7</integer>");
  std::ofstream(path / "bad") << "x";
  std::filesystem::create_symlink("good", path / "link");
  ASSERT_EQ(mkfifo((path / "pipe").c_str(), 0600), 0);

  EXPECT_EQ(qx::readXMLPropertyListFile(path / "good"), Value(7));
  const struct {
    const char* name;
    std::int64_t code;
  } cases[] = {{"bad", 3840}, {"link", 256}, {"pipe", 256}, {"", 256}, {"missing", 260}};
  for (const auto& [name, code] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(qx::readXMLPropertyListFile(path / name, &error)) << name;
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), code) << name;
    EXPECT_NE(error->localizedDescription().find(path / name), std::string::npos) << name;
  }
  std::filesystem::remove_all(path);
}

}  // namespace

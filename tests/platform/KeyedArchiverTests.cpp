#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace tavolar {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

std::vector<std::byte> bytesOf(const std::vector<std::uint8_t>& bytes) {
    std::vector<std::byte> result(bytes.size());
    std::memcpy(result.data(), bytes.data(), bytes.size());
    return result;
}

std::vector<std::byte> bytesOf(std::string_view text) {
    std::vector<std::byte> result(text.size());
    std::memcpy(result.data(), text.data(), text.size());
    return result;
}

// An archive built by hand from the documented structure, independent of the archiver.
std::vector<std::byte> handBuiltArchive(const json& root, std::int64_t version = 1) {
    json archive = {{"$archiver", "TavolarKeyedArchive"}, {"$version", version}, {"$top", root}};
    return bytesOf(json::to_cbor(archive));
}

// A window-like class: 64-bit begin and end written, read back through the 32-bit decoder; the
// oldest form is three unsigned values in sequence with the type counted from 1.
struct Span {
    static constexpr std::string_view className = "Span";
    std::int64_t begin = 0, end = 0, type = 0;
    bool unkeyed = false;

    void encodeWithCoder(KeyedArchiver& coder) const {
        if (unkeyed) {
            coder.encodeUnkeyedUInt32(static_cast<std::uint32_t>(begin));
            coder.encodeUnkeyedUInt32(static_cast<std::uint32_t>(end));
            coder.encodeUnkeyedUInt32(static_cast<std::uint32_t>(type + 1));
            return;
        }
        coder.encodeString("2.0", "Version");
        coder.encodeInt64(begin, "Begin");
        coder.encodeInt64(end, "End");
        coder.encodeInt32(static_cast<std::int32_t>(type), "Type");
    }
    static Span initWithCoder(KeyedUnarchiver& coder) {
        Span span;
        if (coder.decodeString("Version") == "2.0") {
            span.begin = coder.decodeInt32("Begin");
            span.end = coder.decodeInt32("End");
            span.type = coder.decodeInt32("Type");
        } else {
            span.unkeyed = true;
            span.begin = coder.decodeNextUInt32();
            span.end = coder.decodeNextUInt32();
            span.type = static_cast<std::int64_t>(coder.decodeNextUInt32()) - 1;
        }
        TAVOLAR_PARAMETER_ASSERT(span.begin <= span.end);
        return span;
    }
    bool operator==(const Span&) const = default;
};

// Holds one value of every kind the archive knows, and nested objects.
struct Everything {
    static constexpr std::string_view className = "Everything";
    bool flag = false;
    std::int32_t small = 0;
    std::int64_t large = 0;
    std::uint64_t unsignedLarge = 0;
    float single = 0;
    double precise = 0;
    std::optional<std::string> name;
    std::optional<double> number;
    std::optional<std::vector<std::byte>> data;
    std::optional<std::vector<float>> samples;
    std::optional<ArchivedDate> date;
    std::optional<ArchivedColor> color;
    std::optional<IndexSet> channels;
    std::optional<std::vector<std::string>> names;
    std::optional<std::map<std::string, std::string>> labels;
    std::optional<json> adjustments;
    std::optional<Span> window;
    std::optional<std::vector<Span>> windows;
    std::optional<std::map<std::string, Span>> namedWindows;

    void encodeWithCoder(KeyedArchiver& coder) const {
        coder.encodeBool(flag, "flag");
        coder.encodeInt32(small, "small");
        coder.encodeInt64(large, "large");
        coder.encodeUInt64(unsignedLarge, "unsignedLarge");
        coder.encodeFloat(single, "single");
        coder.encodeDouble(precise, "precise");
        if (name)
            coder.encodeString(*name, "name");
        else
            coder.encodeNull("name");
        if (number)
            coder.encodeNumber(*number, "number");
        if (data)
            coder.encodeData(*data, "data");
        if (samples)
            coder.encodeFloatVector(*samples, "samples");
        if (date)
            coder.encodeDate(*date, "date");
        if (color)
            coder.encodeColor(*color, "color");
        if (channels)
            coder.encodeIndexSet(*channels, "channels");
        if (names)
            coder.encodeStringArray(*names, "names");
        if (labels)
            coder.encodeStringDictionary(*labels, "labels");
        if (adjustments)
            coder.encodeDictionary(*adjustments, "adjustments");
        if (window)
            coder.encodeObject(*window, "window");
        if (windows)
            coder.encodeObjectArray(std::span<const Span>(*windows), "windows");
        if (namedWindows)
            coder.encodeObjectDictionary(*namedWindows, "namedWindows");
    }
    static Everything initWithCoder(KeyedUnarchiver& coder) {
        Everything e;
        e.flag = coder.decodeBool("flag");
        e.small = coder.decodeInt32("small");
        e.large = coder.decodeInt64("large");
        e.unsignedLarge = coder.decodeUInt64("unsignedLarge");
        e.single = coder.decodeFloat("single");
        e.precise = coder.decodeDouble("precise");
        e.name = coder.decodeString("name");
        e.number = coder.decodeNumber("number");
        e.data = coder.decodeData("data");
        e.samples = coder.decodeFloatVector("samples");
        e.date = coder.decodeDate("date");
        e.color = coder.decodeColor("color");
        e.channels = coder.decodeIndexSet("channels");
        e.names = coder.decodeStringArray("names");
        e.labels = coder.decodeStringDictionary("labels");
        e.adjustments = coder.decodeDictionary("adjustments");
        e.window = coder.decodeObjectOfClass<Span>("window");
        e.windows = coder.decodeObjectArrayOfClass<Span>("windows");
        e.namedWindows = coder.decodeObjectDictionaryOfClass<Span>("namedWindows");
        return e;
    }
};

// A chain of objects, to nest archives deeply.
struct Link {
    static constexpr std::string_view className = "Link";
    std::shared_ptr<Link> next;
    void encodeWithCoder(KeyedArchiver& coder) const {
        if (next)
            coder.encodeObject(*next, "next");
    }
    static Link initWithCoder(KeyedUnarchiver& coder) {
        Link link;
        if (auto next = coder.decodeObjectOfClass<Link>("next"))
            link.next = std::make_shared<Link>(std::move(*next));
        return link;
    }
};

struct Probe {
    static constexpr std::string_view className = "Probe";
    std::map<std::string, std::string> kinds;
    bool unkeyed = false;
    bool containsNull = false, containsMissing = true;
    void encodeWithCoder(KeyedArchiver&) const {}
    static Probe initWithCoder(KeyedUnarchiver& coder) {
        Probe probe;
        for (const char* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l"})
            probe.kinds[key] = coder.classNameForKey(key).value_or("absent");
        probe.unkeyed = coder.isUnkeyed();
        probe.containsNull = coder.containsValueForKey("b");
        probe.containsMissing = coder.containsValueForKey("missing");
        return probe;
    }
};

struct Mixed {
    static constexpr std::string_view className = "Mixed";
    std::int32_t integer = 0;
    float single = 0;
    double precise = 0;
    std::optional<std::string> text;
    std::optional<Span> span;
    void encodeWithCoder(KeyedArchiver& coder) const {
        coder.encodeUnkeyedInt32(integer);
        coder.encodeUnkeyedFloat(single);
        coder.encodeUnkeyedDouble(precise);
        coder.encodeUnkeyedString(*text);
        coder.encodeUnkeyedObject(*span);
    }
    static Mixed initWithCoder(KeyedUnarchiver& coder) {
        Mixed mixed;
        mixed.integer = coder.decodeNextInt32();
        mixed.single = coder.decodeNextFloat();
        mixed.precise = coder.decodeNextDouble();
        mixed.text = coder.decodeNextString();
        mixed.span = coder.decodeNextObjectOfClass<Span>();
        return mixed;
    }
};

Everything fullyPopulated() {
    Everything e;
    e.flag = true;
    e.small = std::numeric_limits<std::int32_t>::min();
    e.large = std::numeric_limits<std::int64_t>::min() + 7;
    e.unsignedLarge = std::numeric_limits<std::uint64_t>::max();
    e.single = 1.0f / 3.0f;
    e.precise = 1.0 / 3.0;
    e.name = "Mic \"A\" — µ";
    e.number = -2.5e-300;
    e.data = std::vector<std::byte>(256);
    for (std::size_t i = 0; i < 256; ++i)
        (*e.data)[i] = static_cast<std::byte>(i);
    e.samples = std::vector<float>{0.0f,
                                   -0.0f,
                                   1.0f,
                                   -1.5f,
                                   std::numeric_limits<float>::denorm_min(),
                                   std::numeric_limits<float>::max(),
                                   std::numeric_limits<float>::infinity()};
    e.date = ArchivedDate(std::chrono::duration<double>(1.7e9 + 0.125));
    e.color = ArchivedColor{0.1, 0.2, 0.3, 0.4};
    e.channels = IndexSet{0, 2, 3, 1000, std::numeric_limits<std::uint64_t>::max()};
    e.names = std::vector<std::string>{"left", "", "right"};
    e.labels = std::map<std::string, std::string>{{"a", "1"}, {"$data", "QUJD"}, {"", "empty"}};
    e.adjustments = json{{"offset", 3.5},
                         {"curves", json::array({1, "two", nullptr, true})},
                         {"nested", {{"deeper", {{"$data", "not data"}}}}},
                         {"blob", json::binary({1, 2, 3})}};
    e.window = Span{10, 20, 3, false};
    e.windows = std::vector<Span>{{1, 2, 1, false}, {5, 9, 0, true}};
    e.namedWindows = std::map<std::string, Span>{{"first", {0, 1, 2, false}}, {"second", {3, 4, 5, true}}};
    return e;
}

void expectSameAsFullyPopulated(const Everything& d) {
    Everything e = fullyPopulated();
    EXPECT_EQ(d.flag, e.flag);
    EXPECT_EQ(d.small, e.small);
    EXPECT_EQ(d.large, e.large);
    EXPECT_EQ(d.unsignedLarge, e.unsignedLarge);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(d.single), std::bit_cast<std::uint32_t>(e.single));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(d.precise), std::bit_cast<std::uint64_t>(e.precise));
    EXPECT_EQ(d.name, e.name);
    EXPECT_EQ(d.number, e.number);
    EXPECT_EQ(d.data, e.data);
    ASSERT_TRUE(d.samples);
    ASSERT_EQ(d.samples->size(), e.samples->size());
    for (std::size_t i = 0; i < e.samples->size(); ++i)
        EXPECT_EQ(std::bit_cast<std::uint32_t>((*d.samples)[i]),
                  std::bit_cast<std::uint32_t>((*e.samples)[i]));
    EXPECT_EQ(d.date, e.date);
    EXPECT_EQ(d.color, e.color);
    EXPECT_EQ(d.channels, e.channels);
    EXPECT_EQ(d.names, e.names);
    EXPECT_EQ(d.labels, e.labels);
    EXPECT_EQ(d.adjustments, e.adjustments);
    EXPECT_EQ(d.window, e.window);
    EXPECT_EQ(d.windows, e.windows);
    EXPECT_EQ(d.namedWindows, e.namedWindows);
}

TEST(KeyedArchiver, EveryKindOfValueRoundTripsThroughCBORAndJSON) {
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        SCOPED_TRACE(format == ArchiveFormat::CBOR ? "CBOR" : "JSON");
        auto archive = KeyedArchiver::archivedDataWithRootObject(fullyPopulated(), format);
        auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(archive, format);
        ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
        expectSameAsFullyPopulated(*decoded);
    }
    // The two forms are not interchangeable.
    auto cbor = KeyedArchiver::archivedDataWithRootObject(fullyPopulated());
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Everything>(cbor, ArchiveFormat::JSON));
}

TEST(KeyedArchiver, WritesTheDocumentedStructure) {
    Span span{1, 2, 3, false};
    auto archive = KeyedArchiver::archivedDataWithRootObject(span);
    std::vector<std::uint8_t> raw(archive.size());
    std::memcpy(raw.data(), archive.data(), archive.size());
    json tree = json::from_cbor(raw);
    EXPECT_EQ(
        tree,
        (json{{"$archiver", "TavolarKeyedArchive"},
              {"$version", 1},
              {"$top", {{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 1}, {"End", 2}, {"Type", 3}}}}));

    // Floats as little-endian bytes, raw data as a byte string; base64 in the JSON form.
    Everything e;
    e.samples = std::vector<float>{1.0f, -2.0f};
    e.data = std::vector<std::byte>{std::byte{0xDE}, std::byte{0xAD}};
    auto cbor = KeyedArchiver::archivedDataWithRootObject(e);
    raw.assign(reinterpret_cast<const std::uint8_t*>(cbor.data()),
               reinterpret_cast<const std::uint8_t*>(cbor.data()) + cbor.size());
    json top = json::from_cbor(raw)["$top"];
    EXPECT_EQ(top["samples"]["$class"], "FloatVector");
    EXPECT_EQ(top["samples"]["$floats"].get_binary(),
              (std::vector<std::uint8_t>{0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0xC0}));
    EXPECT_EQ(top["data"].get_binary(), (std::vector<std::uint8_t>{0xDE, 0xAD}));
    EXPECT_TRUE(top["name"].is_null());

    auto text = KeyedArchiver::archivedDataWithRootObject(e, ArchiveFormat::JSON);
    json readable = json::parse(std::string(reinterpret_cast<const char*>(text.data()), text.size()));
    EXPECT_EQ(readable["$top"]["samples"]["$floats"], (json{{"$data", "AACAPwAAAMA="}}));
    EXPECT_EQ(readable["$top"]["data"], (json{{"$data", "3q0="}}));
    auto description = KeyedUnarchiver::jsonDescription(cbor);
    ASSERT_TRUE(description);
    EXPECT_EQ(json::parse(*description), readable);
}

TEST(KeyedArchiver, DecodesHandBuiltArchivesAndReportsWhatIsStored) {
    json root = {{"$class", "Everything"}, {"flag", 1},      {"small", 2.75}, {"large", false}, {"single", 3},
                 {"number", true},         {"name", nullptr}};
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(root));
    ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
    // Numbers convert between kinds as boxed numbers do; fractions are truncated toward zero.
    EXPECT_TRUE(decoded->flag);
    EXPECT_EQ(decoded->small, 2);
    EXPECT_EQ(decoded->large, 0);
    EXPECT_EQ(decoded->single, 3.0f);
    EXPECT_EQ(decoded->number, 1.0);
    // Missing and null keys decode as zero, false and nothing, without an error.
    EXPECT_EQ(decoded->unsignedLarge, 0u);
    EXPECT_EQ(decoded->precise, 0.0);
    EXPECT_FALSE(decoded->name);
    EXPECT_FALSE(decoded->data);
    EXPECT_FALSE(decoded->window);
    EXPECT_FALSE(decoded->windows);

    Everything sample = fullyPopulated();
    KeyedArchiver archiver("Probe");
    archiver.encodeNumber(1, "a");
    archiver.encodeNull("b");
    archiver.encodeString("x", "c");
    archiver.encodeData(*sample.data, "d");
    archiver.encodeFloatVector(*sample.samples, "e");
    archiver.encodeDate(*sample.date, "f");
    archiver.encodeColor(*sample.color, "g");
    archiver.encodeIndexSet(*sample.channels, "h");
    archiver.encodeStringArray(*sample.names, "i");
    archiver.encodeStringDictionary(*sample.labels, "j");
    archiver.encodeObject(*sample.window, "k");
    auto probe = KeyedUnarchiver::unarchivedObjectOfClass<Probe>(archiver.finish(ArchiveFormat::CBOR));
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->kinds, (std::map<std::string, std::string>{{"a", "Number"},
                                                                {"b", "Null"},
                                                                {"c", "String"},
                                                                {"d", "Data"},
                                                                {"e", "FloatVector"},
                                                                {"f", "Date"},
                                                                {"g", "Color"},
                                                                {"h", "IndexSet"},
                                                                {"i", "Array"},
                                                                {"j", "Dictionary"},
                                                                {"k", "Span"},
                                                                {"l", "absent"}}));
    EXPECT_FALSE(probe->unkeyed);
    EXPECT_TRUE(probe->containsNull);
    EXPECT_FALSE(probe->containsMissing);
}

TEST(KeyedArchiver, ThirtyTwoBitDecodingRefusesValuesThatDoNotFit) {
    // Written as 64-bit, read as 32-bit: values inside the signed 32-bit range survive.
    for (std::int64_t value :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{INT32_MIN}, std::int64_t{INT32_MAX}}) {
        Span span{value, INT32_MAX, 0, false};
        auto decoded =
            KeyedUnarchiver::unarchivedObjectOfClass<Span>(KeyedArchiver::archivedDataWithRootObject(span));
        ASSERT_TRUE(decoded) << value;
        EXPECT_EQ(decoded->begin, value);
    }
    for (std::int64_t value : {std::int64_t{INT32_MAX} + 1, std::int64_t{INT32_MIN} - 1, INT64_MAX}) {
        Span span{INT32_MIN, value, 0, false};
        auto decoded =
            KeyedUnarchiver::unarchivedObjectOfClass<Span>(KeyedArchiver::archivedDataWithRootObject(span));
        ASSERT_FALSE(decoded) << value;
        EXPECT_EQ(decoded.error().domain, "TavolarErrorDomain");
        EXPECT_EQ(decoded.error().code, -1);
        EXPECT_EQ(decoded.error().localizedDescription,
                  "The archive holds the value " + std::to_string(value) +
                      " where a 32-bit integer was expected; it does not fit (“End” in Span).");
        EXPECT_FALSE(decoded.error().localizedRecoverySuggestion.empty());
    }
    // Floating-point values are checked too, and the unsigned decoders refuse negative values.
    auto stored = [](json value) {
        return handBuiltArchive({{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 0}, {"End", value}});
    };
    EXPECT_TRUE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(stored(2147483647.9)));
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(stored(2147483648.0)));
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(stored(std::nan(""))));
    EXPECT_FALSE(
        KeyedUnarchiver::unarchivedObjectOfClass<Span>(stored(std::numeric_limits<double>::infinity())));
    auto oldForm = [](json values) { return handBuiltArchive({{"$class", "Span"}, {"$values", values}}); };
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(oldForm({-1, 2, 1})));
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(oldForm({0, 4294967296LL, 1})));
    auto largest = KeyedUnarchiver::unarchivedObjectOfClass<Span>(oldForm({0, 4294967295LL, 1}));
    ASSERT_TRUE(largest);
    EXPECT_EQ(largest->end, 4294967295LL);

    Everything e;
    e.precise = 1e300;
    json root = {{"$class", "Everything"}, {"single", 1e300}};
    auto tooLargeForFloat = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(root));
    ASSERT_FALSE(tooLargeForFloat);
    EXPECT_THAT(tooLargeForFloat.error().localizedDescription, HasSubstr("where a float was expected"));
}

TEST(KeyedArchiver, ValuesOfTheWrongKindAreDecodingErrorsAndTheFirstIsKept) {
    auto decode = [](json root) {
        return KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(root));
    };
    auto error = [&](json root) {
        auto result = decode(std::move(root));
        return result ? std::string("decoded") : result.error().localizedDescription;
    };
    json base = {{"$class", "Everything"}};
    auto with = [&](const char* key, json value) {
        json root = base;
        root[key] = std::move(value);
        return root;
    };
    EXPECT_EQ(error(with("small", "12")),
              "The archive holds a string where a 32-bit integer was expected (“small” in Everything).");
    EXPECT_EQ(error(with("name", 12)),
              "The archive holds an integer where a string was expected (“name” in Everything).");
    EXPECT_EQ(error(with("data", "abc")),
              "The archive holds a string where raw data was expected (“data” in Everything).");
    EXPECT_EQ(error(with("samples", json::binary({0, 0, 128, 63}))),
              "The archive holds raw data where a float vector was expected (“samples” in Everything).");
    EXPECT_THAT(error(with("samples", {{"$class", "FloatVector"}, {"$floats", json::binary({1, 2, 3})}})),
                HasSubstr("The archive is damaged: a float vector holds 3 bytes"));
    EXPECT_EQ(error(with("date", 5)),
              "The archive holds an integer where a date was expected (“date” in Everything).");
    EXPECT_EQ(error(with("color", {{"$class", "Color"}, {"$rgba", {1, 2, 3}}})),
              "The archive holds a colour where a colour was expected (“color” in Everything).");
    EXPECT_THAT(error(with("channels", {{"$class", "IndexSet"}, {"$indexes", {1, -2}}})),
                HasSubstr("an index set holds an integer"));
    EXPECT_EQ(
        error(with("names", {"a", 1})),
        "The archive holds an integer where a string in an array was expected (“names” in Everything).");
    EXPECT_EQ(
        error(with("labels", {{"$class", "Dictionary"}, {"$entries", {{"a", 1}}}})),
        "The archive holds an integer where a string in a dictionary was expected (“labels” in Everything).");
    EXPECT_EQ(
        error(with("adjustments", {{"$class", "Dictionary"}, {"$entries", {{"a", {{"$class", "Span"}}}}}})),
        "The archive holds an object of class “Span” where a plain value was expected in a dictionary "
        "(“adjustments” in Everything).");
    EXPECT_EQ(error(with("flag", {1})),
              "The archive holds an array where a boolean was expected (“flag” in Everything).");

    // Several faults: the first one encountered is reported.
    json twoFaults = base;
    twoFaults["flag"] = "yes";
    twoFaults["small"] = "no";
    EXPECT_THAT(error(twoFaults), HasSubstr("(“flag” in Everything)"));
}

TEST(KeyedArchiver, SecureDecodingChecksEveryObjectsClass) {
    auto archive = KeyedArchiver::archivedDataWithRootObject(Span{1, 2, 3, false});
    auto wrongRoot = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(archive);
    ASSERT_FALSE(wrongRoot);
    EXPECT_EQ(
        wrongRoot.error().localizedDescription,
        "The archive holds an object of class “Span” where an object of class “Everything” was expected.");

    json nested = {{"$class", "Everything"}, {"window", {{"$class", "Link"}}}};
    auto wrongChild = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(nested));
    ASSERT_FALSE(wrongChild);
    EXPECT_EQ(wrongChild.error().localizedDescription,
              "The archive holds an object of class “Link” where an object of class “Span” was expected "
              "(“window” in Everything).");

    json inArray = {{"$class", "Everything"},
                    {"windows", {{{"$class", "Span"}}, {{"$class", "Date"}, {"$time", 0}}}}};
    auto wrongElement = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(inArray));
    ASSERT_FALSE(wrongElement);
    EXPECT_THAT(wrongElement.error().localizedDescription,
                HasSubstr("holds a date where an object of class “Span”"));

    json inDictionary = {
        {"$class", "Everything"},
        {"namedWindows", {{"$class", "Dictionary"}, {"$entries", {{"x", {{"$class", "Link"}}}}}}}};
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(inDictionary)));
    json classless = {{"$class", "Everything"}, {"window", {{"Begin", 1}}}};
    auto noClass = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(classless));
    ASSERT_FALSE(noClass);
    EXPECT_THAT(noClass.error().localizedDescription, HasSubstr("holds an object without a class"));
}

TEST(KeyedArchiver, TheOldestUnkeyedFormIsReadInSequence) {
    Span old{7, 4000000000LL, 2, true};
    auto decoded =
        KeyedUnarchiver::unarchivedObjectOfClass<Span>(KeyedArchiver::archivedDataWithRootObject(old));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, old);

    // An oldest-form type of 1 counted from 1 decodes as 0.
    auto typeOne = KeyedUnarchiver::unarchivedObjectOfClass<Span>(
        handBuiltArchive({{"$class", "Span"}, {"$values", {0, 10, 1}}}));
    ASSERT_TRUE(typeOne);
    EXPECT_EQ(typeOne->type, 0);

    auto tooFew = KeyedUnarchiver::unarchivedObjectOfClass<Span>(
        handBuiltArchive({{"$class", "Span"}, {"$values", {0, 10}}}));
    ASSERT_FALSE(tooFew);
    EXPECT_EQ(tooFew.error().localizedDescription,
              "The archive is damaged: Span holds fewer values than are read from it.");

    Mixed mixed{-5, 0.25f, 1e-10, "name", Span{1, 2, 3, false}};
    auto mixedBack =
        KeyedUnarchiver::unarchivedObjectOfClass<Mixed>(KeyedArchiver::archivedDataWithRootObject(mixed));
    ASSERT_TRUE(mixedBack);
    EXPECT_EQ(mixedBack->integer, -5);
    EXPECT_EQ(mixedBack->single, 0.25f);
    EXPECT_EQ(mixedBack->precise, 1e-10);
    EXPECT_EQ(mixedBack->text, "name");
    EXPECT_EQ(mixedBack->span, (Span{1, 2, 3, false}));
}

TEST(KeyedArchiver, ExceptionsOfAClassBecomeDecodingErrorsAndReservedKeysAreRefused) {
    // begin > end fails the class's own precondition.
    auto inverted = KeyedUnarchiver::unarchivedObjectOfClass<Span>(
        handBuiltArchive({{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 5}, {"End", 1}}));
    ASSERT_FALSE(inverted);
    EXPECT_EQ(inverted.error().localizedDescription,
              "The archive is damaged: Invalid parameter not satisfying: span.begin <= span.end.");

    KeyedArchiver archiver("Anything");
    EXPECT_THROW(archiver.encodeBool(true, "$class"), ParameterAssertion);
    EXPECT_THROW(archiver.encodeBool(true, ""), ParameterAssertion);
    EXPECT_THROW(KeyedArchiver("Date"), ParameterAssertion);
    EXPECT_THROW(KeyedArchiver("$values"), ParameterAssertion);
    EXPECT_THROW(archiver.encodeDictionary(json::array(), "list"), ParameterAssertion);
}

TEST(KeyedArchiver, ForeignEmptyNewerAndMalformedDataAreRefused) {
    auto error = [](std::vector<std::byte> data, ArchiveFormat format = ArchiveFormat::CBOR) {
        auto result = KeyedUnarchiver::unarchivedObjectOfClass<Span>(data, format);
        return result ? std::string("decoded") : result.error().localizedDescription;
    };
    EXPECT_EQ(error({}), "The archive is damaged: it is empty.");
    EXPECT_EQ(error(bytesOf(json::to_cbor(json{{"$class", "Span"}}))),
              "The data is not a keyed archive of this application.");
    EXPECT_EQ(error(bytesOf(json::to_cbor(json::array({1, 2})))),
              "The data is not a keyed archive of this application.");
    EXPECT_EQ(error(handBuiltArchive({{"$class", "Span"}}, 2)),
              "The archive has a format version this application cannot read: 2.");
    EXPECT_EQ(error(handBuiltArchive(json::array())), "The archive is damaged: it holds no root object.");
    EXPECT_THAT(error(bytesOf("not an archive at all")),
                HasSubstr("The archive is damaged: it cannot be read"));
    EXPECT_THAT(error(bytesOf("{\"$archiver\": ")), HasSubstr("The archive is damaged: it cannot be read"));
    EXPECT_THAT(error(bytesOf("{\"a\": 1, \"a\": 2}"), ArchiveFormat::JSON),
                HasSubstr("the key “a” appears twice in one object"));

    auto valid = handBuiltArchive({{"$class", "Span"}});
    auto trailing = valid;
    trailing.push_back(std::byte{0});
    EXPECT_THAT(error(trailing), HasSubstr("The archive is damaged"));

    // A byte string that claims 2^63 bytes, a tag, and an array claiming 2^32 elements.
    EXPECT_THAT(error(bytesOf(std::vector<std::uint8_t>{0x5B, 0x80, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3})),
                HasSubstr("damaged"));
    EXPECT_THAT(error(bytesOf(std::vector<std::uint8_t>{0xC1, 0x00})), HasSubstr("damaged"));
    EXPECT_THAT(error(bytesOf(std::vector<std::uint8_t>{0x9B, 0, 0, 0, 1, 0, 0, 0, 0, 0x00})),
                HasSubstr("damaged"));
    // Invalid base64 in the JSON form.
    std::string badData =
        R"({"$archiver":"TavolarKeyedArchive","$version":1,"$top":{"$class":"Span","x":{"$data":"A=BC"}}})";
    EXPECT_EQ(error(bytesOf(badData), ArchiveFormat::JSON),
              "The archive is damaged: raw data is not valid base64.");
    EXPECT_FALSE(KeyedUnarchiver::jsonDescription(bytesOf("\xA0")));
}

TEST(KeyedArchiver, DeepNestingIsRefusedWithoutExhaustingTheStack) {
    // Nested arrays far beyond any archive, in CBOR and JSON.
    std::vector<std::uint8_t> arrays(200000, 0x81);
    arrays.push_back(0x00);
    auto deepCBOR = KeyedUnarchiver::unarchivedObjectOfClass<Span>(bytesOf(arrays));
    ASSERT_FALSE(deepCBOR);
    EXPECT_EQ(deepCBOR.error().localizedDescription, "The archive is damaged: it nests values too deeply.");
    std::string brackets(200000, '[');
    EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClass<Span>(bytesOf(brackets), ArchiveFormat::JSON));

    // Objects nested deeper than the decoder follows, though within what the parser accepts.
    auto chain = [](int length) {
        Link head;
        for (int i = 0; i < length; ++i) {
            Link outer;
            outer.next = std::make_shared<Link>(std::move(head));
            head = std::move(outer);
        }
        return KeyedArchiver::archivedDataWithRootObject(head);
    };
    EXPECT_TRUE(KeyedUnarchiver::unarchivedObjectOfClass<Link>(chain(60)));
    auto tooDeep = KeyedUnarchiver::unarchivedObjectOfClass<Link>(chain(100));
    ASSERT_FALSE(tooDeep);
    EXPECT_EQ(tooDeep.error().localizedDescription,
              "The archive is damaged: the archive nests objects too deeply.");
}

// Every prefix and thousands of random mutations of a rich archive decode or fail cleanly; under the
// sanitizer build this also shows that nothing reads out of bounds or leaks.
TEST(KeyedArchiver, TruncatedAndMutatedArchivesGiveAnObjectOrAnError) {
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        const auto archive = KeyedArchiver::archivedDataWithRootObject(fullyPopulated(), format);
        std::size_t failures = 0;
        for (std::size_t length = 0; length < archive.size(); ++length) {
            auto prefix = std::span(archive).first(length);
            auto result = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(prefix, format);
            if (!result) {
                ++failures;
                EXPECT_FALSE(result.error().localizedDescription.empty());
            }
        }
        // A CBOR archive is complete only at its full length; trailing JSON whitespace may go.
        if (format == ArchiveFormat::CBOR) {
            EXPECT_EQ(failures, archive.size());
        }

        std::mt19937 random(20240611);
        std::size_t decoded = 0;
        const int mutations = format == ArchiveFormat::CBOR ? 4000 : 1500;
        for (int round = 0; round < mutations; ++round) {
            auto mutated = archive;
            int edits = 1 + static_cast<int>(random() % 4);
            for (int edit = 0; edit < edits; ++edit) {
                std::size_t position = random() % mutated.size();
                switch (random() % 4) {
                case 0:
                    mutated[position] = static_cast<std::byte>(random());
                    break;
                case 1:
                    mutated[position] ^= static_cast<std::byte>(1u << (random() % 8));
                    break;
                case 2:
                    mutated.erase(mutated.begin() + static_cast<std::ptrdiff_t>(position));
                    break;
                default:
                    mutated.insert(mutated.begin() + static_cast<std::ptrdiff_t>(position),
                                   static_cast<std::byte>(random()));
                    break;
                }
                if (mutated.empty())
                    break;
            }
            auto result = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(mutated, format);
            if (result)
                ++decoded;
            else
                EXPECT_THAT(result.error().localizedDescription, HasSubstr("archive"));
        }
        // Mutations inside values (names, samples) leave a readable archive; most others do not.
        EXPECT_GT(decoded, 0u);
        EXPECT_LT(decoded, static_cast<std::size_t>(mutations));
    }
}

// Replaces values deep inside a valid archive with values of every other kind, so that each typed
// decoder meets each wrong kind. Every outcome must be an object or an error that the archive code
// wrote itself, never an exception of the JSON library passed through.
TEST(KeyedArchiver, StructurallyMutatedArchivesGiveAnObjectOrAClearError) {
    auto archive = KeyedArchiver::archivedDataWithRootObject(fullyPopulated());
    std::vector<std::uint8_t> raw(archive.size());
    std::memcpy(raw.data(), archive.data(), archive.size());
    const json original = json::from_cbor(raw);

    const std::vector<json> replacements = {
        nullptr,
        true,
        -1,
        std::numeric_limits<std::uint64_t>::max(),
        std::numeric_limits<std::int64_t>::min(),
        1e300,
        std::nan(""),
        -std::numeric_limits<double>::infinity(),
        "text",
        json::binary({1, 2, 3}),
        json::array(),
        json::array({1, "x", nullptr}),
        json::object(),
        {{"$class", "Span"}},
        {{"$class", 7}},
        {{"$class", "Date"}},
        {{"$class", "Date"}, {"$time", "noon"}},
        {{"$class", "Color"}, {"$rgba", {1, 2, 3, "4"}}},
        {{"$class", "IndexSet"}, {"$indexes", {1.5}}},
        {{"$class", "FloatVector"}, {"$floats", json::binary({1, 2, 3, 4, 5})}},
        {{"$class", "FloatVector"}, {"$floats", "AAAA"}},
        {{"$class", "Dictionary"}, {"$entries", json::array()}},
        {{"$class", "Dictionary"}, {"$entries", {{"k", {{"$class", "Span"}}}}}},
        {{"$class", "Span"}, {"$values", "not a list"}},
    };

    // Every location in the tree, as a JSON pointer.
    std::vector<json::json_pointer> locations;
    std::function<void(const json&, const json::json_pointer&)> collect = [&](const json& node,
                                                                              const json::json_pointer& at) {
        locations.push_back(at);
        if (node.is_object()) {
            for (const auto& [key, child] : node.items())
                collect(child, at / key);
        } else if (node.is_array()) {
            for (std::size_t i = 0; i < node.size(); ++i)
                collect(node[i], at / i);
        }
    };
    collect(original, json::json_pointer());
    ASSERT_GT(locations.size(), 60u);

    std::mt19937 random(77);
    std::size_t decoded = 0, refused = 0;
    for (int round = 0; round < 3000; ++round) {
        json mutated = original;
        int edits = 1 + static_cast<int>(random() % 3);
        for (int edit = 0; edit < edits; ++edit) {
            const auto& at = locations[random() % locations.size()];
            if (!mutated.contains(at))
                continue;
            if (random() % 5 == 0 && !at.empty() && mutated[at.parent_pointer()].is_object())
                mutated[at.parent_pointer()].erase(at.back());
            else
                mutated[at] = replacements[random() % replacements.size()];
        }
        auto bytes = bytesOf(json::to_cbor(mutated));
        auto result = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(bytes);
        if (result) {
            ++decoded;
            continue;
        }
        ++refused;
        const std::string& description = result.error().localizedDescription;
        EXPECT_EQ(description.find("json.exception"), std::string::npos) << description;
        EXPECT_TRUE(description.starts_with("The archive ") || description.starts_with("The data is not"))
            << description;
        EXPECT_TRUE(description.ends_with(".")) << description;
    }
    EXPECT_GT(decoded, 0u);
    EXPECT_GT(refused, 1000u);
}

} // namespace
} // namespace tavolar

#include "platform/Assertions.h"
#include "platform/KeyedArchiver.h"

#include <cmath>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

namespace tavolar {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

std::vector<std::byte> bytesOf(std::string_view text) {
    const auto* first = reinterpret_cast<const std::byte*>(text.data());
    return {first, first + text.size()};
}

std::vector<std::byte> bytesOf(const std::vector<std::uint8_t>& bytes) {
    return bytesOf(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

json treeOf(std::span<const std::byte> cbor) {
    const auto* first = reinterpret_cast<const std::uint8_t*>(cbor.data());
    return json::from_cbor(first, first + cbor.size());
}

// An archive built by hand from the documented structure, independent of the archiver.
std::vector<std::byte> handBuiltArchive(const json& root, std::int64_t version = 1) {
    return bytesOf(
        json::to_cbor({{"$archiver", "TavolarKeyedArchive"}, {"$version", version}, {"$top", root}}));
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
    bool operator==(const Everything&) const = default;

    void encodeWithCoder(KeyedArchiver& coder) const {
        coder.encodeBool(flag, "flag");
        coder.encodeInt32(small, "small");
        coder.encodeInt64(large, "large");
        coder.encodeUInt64(unsignedLarge, "unsignedLarge");
        coder.encodeFloat(single, "single");
        coder.encodeDouble(precise, "precise");
        // Every value is present when an Everything is written.
        coder.encodeString(*name, "name");
        coder.encodeNumber(*number, "number");
        coder.encodeData(*data, "data");
        coder.encodeFloatVector(*samples, "samples");
        coder.encodeDate(*date, "date");
        coder.encodeColor(*color, "color");
        coder.encodeIndexSet(*channels, "channels");
        coder.encodeStringArray(*names, "names");
        coder.encodeStringDictionary(*labels, "labels");
        coder.encodeDictionary(*adjustments, "adjustments");
        coder.encodeObject(*window, "window");
        coder.encodeObjectArray(std::span<const Span>(*windows), "windows");
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

// Reads what is stored under the keys of an Everything archive instead of decoding it.
struct Probe {
    static constexpr std::string_view className = "Probe";
    std::vector<std::string> kinds;
    bool containsNull = false, containsMissing = true;
    void encodeWithCoder(KeyedArchiver&) const {}
    static Probe initWithCoder(KeyedUnarchiver& coder) {
        Probe probe;
        for (const char* key : {"flag", "nothing", "name", "number", "data", "samples", "date", "color",
                                "channels", "names", "labels", "window", "missing"})
            probe.kinds.push_back(coder.classNameForKey(key).value_or("absent"));
        probe.containsNull = coder.containsValueForKey("nothing");
        probe.containsMissing = coder.containsValueForKey("missing");
        return probe;
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
    using Float = std::numeric_limits<float>;
    e.samples =
        std::vector<float>{0.0f, -0.0f, 1.0f, -1.5f, Float::denorm_min(), Float::max(), Float::infinity()};
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

template <typename T = Everything>
std::string errorOf(std::span<const std::byte> data, ArchiveFormat format = ArchiveFormat::CBOR) {
    auto result = KeyedUnarchiver::unarchivedObjectOfClass<T>(data, format);
    return result ? std::string("decoded") : result.error().localizedDescription;
}

TEST(KeyedArchiver, EveryKindOfValueRoundTripsThroughCBORAndJSON) {
    const Everything original = fullyPopulated();
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        SCOPED_TRACE(format == ArchiveFormat::CBOR ? "CBOR" : "JSON");
        auto archive = KeyedArchiver::archivedDataWithRootObject(original, format);
        auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(archive, format);
        ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
        EXPECT_TRUE(*decoded == original);
        // Bit for bit, which tells the zeros' signs apart.
        EXPECT_EQ(std::memcmp(decoded->samples->data(), original.samples->data(), 7 * sizeof(float)), 0);
    }
    // The two forms are not interchangeable.
    EXPECT_NE(errorOf(KeyedArchiver::archivedDataWithRootObject(original), ArchiveFormat::JSON), "decoded");
}

TEST(KeyedArchiver, WritesTheDocumentedStructure) {
    EXPECT_EQ(
        treeOf(KeyedArchiver::archivedDataWithRootObject(Span{1, 2, 3, false})),
        (json{{"$archiver", "TavolarKeyedArchive"},
              {"$version", 1},
              {"$top", {{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 1}, {"End", 2}, {"Type", 3}}}}));

    // Floats as little-endian bytes, raw data as a byte string; base64 in the JSON form.
    KeyedArchiver archiver("Everything");
    archiver.encodeFloatVector(std::vector<float>{1.0f, -2.0f}, "samples");
    archiver.encodeData(std::vector<std::byte>{std::byte{0xDE}, std::byte{0xAD}}, "data");
    archiver.encodeNull("name");
    auto cbor = archiver.finish(ArchiveFormat::CBOR);
    json top = treeOf(cbor)["$top"];
    EXPECT_EQ(top["samples"]["$class"], "FloatVector");
    EXPECT_EQ(top["samples"]["$floats"].get_binary(),
              (std::vector<std::uint8_t>{0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0x00, 0xC0}));
    EXPECT_EQ(top["data"].get_binary(), (std::vector<std::uint8_t>{0xDE, 0xAD}));
    EXPECT_TRUE(top["name"].is_null());

    auto text = archiver.finish(ArchiveFormat::JSON);
    json readable = json::parse(std::string(reinterpret_cast<const char*>(text.data()), text.size()));
    EXPECT_EQ(readable["$top"]["samples"]["$floats"], (json{{"$data", "AACAPwAAAMA="}}));
    EXPECT_EQ(readable["$top"]["data"], (json{{"$data", "3q0="}}));
    auto description = KeyedUnarchiver::jsonDescription(cbor);
    ASSERT_TRUE(description);
    EXPECT_EQ(json::parse(*description), readable);
}

TEST(KeyedArchiver, NumbersConvertAsBoxedNumbersAndMissingKeysDecodeAsNothing) {
    json root = {{"$class", "Everything"}, {"flag", 1},      {"small", 2.75}, {"large", false}, {"single", 3},
                 {"number", true},         {"name", nullptr}};
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<Everything>(handBuiltArchive(root));
    ASSERT_TRUE(decoded) << decoded.error().localizedDescription;
    // Fractions are truncated toward zero; booleans count as 0 and 1.
    EXPECT_TRUE(decoded->flag);
    EXPECT_EQ(decoded->small, 2);
    EXPECT_EQ(decoded->large, 0);
    EXPECT_EQ(decoded->single, 3.0f);
    EXPECT_EQ(decoded->number, 1.0);
    // Missing and null keys decode as zero, false and nothing, without an error.
    EXPECT_EQ(decoded->unsignedLarge, 0u);
    EXPECT_EQ(decoded->precise, 0.0);
    EXPECT_FALSE(decoded->name || decoded->data || decoded->window || decoded->windows);

    // Values inside the 32-bit range survive a 64-bit write and a 32-bit read, up to the last fraction.
    for (json end : {json(0), json(-1), json(INT32_MIN), json(INT32_MAX), json(2147483647.9)}) {
        json span = {{"$class", "Span"}, {"Version", "2.0"}, {"Begin", INT32_MIN}, {"End", end}};
        auto read = KeyedUnarchiver::unarchivedObjectOfClass<Span>(handBuiltArchive(span));
        ASSERT_TRUE(read) << end;
        EXPECT_EQ(read->end, static_cast<std::int64_t>(end.get<double>())) << end;
    }
    auto largest = KeyedUnarchiver::unarchivedObjectOfClass<Span>(
        handBuiltArchive({{"$class", "Span"}, {"$values", {0, 4294967295LL, 1}}}));
    ASSERT_TRUE(largest);
    EXPECT_EQ(*largest, (Span{0, 4294967295LL, 0, true})); // the type counted from 1

    // What is stored under each key, as the class reading it sees it.
    json stored = treeOf(KeyedArchiver::archivedDataWithRootObject(fullyPopulated()))["$top"];
    stored["$class"] = "Probe";
    stored["nothing"] = nullptr;
    auto probe = KeyedUnarchiver::unarchivedObjectOfClass<Probe>(handBuiltArchive(stored));
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->kinds,
              (std::vector<std::string>{"Number", "Null", "String", "Number", "Data", "FloatVector", "Date",
                                        "Color", "IndexSet", "Array", "Dictionary", "Span", "absent"}));
    EXPECT_TRUE(probe->containsNull);
    EXPECT_FALSE(probe->containsMissing);
}

TEST(KeyedArchiver, DecodingErrorsSayWhatIsStoredWhatWasExpectedAndWhere) {
    auto everything = [](json members) {
        members["$class"] = "Everything";
        return members;
    };
    auto span = [](json end) {
        return json{{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 0}, {"End", end}};
    };
    auto oldSpan = [](json values) { return json{{"$class", "Span"}, {"$values", std::move(values)}}; };
    auto doesNotFit = [](std::string value) {
        return "The archive holds the value " + value +
               " where a 32-bit integer was expected; it does not fit (“End” in Span).";
    };
    // A full sentence is the whole message; a fragment is looked for in it.
    const std::pair<json, std::string> cases[] = {
        {everything({{"small", "12"}}),
         "The archive holds a string where a 32-bit integer was expected (“small” in Everything)."},
        {everything({{"name", 12}}), "an integer where a string was expected (“name” in"},
        {everything({{"data", "abc"}}), "a string where raw data was expected (“data” in"},
        {everything({{"samples", json::binary({0, 0, 128, 63})}}), "raw data where a float vector was"},
        {everything({{"samples", {{"$class", "FloatVector"}, {"$floats", json::binary({1, 2, 3})}}}}),
         "The archive is damaged: a float vector holds 3 bytes"},
        {everything({{"date", 5}}), "an integer where a date was expected (“date” in"},
        {everything({{"color", {{"$class", "Color"}, {"$rgba", {1, 2, 3}}}}}), "a colour where a colour was"},
        {everything({{"channels", {{"$class", "IndexSet"}, {"$indexes", {1, -2}}}}}),
         "an index set holds an integer"},
        {everything({{"names", {"a", 1}}}), "an integer where a string in an array was expected"},
        {everything({{"labels", {{"$class", "Dictionary"}, {"$entries", {{"a", 1}}}}}}),
         "an integer where a string in a dictionary was expected (“labels” in"},
        {everything(
             {{"adjustments", {{"$class", "Dictionary"}, {"$entries", {{"a", {{"$class", "Span"}}}}}}}}),
         "class “Span” where a plain value was expected in a dictionary"},
        {everything({{"flag", {1}}}), "an array where a boolean was expected (“flag” in"},
        {everything({{"single", 1e300}}), "where a float was expected"},
        {everything({{"unsignedLarge", -1}}), "The archive holds the value -1 where an unsigned 64-bit "
                                              "integer was expected; it does not fit (“unsignedLarge” in "
                                              "Everything)."},
        // Several faults: the first one encountered is reported.
        {everything({{"flag", "yes"}, {"small", "no"}}), "(“flag” in Everything)"},
        // Secure decoding: every nested object's class is checked.
        {everything({{"window", {{"$class", "Link"}}}}),
         "holds an object of class “Link” where an object of class “Span” was expected (“window” in"},
        {everything({{"windows", {{{"$class", "Span"}}, {{"$class", "Date"}, {"$time", 0}}}}}),
         "holds a date where an object of class “Span”"},
        {everything(
             {{"namedWindows", {{"$class", "Dictionary"}, {"$entries", {{"x", {{"$class", "Link"}}}}}}}}),
         "holds an object of class “Link” where an object of class “Span”"},
        {everything({{"window", {{"Begin", 1}}}}), "holds an object without a class"},
        // 32-bit decoding refuses what does not fit, and the unsigned decoders refuse negative values.
        {span(std::int64_t{INT32_MAX} + 1), doesNotFit("2147483648")},
        {span(std::int64_t{INT32_MIN} - 1), doesNotFit("-2147483649")},
        {span(2147483648.0), doesNotFit("2147483648")},
        {span(std::nan("")), "it does not fit"},
        {oldSpan({-1, 2, 1}), "The archive holds the value -1 where an unsigned 32-bit integer was expected"},
        {oldSpan({0, 4294967296LL, 1}), "it does not fit"},
        {oldSpan({0, 10}), "The archive is damaged: Span holds fewer values than are read from it."},
        // An exception of the class (begin > end fails its precondition) becomes a decoding error.
        {{{"$class", "Span"}, {"Version", "2.0"}, {"Begin", 5}, {"End", 1}},
         "The archive is damaged: Invalid parameter not satisfying: span.begin <= span.end."},
    };
    for (const auto& [root, expected] : cases) {
        SCOPED_TRACE(root.dump());
        const auto archive = handBuiltArchive(root);
        const std::string error = root["$class"] == "Span" ? errorOf<Span>(archive) : errorOf(archive);
        if (expected.ends_with('.'))
            EXPECT_EQ(error, expected);
        else
            EXPECT_THAT(error, HasSubstr(expected));
    }

    EXPECT_EQ(
        errorOf(KeyedArchiver::archivedDataWithRootObject(Span{1, 2, 3, false})),
        "The archive holds an object of class “Span” where an object of class “Everything” was expected.");
}

TEST(KeyedArchiver, ForeignEmptyNewerMalformedAndDeeplyNestedDataAreRefused) {
    auto valid = handBuiltArchive({{"$class", "Span"}});
    auto trailing = valid;
    trailing.push_back(std::byte{0});
    const std::string notOurs = "The data is not a keyed archive of this application.";
    const std::tuple<std::vector<std::byte>, ArchiveFormat, std::string> cases[] = {
        {{}, ArchiveFormat::CBOR, "The archive is damaged: it is empty."},
        {bytesOf(json::to_cbor(json{{"$class", "Span"}})), ArchiveFormat::CBOR, notOurs},
        {bytesOf(json::to_cbor(json::array({1, 2}))), ArchiveFormat::CBOR, notOurs},
        {handBuiltArchive({{"$class", "Span"}}, 2), ArchiveFormat::CBOR,
         "The archive has a format version this application cannot read: 2."},
        {handBuiltArchive({{"$class", "Span"}}, 0), ArchiveFormat::CBOR,
         "The archive has a format version this application cannot read: 0."},
        {handBuiltArchive(json::array()), ArchiveFormat::CBOR,
         "The archive is damaged: it holds no root object."},
        {bytesOf("not an archive at all"), ArchiveFormat::CBOR, "The archive is damaged: it cannot be read"},
        {bytesOf("{\"$archiver\": "), ArchiveFormat::CBOR, "The archive is damaged: it cannot be read"},
        {bytesOf("{\"a\": 1, \"a\": 2}"), ArchiveFormat::JSON, "the key “a” appears twice in one object"},
        {trailing, ArchiveFormat::CBOR, "The archive is damaged"},
        // A byte string that claims 2^63 bytes, a tag, and an array claiming 2^32 elements.
        {bytesOf(std::vector<std::uint8_t>{0x5B, 0x80, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3}), ArchiveFormat::CBOR,
         "damaged"},
        {bytesOf(std::vector<std::uint8_t>{0xC1, 0x00}), ArchiveFormat::CBOR, "damaged"},
        {bytesOf(std::vector<std::uint8_t>{0x9B, 0, 0, 0, 1, 0, 0, 0, 0, 0x00}), ArchiveFormat::CBOR,
         "damaged"},
        {bytesOf(
             R"({"$archiver":"TavolarKeyedArchive","$version":1,"$top":{"$class":"Span","x":{"$data":"A=BC"}}})"),
         ArchiveFormat::JSON, "The archive is damaged: raw data is not valid base64."},
        // Nested arrays far beyond any archive, in CBOR and JSON.
        {bytesOf(std::string(200000, '\x81') + '\0'), ArchiveFormat::CBOR,
         "The archive is damaged: it nests values too deeply."},
        {bytesOf(std::string(200000, '[')), ArchiveFormat::JSON,
         "The archive is damaged: it nests values too deeply."},
    };
    for (const auto& [data, format, expected] : cases) {
        SCOPED_TRACE(expected);
        const std::string error = errorOf<Span>(data, format);
        if (expected.ends_with('.'))
            EXPECT_EQ(error, expected);
        else
            EXPECT_THAT(error, HasSubstr(expected));
    }
    EXPECT_FALSE(KeyedUnarchiver::jsonDescription(bytesOf("\xA0")));

    // Objects nested deeper than the decoder follows, though within what the parser accepts.
    auto chain = [](int length) {
        Link head;
        for (int i = 0; i < length; ++i)
            head = Link{std::make_shared<Link>(std::move(head))};
        return KeyedArchiver::archivedDataWithRootObject(head);
    };
    EXPECT_TRUE(KeyedUnarchiver::unarchivedObjectOfClass<Link>(chain(60)));
    EXPECT_EQ(errorOf<Link>(chain(100)), "The archive is damaged: the archive nests objects too deeply.");
}

} // namespace
} // namespace tavolar

#include "platform/KeyedArchiver.h"

#include "platform/Assertions.h"
#include "platform/Base64.h"
#include "platform/TavolarLocalizedString.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <utility>

namespace tavolar {

using nlohmann::json;

// The archive's structure. Every object is a map holding its class under "$class" and its keyed
// values under their own keys; the unkeyed form keeps its values in order under "$values". Values
// that plain CBOR cannot tell apart are maps with a reserved class: dates, colours, index sets, float
// vectors and dictionaries. The whole archive is a map with a format marker and version around the
// root object, so that CBOR written by anything else is refused.
namespace {

constexpr std::string_view kClassKey = "$class";
constexpr std::string_view kValuesKey = "$values";
constexpr std::string_view kArchiverKey = "$archiver";
constexpr std::string_view kVersionKey = "$version";
constexpr std::string_view kTopKey = "$top";
constexpr std::string_view kArchiverName = "TavolarKeyedArchive";
constexpr std::int64_t kArchiveVersion = 1;

constexpr std::string_view kDateClass = "Date";
constexpr std::string_view kColorClass = "Color";
constexpr std::string_view kIndexSetClass = "IndexSet";
constexpr std::string_view kFloatVectorClass = "FloatVector";
constexpr std::string_view kDictionaryClass = "Dictionary";
constexpr std::string_view kTimeKey = "$time";
constexpr std::string_view kComponentsKey = "$rgba";
constexpr std::string_view kIndexesKey = "$indexes";
constexpr std::string_view kFloatsKey = "$floats";
constexpr std::string_view kEntriesKey = "$entries";
// Raw data in the JSON form, where there are no byte strings: {"$data": "<base64>"}.
constexpr std::string_view kDataKey = "$data";

// Limits on what the parser accepts, so that hostile input cannot exhaust the stack or memory:
// archives nest objects a few levels deep and hold few values; bulk data is in byte strings.
constexpr std::size_t kMaximumArchiveSize = std::size_t{1} << 30;
constexpr std::size_t kMaximumParseDepth = 256;
constexpr std::size_t kMaximumValueCount = std::size_t{1} << 22;

std::string text(std::string_view value) {
    return std::string(value);
}

const std::string* classOf(const json& value) {
    if (!value.is_object())
        return nullptr;
    auto found = value.find(kClassKey);
    if (found == value.end() || !found->is_string())
        return nullptr;
    return found->get_ptr<const std::string*>();
}

bool isOfClass(const json& value, std::string_view className) {
    const std::string* name = classOf(value);
    return name && *name == className;
}

const json* member(const json& object, std::string_view key) {
    if (!object.is_object())
        return nullptr;
    auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

// What a stored value is, with its article, for messages: "a string", "an object of class “X”".
std::string describe(const json& value) {
    switch (value.type()) {
    case json::value_t::null:
        return "null";
    case json::value_t::boolean:
        return "a boolean";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
        return "an integer";
    case json::value_t::number_float:
        return "a number";
    case json::value_t::string:
        return "a string";
    case json::value_t::binary:
        return "raw data";
    case json::value_t::array:
        return "an array";
    case json::value_t::object: {
        const std::string* name = classOf(value);
        if (!name)
            return "an object without a class";
        if (*name == kDateClass)
            return "a date";
        if (*name == kColorClass)
            return "a colour";
        if (*name == kIndexSetClass)
            return "an index set";
        if (*name == kFloatVectorClass)
            return "a float vector";
        if (*name == kDictionaryClass)
            return "a dictionary";
        return fmt::format("an object of class “{}”", *name);
    }
    default:
        return "an unknown value";
    }
}

std::string kindName(const json& value) {
    switch (value.type()) {
    case json::value_t::null:
        return "Null";
    case json::value_t::boolean:
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
        return "Number";
    case json::value_t::string:
        return "String";
    case json::value_t::binary:
        return "Data";
    case json::value_t::array:
        return "Array";
    default: {
        const std::string* name = classOf(value);
        return name ? *name : "Object";
    }
    }
}

std::string theArchiveIsDamaged(std::string_view what) {
    return fmt::format("{} {}", TavolarLocalizedString("The archive is damaged:", "keyed archive error"),
                       what);
}

TavolarError archiveError(std::string description) {
    return TavolarError::make(
        std::move(description),
        TavolarLocalizedString("The file may be incomplete, damaged or written by a newer "
                               "version of the application.",
                               "keyed archive error recovery"));
}

void assertKey(std::string_view key) {
    TAVOLAR_PARAMETER_ASSERT(!key.empty() && key.front() != '$');
}

bool isReservedClass(std::string_view name) {
    return name == kDateClass || name == kColorClass || name == kIndexSetClass || name == kFloatVectorClass ||
           name == kDictionaryClass;
}

json::binary_t bytesOf(std::span<const std::byte> value) {
    json::binary_t bytes;
    bytes.resize(value.size());
    if (!value.empty())
        std::memcpy(bytes.data(), value.data(), value.size());
    return bytes;
}

json classNode(std::string_view className) {
    json node = json::object();
    node[text(kClassKey)] = text(className);
    return node;
}

// A plain value (from a JSON document the caller built) as an archive value: objects become
// dictionaries so that they cannot be taken for archived objects.
json plainToNode(const json& value) {
    if (value.is_object()) {
        json entries = json::object();
        for (const auto& [name, entry] : value.items())
            entries[name] = plainToNode(entry);
        json node = classNode(kDictionaryClass);
        node[text(kEntriesKey)] = std::move(entries);
        return node;
    }
    if (value.is_array()) {
        json array = json::array();
        for (const json& entry : value)
            array.push_back(plainToNode(entry));
        return array;
    }
    TAVOLAR_ASSERT(!value.is_discarded(), "A discarded JSON value cannot be archived");
    return value;
}

// The reverse of plainToNode; nullopt (with a description of the problem) when the archive holds
// something other than plain values. Recursion is bounded by the parser's depth limit.
std::optional<json> nodeToPlain(const json& value, std::string& problem) {
    if (value.is_array()) {
        json array = json::array();
        for (const json& entry : value) {
            auto plain = nodeToPlain(entry, problem);
            if (!plain)
                return std::nullopt;
            array.push_back(std::move(*plain));
        }
        return array;
    }
    if (value.is_object()) {
        const json* entries = member(value, kEntriesKey);
        if (!isOfClass(value, kDictionaryClass) || !entries || !entries->is_object()) {
            problem = fmt::format("{} where a plain value was expected", describe(value));
            return std::nullopt;
        }
        json object = json::object();
        for (const auto& [name, entry] : entries->items()) {
            auto plain = nodeToPlain(entry, problem);
            if (!plain)
                return std::nullopt;
            object[name] = std::move(*plain);
        }
        return object;
    }
    return value;
}

// ---- Base64, for raw data in the JSON form.

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view encoded) {
    if (encoded.size() % 4 != 0)
        return std::nullopt;
    auto digitValue = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        if (c == '+')
            return 62;
        if (c == '/')
            return 63;
        return -1;
    };
    std::vector<std::uint8_t> bytes;
    bytes.reserve(encoded.size() / 4 * 3);
    for (std::size_t i = 0; i < encoded.size(); i += 4) {
        bool last = i + 4 == encoded.size();
        int padding = 0;
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            char c = encoded[i + j];
            int digit = digitValue(c);
            if (c == '=' && last && j >= 2) {
                ++padding;
                digit = 0;
            } else if (digit < 0 || padding > 0) {
                return std::nullopt;
            }
            group = (group << 6) | static_cast<std::uint32_t>(digit);
        }
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        if (padding < 2)
            bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        if (padding < 1)
            bytes.push_back(static_cast<std::uint8_t>(group));
    }
    return bytes;
}

// Byte strings become {"$data": base64} for the JSON form, and back. Keys of a dictionary's entries
// are the caller's, so only values are looked at.
void binaryToTagged(json& value) {
    if (value.is_binary()) {
        json tagged = json::object();
        tagged[text(kDataKey)] = base64Encode(value.get_binary());
        value = std::move(tagged);
    } else if (value.is_structured()) {
        for (json& entry : value)
            binaryToTagged(entry);
    }
}

bool taggedToBinary(json& value, std::string& problem) {
    if (value.is_object()) {
        if (isOfClass(value, kDictionaryClass)) {
            for (auto& [name, member] : value.items()) {
                if (name == kEntriesKey && member.is_object()) {
                    for (json& entry : member) {
                        if (!taggedToBinary(entry, problem))
                            return false;
                    }
                } else if (!taggedToBinary(member, problem)) {
                    return false;
                }
            }
            return true;
        }
        if (value.size() == 1 && value.contains(kDataKey)) {
            const json& encoded = value[text(kDataKey)];
            std::optional<std::vector<std::uint8_t>> bytes;
            if (encoded.is_string())
                bytes = base64Decode(encoded.get_ref<const std::string&>());
            if (!bytes) {
                problem = "raw data is not valid base64";
                return false;
            }
            value = json::binary(std::move(*bytes));
            return true;
        }
    }
    if (value.is_structured()) {
        for (json& entry : value) {
            if (!taggedToBinary(entry, problem))
                return false;
        }
    }
    return true;
}

// Builds the value tree from parser events, refusing input that nests too deeply, holds too many
// values or repeats a key. A SAX consumer, because the ready-made tree builder of the JSON library
// follows the input's nesting without limit.
class BoundedTreeBuilder final : public nlohmann::json_sax<json> {
public:
    json root;
    std::string problem;

    bool null() override { return add(json(nullptr)); }
    bool boolean(bool value) override { return add(json(value)); }
    bool number_integer(number_integer_t value) override { return add(json(value)); }
    bool number_unsigned(number_unsigned_t value) override { return add(json(value)); }
    bool number_float(number_float_t value, const string_t&) override { return add(json(value)); }
    bool string(string_t& value) override { return add(json(std::move(value))); }
    bool binary(binary_t& value) override {
        return add(json::binary(std::move(static_cast<binary_t::container_type&>(value))));
    }
    bool start_object(std::size_t) override { return open(json::object()); }
    bool key(string_t& value) override {
        json& object = *stack_.back();
        if (object.contains(value))
            return fail(fmt::format("the key “{}” appears twice in one object", value));
        slot_ = &object[value];
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& error) override {
        if (problem.empty())
            problem = fmt::format("it cannot be read at byte {} ({})", position, error.what());
        return false;
    }

private:
    bool fail(std::string description) {
        if (problem.empty())
            problem = std::move(description);
        return false;
    }
    json* place(json&& value) {
        if (++count_ > kMaximumValueCount) {
            fail("it holds too many values");
            return nullptr;
        }
        if (stack_.empty()) {
            root = std::move(value);
            return &root;
        }
        json& parent = *stack_.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        *slot_ = std::move(value);
        return slot_;
    }
    bool add(json&& value) { return place(std::move(value)) != nullptr; }
    bool open(json&& container) {
        if (stack_.size() >= kMaximumParseDepth)
            return fail("it nests values too deeply");
        json* placed = place(std::move(container));
        if (!placed)
            return false;
        stack_.push_back(placed);
        return true;
    }
    bool close() {
        stack_.pop_back();
        return true;
    }

    std::vector<json*> stack_;
    json* slot_ = nullptr;
    std::size_t count_ = 0;
};

Expected<json> parseTree(std::span<const std::byte> data, ArchiveFormat format) {
    if (data.empty())
        return std::unexpected(archiveError(theArchiveIsDamaged("it is empty.")));
    if (data.size() > kMaximumArchiveSize)
        return std::unexpected(archiveError(theArchiveIsDamaged("it is larger than any archive can be.")));
    const auto* first = reinterpret_cast<const std::uint8_t*>(data.data());
    BoundedTreeBuilder builder;
    bool parsed = false;
    try {
        parsed = json::sax_parse(first, first + data.size(), &builder,
                                 format == ArchiveFormat::CBOR ? json::input_format_t::cbor
                                                               : json::input_format_t::json);
    } catch (const std::exception& exception) {
        builder.problem = fmt::format("it cannot be read ({})", exception.what());
    }
    if (!parsed) {
        if (builder.problem.empty())
            builder.problem = "it cannot be read";
        return std::unexpected(archiveError(theArchiveIsDamaged(builder.problem + ".")));
    }
    if (format == ArchiveFormat::JSON) {
        std::string problem;
        if (!taggedToBinary(builder.root, problem))
            return std::unexpected(archiveError(theArchiveIsDamaged(problem + ".")));
    }
    return std::move(builder.root);
}

// Checks the format marker and version and answers the root object.
Expected<json> openEnvelope(json tree) {
    const json* marker = member(tree, kArchiverKey);
    if (!marker || !marker->is_string() || marker->get_ref<const std::string&>() != kArchiverName)
        return std::unexpected(archiveError(TavolarLocalizedString(
            "The data is not a keyed archive of this application.", "keyed archive error")));
    const json* version = member(tree, kVersionKey);
    if (!version || !version->is_number_integer())
        return std::unexpected(archiveError(theArchiveIsDamaged("its format version is missing.")));
    if (version->get<std::int64_t>() > kArchiveVersion || version->get<std::int64_t>() < 1)
        return std::unexpected(archiveError(fmt::format(
            "{} {}.",
            TavolarLocalizedString("The archive has a format version this application cannot read:"),
            version->dump())));
    json* top = nullptr;
    if (auto found = tree.find(kTopKey); found != tree.end())
        top = &*found;
    if (!top || !classOf(*top))
        return std::unexpected(archiveError(theArchiveIsDamaged("it holds no root object.")));
    return std::move(*top);
}

// Converts a stored number to an integer type. Booleans count as 0 and 1 and floating-point values
// are truncated toward zero, as boxed numbers convert; a value outside the type's range is an error.
template <typename Integer>
std::expected<Integer, std::string> integerFrom(const json& value, std::string_view expected) {
    auto doesNotFit = [&](const std::string& shown) {
        return std::unexpected(fmt::format(
            "The archive holds the value {} where {} was expected; it does not fit", shown, expected));
    };
    switch (value.type()) {
    case json::value_t::boolean:
        return static_cast<Integer>(value.get<bool>() ? 1 : 0);
    case json::value_t::number_integer: {
        auto stored = value.get<std::int64_t>();
        if (!std::in_range<Integer>(stored))
            return doesNotFit(std::to_string(stored));
        return static_cast<Integer>(stored);
    }
    case json::value_t::number_unsigned: {
        auto stored = value.get<std::uint64_t>();
        if (!std::in_range<Integer>(stored))
            return doesNotFit(std::to_string(stored));
        return static_cast<Integer>(stored);
    }
    case json::value_t::number_float: {
        double stored = value.get<double>();
        double upper = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
        double lower = std::numeric_limits<Integer>::is_signed ? -upper : 0.0;
        double truncated = std::trunc(stored);
        if (!std::isfinite(stored) || truncated < lower || truncated >= upper)
            return doesNotFit(fmt::format("{}", stored));
        return static_cast<Integer>(truncated);
    }
    default:
        return std::unexpected(
            fmt::format("The archive holds {} where {} was expected", describe(value), expected));
    }
}

std::expected<double, std::string> doubleFrom(const json& value, std::string_view expected) {
    switch (value.type()) {
    case json::value_t::boolean:
        return value.get<bool>() ? 1.0 : 0.0;
    case json::value_t::number_integer:
        return static_cast<double>(value.get<std::int64_t>());
    case json::value_t::number_unsigned:
        return static_cast<double>(value.get<std::uint64_t>());
    case json::value_t::number_float:
        return value.get<double>();
    default:
        return std::unexpected(
            fmt::format("The archive holds {} where {} was expected", describe(value), expected));
    }
}

template <typename Number> constexpr std::string_view numberDescription() {
    if constexpr (std::is_same_v<Number, bool>)
        return "a boolean";
    else if constexpr (std::is_same_v<Number, std::int32_t>)
        return "a 32-bit integer";
    else if constexpr (std::is_same_v<Number, std::uint32_t>)
        return "an unsigned 32-bit integer";
    else if constexpr (std::is_same_v<Number, std::int64_t>)
        return "a 64-bit integer";
    else if constexpr (std::is_same_v<Number, std::uint64_t>)
        return "an unsigned 64-bit integer";
    else if constexpr (std::is_same_v<Number, float>)
        return "a float";
    else
        return "a double";
}

// A stored number as Number, or the description of why it cannot be one.
template <typename Number> std::expected<Number, std::string> convertNumber(const json& value) {
    constexpr std::string_view expected = numberDescription<Number>();
    if constexpr (std::is_same_v<Number, bool>) {
        auto number = doubleFrom(value, expected);
        if (!number)
            return std::unexpected(number.error());
        return *number != 0.0;
    } else if constexpr (std::is_integral_v<Number>) {
        return integerFrom<Number>(value, expected);
    } else if constexpr (std::is_same_v<Number, float>) {
        auto number = doubleFrom(value, expected);
        if (!number)
            return std::unexpected(number.error());
        if (std::isfinite(*number) &&
            std::fabs(*number) > static_cast<double>(std::numeric_limits<float>::max()))
            return std::unexpected(fmt::format(
                "The archive holds the value {} where {} was expected; it does not fit", *number, expected));
        return static_cast<float>(*number);
    } else {
        return doubleFrom(value, expected);
    }
}

} // namespace

// ---- KeyedArchiver

KeyedArchiver::KeyedArchiver(std::string_view className) {
    TAVOLAR_PARAMETER_ASSERT(!className.empty() && className.front() != '$');
    TAVOLAR_PARAMETER_ASSERT(!isReservedClass(className));
    node_ = classNode(className);
}

void KeyedArchiver::put(std::string_view key, nlohmann::json value) {
    assertKey(key);
    node_[text(key)] = std::move(value);
}

void KeyedArchiver::appendUnkeyed(nlohmann::json value) {
    json& values = node_[text(kValuesKey)];
    if (!values.is_array())
        values = json::array();
    values.push_back(std::move(value));
}

nlohmann::json KeyedArchiver::dictionaryNode(nlohmann::json entries) {
    json node = classNode(kDictionaryClass);
    node[text(kEntriesKey)] = std::move(entries);
    return node;
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
    put(key, value);
}
void KeyedArchiver::encodeInt32(std::int32_t value, std::string_view key) {
    put(key, std::int64_t{value});
}
void KeyedArchiver::encodeInt64(std::int64_t value, std::string_view key) {
    put(key, value);
}
void KeyedArchiver::encodeUInt64(std::uint64_t value, std::string_view key) {
    put(key, value);
}
void KeyedArchiver::encodeFloat(float value, std::string_view key) {
    put(key, static_cast<double>(value));
}
void KeyedArchiver::encodeDouble(double value, std::string_view key) {
    put(key, value);
}
void KeyedArchiver::encodeString(std::string_view value, std::string_view key) {
    put(key, text(value));
}
void KeyedArchiver::encodeNumber(double value, std::string_view key) {
    put(key, value);
}
void KeyedArchiver::encodeData(std::span<const std::byte> value, std::string_view key) {
    put(key, json::binary(bytesOf(value)));
}

void KeyedArchiver::encodeFloatVector(std::span<const float> value, std::string_view key) {
    std::vector<std::uint8_t> bytes(value.size() * sizeof(float));
    for (std::size_t i = 0; i < value.size(); ++i) {
        auto bits = std::bit_cast<std::uint32_t>(value[i]);
        for (std::size_t j = 0; j < 4; ++j)
            bytes[4 * i + j] = static_cast<std::uint8_t>(bits >> (8 * j));
    }
    json node = classNode(kFloatVectorClass);
    node[text(kFloatsKey)] = json::binary(std::move(bytes));
    put(key, std::move(node));
}

void KeyedArchiver::encodeDate(ArchivedDate value, std::string_view key) {
    json node = classNode(kDateClass);
    node[text(kTimeKey)] = value.time_since_epoch().count();
    put(key, std::move(node));
}

void KeyedArchiver::encodeColor(const ArchivedColor& value, std::string_view key) {
    json node = classNode(kColorClass);
    node[text(kComponentsKey)] = json::array({value.red, value.green, value.blue, value.alpha});
    put(key, std::move(node));
}

void KeyedArchiver::encodeIndexSet(const IndexSet& value, std::string_view key) {
    json indexes = json::array();
    for (std::uint64_t index : value)
        indexes.push_back(index);
    json node = classNode(kIndexSetClass);
    node[text(kIndexesKey)] = std::move(indexes);
    put(key, std::move(node));
}

void KeyedArchiver::encodeStringArray(std::span<const std::string> value, std::string_view key) {
    json array = json::array();
    for (const std::string& entry : value)
        array.push_back(entry);
    put(key, std::move(array));
}

void KeyedArchiver::encodeStringDictionary(const std::map<std::string, std::string>& value,
                                           std::string_view key) {
    json entries = json::object();
    for (const auto& [name, entry] : value)
        entries[name] = entry;
    put(key, dictionaryNode(std::move(entries)));
}

void KeyedArchiver::encodeNull(std::string_view key) {
    put(key, nullptr);
}

void KeyedArchiver::encodeDictionary(const nlohmann::json& value, std::string_view key) {
    TAVOLAR_PARAMETER_ASSERT(value.is_object());
    put(key, plainToNode(value));
}

void KeyedArchiver::encodeUnkeyedUInt32(std::uint32_t value) {
    appendUnkeyed(std::uint64_t{value});
}

std::vector<std::byte> KeyedArchiver::finish(ArchiveFormat format) const {
    json archive = json::object();
    archive[text(kArchiverKey)] = text(kArchiverName);
    archive[text(kVersionKey)] = kArchiveVersion;
    archive[text(kTopKey)] = node_;
    std::vector<std::byte> result;
    if (format == ArchiveFormat::CBOR) {
        std::vector<std::uint8_t> bytes = json::to_cbor(archive);
        result.resize(bytes.size());
        if (!bytes.empty())
            std::memcpy(result.data(), bytes.data(), bytes.size());
    } else {
        binaryToTagged(archive);
        // Strings that are not valid UTF-8 (file names from old systems) are written with replacement
        // characters rather than refused: the JSON form is for reading.
        std::string written = archive.dump(2, ' ', false, json::error_handler_t::replace);
        written.push_back('\n');
        result.resize(written.size());
        std::memcpy(result.data(), written.data(), written.size());
    }
    return result;
}

// ---- KeyedUnarchiver

KeyedUnarchiver::KeyedUnarchiver(nlohmann::json node)
    : node_(std::move(node)), error_(std::make_shared<std::optional<TavolarError>>()) {}

KeyedUnarchiver::KeyedUnarchiver(nlohmann::json node, std::shared_ptr<std::optional<TavolarError>> error,
                                 int depth)
    : node_(std::move(node)), error_(std::move(error)), depth_(depth) {}

Expected<nlohmann::json> KeyedUnarchiver::parse(std::span<const std::byte> data, ArchiveFormat format) {
    auto tree = parseTree(data, format);
    if (!tree)
        return std::unexpected(tree.error());
    return openEnvelope(std::move(*tree));
}

Expected<std::string> KeyedUnarchiver::jsonDescription(std::span<const std::byte> data,
                                                       ArchiveFormat format) {
    auto tree = parseTree(data, format);
    if (!tree)
        return std::unexpected(tree.error());
    if (auto root = openEnvelope(*tree); !root)
        return std::unexpected(root.error());
    binaryToTagged(*tree);
    std::string written = tree->dump(2, ' ', false, json::error_handler_t::replace);
    // Keys that were not valid UTF-8 were sorted by their raw bytes but are written with replacement
    // characters; reading the text back sorts them as they are written, so that a description read
    // again describes itself.
    json readable = json::parse(written, nullptr, false);
    if (!readable.is_discarded())
        written = readable.dump(2, ' ', false, json::error_handler_t::replace);
    return written + "\n";
}

TavolarError KeyedUnarchiver::decodingError(std::string_view what) {
    std::string description = theArchiveIsDamaged(what);
    if (!description.ends_with('.'))
        description.push_back('.');
    return archiveError(std::move(description));
}

void KeyedUnarchiver::failWithError(TavolarError error) {
    if (!*error_)
        *error_ = std::move(error);
}

void KeyedUnarchiver::failForKey(std::string description, std::string_view key) {
    if (*error_)
        return;
    std::string owner = className();
    failWithError(
        archiveError(fmt::format("{} (“{}” in {}).", description, key, owner.empty() ? "?" : owner)));
}

void KeyedUnarchiver::failWithKind(const nlohmann::json& value, std::string_view expected,
                                   std::string_view key) {
    failForKey(fmt::format("The archive holds {} where {} was expected", describe(value), expected), key);
}

bool KeyedUnarchiver::checkClass(std::string_view expected, std::string_view key) {
    const std::string* name = classOf(node_);
    if (name && *name == expected)
        return true;
    failWithError(archiveError(fmt::format("The archive holds {} where an object of class “{}” was expected.",
                                           describe(node_), expected)));
    return false;
}

std::string KeyedUnarchiver::className() const {
    const std::string* name = classOf(node_);
    return name ? *name : std::string();
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
    assertKey(key);
    return member(node_, key) != nullptr;
}

std::optional<std::string> KeyedUnarchiver::classNameForKey(std::string_view key) const {
    assertKey(key);
    const json* value = member(node_, key);
    if (!value)
        return std::nullopt;
    return kindName(*value);
}

const nlohmann::json* KeyedUnarchiver::valueForKey(std::string_view key) const {
    assertKey(key);
    const json* value = member(node_, key);
    return value && !value->is_null() ? value : nullptr;
}

template <typename Number>
Number KeyedUnarchiver::decodeNumberValue(const nlohmann::json* value, std::string_view key) {
    if (!value)
        return Number{};
    auto converted = convertNumber<Number>(*value);
    if (!converted) {
        failForKey(std::move(converted.error()), key);
        return Number{};
    }
    return *converted;
}

bool KeyedUnarchiver::decodeBool(std::string_view key) {
    return decodeNumberValue<bool>(valueForKey(key), key);
}
std::int32_t KeyedUnarchiver::decodeInt32(std::string_view key) {
    return decodeNumberValue<std::int32_t>(valueForKey(key), key);
}
std::int64_t KeyedUnarchiver::decodeInt64(std::string_view key) {
    return decodeNumberValue<std::int64_t>(valueForKey(key), key);
}
std::uint64_t KeyedUnarchiver::decodeUInt64(std::string_view key) {
    return decodeNumberValue<std::uint64_t>(valueForKey(key), key);
}
float KeyedUnarchiver::decodeFloat(std::string_view key) {
    return decodeNumberValue<float>(valueForKey(key), key);
}
double KeyedUnarchiver::decodeDouble(std::string_view key) {
    return decodeNumberValue<double>(valueForKey(key), key);
}

std::optional<double> KeyedUnarchiver::decodeNumber(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    auto number = doubleFrom(*value, "a number");
    if (!number) {
        failForKey(std::move(number.error()), key);
        return std::nullopt;
    }
    return *number;
}

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    if (!value->is_string()) {
        failWithKind(*value, "a string", key);
        return std::nullopt;
    }
    return value->get<std::string>();
}

std::optional<std::vector<std::byte>> KeyedUnarchiver::decodeData(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    if (!value->is_binary()) {
        failWithKind(*value, "raw data", key);
        return std::nullopt;
    }
    const auto& bytes = value->get_binary();
    std::vector<std::byte> result(bytes.size());
    if (!bytes.empty())
        std::memcpy(result.data(), bytes.data(), bytes.size());
    return result;
}

std::optional<std::vector<float>> KeyedUnarchiver::decodeFloatVector(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    const json* floats = member(*value, kFloatsKey);
    if (!isOfClass(*value, kFloatVectorClass) || !floats || !floats->is_binary()) {
        failWithKind(*value, "a float vector", key);
        return std::nullopt;
    }
    const auto& bytes = floats->get_binary();
    if (bytes.size() % sizeof(float) != 0) {
        failForKey(theArchiveIsDamaged(fmt::format(
                       "a float vector holds {} bytes, not a whole number of floats", bytes.size())),
                   key);
        return std::nullopt;
    }
    std::vector<float> result(bytes.size() / sizeof(float));
    for (std::size_t i = 0; i < result.size(); ++i) {
        std::uint32_t bits = 0;
        for (std::size_t j = 0; j < 4; ++j)
            bits |= std::uint32_t{bytes[4 * i + j]} << (8 * j);
        result[i] = std::bit_cast<float>(bits);
    }
    return result;
}

std::optional<ArchivedDate> KeyedUnarchiver::decodeDate(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    const json* time = member(*value, kTimeKey);
    if (!isOfClass(*value, kDateClass) || !time || !time->is_number()) {
        failWithKind(*value, "a date", key);
        return std::nullopt;
    }
    return ArchivedDate(std::chrono::duration<double>(time->get<double>()));
}

std::optional<ArchivedColor> KeyedUnarchiver::decodeColor(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    const json* components = member(*value, kComponentsKey);
    bool wellFormed =
        isOfClass(*value, kColorClass) && components && components->is_array() && components->size() == 4;
    if (wellFormed) {
        for (const json& component : *components)
            wellFormed = wellFormed && component.is_number();
    }
    if (!wellFormed) {
        failWithKind(*value, "a colour", key);
        return std::nullopt;
    }
    return ArchivedColor{(*components)[0].get<double>(), (*components)[1].get<double>(),
                         (*components)[2].get<double>(), (*components)[3].get<double>()};
}

std::optional<IndexSet> KeyedUnarchiver::decodeIndexSet(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    const json* indexes = member(*value, kIndexesKey);
    if (!isOfClass(*value, kIndexSetClass) || !indexes || !indexes->is_array()) {
        failWithKind(*value, "an index set", key);
        return std::nullopt;
    }
    IndexSet result;
    for (const json& index : *indexes) {
        if (!index.is_number_unsigned()) {
            failForKey(theArchiveIsDamaged(fmt::format("an index set holds {}", describe(index))), key);
            return std::nullopt;
        }
        result.insert(index.get<std::uint64_t>());
    }
    return result;
}

std::optional<std::vector<std::string>> KeyedUnarchiver::decodeStringArray(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    if (!value->is_array()) {
        failWithKind(*value, "an array of strings", key);
        return std::nullopt;
    }
    std::vector<std::string> result;
    result.reserve(value->size());
    for (const json& entry : *value) {
        if (!entry.is_string()) {
            failWithKind(entry, "a string in an array", key);
            return std::nullopt;
        }
        result.push_back(entry.get<std::string>());
    }
    return result;
}

std::optional<std::map<std::string, std::string>>
KeyedUnarchiver::decodeStringDictionary(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    const json* entries = member(*value, kEntriesKey);
    if (!isOfClass(*value, kDictionaryClass) || !entries || !entries->is_object()) {
        failWithKind(*value, "a dictionary of strings", key);
        return std::nullopt;
    }
    std::map<std::string, std::string> result;
    for (const auto& [name, entry] : entries->items()) {
        if (!entry.is_string()) {
            failWithKind(entry, "a string in a dictionary", key);
            return std::nullopt;
        }
        result.emplace(name, entry.get<std::string>());
    }
    return result;
}

std::optional<nlohmann::json> KeyedUnarchiver::decodeDictionary(std::string_view key) {
    const json* value = valueForKey(key);
    if (!value)
        return std::nullopt;
    if (!isOfClass(*value, kDictionaryClass)) {
        failWithKind(*value, "a dictionary", key);
        return std::nullopt;
    }
    std::string problem;
    auto plain = nodeToPlain(*value, problem);
    if (!plain) {
        failForKey(fmt::format("The archive holds {} in a dictionary", problem), key);
        return std::nullopt;
    }
    return plain;
}

std::optional<nlohmann::json>
KeyedUnarchiver::childOfClass(const nlohmann::json& value, std::string_view className, std::string_view key) {
    const std::string* name = classOf(value);
    if (!name || *name != className || isReservedClass(*name)) {
        failWithKind(value, fmt::format("an object of class “{}”", className), key);
        return std::nullopt;
    }
    return value;
}

std::optional<nlohmann::json> KeyedUnarchiver::childForKey(std::string_view key, std::string_view className) {
    const json* value = valueForKey(key);
    if (!value || *error_)
        return std::nullopt;
    return childOfClass(*value, className, key);
}

std::optional<std::vector<nlohmann::json>> KeyedUnarchiver::childArrayForKey(std::string_view key,
                                                                             std::string_view className) {
    const json* value = valueForKey(key);
    if (!value || *error_)
        return std::nullopt;
    if (!value->is_array()) {
        failWithKind(*value, fmt::format("an array of objects of class “{}”", className), key);
        return std::nullopt;
    }
    std::vector<json> children;
    children.reserve(value->size());
    for (const json& entry : *value) {
        auto child = childOfClass(entry, className, key);
        if (!child)
            return std::nullopt;
        children.push_back(std::move(*child));
    }
    return children;
}

std::optional<std::map<std::string, nlohmann::json>>
KeyedUnarchiver::childDictionaryForKey(std::string_view key, std::string_view className) {
    const json* value = valueForKey(key);
    if (!value || *error_)
        return std::nullopt;
    const json* entries = member(*value, kEntriesKey);
    if (!isOfClass(*value, kDictionaryClass) || !entries || !entries->is_object()) {
        failWithKind(*value, fmt::format("a dictionary of objects of class “{}”", className), key);
        return std::nullopt;
    }
    std::map<std::string, json> children;
    for (const auto& [name, entry] : entries->items()) {
        auto child = childOfClass(entry, className, key);
        if (!child)
            return std::nullopt;
        children.emplace(name, std::move(*child));
    }
    return children;
}

const nlohmann::json* KeyedUnarchiver::nextUnkeyedValue() {
    const json* values = member(node_, kValuesKey);
    if (!values || !values->is_array() || unkeyedPosition_ >= values->size()) {
        if (!*error_)
            failWithError(archiveError(
                theArchiveIsDamaged(fmt::format("{} holds fewer values than are read from it.",
                                                className().empty() ? "an object" : className()))));
        ++unkeyedPosition_;
        return nullptr;
    }
    return &(*values)[unkeyedPosition_++];
}

namespace {
constexpr std::string_view kUnkeyedKey = "unkeyed value";
}

std::uint32_t KeyedUnarchiver::decodeNextUInt32() {
    return decodeNumberValue<std::uint32_t>(nextUnkeyedValue(), kUnkeyedKey);
}

} // namespace tavolar

#pragma once
// Keyed archiving: an object is written as a tree of keyed values under its class name, and read
// back with typed decoders. CBOR on disk, JSON for people to read. Decoding never trusts its
// input: any byte string yields an object or a TavolarError.
//
// A class takes part by providing
//     static constexpr std::string_view className = "VELTWindow";
//     void encodeWithCoder(KeyedArchiver& coder) const;
//     static T initWithCoder(KeyedUnarchiver& coder);      // may call coder.failWithError(...)
// Nested objects are written with encodeObject and read with decodeObjectOfClass, which checks the
// stored class name against the allowed one (secure decoding).
//
// Decoding rules: a missing key decodes as zero, false, an empty string or nullopt. A value of the
// wrong kind, or a 32-bit decode of a value outside the 32-bit range, is a decoding error: the
// decoder returns zero and the unarchiver keeps the first error, which the top-level call returns.
// Numbers convert between kinds as boxed numbers do: booleans count as 0 and 1, and a fraction read
// as an integer is truncated toward zero. Keys beginning with "$" belong to the archive's own
// structure (class names, unkeyed values, the format marker) and may not be used by classes.
//
// The oldest archives of some classes are unkeyed: values read in sequence. An object written with
// encodeUnkeyedUInt32 holds such a sequence, and decodeNextUInt32 reads it in order.

#include "platform/TavolarError.h"

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavolar {

class KeyedArchiver;
class KeyedUnarchiver;

template <typename T>
concept KeyedArchivable = requires(const T& object, KeyedArchiver& archiver, KeyedUnarchiver& unarchiver) {
    { T::className } -> std::convertible_to<std::string_view>;
    object.encodeWithCoder(archiver);
    { T::initWithCoder(unarchiver) } -> std::same_as<T>;
};

// A colour as the archive keeps it: RGBA components from 0 to 1.
struct ArchivedColor {
    double red = 0, green = 0, blue = 0, alpha = 1;
    bool operator==(const ArchivedColor&) const = default;
};

// A point in time, seconds since 1970-01-01 UTC.
using ArchivedDate = std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<double>>;

// A set of unsigned indices.
using IndexSet = std::set<std::uint64_t>;

enum class ArchiveFormat { CBOR, JSON };

class KeyedArchiver {
public:
    // Writes object as the root of a new archive.
    template <KeyedArchivable T>
    static std::vector<std::byte> archivedDataWithRootObject(const T& object,
                                                             ArchiveFormat format = ArchiveFormat::CBOR) {
        KeyedArchiver archiver(T::className);
        object.encodeWithCoder(archiver);
        return archiver.finish(format);
    }

    explicit KeyedArchiver(std::string_view className);

    void encodeBool(bool value, std::string_view key);
    void encodeInt32(std::int32_t value, std::string_view key);
    void encodeInt64(std::int64_t value, std::string_view key);
    void encodeUInt64(std::uint64_t value, std::string_view key);
    void encodeFloat(float value, std::string_view key);
    void encodeDouble(double value, std::string_view key);
    // A string object (class "String").
    void encodeString(std::string_view value, std::string_view key);
    // A number object (class "Number").
    void encodeNumber(double value, std::string_view key);
    void encodeData(std::span<const std::byte> value, std::string_view key);
    // Floats as little-endian bytes.
    void encodeFloatVector(std::span<const float> value, std::string_view key);
    void encodeDate(ArchivedDate value, std::string_view key);
    void encodeColor(const ArchivedColor& value, std::string_view key);
    void encodeIndexSet(const IndexSet& value, std::string_view key);
    void encodeStringArray(std::span<const std::string> value, std::string_view key);
    void encodeStringDictionary(const std::map<std::string, std::string>& value, std::string_view key);
    void encodeNull(std::string_view key);
    // A dictionary of plain values given as a JSON object (see KeyedUnarchiver::decodeDictionary).
    void encodeDictionary(const nlohmann::json& value, std::string_view key);

    template <KeyedArchivable T> void encodeObject(const T& object, std::string_view key) {
        KeyedArchiver child(T::className);
        object.encodeWithCoder(child);
        put(key, std::move(child.node_));
    }
    template <KeyedArchivable T> void encodeObjectArray(std::span<const T> objects, std::string_view key) {
        nlohmann::json array = nlohmann::json::array();
        for (const T& object : objects) {
            KeyedArchiver child(T::className);
            object.encodeWithCoder(child);
            array.push_back(std::move(child.node_));
        }
        put(key, std::move(array));
    }
    // Objects keyed by string.
    template <KeyedArchivable T>
    void encodeObjectDictionary(const std::map<std::string, T>& objects, std::string_view key) {
        nlohmann::json entries = nlohmann::json::object();
        for (const auto& [name, object] : objects) {
            KeyedArchiver child(T::className);
            object.encodeWithCoder(child);
            entries[name] = std::move(child.node_);
        }
        put(key, dictionaryNode(std::move(entries)));
    }

    // The oldest, unkeyed form: values appended in sequence.
    void encodeUnkeyedUInt32(std::uint32_t value);

    std::vector<std::byte> finish(ArchiveFormat format) const;

private:
    void put(std::string_view key, nlohmann::json value);
    void appendUnkeyed(nlohmann::json value);
    static nlohmann::json dictionaryNode(nlohmann::json entries);
    nlohmann::json node_;
};

class KeyedUnarchiver {
public:
    // Reads an archive whose root must be of class T. Any input gives a T or an error.
    template <KeyedArchivable T>
    static Expected<T> unarchivedObjectOfClass(std::span<const std::byte> data,
                                               ArchiveFormat format = ArchiveFormat::CBOR) {
        auto root = parse(data, format);
        if (!root)
            return std::unexpected(root.error());
        KeyedUnarchiver unarchiver(std::move(*root));
        if (!unarchiver.checkClass(T::className, "root"))
            return std::unexpected(*unarchiver.error());
        std::optional<T> object = unarchiver.decodeSafely<T>();
        if (unarchiver.error())
            return std::unexpected(*unarchiver.error());
        return std::move(*object);
    }

    // The archive as indented JSON, for people to read; an error when the data is not an archive.
    static Expected<std::string> jsonDescription(std::span<const std::byte> data,
                                                 ArchiveFormat format = ArchiveFormat::CBOR);

    // The class name stored for this object.
    std::string className() const;
    bool containsValueForKey(std::string_view key) const;
    // What is stored for key: the class name of an object, or "String", "Number", "Data", "FloatVector",
    // "Date", "Color", "IndexSet", "Array", "Dictionary", "Null"; nullopt when the key is absent.
    std::optional<std::string> classNameForKey(std::string_view key) const;

    bool decodeBool(std::string_view key);
    std::int32_t decodeInt32(std::string_view key);
    std::int64_t decodeInt64(std::string_view key);
    std::uint64_t decodeUInt64(std::string_view key);
    float decodeFloat(std::string_view key);
    double decodeDouble(std::string_view key);
    // Secure decoding of a string object: nullopt when absent or null; an error when not a string.
    std::optional<std::string> decodeString(std::string_view key);
    std::optional<double> decodeNumber(std::string_view key);
    std::optional<std::vector<std::byte>> decodeData(std::string_view key);
    std::optional<std::vector<float>> decodeFloatVector(std::string_view key);
    std::optional<ArchivedDate> decodeDate(std::string_view key);
    std::optional<ArchivedColor> decodeColor(std::string_view key);
    std::optional<IndexSet> decodeIndexSet(std::string_view key);
    std::optional<std::vector<std::string>> decodeStringArray(std::string_view key);
    std::optional<std::map<std::string, std::string>> decodeStringDictionary(std::string_view key);
    // A dictionary of plain values (numbers, booleans, strings, data, null, arrays, dictionaries) as a
    // JSON object; raw data comes back as JSON binary values.
    std::optional<nlohmann::json> decodeDictionary(std::string_view key);

    template <KeyedArchivable T> std::optional<T> decodeObjectOfClass(std::string_view key) {
        auto child = childForKey(key, T::className);
        if (!child)
            return std::nullopt;
        return decodeChild<T>(std::move(*child));
    }
    template <KeyedArchivable T>
    std::optional<std::vector<T>> decodeObjectArrayOfClass(std::string_view key) {
        auto children = childArrayForKey(key, T::className);
        if (!children)
            return std::nullopt;
        std::vector<T> objects;
        for (auto& child : *children) {
            auto object = decodeChild<T>(std::move(child));
            if (!object)
                return std::nullopt;
            objects.push_back(std::move(*object));
        }
        return objects;
    }
    template <KeyedArchivable T>
    std::optional<std::map<std::string, T>> decodeObjectDictionaryOfClass(std::string_view key) {
        auto children = childDictionaryForKey(key, T::className);
        if (!children)
            return std::nullopt;
        std::map<std::string, T> objects;
        for (auto& [name, child] : *children) {
            auto object = decodeChild<T>(std::move(child));
            if (!object)
                return std::nullopt;
            objects.emplace(name, std::move(*object));
        }
        return objects;
    }

    // The oldest, unkeyed form, read in sequence; reading past the end is a decoding error.
    std::uint32_t decodeNextUInt32();

    // Marks the archive as undecodable; the first error is kept and returned by the top-level call.
    void failWithError(TavolarError error);
    const std::optional<TavolarError>& error() const noexcept { return *error_; }

private:
    explicit KeyedUnarchiver(nlohmann::json node);
    KeyedUnarchiver(nlohmann::json node, std::shared_ptr<std::optional<TavolarError>> error, int depth);
    static Expected<nlohmann::json> parse(std::span<const std::byte> data, ArchiveFormat format);
    bool checkClass(std::string_view expected, std::string_view key);
    std::optional<nlohmann::json> childForKey(std::string_view key, std::string_view className);
    std::optional<std::vector<nlohmann::json>> childArrayForKey(std::string_view key,
                                                                std::string_view className);
    std::optional<std::map<std::string, nlohmann::json>> childDictionaryForKey(std::string_view key,
                                                                               std::string_view className);

    // Decodes this node as a T, turning any exception the class raises into a decoding error.
    template <KeyedArchivable T> std::optional<T> decodeSafely() {
        try {
            return T::initWithCoder(*this);
        } catch (const std::exception& exception) {
            failWithError(decodingError(exception.what()));
        } catch (...) {
            failWithError(decodingError("the object could not be made from its values"));
        }
        return std::nullopt;
    }
    template <KeyedArchivable T> std::optional<T> decodeChild(nlohmann::json node) {
        if (depth_ >= kMaximumDepth) {
            failWithError(decodingError("the archive nests objects too deeply"));
            return std::nullopt;
        }
        KeyedUnarchiver child(std::move(node), error_, depth_ + 1);
        std::optional<T> object = child.decodeSafely<T>();
        if (*error_)
            return std::nullopt;
        return object;
    }
    // The stored value for key, or nullptr when it is absent or null.
    const nlohmann::json* valueForKey(std::string_view key) const;
    // Reports that the value for key is of the wrong kind.
    void failWithKind(const nlohmann::json& value, std::string_view expected, std::string_view key);
    // Reports a problem with the value for key; the key and class are added to description.
    void failForKey(std::string description, std::string_view key);
    const nlohmann::json* nextUnkeyedValue();
    template <typename Number> Number decodeNumberValue(const nlohmann::json* value, std::string_view key);
    std::optional<nlohmann::json> childOfClass(const nlohmann::json& value, std::string_view className,
                                               std::string_view key);
    static TavolarError decodingError(std::string_view what);

    static constexpr int kMaximumDepth = 64;
    nlohmann::json node_;
    std::shared_ptr<std::optional<TavolarError>> error_;
    int depth_ = 0;
    std::size_t unkeyedPosition_ = 0;
};

} // namespace tavolar

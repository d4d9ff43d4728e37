#pragma once
// Archives as the archiver's JSON text: the keys and values a class stores, read exactly, and
// archives of older layouts or with odd values, written by hand.

#include "platform/KeyedArchiver.h"

#include <span>
#include <string>
#include <string_view>

namespace tavolar::testing {

// The root object of object's archive: its "$class" and every key it stores.
template <KeyedArchivable T> nlohmann::json archivedKeys(const T& object) {
    const auto data = KeyedArchiver::archivedDataWithRootObject(object, ArchiveFormat::JSON);
    return nlohmann::json::parse(reinterpret_cast<const char*>(data.data()),
                                 reinterpret_cast<const char*>(data.data()) + data.size())["$top"];
}

// Decodes a T from an archive whose root object holds the given JSON members ("key": value, ...).
template <KeyedArchivable T> Expected<T> unarchivedFromKeys(std::string_view members) {
    const std::string text = R"({"$archiver": "TavolarKeyedArchive", "$version": 1, "$top": {"$class": ")" +
                             std::string(T::className) + "\"" + (members.empty() ? "" : ", ") +
                             std::string(members) + "}}";
    return KeyedUnarchiver::unarchivedObjectOfClass<T>(std::as_bytes(std::span(text)), ArchiveFormat::JSON);
}

} // namespace tavolar::testing

// Keyed archives as documents and files bring them, in the CBOR and the JSON form: any bytes
// decode to an object or an error, a decoded object re-encodes to an archive that decodes and
// re-encodes to the very same bytes, and the JSON description of a tree reads back as that tree.

#include "audio/VELTAudioCaptureSettings.h"
#include "core/VELTMeasurementRecord.h"
#include "engine/VELTLogSweepSettings.h"
#include "fuzz/FuzzCheck.h"
#include "platform/KeyedArchiver.h"

namespace tavolar {
namespace {

template <KeyedArchivable T> void checkRoundTrip(std::span<const std::byte> data, ArchiveFormat format) {
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<T>(data, format);
    if (!decoded) {
        FUZZ_CHECK(!decoded.error().localizedDescription.empty(), "a refused archive says why");
        return;
    }
    const std::vector<std::byte> first = KeyedArchiver::archivedDataWithRootObject(*decoded);
    auto again = KeyedUnarchiver::unarchivedObjectOfClass<T>(first);
    FUZZ_CHECK(again.has_value(), "an archive written from a decoded object decodes");
    FUZZ_CHECK(KeyedArchiver::archivedDataWithRootObject(*again) == first,
               "a decoded archive re-encodes to the same tree");
}

void checkDescription(std::span<const std::byte> data, ArchiveFormat format) {
    auto description = KeyedUnarchiver::jsonDescription(data, format);
    if (!description)
        return;
    auto again = KeyedUnarchiver::jsonDescription(
        std::as_bytes(std::span(description->data(), description->size())), ArchiveFormat::JSON);
    FUZZ_CHECK(again.has_value() && *again == *description,
               "the JSON description reads back as the same tree");
}

} // namespace
} // namespace tavolar

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tavolar;
    for (ArchiveFormat format : {ArchiveFormat::CBOR, ArchiveFormat::JSON}) {
        checkRoundTrip<VELTMeasurementRecord>(fuzz::bytes(data, size), format);
        checkRoundTrip<VELTAudioCaptureSettings>(fuzz::bytes(data, size), format);
        checkRoundTrip<VELTLogSweepSettings>(fuzz::bytes(data, size), format);
        checkDescription(fuzz::bytes(data, size), format);
    }
    return 0;
}

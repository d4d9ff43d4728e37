#include "core/VELTWindow.h"

#include "platform/KeyedArchiver.h"

namespace tavolar {

namespace {
constexpr std::string_view kCurrentVersion = "2.0";
}

void VELTWindow::encodeWithCoder(KeyedArchiver& coder) const {
    coder.encodeString(kCurrentVersion, "Version");
    coder.encodeInt64(begin_, "Begin");
    coder.encodeInt64(end_, "End");
    coder.encodeInt32(static_cast<std::int32_t>(type_), "Type");
}

VELTWindow VELTWindow::initWithCoder(KeyedUnarchiver& coder) {
    VELTWindow window;
    if (coder.decodeString("Version") == kCurrentVersion) {
        // Begin and end are written as 64-bit but deliberately read as 32-bit, as archives have
        // always been read: indices beyond the 32-bit range do not survive a round trip.
        window.begin_ = coder.decodeInt32("Begin");
        window.end_ = coder.decodeInt32("End");
        window.type_ = coder.decodeInt32("Type");
        return window;
    }
    // The oldest, unkeyed form: three unsigned 32-bit values, with window types counted from 1.
    window.begin_ = coder.decodeNextUInt32();
    window.end_ = coder.decodeNextUInt32();
    window.type_ = coder.decodeNextUInt32();
    window.type_ -= 1;
    return window;
}

} // namespace tavolar

#pragma once
// The stretch of an impulse response that is analysed (begin and end sample indices, negative
// indices before time zero) and the taper applied to it. A plain value, archived with each record.

#include <cstdint>
#include <string_view>

namespace tavolar {

class KeyedArchiver;
class KeyedUnarchiver;

class VELTWindow {
public:
    static constexpr std::string_view className = "VELTWindow";

    VELTWindow() = default;
    VELTWindow(std::int64_t begin, std::int64_t end, std::int64_t type = 0)
        : begin_(begin), end_(end), type_(type) {}

    static VELTWindow windowWithBegin(std::int64_t begin, std::int64_t end) { return VELTWindow(begin, end); }
    static VELTWindow windowWithBegin(std::int64_t begin, std::int64_t end, std::int64_t type) {
        return VELTWindow(begin, end, type);
    }

    std::int64_t begin() const noexcept { return begin_; }
    void setBegin(std::int64_t begin) noexcept { begin_ = begin; }
    std::int64_t end() const noexcept { return end_; }
    void setEnd(std::int64_t end) noexcept { end_ = end; }
    // The stored window type (see VELTWindowType); values outside the known ones mean no taper.
    std::int64_t type() const noexcept { return type_; }
    void setType(std::int64_t type) noexcept { type_ = type; }

    // end - begin; setting it moves the end and leaves the begin alone.
    std::int64_t duration() const noexcept { return end_ - begin_; }
    void setDuration(std::int64_t duration) noexcept { end_ = begin_ + duration; }

    bool isEqualToWindow(const VELTWindow& other) const noexcept {
        return begin_ == other.begin_ && end_ == other.end_ && type_ == other.type_;
    }
    bool operator==(const VELTWindow& other) const noexcept { return isEqualToWindow(other); }

    void encodeWithCoder(KeyedArchiver& coder) const;
    static VELTWindow initWithCoder(KeyedUnarchiver& coder);

private:
    std::int64_t begin_ = 0;
    std::int64_t end_ = 0;
    std::int64_t type_ = 0;
};

} // namespace tavolar

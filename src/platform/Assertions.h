#pragma once
// Programming errors are exceptions: a violated precondition, a failed internal assertion, or a
// named exception with a reason. Errors the user must see are TavolarError values instead.

#include <stdexcept>
#include <string>

namespace tavolar {

// A failed internal assertion, carrying its message.
class AssertionFailure : public std::logic_error {
public:
    explicit AssertionFailure(const std::string& message) : std::logic_error(message) {}
};

// A violated precondition; what() is "Invalid parameter not satisfying: <condition>".
class ParameterAssertion : public AssertionFailure {
public:
    explicit ParameterAssertion(const std::string& condition)
        : AssertionFailure("Invalid parameter not satisfying: " + condition), condition_(condition) {}
    const std::string& condition() const noexcept { return condition_; }

private:
    std::string condition_;
};

// An exception with a name ("BadSplineData", "NullArguments") and a reason.
class NamedException : public std::runtime_error {
public:
    NamedException(std::string name, const std::string& reason)
        : std::runtime_error(reason), name_(std::move(name)) {}
    const std::string& name() const noexcept { return name_; }
    std::string reason() const { return what(); }

private:
    std::string name_;
};

} // namespace tavolar

// Checks a precondition; the condition's text as written becomes the assertion's description.
#define TAVOLAR_PARAMETER_ASSERT(condition)                                                          \
    do {                                                                                             \
        if (!(condition))                                                                            \
            throw ::tavolar::ParameterAssertion(#condition);                                         \
    } while (false)

// Checks an internal invariant; message is the assertion's description.
#define TAVOLAR_ASSERT(condition, message)                                                           \
    do {                                                                                             \
        if (!(condition))                                                                            \
            throw ::tavolar::AssertionFailure(message);                                              \
    } while (false)

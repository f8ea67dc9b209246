#pragma once

#include <stdexcept>
#include <string>

namespace brim {

/// An error whose text is meant for the user: `what()` is the message, already localised.
/// Thrown by low-level file operations; the terminal prints "brim: " + what(), a window shows it.
class BrimError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A `BrimError` for a failed POSIX call: the text, ": " and `strerror(errnoValue)`.
[[nodiscard]] BrimError posixError(const std::string& text, int errnoValue);

} // namespace brim

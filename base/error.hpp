#pragma once

#include <stdexcept>
#include <string>

namespace keyloft {

// The tool's own error. Its text is what the entry prints after "Error: ".
class KeyloftError : public std::exception {
  public:
    enum class Case { genericError, decodeDataFailed, dataVersionMismatch };

    static KeyloftError generic(std::string message) {
        return KeyloftError(Case::genericError, std::move(message));
    }
    static KeyloftError decodeDataFailed() {
        return KeyloftError(Case::decodeDataFailed, "decodeDataFailed");
    }
    static KeyloftError dataVersionMismatch() {
        return KeyloftError(Case::dataVersionMismatch, "dataVersionMismatch");
    }

    Case errorCase() const noexcept { return case_; }
    const std::string& text() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    KeyloftError(Case errorCase, std::string text) : case_(errorCase), text_(std::move(text)) {}

    Case case_;
    std::string text_;
};

// A failure reported by a platform service (files, keys, certificates, the token store).
// It carries the platform's own description, printed unchanged.
class PlatformError : public std::runtime_error {
  public:
    explicit PlatformError(const std::string& description, int code = 0)
        : std::runtime_error(description), code_(code) {}

    int code() const noexcept { return code_; }

  private:
    int code_;
};

// A key's use refused because the user's presence was not confirmed: the user said no or
// cancelled, or nobody could be asked. Applications are told apart from a broken token.
inline constexpr int presenceNotConfirmedCode = -1001;

// The token framework's object-not-found error.
inline constexpr int objectNotFoundCode = -6;
inline PlatformError storedKeyNotFound() {
    return PlatformError("Stored key not found", objectNotFoundCode);
}
// The same error for a record whose key is not the one its public-key hash names.
inline PlatformError storedKeyOfAnotherHash() {
    return PlatformError(
        "Stored key not found: the key stored under this hash has another public key",
        objectNotFoundCode);
}

}  // namespace keyloft

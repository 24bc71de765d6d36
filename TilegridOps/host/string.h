#pragma once
#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace Corvid {

/// A view of text that somebody else keeps alive.
class StringView {
public:
    constexpr StringView() = default;
    constexpr StringView(char const* text) : text_(text) {}
    constexpr StringView(std::string_view text) : text_(text) {}
    StringView(std::string const& text) : text_(text) {}
    constexpr char const* data() const { return text_.data(); }
    constexpr std::size_t size() const { return text_.size(); }
    constexpr bool empty() const { return text_.empty(); }
    constexpr operator std::string_view() const { return text_; }
    friend constexpr bool operator==(StringView a, StringView b) { return a.text_ == b.text_; }

private:
    std::string_view text_;
};

/// Owned text, a value type.
class String {
public:
    String() = default;
    String(char const* text) : text_(text) {}
    String(std::string text) : text_(std::move(text)) {}
    explicit String(std::string_view text) : text_(text) {}
    explicit String(StringView text) : text_(text.data(), text.size()) {}
    char const* c_str() const { return text_.c_str(); }
    std::size_t size() const { return text_.size(); }
    bool empty() const { return text_.empty(); }
    std::string const& str() const { return text_; }
    operator StringView() const { return StringView(text_); }
    friend String operator+(String const& a, String const& b) { return String(a.text_ + b.text_); }
    friend bool operator==(String const& a, String const& b) { return a.text_ == b.text_; }
    friend bool operator==(String const& a, char const* b) { return a.text_ == b; }
    friend auto operator<=>(String const& a, String const& b) { return a.text_ <=> b.text_; }
    friend std::ostream& operator<<(std::ostream& out, String const& s) { return out << s.text_; }

private:
    std::string text_;
};

}  // namespace Corvid

template <> struct std::hash<Corvid::String> {
    std::size_t operator()(Corvid::String const& s) const { return std::hash<std::string>()(s.str()); }
};

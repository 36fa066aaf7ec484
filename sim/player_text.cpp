#include "sim/player_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "text/number.h"

namespace sim
{

namespace
{
constexpr std::string_view BLANKS = " \t\r";

/* One number of a duration with its unit; advances `text` past both. */
std::optional<Micros> take_part(std::string_view &text);
/* The length of the printable character that the text begins with; 0: there is none. */
size_t printable_length(std::string_view text);
} // namespace

bool Cursor::at_end()
{
    at_ = std::min(text_.find_first_not_of(BLANKS, at_), text_.size());
    return at_ == text_.size();
}

size_t Cursor::column()
{
    at_end();
    return at_ + 1;
}

std::string_view Cursor::peek()
{
    if (at_end())
        return {};
    return text_.substr(at_, text_.find_first_of(BLANKS, at_) - at_);
}

bool Cursor::accept(std::string_view word)
{
    if (peek() != word)
        return false;
    at_ += word.size();
    return true;
}

std::optional<std::string> Cursor::accept_value(std::string_view key)
{
    const std::string_view next = peek();
    if (next.size() <= key.size() || !next.starts_with(key) || next[key.size()] != '=')
        return std::nullopt;
    at_ += next.size();
    return std::string(next.substr(key.size() + 1));
}

std::string Cursor::word(const char *expected)
{
    const std::string_view next = peek();
    if (next.empty())
        refuse(expected);
    at_ += next.size();
    return std::string(next);
}

std::string Cursor::text(const char *expected)
{
    if (at_end() || text_[at_] != '"')
        return word(expected);
    std::string result;
    for (size_t at = at_ + 1; at < text_.size(); at++) {
        if (text_[at] == '"') {
            at_ = at + 1;
            return result;
        }
        at += text_[at] == '\\' && at + 1 < text_.size();
        result += text_[at];
    }
    at_ = text_.size();
    refuse("a closing double quote");
}

uint64_t Cursor::number(const char *expected, uint64_t most)
{
    const size_t here = column();
    return text_number(word(expected), here, expected, most);
}

int64_t Cursor::signed_number(const char *expected)
{
    const size_t here = column();
    const std::string next = word(expected);
    const bool negative = next.starts_with('-');
    const uint64_t value =
        text_number(std::string_view(next).substr(negative), here, expected, INT32_MAX);
    return negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
}

Micros Cursor::duration(const char *expected)
{
    const size_t here = column();
    return text_duration(word(expected), here, expected);
}

std::string_view Cursor::rest()
{
    at_end();
    std::string_view left = text_.substr(at_);
    at_ = text_.size();
    return left.substr(0, left.find_last_not_of(BLANKS) + 1);
}

void Cursor::end()
{
    if (!at_end())
        refuse("the end of the line");
}

void Cursor::refuse(const char *expected)
{
    throw Refusal{column(), expected};
}

uint64_t text_number(std::string_view text, size_t column, const char *expected, uint64_t most)
{
    const auto number = text::number_read(text);
    if (!number || *number > most)
        throw Refusal{column, expected};
    return *number;
}

std::array<uint8_t, 6> text_mac(std::string_view text, size_t column)
{
    std::array<uint8_t, 6> mac{};
    const char *at = text.data();
    const char *end = at + text.size();
    for (uint8_t &byte : mac) {
        const bool first = &byte == &mac[0];
        if (!first && (at == end || *at++ != ':'))
            throw Refusal{column, "a MAC address such as 00:11:22:33:44:55"};
        const auto [stop, error] = std::from_chars(at, std::min(at + 2, end), byte, 16);
        if (error != std::errc{})
            throw Refusal{column, "a MAC address such as 00:11:22:33:44:55"};
        at = stop;
    }
    if (at != end)
        throw Refusal{column, "a MAC address such as 00:11:22:33:44:55"};
    return mac;
}

Micros text_duration(std::string_view text, size_t column, const char *expected)
{
    constexpr Micros MOST = Micros{366} * 86400 * SECOND;
    Micros sum = 0;
    do {
        const std::optional<Micros> part = take_part(text);
        if (!part || *part > MOST - sum)
            throw Refusal{column, expected};
        sum += *part;
    } while (!text.empty());
    return sum;
}

std::string text_printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const size_t length = printable_length(text);
        if (length == 0) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<uint8_t>(text[0]));
            result += escaped;
        }
        result += text.substr(0, length);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

namespace
{

std::optional<Micros> take_part(std::string_view &text)
{
    struct Unit {
        std::string_view name;
        Micros length;
    };
    constexpr std::array<Unit, 6> UNITS{{{"us", 1},
                                         {"ms", 1000},
                                         {"s", SECOND},
                                         {"m", 60 * SECOND},
                                         {"h", 3600 * SECOND},
                                         {"d", 86400 * SECOND}}};
    uint32_t count = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc{})
        return std::nullopt;
    text.remove_prefix(static_cast<size_t>(stop - text.data()));
    const std::string_view name = text.substr(0, text.find_first_of("0123456789"));
    for (const Unit &unit : UNITS) {
        if (name != unit.name)
            continue;
        text.remove_prefix(name.size());
        return Micros{count} * unit.length;
    }
    return std::nullopt;
}

/* The C1 control characters are two bytes in UTF-8: 0xc2 and 0x80 to 0x9f. */
size_t printable_length(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80)
        return first == '\t' || first == '\n' || (first >= 0x20 && first != 0x7f);
    const size_t length = first < 0xc2   ? 0
                          : first < 0xe0 ? 2
                          : first < 0xf0 ? 3
                          : first < 0xf5 ? 4
                                         : 0;
    if (length == 0 || text.size() < length)
        return 0;
    const auto follows = [](char letter) { return (static_cast<uint8_t>(letter) & 0xc0) == 0x80; };
    if (!std::ranges::all_of(text.substr(1, length - 1), follows))
        return 0;
    const bool is_control = first == 0xc2 && static_cast<uint8_t>(text[1]) < 0xa0;
    return is_control ? 0 : length;
}

} // namespace

} // namespace sim

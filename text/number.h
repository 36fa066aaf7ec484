/*
 * number - numbers as people type them.
 *
 * The tool, the debug shell, the environment, the file of ports, scenarios and objects in
 * text form take the same form, so that a number that was accepted in one place is
 * accepted in the others. Which numbers a
 * place allows, and what it says of the rest, is its own affair.
 */
#ifndef TEXT_NUMBER_H
#define TEXT_NUMBER_H

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace text
{

/*
 * The number that the whole of `word` is: decimal, or hexadecimal after "0x" or "0X",
 * without sign or space. One that 64 bits cannot hold is UINT64_MAX, so that a caller's
 * limit refuses it as too large. Nothing if `word` is no number.
 */
inline std::optional<uint64_t> number_read(std::string_view word)
{
    const bool is_hex = word.starts_with("0x") || word.starts_with("0X");
    word.remove_prefix(is_hex ? 2 : 0);
    uint64_t number = 0;
    const char *end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number, is_hex ? 16 : 10);
    if (stop != end || error == std::errc::invalid_argument)
        return std::nullopt;
    return error == std::errc{} ? number : UINT64_MAX;
}

} // namespace text

#endif

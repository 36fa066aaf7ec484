/*
 * player_text - reading one line of a scenario.
 *
 * A line is words between blanks, with "quoted text" for what holds blanks. A
 * cursor goes over it once, from left to right, and every reading function
 * says what it wants; the first thing that is not there throws a Refusal with
 * the column, which the parser of the file turns into one message. Nothing of
 * this leaves the player: its parse function returns the refusal as a value.
 */
#ifndef SIM_PLAYER_TEXT_H
#define SIM_PLAYER_TEXT_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sim/sim_loop.h"

namespace sim
{

struct Refusal {
    size_t column; /* from 1 */
    std::string expected;
};

class Cursor
{
public:
    explicit Cursor(std::string_view text) : text_(text)
    {
    }

    /* Whether nothing but blanks is left. */
    bool at_end();
    /* The column of the next word, from 1. */
    size_t column();
    /* The next word without taking it; empty at the end. */
    std::string_view peek();
    /* Takes the next word if it is this one. */
    bool accept(std::string_view word);
    /* Takes "key=value" and returns the value, if the next word begins with "key=". */
    std::optional<std::string> accept_value(std::string_view key);

    std::string word(const char *expected);
    /* A word, or text in double quotes; \" and \\ stand for themselves. */
    std::string text(const char *expected);
    /* A decimal number, or a hexadecimal one after 0x, of at most `most`. */
    uint64_t number(const char *expected, uint64_t most = UINT32_MAX);
    int64_t signed_number(const char *expected);
    /* A duration such as 250ms, 5s or 1m30s. */
    Micros duration(const char *expected);
    /* Everything that is left, without the blanks around it. */
    std::string_view rest();
    /* Refuses a line that goes on. */
    void end();

private:
    [[noreturn]] void refuse(const char *expected);

    std::string_view text_;
    size_t at_ = 0;
};

/* The same for a part of a word; `column` is where it stands. */
uint64_t text_number(std::string_view text, size_t column, const char *expected, uint64_t most);
std::array<uint8_t, 6> text_mac(std::string_view text, size_t column);
Micros text_duration(std::string_view text, size_t column, const char *expected);

/*
 * What can be shown on a terminal: UTF-8 as it is, and \xHH for each byte of
 * what is not and for control characters but tab and line feed.
 */
std::string text_printable(std::string_view text);

} // namespace sim

#endif

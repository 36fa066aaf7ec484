#include "text/at_format.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

/* The formats handed on here were checked where they were written. */
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace
{

/* What has been written, and what would have been. */
struct Output {
    char *buffer;
    size_t size;
    size_t length;

    char *rest() const
    {
        return length < size ? buffer + length : nullptr;
    }
    size_t room() const
    {
        return length < size ? size - length : 0;
    }
};

/* A va_list that can be passed on by reference, whatever type the platform gives it. */
struct Arguments {
    va_list list;
};

enum class Length { none, hh, h, l, ll, big_l, z, j, t };

/* One conversion: its text with every `*` replaced, e.g. "%-08" "ll" "x". */
struct Conversion {
    char text[64];
    size_t used;
    Length length;
    char kind;

    bool add(char c)
    {
        if (used + 1 >= sizeof text)
            return false;
        text[used++] = c;
        text[used] = '\0';
        return true;
    }
};

bool has_mac(const char *format);
bool print_all(Output *output, const char *format, Arguments *arguments);
int finish(const Output &output);

} // namespace

int at_snprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = at_vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

int at_vsnprintf(char *buffer, size_t size, const char *format, va_list list)
{
    if (!has_mac(format))
        return vsnprintf(buffer, size, format, list);
    Arguments arguments;
    va_copy(arguments.list, list);
    Output output = {buffer, size, 0};
    const bool is_good = print_all(&output, format, &arguments);
    va_end(arguments.list);
    const int length = finish(output);
    return is_good ? length : -1;
}

namespace
{

constexpr char FLAGS[] = "-+ #0'I";
constexpr char LENGTHS[] = "hlqLzjt";

bool has_mac(const char *format)
{
    for (const char *at = strchr(format, '%'); at != nullptr; at = strchr(at, '%')) {
        at++;
        at += strspn(at, "-+ #0'I123456789*.$");
        at += strspn(at, LENGTHS);
        if (*at == 'm')
            return true;
        at += *at != '\0';
    }
    return false;
}

/* Copies digits, or the number that a `*` stands for; NULL when there is no room. */
const char *parse_number(const char *at, Arguments *arguments, Conversion *conversion,
                         bool is_precision)
{
    if (*at != '*') {
        while (*at >= '0' && *at <= '9') {
            if (!conversion->add(*at++))
                return nullptr;
        }
        return *at == '$' ? nullptr : at;
    }
    const int number = va_arg(arguments->list, int);
    if (is_precision && number < 0) { /* as if it had been left out */
        conversion->text[--conversion->used] = '\0';
        return at + 1;
    }
    char digits[16];
    snprintf(digits, sizeof digits, "%d", number);
    for (const char *digit = digits; *digit != '\0'; digit++) {
        if (!conversion->add(*digit))
            return nullptr;
    }
    return at + 1;
}

const char *parse_length(const char *at, Conversion *conversion)
{
    struct Named {
        char text[3];
        Length length;
    };
    static constexpr Named NAMES[] = {{"hh", Length::hh}, {"h", Length::h},  {"ll", Length::ll},
                                      {"l", Length::l},   {"q", Length::ll}, {"L", Length::big_l},
                                      {"z", Length::z},   {"j", Length::j},  {"t", Length::t}};
    for (const Named &name : NAMES) {
        const size_t size = strlen(name.text);
        if (strncmp(at, name.text, size) != 0)
            continue;
        conversion->length = name.length;
        for (size_t i = 0; i < size; i++) {
            if (!conversion->add(at[i]))
                return nullptr;
        }
        return at + size;
    }
    return at;
}

/* Reads one conversion from its '%'; returns what follows it, or NULL. */
const char *parse(const char *at, Arguments *arguments, Conversion *conversion)
{
    conversion->add(*at++);
    for (; *at != '\0' && strchr(FLAGS, *at) != nullptr; at++) {
        if (!conversion->add(*at))
            return nullptr;
    }
    at = parse_number(at, arguments, conversion, false);
    if (at != nullptr && *at == '.') {
        if (!conversion->add(*at++))
            return nullptr;
        at = parse_number(at, arguments, conversion, true);
    }
    if (at != nullptr)
        at = parse_length(at, conversion);
    if (at == nullptr || *at == '\0')
        return nullptr;
    if (*at == 'm' && conversion->length != Length::none)
        return nullptr;
    if (!conversion->add(*at == 'm' ? 's' : *at)) /* the MAC is printed as text */
        return nullptr;
    conversion->kind = *at;
    return at + 1;
}

template <typename Value> int hand_on(Output *output, const Conversion &conversion, Value value)
{
    return snprintf(output->rest(), output->room(), conversion.text, value);
}

/* Signed and unsigned arguments of one length are fetched alike and keep their bits. */
int print_integer(Output *output, const Conversion &conversion, Arguments *arguments)
{
    switch (conversion.length) {
    case Length::l:
        return hand_on(output, conversion, va_arg(arguments->list, long));
    case Length::ll:
    case Length::big_l:
        return hand_on(output, conversion, va_arg(arguments->list, long long));
    case Length::j:
        return hand_on(output, conversion, va_arg(arguments->list, intmax_t));
    case Length::z:
        return hand_on(output, conversion, va_arg(arguments->list, size_t));
    case Length::t:
        return hand_on(output, conversion, va_arg(arguments->list, ptrdiff_t));
    default:
        return hand_on(output, conversion, va_arg(arguments->list, int));
    }
}

int print_mac(Output *output, const Conversion &conversion, Arguments *arguments)
{
    const auto *mac = va_arg(arguments->list, const uint8_t *);
    if (mac == nullptr)
        return hand_on(output, conversion, "(null)");
    char text[16];
    snprintf(text, sizeof text, "%02X%02X.%02X%02X.%02X%02X", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return hand_on(output, conversion, static_cast<const char *>(text));
}

int print_text(Output *output, const Conversion &conversion, Arguments *arguments)
{
    if (conversion.length == Length::l)
        return hand_on(output, conversion, va_arg(arguments->list, const wchar_t *));
    return hand_on(output, conversion, va_arg(arguments->list, const char *));
}

/* What the conversion prints; it is cut off as snprintf() does. Negative on failure. */
int print(Output *output, const Conversion &conversion, Arguments *arguments)
{
    switch (conversion.kind) {
    case 'm':
        return print_mac(output, conversion, arguments);
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        return print_integer(output, conversion, arguments);
    case 'c':
        return conversion.length == Length::l
                   ? hand_on(output, conversion, va_arg(arguments->list, wint_t))
                   : hand_on(output, conversion, va_arg(arguments->list, int));
    case 's':
        return print_text(output, conversion, arguments);
    case 'p':
        return hand_on(output, conversion, va_arg(arguments->list, void *));
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
        return conversion.length == Length::big_l
                   ? hand_on(output, conversion, va_arg(arguments->list, long double))
                   : hand_on(output, conversion, va_arg(arguments->list, double));
    case '%':
        return snprintf(output->rest(), output->room(), "%%");
    default:
        errno = EINVAL;
        return -1;
    }
}

size_t print_plain(Output *output, const char *text)
{
    const size_t length = strcspn(text, "%");
    for (size_t i = 0; i < length; i++, output->length++) {
        if (output->room() > 1)
            *output->rest() = text[i];
    }
    return length;
}

/* Returns false, errno set, at the first conversion that cannot be printed. */
bool print_all(Output *output, const char *format, Arguments *arguments)
{
    for (format += print_plain(output, format); *format != '\0';
         format += print_plain(output, format)) {
        Conversion conversion = {};
        format = parse(format, arguments, &conversion);
        if (format == nullptr) {
            errno = EINVAL;
            return false;
        }
        const int printed = print(output, conversion, arguments);
        if (printed < 0)
            return false;
        output->length += static_cast<size_t>(printed);
    }
    return true;
}

/* Ends the text and returns its full length. */
int finish(const Output &output)
{
    if (output.size > 0)
        output.buffer[output.length < output.size ? output.length : output.size - 1] = '\0';
    if (output.length <= INT_MAX)
        return static_cast<int>(output.length);
    errno = EOVERFLOW;
    return -1;
}

} // namespace

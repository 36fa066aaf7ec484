/* The formatter with MAC addresses, held against the C library's. */
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "text/at_format.h"

/* Formats are put together here, which no compiler can check. */
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

namespace
{

/* One conversion beside a %m, into buffers of every critical size, against the C library. */
template <typename... Value> void compare(const std::string &conversion, Value... value)
{
    const uint8_t mac[6] = {0x00, 0xe0, 0xbb, 0x01, 0xfe, 0x9a}; /* its end is guarded */
    char wanted[512];
    const int body = snprintf(wanted, sizeof wanted, ("<" + conversion + "|").c_str(), value...);
    ASSERT_GE(body, 0);
    strcat(wanted, "00E0.BB01.FE9A%>");
    const int length = body + 16;
    for (const size_t size : {size_t{0}, size_t{1}, static_cast<size_t>(length) / 2,
                              static_cast<size_t>(length), size_t{400}}) {
        std::vector<char> got(size + 1, '#');
        EXPECT_EQ(
            at_snprintf(got.data(), size, ("<" + conversion + "|%m%%>").c_str(), value..., mac),
            length)
            << conversion;
        EXPECT_EQ(got[size], '#');
        if (size > 0) {
            EXPECT_EQ(std::string(got.data()), std::string(wanted).substr(0, size - 1));
        }
    }
}

TEST(AtSnprintf, AgreesWithTheCLibrary)
{
    std::mt19937_64 random(1);
    auto pick = [&random](const std::string &from) { return from[random() % from.size()]; };
    for (int i = 0; i < 1000; i++) {
        std::string spec = "%";
        for (uint64_t flags = random() % 3; flags > 0; flags--)
            spec += pick("-+ #0'");
        spec += random() % 2 == 0 ? std::to_string(1 + random() % 30) : "";
        spec += random() % 2 == 0 ? "." + std::to_string(random() % 20) : "";
        const std::string integer(1, pick("diuxXo"));
        const uint64_t bits = random() >> (random() % 64);
        compare(spec + integer, static_cast<int>(bits));
        compare(spec + "hh" + integer, static_cast<int>(bits));
        compare(spec + "h" + integer, static_cast<int>(bits));
        compare(spec + "l" + integer, static_cast<long>(bits));
        compare(spec + "ll" + integer, static_cast<long long>(bits));
        compare(spec + "z" + integer, static_cast<size_t>(bits));
        compare(spec + "j" + integer, static_cast<intmax_t>(bits));
        compare(spec + "t" + integer, static_cast<ptrdiff_t>(bits));
        const double number = static_cast<double>(bits) / 1000.0 - 1e6;
        compare(spec + pick("aAeEfFgG"), number);
        compare(spec + "L" + pick("aefg"), static_cast<long double>(number));
        compare(spec + "s", "a word");
        compare(spec + "c", 'x');
        compare(spec + "p", static_cast<void *>(&random));
    }
    for (const int width : {-12, -1, 0, 1, 12}) {
        for (const int precision : {-3, 0, 2, 9})
            compare("%*.*d %-*s", width, precision, -42, width, "ab");
    }
}

TEST(AtSnprintf, PrintsMacsAndRefusesWhatItCannot)
{
    auto mac = std::make_unique<uint8_t[]>(6); /* a seventh byte would be caught */
    for (uint8_t i = 0; i < 6; i++)
        mac[i] = static_cast<uint8_t>(0xf0 + i);
    auto print = [&mac](const char *format) {
        char text[64] = "?";
        const int length = at_snprintf(text, sizeof text, format, mac.get(), mac.get());
        return length < 0 ? "refused" : std::string(text);
    };
    EXPECT_EQ(print("%m"), "F0F1.F2F3.F4F5");
    EXPECT_EQ(print("[%16m][%-16m]"), "[  F0F1.F2F3.F4F5][F0F1.F2F3.F4F5  ]");
    EXPECT_EQ(print("%.4m%%m%+m"), "F0F1%mF0F1.F2F3.F4F5");
    EXPECT_EQ(print("%%m"), "%m");
    for (const char *format : {"%m%n", "%1$m", "%m%y", "%lm", "%m%",
                               "%m%000000000000000000000000000000000"
                               "0000000000000000000000000000000001d"})
        EXPECT_EQ(print(format), "refused") << format;
    mac.reset();
    EXPECT_EQ(print("%m"), "(null)");
}

} // namespace

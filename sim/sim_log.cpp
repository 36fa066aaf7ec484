#include "sim/sim_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <list>
#include <utility>

#include "platform/kt_zlog.h"
#include "sim/sim_call.h"
#include "text/at_format.h"

struct kt_zlog {
    std::string category;
};

namespace sim
{

namespace
{

constexpr size_t LINES_MAX = 100'000;
constexpr size_t LOGS_MAX = 16;

struct Log {
    std::vector<LogLine> lines;
    std::function<void(const LogLine &)> listener;
};

Log log;
std::list<kt_zlog> logs; /* one per category, valid for ever */

void keep(LogLine line)
{
    if (log.lines.size() >= LINES_MAX)
        log.lines.erase(log.lines.begin(), log.lines.begin() + LINES_MAX / 10);
    log.lines.push_back(std::move(line));
    if (log.listener) {
        const std::function<void(const LogLine &)> listener = log.listener;
        listener(log.lines.back());
    }
}

kt_zlog *log_of(const std::string &category)
{
    for (kt_zlog &one : logs) {
        if (one.category == category)
            return &one;
    }
    return logs.size() < LOGS_MAX ? &logs.emplace_back(kt_zlog{category}) : nullptr;
}

std::string format_text(const char *format, va_list arguments) KT_PRINTF(1, 0);

std::string format_text(const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(length < 0 ? 0 : static_cast<size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

} // namespace

const std::vector<LogLine> &log_lines()
{
    return log.lines;
}

void log_clear()
{
    log.lines.clear();
}

void log_listen(std::function<void(const LogLine &)> listener)
{
    log.listener = std::move(listener);
}

const char *log_level_name(int level)
{
    switch (level) {
    case KTDF_ZLOG_LV_DEBUG:
        return "DEBUG";
    case KTDF_ZLOG_LV_INFO:
        return "INFO";
    case KTDF_ZLOG_LV_NOTICE:
        return "NOTICE";
    case KTDF_ZLOG_LV_WARN:
        return "WARN";
    case KTDF_ZLOG_LV_ERROR:
        return "ERROR";
    case KTDF_ZLOG_LV_FATAL:
        return "FATAL";
    default:
        return "?";
    }
}

void log_reset()
{
    log = {};
}

} // namespace sim

kt_zlog *kt_zlog_init(const char *category)
{
    const sim::PlatformScope scope;
    const int fault = sim::call_enter(
        "kt_zlog_init", [&] { return std::string("category=") + sim::text_or_null(category); });
    return fault != 0 || category == nullptr ? nullptr : sim::log_of(category);
}

int ktdf_zlog(kt_zlog *zlog, const char *file, size_t file_length, const char *func,
              size_t func_length, long line, int level, const char *format, ...)
{
    const sim::PlatformScope scope;
    va_list arguments;
    va_start(arguments, format);
    std::string text = sim::format_text(format, arguments);
    va_end(arguments);
    const int fault = sim::call_enter("ktdf_zlog", [&] {
        return std::string("level=") + sim::log_level_name(level) + " text=" + text;
    });
    if (fault != 0)
        return fault;
    if (zlog == nullptr)
        return -EINVAL;
    sim::keep({sim::now(), level, std::string(file, file_length), std::string(func, func_length),
               std::move(text), line, zlog->category});
    return 0;
}

extern "C" int __wrap_at_snprintf(char *buffer, size_t size, const char *format, ...)
    KT_PRINTF(3, 4);

/* Formatting is shared by all platforms; what is redirected here is the call. */
int __wrap_at_snprintf(char *buffer, size_t size, const char *format, ...)
{
    const sim::PlatformScope scope;
    if (sim::call_enter("at_snprintf",
                        [&] { return std::string("format=") + sim::text_or_null(format); }) != 0) {
        if (size > 0)
            *buffer = '\0';
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = at_vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

#include "linux/linux_log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

/* The fields of a record are made here, where the line comes from is known. */
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

struct kt_zlog {
    std::string category;
};

namespace
{

constexpr size_t LOGS_MAX = 16;
constexpr char OWN_CATEGORY[] = "linux";

enum class Sink { unknown, standard_error, journal };

struct Log {
    std::list<kt_zlog> logs; /* one per category, valid for ever */
    Sink sink = Sink::unknown;
    int (*take)(const linux_log_line &line) = nullptr; /* instead of the sink */
};
Log *the_log; /* never freed, see linux_loop */

Log &log_now();
Sink sink_now();
int write_line(const linux_log_line &line);

} // namespace

int linux_log_priority(int level)
{
    switch (level) {
    case KTDF_ZLOG_LV_FATAL:
        return 2;
    case KTDF_ZLOG_LV_ERROR:
        return 3;
    case KTDF_ZLOG_LV_WARN:
        return 4;
    case KTDF_ZLOG_LV_NOTICE:
        return 5;
    case KTDF_ZLOG_LV_DEBUG:
        return 7;
    default:
        return 6;
    }
}

std::string linux_log_format(const linux_log_line &line)
{
    std::string head = "<" + std::to_string(linux_log_priority(line.level)) + ">";
    head.append(line.category).append(": ");
    std::string tail = " [";
    tail.append(line.file).append(":").append(std::to_string(line.line));
    tail.append(" ").append(line.func).append("]\n");
    const size_t around = std::min(head.size() + tail.size(), LINUX_LOG_LINE_MAX);
    std::string text(line.text.substr(0, line.text.find_last_not_of("\r\n") + 1));
    text.resize(std::min(text.size(), LINUX_LOG_LINE_MAX - around));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r' || c == '\0'; }, ' ');
    return head + text + tail;
}

int linux_log_write(int level, const char *file, const char *func, long line, const char *format,
                    ...)
{
    char text[LINUX_LOG_LINE_MAX];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return write_line({OWN_CATEGORY, file, func, line, level, text});
}

void linux_log_divert(int (*take)(const linux_log_line &line))
{
    log_now().take = take;
}

kt_zlog *kt_zlog_init(const char *category)
{
    if (category == nullptr)
        return nullptr;
    std::list<kt_zlog> &logs = log_now().logs;
    for (kt_zlog &one : logs) {
        if (one.category == category)
            return &one;
    }
    return logs.size() < LOGS_MAX ? &logs.emplace_back(kt_zlog{category}) : nullptr;
}

int ktdf_zlog(kt_zlog *log, const char *file, size_t file_length, const char *func,
              size_t func_length, long line, int level, const char *format, ...)
{
    if (log == nullptr || file == nullptr || func == nullptr || format == nullptr)
        return -EINVAL;
    char text[LINUX_LOG_LINE_MAX];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0)
        return -EINVAL;
    return write_line({log->category, {file, file_length}, {func, func_length}, line, level, text});
}

namespace
{

Log &log_now()
{
    if (the_log == nullptr)
        the_log = new Log;
    return *the_log;
}

/* systemd names the device and inode of the stream that it connected to its journal. */
bool is_journal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat now = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &now) != 0)
        return false;
    char *end = nullptr;
    const unsigned long long device = std::strtoull(stream, &end, 10);
    if (*end != ':')
        return false;
    const unsigned long long inode = std::strtoull(end + 1, &end, 10);
    return *end == '\0' && device == now.st_dev && inode == now.st_ino;
}

Sink sink_now()
{
    Sink &sink = log_now().sink;
    if (sink == Sink::unknown)
        sink = is_journal() ? Sink::journal : Sink::standard_error;
    return sink;
}

int write_journal(const linux_log_line &line)
{
    const std::string fields[] = {
        "MESSAGE=" + std::string(line.text.substr(0, line.text.find_last_not_of("\r\n") + 1)),
        "PRIORITY=" + std::to_string(linux_log_priority(line.level)),
        "CODE_FILE=" + std::string(line.file),
        "CODE_LINE=" + std::to_string(line.line),
        "CODE_FUNC=" + std::string(line.func),
        "VVLAN_CATEGORY=" + std::string(line.category)};
    iovec parts[std::size(fields)];
    for (size_t i = 0; i < std::size(fields); i++)
        parts[i] = {const_cast<char *>(fields[i].data()), fields[i].size()};
    return sd_journal_sendv(parts, static_cast<int>(std::size(parts)));
}

/* A pipe that has room takes a line of PIPE_BUF bytes, which is the most, at once. */
int write_standard_error(const linux_log_line &line)
{
    static_assert(LINUX_LOG_LINE_MAX <= PIPE_BUF);
    const std::string text = linux_log_format(line);
    pollfd room = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&room, 1, 0) == 0)
        return -EAGAIN;
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    return written < 0 ? -errno : 0;
}

/* A journal that is gone leaves standard error. */
int write_line(const linux_log_line &line)
{
    if (log_now().take != nullptr)
        return log_now().take(line);
    if (sink_now() == Sink::journal && write_journal(line) == 0)
        return 0;
    return write_standard_error(line);
}

} // namespace

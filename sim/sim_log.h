/*
 * sim_log - the log of the simulated process, kept as records.
 *
 * Every line that reaches ktdf_zlog() is kept with its virtual time and source
 * place, so that a test can look for it and a timeline can print it as it is
 * written. The last 100,000 lines are kept; when that many stand, the oldest
 * tenth goes. Lines outlive the process that wrote them.
 */
#ifndef SIM_SIM_LOG_H
#define SIM_SIM_LOG_H

#include <functional>
#include <string>
#include <vector>

#include "sim/sim_loop.h"

namespace sim
{

struct LogLine {
    Micros when;
    int level; /* ktdf_zlog_level */
    std::string file, func, text;
    long line;
    std::string category; /* as given to kt_zlog_init() */
};

/* What is kept, oldest first. */
const std::vector<LogLine> &log_lines();
void log_clear();

/* Called for every line as it is written; nullptr to stop. One listener. */
void log_listen(std::function<void(const LogLine &)> listener);

/* "ERROR", "WARN", ... of a ktdf_zlog_level; "?" for any other number. */
const char *log_level_name(int level);

/* Forgets the lines and the listener. Log handles stay valid. */
void log_reset();

} // namespace sim

#endif

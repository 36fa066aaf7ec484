/* Virtual time, processes, the host under them, fault plans and the debug shell. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>

#include "platform/kt_global.h"
#include "platform/kt_thread.h"
#include "platform/kt_zlog.h"
#include "platform/rdnd_lib.h"
#include "platform/reg_process.h"
#include "platform/ssat.h"
#include "sim/sim_call.h"
#include "sim/sim_global.h"
#include "sim/sim_host.h"
#include "sim/sim_log.h"
#include "sim/sim_loop.h"
#include "sim/sim_process.h"
#include "sim/sim_restart.h"
#include "sim/sim_shell.h"
#include "sim/sim_world.h"

namespace
{

using namespace sim;

constexpr const char *PID_FILE = "/var/run/phone.pid";

/* A small daemon: locks its pid file, asks for restarts, registers, ticks each second. */
struct Daemon {
    kt_global *global;
    int ticks;
    int exit_at; /* tick that calls exit(), or 0 */
    int resets;
    bool is_ready;
    void *heap;
};

Daemon daemon_now;

int tick(void *)
{
    if (++daemon_now.ticks == daemon_now.exit_at)
        exit(0x14d);
    return kt_thread_add_timer_timeval_withname(daemon_now.global->master, tick, nullptr, 1, 0,
                                                "tick");
}

int become_ready()
{
    daemon_now.is_ready = true;
    return 0;
}

int set_level(const int *args, int count)
{
    printf("level %d of %d", args[0], count);
    return args[0] == 99 ? (exit(5), 0) : 7;
}

int daemon_main()
{
    const int fd = open(PID_FILE, O_RDWR | O_CREAT, 0644);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0) {
        puts("already running");
        return -1;
    }
    const std::string pid = std::to_string(getpid());
    if (ftruncate(fd, 0) != 0 || write(fd, pid.c_str(), pid.size() + 1) < 0)
        return 3;
    daemon_now.heap = calloc(1, 100);
    signal(SIGPIPE, SIG_IGN);
    reg_process_exit_action(getpid(), REG_PROCESS_EXIT_RESTART);
    daemon_now.global = kt_global_init("phone", nullptr);
    static const uint32_t ids[] = {4};
    const rdnd_lib_mom_record record = {daemon_now.global->rdnd,
                                        "phone",
                                        daemon_now.global,
                                        become_ready,
                                        become_ready,
                                        {},
                                        ids,
                                        1};
    if (rdnd_lib_mom_reg(&record) != 0 || ssat_lib_init(daemon_now.global, "phone") != 0 ||
        ssat_reg_mod_cmd("phone", "set-level", 0, "level=%d ", set_level) != 0)
        return 4;
    tick(nullptr);
    const int rv = kt_global_run(daemon_now.global);
    kt_global_finish(daemon_now.global);
    EXPECT_EQ(tick(nullptr), -ENOTCONN);
    return rv;
}

void daemon_reset()
{
    free(daemon_now.heap);
    daemon_now.heap = nullptr;
    daemon_now.resets++;
}

class SimCore : public testing::Test
{
protected:
    void SetUp() override
    {
        world_reset();
        daemon_now = {};
        process_install({"phone", daemon_main, daemon_reset});
        process_on_end([this](const Ended &one) { ended.push_back(one); });
    }
    void TearDown() override
    {
        world_reset();
        EXPECT_EQ(daemon_now.heap, nullptr);
    }

    std::vector<Ended> ended;
};

TEST_F(SimCore, JobsRunInOrderOfTimeThenOfPosting)
{
    std::string order;
    int hooks = 0;
    loop_after_each([&] { hooks++; });
    post_at(20, [&] { order += 'd'; });
    post_at(10, [&] {
        order += 'b';
        post([&] { order += 'c'; });
        post_at(5, [&] { order += now() == 10 ? 'C' : '?'; }); /* has passed: now */
    });
    post_at(20, [&] { order += 'e'; });
    post([&] { order += 'a'; });
    settle();
    EXPECT_EQ(order, "a");
    EXPECT_EQ(next_due(), 10);
    run_until(20);
    EXPECT_EQ(order, "abcCde");
    EXPECT_EQ(hooks, 6);
    run_until(15);
    EXPECT_EQ(now(), 20) << "time does not go back";
}

TEST_F(SimCore, ProcessLivesParkedBetweenItsCallbacks)
{
    process_start();
    EXPECT_TRUE(process_is_running());
    EXPECT_FALSE(daemon_now.is_ready) << "not inside the call that asked for it";
    settle();
    EXPECT_TRUE(daemon_now.is_ready);
    run_until(10 * SECOND - 1);
    EXPECT_EQ(daemon_now.ticks, 10);
    EXPECT_EQ(host_file(PID_FILE), std::string("1000\0", 5));
    process_signal(SIGPIPE);
    EXPECT_TRUE(process_is_running()) << "it ignores SIGPIPE";
    restart_set_delay(3600 * SECOND);
    process_signal(SIGTERM);
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].status, 0);
    EXPECT_FALSE(ended[0].by_signal);
    EXPECT_EQ(daemon_now.resets, 1);
    const int ticks = daemon_now.ticks;
    run_until(100 * SECOND);
    EXPECT_EQ(daemon_now.ticks, ticks) << "its timers went with it";
}

TEST_F(SimCore, ExitAndKillReleaseEverythingAndTheManagerRestarts)
{
    daemon_now.exit_at = 3;
    process_start();
    EXPECT_EQ(host_file_lock_owner(PID_FILE), 1000);
    run_until(2 * SECOND);
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].status, 0x4d) << "eight bits of exit(0x14d)";
    EXPECT_EQ(host_file_lock_owner(PID_FILE), 0);
    EXPECT_TRUE(shell_commands().empty());
    EXPECT_FALSE(process_is_running());
    run_until(2 * SECOND + SECOND / 10);
    EXPECT_EQ(process_pid(), 1001);
    EXPECT_TRUE(process_is_running());
    EXPECT_EQ(host_file(PID_FILE), std::string("1001\0", 5));
    process_signal(SIGKILL);
    ASSERT_EQ(ended.size(), 2U);
    EXPECT_TRUE(ended[1].by_signal);
    EXPECT_EQ(ended[1].status, SIGKILL);
    EXPECT_NE(ended[0].life, ended[1].life);
    run_until(3 * SECOND);
    EXPECT_EQ(restart_count(), 2U);
}

TEST_F(SimCore, ManagerSlowsDownButNeverGivesUpUnlessHeld)
{
    std::string last;
    restart_listen([&](const std::string &sentence) { last = sentence; });
    fault_plan("rdnd_lib_mom_reg", 1, -EIO, 1000);
    process_start();
    run_until(SECOND);
    EXPECT_EQ(last, "process 1010 ended with status 4; restart in 200 ms");
    run_until(600 * SECOND);
    const uint64_t count = restart_count();
    EXPECT_GT(count, 60U);
    EXPECT_LT(count, 200U);
    restart_hold(true);
    run_until(1200 * SECOND);
    EXPECT_EQ(restart_count(), count) << "not even the one that was under way";
    restart_hold(false);
    fault_plan("rdnd_lib_mom_reg", 1, -EIO);
    process_start();
    restart_hold(true);
    restart_hold(false);
    run_until(1300 * SECOND);
    EXPECT_FALSE(process_is_running()) << "released within the delay: it was taken back";
}

TEST_F(SimCore, SecondStartFindsTheLockTaken)
{
    process_start();
    run_until(SECOND);
    OutputCapture output;
    EXPECT_EQ(process_run(daemon_main).status, 0xff);
    EXPECT_EQ(output.text(), "already running\n");
    EXPECT_EQ(daemon_now.resets, 0);
    EXPECT_EQ(host_file_lock_owner(PID_FILE), 1000)
        << "closing a rival's descriptor changes nothing";
    run_until(5 * SECOND);
    EXPECT_EQ(daemon_now.ticks, 6) << "the first goes on";
    process_signal(SIGKILL);
    host_file_lock(PID_FILE, 7);
    EXPECT_EQ(process_run(daemon_main).status, 0xff);
    host_file_lock(PID_FILE, 0);
    EXPECT_EQ(process_run(daemon_main).status, 0) << "enters its loop and gets SIGTERM";
}

TEST_F(SimCore, FilesBehaveAsOnAHost)
{
    const int real = getpid();
    host_file_write("/a", "hello");
    const Ended end = process_run([real] {
        EXPECT_NE(getpid(), real);
        char text[8] = {};
        const int fd = open("/a", O_RDONLY);
        EXPECT_EQ(read(fd, text, 3), 3);
        EXPECT_EQ(read(fd, text + 3, 5), 2);
        EXPECT_STREQ(text, "hello");
        EXPECT_EQ(read(fd, text, 1), 0);
        EXPECT_EQ(write(fd, "x", 1), -1);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(open("/none", O_RDWR), -1);
        EXPECT_EQ(errno, ENOENT);
        const int other = open("/b", O_CREAT | O_RDWR | O_APPEND, 0600);
        host_file_remove("/b");
        EXPECT_EQ(write(other, "abc", 3), 3) << "an open file outlives its name";
        EXPECT_EQ(ftruncate(other, 1 << 21), -1);
        EXPECT_EQ(close(other), 0);
        EXPECT_EQ(close(other), -1);
        for (int i = 0; i < 63; i++)
            EXPECT_GE(open("/a", O_RDONLY), 0);
        EXPECT_EQ(open("/a", O_RDONLY), -1);
        EXPECT_EQ(errno, EMFILE);
        return 300;
    });
    EXPECT_EQ(end.status, 300 & 0xff);
    EXPECT_EQ(open("/a", O_RDONLY), -1) << "outside a process the real host answers";
    EXPECT_FALSE(host_file("/b"));
}

TEST_F(SimCore, FaultsHitTheNthCallOfAFunctionOrAllocation)
{
    fault_plan("open", 2, -EACCES);
    fault_plan("malloc", 3, 0, 2);
    std::vector<Call> seen;
    calls_listen([&](const Call &call) { seen.push_back(call); });
    process_run([] {
        EXPECT_GE(open("/a", O_CREAT | O_RDWR, 0600), 0);
        EXPECT_EQ(open("/a", O_RDWR), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_GE(open("/a", O_RDWR), 0);
        return 0;
    });
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[1].arguments, "path=/a");
    EXPECT_EQ(seen[1].fault, -EACCES);
    std::string outcome;
    for (int i = 0; i < 6; i++) {
        {
            const PlatformScope scope; /* not the program's */
            free(malloc(10));
        }
        void *volatile memory = i % 2 != 0 ? calloc(2, 3) : malloc(6);
        outcome += memory == nullptr ? '-' : '+';
        free(memory);
    }
    EXPECT_EQ(outcome, "++--++");
    EXPECT_TRUE(faults_are_spent());
    EXPECT_EQ(calls_count("malloc"), 6U);
    EXPECT_EQ(calls_count("open"), 3U);
    EXPECT_EQ(seen.size(), 5U) << "only allocations that fail are recorded";
    fault_plan("kt_global_init", 1, -EIO);
    EXPECT_FALSE(faults_are_spent());
    EXPECT_EQ(kt_global_init("x", nullptr), nullptr);
    EXPECT_EQ(calls_names(), (std::vector<std::string>{"kt_global_init", "malloc", "open"}));
}

TEST_F(SimCore, PidAndFormatterAreCallsLikeTheOthers)
{
    process_run([] {
        fault_plan("getpid", 2, -EPERM);
        fault_plan("at_snprintf", 2, -EIO);
        char text[8] = "before";
        EXPECT_GT(getpid(), 0);
        EXPECT_EQ(getpid(), -1);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(at_snprintf(text, sizeof text, "%d", 12), 2);
        EXPECT_STREQ(text, "12");
        EXPECT_EQ(at_snprintf(text, sizeof text, "%d", 13), -1);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(at_snprintf(nullptr, 0, "%d", 123), 3);
        return 0;
    });
    EXPECT_EQ(calls_count("getpid"), 2U);
    EXPECT_EQ(calls_count("at_snprintf"), 3U);
}

TEST_F(SimCore, HookComesBeforeEachCall)
{
    std::vector<uint64_t> seen;
    calls_record(true);
    call_before_each([&seen] {
        seen.push_back(calls_count("getpid"));
        EXPECT_EQ(calls_count("getpid"), calls().size());
        kt_zlog_init("inside"); /* does not come back here */
        calls_clear();
    });
    process_run([] {
        free(malloc(1));
        return getpid() > 0 ? 0 : 1;
    });
    EXPECT_EQ(seen, (std::vector<uint64_t>{0}));
    calls_record(false);
    call_before_each([&seen] { seen.push_back(9); });
    kt_zlog_init("a");
    kt_zlog_init("a");
    call_before_each(nullptr);
    kt_zlog_init("a");
    EXPECT_EQ(seen, (std::vector<uint64_t>{0, 9, 9}));
}

TEST_F(SimCore, ContextsTimersAndRegistrationRefuseWhatIsWrong)
{
    kt_global *global = kt_global_init("x", nullptr);
    EXPECT_EQ(kt_global_init("x", global), global);
    EXPECT_EQ(kt_global_run(global), -EPERM) << "there is no process to park";
    auto add = [&](long seconds, long micros) {
        return kt_thread_add_timer_timeval_withname(global->master, tick, nullptr, seconds, micros,
                                                    "t");
    };
    EXPECT_EQ(add(-1, 0), -EINVAL);
    EXPECT_EQ(add(0, 1'000'000), -EINVAL);
    EXPECT_EQ(add(LONG_MAX, 0), -EINVAL);
    EXPECT_EQ(add(0, 5), 0);
    const uint32_t ids[] = {4};
    rdnd_lib_mom_record record = {global->rdnd, "x", global, become_ready, nullptr, {}, ids, 1};
    record.zero[2] = 1;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), -EINVAL);
    record.zero[2] = 0;
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    kt_global_finish(global);
    run_until(SECOND);
    EXPECT_EQ(daemon_now.ticks, 0);
    EXPECT_FALSE(daemon_now.is_ready);
    EXPECT_EQ(add(0, 5), -ENOTCONN);
    EXPECT_TRUE(global_is_open(global_peer()));
    EXPECT_EQ(reg_process_exit_action(getpid(), 2), -ESRCH);
    kt_zlog *zlog = kt_zlog_init("phone");
    EXPECT_EQ(ktdf_zlog(zlog, "a.cpp!", 5, "f", 1, 12, KTDF_ZLOG_LV_WARN, "%s %d", "no", 5), 0);
    EXPECT_EQ(log_lines().back().file + log_lines().back().text, "a.cppno 5");
}

TEST_F(SimCore, ShellParsesByTheHelpTextAndCatchesOutput)
{
    process_start();
    std::string output;
    int status = 0;
    for (const char *line : {"set-level 12", " set-level  level=0xc "}) {
        EXPECT_TRUE(shell_run(line, &output, &status)) << line;
        EXPECT_EQ(output, "level 12 of 1");
        EXPECT_EQ(status, 7);
    }
    EXPECT_TRUE(shell_run("set-level -2147483648", &output, nullptr));
    const std::pair<const char *, const char *> refused[] = {
        {"", "No command was given.\n"},
        {"dump", "There is no command \"dump\".\n"},
        {"set-level", "\"set-level\" wants: level=<number>.\n"},
        {"set-level 1 2", "\"set-level\" wants: level=<number>.\n"},
        {"set-level 2147483648",
         "\"2147483648\" is not a number that fits; \"set-level\" wants: level=<number>.\n"},
        {"set-level port=1",
         "\"port=1\" is not a number that fits; \"set-level\" wants: level=<number>.\n"}};
    for (const auto &[line, answer] : refused) {
        EXPECT_FALSE(shell_run(line, &output, &status)) << line;
        EXPECT_EQ(output, answer);
    }
    EXPECT_TRUE(shell_run("set-level 99", &output, &status)) << "its handler exits";
    EXPECT_EQ(output, "level 99 of 1");
    ASSERT_EQ(ended.size(), 1U);
    EXPECT_EQ(ended[0].status, 5);
    kt_global *global = kt_global_init("x", nullptr);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "a", 0, "", set_level), -EINVAL) << "unknown module";
    ssat_lib_init(global, "m");
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(ssat_reg_mod_cmd("m", ("c" + std::to_string(i)).c_str(), 0, "", set_level), 0);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "c63", 0, "", set_level), 0);
    EXPECT_EQ(ssat_reg_mod_cmd("m", "c64", 0, "", set_level), -ENOSPC);
}

} // namespace

/* The platform on a Linux host, but for the object database: loop, ports, shell, log, restart. */
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <net/if.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "fastpath/fastpath_library.h"
#include "linux/linux_ddm.h"
#include "linux/linux_env.h"
#include "linux/linux_fp.h"
#include "linux/linux_log.h"
#include "linux/linux_loop.h"
#include "linux/linux_restart.h"
#include "linux/linux_shell.h"
#include "linux/redis_lookup.h"
#include "platform/kt_thread.h"
#include "platform/libddm.h"
#include "platform/rdnd_lib.h"
#include "platform/reg_process.h"
#include "platform/ssat.h"

namespace
{

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using Strings = std::vector<std::string>;

constexpr int64_t PATIENCE = 20'000'000;

/* What callbacks without room for a capture write to. */
struct Heard {
    Strings events;
    kt_thread_master *master = nullptr;
};
Heard heard;

int hear(void *what)
{
    heard.events.emplace_back(static_cast<const char *>(what));
    return 0;
}

class LinuxPlatform : public testing::Test
{
protected:
    LinuxPlatform()
    {
        char name[] = "/tmp/vvlan-test-XXXXXX";
        directory = mkdtemp(name);
        settings.shell = directory + "/shell.sock";
        settings.ports = directory + "/ports";
        linux_env_use(settings);
        heard = {};
        global = kt_global_init("test", nullptr);
        heard.master = global->master;
    }
    ~LinuxPlatform() override
    {
        linux_loop_reset();
        linux_shell_reset();
        linux_ddm_reset();
        linux_restart_reset();
        fastpath::library_reset();
        std::filesystem::remove_all(directory);
    }
    LinuxPlatform(const LinuxPlatform &) = delete;
    LinuxPlatform &operator=(const LinuxPlatform &) = delete;

    int arm(const char *what, long microseconds) const
    {
        return kt_thread_add_timer_timeval_withname(global->master, hear, const_cast<char *>(what),
                                                    0, microseconds, what);
    }
    void write_ports(const std::string &text) const
    {
        std::ofstream(settings.ports) << text;
    }

    std::string directory;
    linux_env_settings settings;
    kt_global *global;
};

/* Standard error as a pipe, while it lives. */
class ErrorPipe
{
public:
    ErrorPipe() : before_(dup(STDERR_FILENO))
    {
        EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0); /* writing blocks */
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        dup2(ends_[1], STDERR_FILENO);
    }
    ~ErrorPipe()
    {
        dup2(before_, STDERR_FILENO);
        for (const int fd : {before_, ends_[0], ends_[1]})
            close(fd);
    }
    ErrorPipe(const ErrorPipe &) = delete;
    ErrorPipe &operator=(const ErrorPipe &) = delete;
    std::string text() const
    {
        std::string all(1 << 16, '\0');
        const ssize_t length = read(ends_[0], all.data(), all.size());
        return all.substr(0, length < 0 ? 0 : static_cast<size_t>(length));
    }

private:
    int before_;
    int ends_[2];
};

int socket_at(const std::string &path, int type, bool is_server)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const auto *general = reinterpret_cast<const sockaddr *>(&address);
    const int result =
        is_server ? bind(fd, general, sizeof address) : connect(fd, general, sizeof address);
    EXPECT_EQ(result, 0) << path << ": " << strerror(errno);
    return fd;
}

TEST_F(LinuxPlatform, JobsAndTimersKeepTheirOrder)
{
    int64_t fired = 0;
    const int64_t armed = linux_loop_now();
    linux_loop_after(3'000, [&] { fired = linux_loop_now(); });
    EXPECT_EQ(arm("late", 2'000), 0);
    for (const char *what : {"a", "b", "c"})
        EXPECT_EQ(arm(what, 0), 0);
    linux_loop_cancel(linux_loop_after(0, [] { hear(const_cast<char *>("cancelled")); }));
    for (const char *what : {"1", "2"})
        linux_global_post(global, [what] {
            hear(const_cast<char *>(what));
            linux_loop_post([] { hear(const_cast<char *>("from a job")); });
        });
    EXPECT_TRUE(heard.events.empty()) << "never inside the call that asked";
    ASSERT_TRUE(linux_loop_run_until([&] { return fired != 0; }, PATIENCE));
    EXPECT_GE(fired, armed + 3'000) << "never before its time";
    EXPECT_THAT(heard.events,
                ElementsAre("1", "2", "a", "b", "c", "from a job", "from a job", "late"));
    EXPECT_FALSE(linux_loop_run_until([] { return false; }, 1'000));

    EXPECT_EQ(arm("", -1), -EINVAL);
    EXPECT_EQ(arm("", 1'000'000), -EINVAL);
    EXPECT_EQ(kt_thread_add_timer_timeval_withname(nullptr, hear, nullptr, 0, 0, ""), -EINVAL);
    size_t posted = 0;
    while (linux_loop_post([] {}) == 0)
        posted++;
    EXPECT_EQ(posted, LINUX_LOOP_JOBS_MAX);
    size_t timers = 0;
    while (arm("", 999'999) == 0)
        timers++;
    EXPECT_EQ(timers, LINUX_LOOP_TIMERS_MAX);
}

TEST_F(LinuxPlatform, AJobThatBreedsDoesNotStarveSockets)
{
    ASSERT_EQ(ssat_lib_init(global, "m"), 0);
    std::function<void()> breed = [&breed] { linux_loop_post(breed); };
    breed();
    const int client = socket_at(settings.shell, SOCK_STREAM, false);
    EXPECT_TRUE(linux_loop_run_until([] { return linux_shell_clients() == 1; }, PATIENCE));
    close(client);
}

TEST_F(LinuxPlatform, AContextEndsWithAllThatHangsOnIt)
{
    kt_global *other = kt_global_init("other", nullptr);
    EXPECT_EQ(kt_global_init("again", other), other);
    arm("mine", 0);
    linux_global_post(global, [] { hear(const_cast<char *>("job")); });
    linux_global_on_finish(global, [] { hear(const_cast<char *>("first")); });
    linux_global_on_finish(global, [] { hear(const_cast<char *>("last")); });
    linux_loop_on_hangup([this] { kt_global_finish(global); });
    kill(getpid(), SIGHUP);
    EXPECT_EQ(kt_global_run(global), -ENOTCONN);
    EXPECT_THAT(heard.events, testing::IsSupersetOf({"last", "first"}));
    heard.events.clear();
    EXPECT_EQ(arm("late", 0), -ENOTCONN);
    EXPECT_EQ(linux_global_post(global, [] {}), -ENOTCONN);
    EXPECT_EQ(kt_global_run(global), -ENOTCONN);
    for (const int signal : {SIGTERM, SIGINT}) {
        linux_loop_post([signal] { kill(getpid(), signal); });
        EXPECT_EQ(kt_global_run(other), 0);
    }
    EXPECT_TRUE(heard.events.empty());
    size_t contexts = 1; /* `other`; the finished one makes room */
    while (kt_global_init("more", nullptr) != nullptr)
        contexts++;
    EXPECT_EQ(contexts, LINUX_LOOP_CONTEXTS_MAX);
}

TEST_F(LinuxPlatform, EnvironmentIsReadByItsTableOrRefusedWithASentence)
{
    std::map<std::string, std::string> set;
    linux_env_settings read;
    const auto parse = [&](std::map<std::string, std::string> variables) {
        set = std::move(variables);
        return linux_env_parse(
            [&set](const char *name) { return set.contains(name) ? set[name].c_str() : nullptr; },
            &read);
    };
    EXPECT_EQ(parse({{"VVLAN_SHELL", ""}}), "");
    EXPECT_EQ(read.mom.path, "/run/vvlan/mom.sock");
    EXPECT_EQ(read.shell, "/run/vvlan/shell.sock");
    EXPECT_EQ(parse({{"VVLAN_MOM", "tls:[fe80::1]:6380"}, {"VVLAN_MOM_CA", "/ca"}}), "");
    EXPECT_THAT(read.mom.addresses, ElementsAre(linux_env_address{"fe80::1", 6380}));
    EXPECT_EQ(parse({{"VVLAN_MOM", "sentinel:a:1,b:2/mom"}, {"VVLAN_PORTS", "host"}}), "");
    EXPECT_EQ(read.mom.name, "mom");
    EXPECT_EQ(read.mom.addresses.at(1), (linux_env_address{"b", 2}));
    const std::pair<const char *, const char *> refused[] = {
        {"VVLAN_MOM", "/run/mom.sock"},   {"VVLAN_MOM", "unix:mom.sock"},
        {"VVLAN_MOM", "tcp:host"},        {"VVLAN_MOM", "tcp:host:0"},
        {"VVLAN_MOM", "tcp:host:65536"},  {"VVLAN_MOM", "tcp:fe80::1:6379"},
        {"VVLAN_MOM", "tcp:a:1,b:2"},     {"VVLAN_MOM", "sentinel:a:1"},
        {"VVLAN_MOM", "sentinel:a:1,/m"}, {"VVLAN_MOM_PASSWORD_FILE", "secret"},
        {"VVLAN_MOM_CA", "/ca"},          {"VVLAN_MOM_KEY", "/key"},
        {"VVLAN_MOM_CARD", "1024"},       {"VVLAN_MOM_CARD", "1x"},
        {"VVLAN_MOM_CARD", "0x"},         {"VVLAN_PORTS", "ports"}};
    for (const auto &[name, value] : refused)
        EXPECT_THAT(parse({{name, value}}), StartsWith(std::string(name) + "=" + value + ": "));
    EXPECT_EQ(parse({{"VVLAN_MOM", "tcp:a:0x1F90"}, {"VVLAN_MOM_CARD", "0X3ff"}}), "");
    EXPECT_EQ(read.mom.addresses.at(0).port, 8080);
    EXPECT_EQ(read.mom_card, 1023U);
    EXPECT_THAT(parse({{"VVLAN_MOM_CARD", "99999999999999999999"}}), HasSubstr("from 0 to 1023"));
    EXPECT_THAT(parse({{"VVLAN_MOM_USER", "me"}}),
                StartsWith("VVLAN_MOM_PASSWORD_FILE=: it is wanted"));
    EXPECT_THAT(parse({{"VVLAN_SHELL", "/" + std::string(107, 'x')}}), HasSubstr("at most 107"));
    for (const linux_env_variable &variable : linux_env_table())
        EXPECT_THAT(variable.meaning, EndsWith("."));
}

/* A resolver that answers when the test says so; with "" it knows none. */
struct SlowResolver {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> answers;
    int asked = 0, running = 0;
    bool is_over = false;

    int resolve(std::vector<std::string> *numbers)
    {
        std::unique_lock lock(mutex);
        asked++;
        running++;
        changed.wait(lock, [&] { return is_over || !answers.empty(); });
        if (!is_over && !answers.front().empty())
            numbers->push_back(answers.front());
        if (!is_over)
            answers.pop_front();
        running--;
        changed.notify_all();
        return numbers->empty() ? EAI_NONAME : 0;
    }
    void answer(const std::string &text)
    {
        const std::lock_guard lock(mutex);
        answers.push_back(text);
        changed.notify_all();
    }
    int times()
    {
        const std::lock_guard lock(mutex);
        return asked;
    }
    void end()
    {
        std::unique_lock lock(mutex);
        is_over = true;
        changed.notify_all();
        changed.wait(lock, [&] { return running == 0; });
    }
};

TEST_F(LinuxPlatform, NamesAreLookedUpBesideTheLoop)
{
    const auto slow = std::make_shared<SlowResolver>();
    const std::chrono::milliseconds none(0);
    redis::lookup_with([slow](const std::string &,
                              std::vector<std::string> *numbers) { return slow->resolve(numbers); },
                       none, none);
    std::string why;
    const auto look = [&why] { return redis::lookup("server", &why); };
    EXPECT_THAT(redis::lookup("::1", &why), ElementsAre("::1")) << "is never looked up";
    EXPECT_THAT(look(), ElementsAre());
    EXPECT_EQ(why, "no answer from the resolver yet");
    while (slow->times() == 0)
        EXPECT_THAT(look(), ElementsAre());
    EXPECT_EQ(slow->times(), 1) << "once at a time";
    slow->answer("192.0.2.1");
    while (look().empty())
        std::this_thread::yield();
    slow->answer("");
    while (slow->times() < 3)
        EXPECT_THAT(look(), ElementsAre("192.0.2.1")) << "stays known while the resolver fails";
    slow->answer("192.0.2.2");
    while (look() != Strings{"192.0.2.2"})
        std::this_thread::yield();
    slow->end();
    redis::lookup_with({}, none, none);
}

TEST_F(LinuxPlatform, LogLinesStayLinesAndNeverBlock)
{
    kt_zlog *log = kt_zlog_init("vvlan");
    EXPECT_EQ(kt_zlog_init("vvlan"), log);
    const ErrorPipe error;
    EXPECT_EQ(ktdf_zlog(log, "a.cpp!", 5, "f!", 1, 12, KTDF_ZLOG_LV_WARN, "%s\n%d\n", "no", 5), 0);
    EXPECT_EQ(error.text(), "<4>vvlan: no 5 [a.cpp:12 f]\n");
    const std::string large(2 * LINUX_LOG_LINE_MAX, 'x');
    EXPECT_EQ(ktdf_zlog(log, "a", 1, "f", 1, 1, KTDF_ZLOG_LV_FATAL, "%s", large.c_str()), 0);
    const std::string cut = error.text();
    EXPECT_EQ(cut.size(), LINUX_LOG_LINE_MAX);
    EXPECT_THAT(cut, StartsWith("<2>vvlan: xxx"));
    EXPECT_THAT(cut, EndsWith("xxx [a:1 f]\n"));
    int result = 0;
    while (result == 0)
        result = LINUX_LOG(KTDF_ZLOG_LV_DEBUG, "%s", large.c_str());
    EXPECT_EQ(result, -EAGAIN);
}

TEST_F(LinuxPlatform, PortFileSkipsBadLinesAndKeepsWhatIsInUse)
{
    const ErrorPipe error;
    EXPECT_NE(libddm_init(global, "m"), 0) << "no file";
    write_ports("# ports\n1 0x11 lan1 # first\n\n2 18\n3 x lan3\n0 4 lan4\n1 19 again\n5 17 again\n"
                "6 20 lan6 more\n7 21 " +
                std::string(64, 'n') + "\r\n8\t22\tlan8\r\n4294967296 23 big");
    ASSERT_EQ(libddm_init(global, "m"), 0);
    const std::string complaints = error.text();
    for (const int line : {4, 5, 6, 7, 8, 9, 10, 12})
        EXPECT_THAT(complaints, HasSubstr(settings.ports + ":" + std::to_string(line) + ": "));
    EXPECT_THAT(complaints, HasSubstr("ports:7: ifx 1 stands in line 2 already"));
    EXPECT_THAT(linux_ddm_pairs(),
                ElementsAre(linux_ddm_pair{1, 17, "lan1"}, linux_ddm_pair{8, 22, "lan8"}));
    uint32_t number = 99;
    EXPECT_NE(libddm_get_phyid_by_ifx(2, &number), 0);
    EXPECT_NE(libddm_get_ifx_by_phyid(1, &number), 0);
    EXPECT_EQ(number, 99U) << "left alone";
    EXPECT_EQ(libddm_get_ifx_by_phyid(17, &number), 0);
    EXPECT_EQ(number, 1U);

    write_ports("1 50 lan1\n9 17 thief\n10 10 lan10\n");
    kill(getpid(), SIGHUP);
    EXPECT_TRUE(
        linux_loop_run_until([&] { return libddm_get_phyid_by_ifx(10, &number) == 0; }, PATIENCE));
    EXPECT_THAT(linux_ddm_pairs(),
                ElementsAre(linux_ddm_pair{1, 17, "lan1"}, linux_ddm_pair{10, 10, "lan10"}));
    std::filesystem::remove(settings.ports);
    EXPECT_NE(linux_ddm_reload(), 0);
    EXPECT_EQ(linux_ddm_pairs().size(), 2U);

    linux_ddm_reset();
    settings.ports = "host";
    linux_env_use(settings);
    ASSERT_EQ(libddm_init(global, "m"), 0);
    const uint32_t loopback = if_nametoindex("lo");
    EXPECT_EQ(libddm_get_phyid_by_ifx(loopback, &number), 0);
    EXPECT_EQ(number, loopback);
    EXPECT_NE(libddm_get_ifx_by_phyid(0x7fffffff, &number), 0);
}

int add_up(const int *args, int count)
{
    std::printf("%d%c", args[0] + args[1], '\0');
    return count;
}

int flood(const int *args, int)
{
    for (int i = 0; i < args[0]; i++)
        std::puts("0123456789abcdef0123456789abcde"); /* 32 bytes with its line end */
    return 0;
}

/* One client of the shell, without a thread of its own. */
class ShellClient
{
public:
    explicit ShellClient(const std::string &path) : fd_(socket_at(path, SOCK_STREAM, false))
    {
    }
    ~ShellClient()
    {
        close(fd_);
    }
    ShellClient(const ShellClient &) = delete;
    ShellClient &operator=(const ShellClient &) = delete;

    void say(const std::string &text) const
    {
        EXPECT_EQ(send(fd_, text.data(), text.size(), MSG_NOSIGNAL), std::ssize(text));
    }
    void say_no_more() const
    {
        shutdown(fd_, SHUT_WR);
    }
    /* Everything up to `end`, or up to the end of the stream for "". */
    std::string hear(const std::string &end)
    {
        std::string all;
        linux_loop_run_until(
            [&] {
                char block[65'536];
                ssize_t length = 0;
                while ((length = recv(fd_, block, sizeof block, 0)) > 0)
                    all.append(block, static_cast<size_t>(length));
                is_closed = length == 0 || (errno != EAGAIN && errno != EINTR);
                return is_closed || (!end.empty() && all.ends_with(end));
            },
            PATIENCE);
        std::replace(all.begin(), all.end(), '\0', '@');
        return all;
    }
    bool is_closed = false;

private:
    int fd_;
};

TEST_F(LinuxPlatform, ShellServesSeveralAndSurvivesBadClients)
{
    { /* a socket whose server died is taken over, a file of another kind is not */
        std::ofstream(settings.shell) << "precious";
        const ErrorPipe error;
        EXPECT_EQ(ssat_lib_init(global, "m"), -EADDRINUSE);
        std::filesystem::remove(settings.shell);
        close(socket_at(settings.shell, SOCK_STREAM, true));
    }
    ASSERT_EQ(ssat_lib_init(global, "m"), 0);
    struct stat status = {};
    ASSERT_EQ(stat(settings.shell.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    ASSERT_EQ(ssat_reg_mod_cmd("m", "add", 0, "a=%d b=%d :sum", add_up), 0);
    ASSERT_EQ(ssat_reg_mod_cmd("m", "flood", 0, "lines=%d", flood), 0);

    const ShellClient half(settings.shell); /* half a request, for ever */
    half.say("add 1");
    const ShellClient slow(settings.shell); /* asks for much and takes nothing */
    slow.say("flood 1000000\nflood 1000000\n");
    ShellClient one(settings.shell);
    ShellClient two(settings.shell);
    one.say("add 1 a=2\n"); /* names belong to their places */
    two.say("add 40 b=2\r\n\nadd 1\nnothing\n");
    EXPECT_THAT(one.hear("\n"), EndsWith("is not a number that fits; \"add\" wants: a=<number> "
                                         "b=<number>.\n@status -22\n"));
    EXPECT_EQ(two.hear("-2\n"), "42@status 2\n@status 0\n\"add\" wants: a=<number> b=<number>.\n"
                                "@status -22\nThere is no command \"nothing\".\n@status -2\n");
    one.say("help\n");
    EXPECT_THAT(one.hear("status 0\n"),
                testing::AllOf(HasSubstr("\nadd "), HasSubstr("fp_tables")));
    one.say("flood 600000"); /* a last line without its end */
    one.say_no_more();
    const std::string large = one.hear("");
    EXPECT_THAT(large, EndsWith("... cut off here.\n@status 0\n"));
    EXPECT_NEAR(static_cast<double>(large.size()), LINUX_SHELL_ANSWER_MAX, 100);
    EXPECT_TRUE(one.is_closed);
    two.say(std::string(5'000, 'x'));
    EXPECT_EQ(two.hear(""), "A request has at most 1023 bytes.\n@status -22\n");

    std::vector<std::unique_ptr<ShellClient>> crowd; /* those that were silent longest make room */
    for (size_t i = 0; i < 2 * LINUX_SHELL_CLIENTS_MAX; i++) {
        crowd.push_back(std::make_unique<ShellClient>(settings.shell));
        crowd.back()->say("add 1 1\n");
        EXPECT_EQ(crowd.back()->hear("\n"), "2@status 2\n");
        EXPECT_LE(linux_shell_clients(), LINUX_SHELL_CLIENTS_MAX);
    }
    kt_global_finish(global);
    EXPECT_EQ(linux_shell_clients(), 0U);
    EXPECT_FALSE(std::filesystem::exists(settings.shell));
}

Strings datagrams(int fd)
{
    Strings all;
    char block[256];
    for (ssize_t length = 0; (length = recv(fd, block, sizeof block, 0)) > 0;)
        all.emplace_back(block, static_cast<size_t>(length));
    return all;
}

int result_of_acl(void *, const fp_udp_acl *acl)
{
    heard.events.push_back("acl " + std::to_string(acl->acl_id));
    return 0;
}

int failed_ace(void *, const fp_udp_acl *, uint64_t ace_id, int error)
{
    heard.events.push_back("ace " + std::to_string(ace_id) + " " + std::to_string(error));
    return 0;
}

TEST_F(LinuxPlatform, ReadinessIsToldAfterTheLastSyncAndTheWatchdogFed)
{
    const std::string path = directory + "/notify";
    const int notified = socket_at(path, SOCK_DGRAM, true);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "15000", 1);
    setenv("VVLAN_SUPERVISE_FILE", (directory + "/restart").c_str(), 1);
    EXPECT_EQ(reg_process_exit_action(getpid(), 1), -EINVAL);
    EXPECT_EQ(reg_process_exit_action(1, REG_PROCESS_EXIT_RESTART), -ESRCH);
    EXPECT_FALSE(std::filesystem::exists(directory + "/restart"));
    EXPECT_EQ(reg_process_exit_action(getpid(), REG_PROCESS_EXIT_RESTART), 0);
    EXPECT_TRUE(std::filesystem::exists(directory + "/restart"));

    const fp_udp_acl_handler handler = {result_of_acl, nullptr, nullptr, failed_ace,
                                        nullptr,       nullptr, {}};
    ASSERT_EQ(fp_udp_register_acl_handler(global, 8, &handler), 0);
    const fp_udp_mgr_ops *manager = fp_udp_get_mgr();
    fp_udp_acl acl = {"app", 1, 4, {}, {}};
    for (const char *app_type : {"app", "other"})
        manager->apply_sync_begin(global, app_type);
    EXPECT_EQ(manager->acl_create(global, &acl), 0);
    acl.acl_id = 2;
    fp_udp_ace *ace = manager->ace_alloc(7, 0);
    EXPECT_EQ(manager->ace_add(global, &acl, ace), 0) << "taken; that it fails is told later";
    manager->ace_free(ace);
    EXPECT_EQ(manager->acl_create(global, &acl), 0);
    while (linux_loop_post([] {}) == 0)
        continue;
    acl.acl_id = 3;
    EXPECT_EQ(manager->acl_create(global, &acl), -ENOSPC);
    EXPECT_THAT(linux_fp_tables().text(), testing::Not(HasSubstr("app/3")));
    EXPECT_TRUE(heard.events.empty());
    ASSERT_TRUE(linux_loop_run_until([] { return heard.events.size() == 3; }, PATIENCE));
    EXPECT_THAT(heard.events, ElementsAre("acl 1", "ace 7 -2", "acl 2"));

    static const uint32_t databases[] = {0};
    rdnd_lib_mom_record record = {global->rdnd, "m", global, nullptr, nullptr, {}, databases, 1};
    EXPECT_EQ(rdnd_lib_mom_reg(&record), -EINVAL) << "nobody to call";
    record.ready2 = [] { return hear(const_cast<char *>("ready")); };
    EXPECT_EQ(rdnd_lib_mom_reg(&record), 0);
    manager->apply_sync_end(global, "app");
    EXPECT_THAT(datagrams(notified), ElementsAre());
    manager->apply_sync_end(global, "other");
    EXPECT_THAT(datagrams(notified), ElementsAre(StartsWith("READY=1")));
    Strings told;
    const std::function<void()> look = [&] {
        std::ranges::copy(datagrams(notified), std::back_inserter(told));
        if (std::ranges::count(told, "WATCHDOG=1") >= 2)
            linux_loop_stop();
        else
            linux_loop_after(1'000, look);
    };
    look();
    EXPECT_EQ(kt_global_run(global), 0) << "it was fed";
    EXPECT_EQ(heard.events.back(), "ready");
    EXPECT_THAT(datagrams(notified), ElementsAre("STOPPING=1"));
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "VVLAN_SUPERVISE_FILE"})
        unsetenv(name);
    close(notified);
}

} // namespace

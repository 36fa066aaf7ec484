/* vvlanctl as a program: exit statuses, two at once, the debug shell at a terminal, completion. */
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ctl/ctl_shell.h"
#include "tests/live/command.h"
#include "tests/live/live_daemon.h"
#include "tests/live/redis_server.h"

namespace
{

using testing::HasSubstr;
using testing::Not;

constexpr std::chrono::seconds PATIENCE{30};
const std::string PROGRAM = VVLAN_PROGRAM_DIR "/vvlanctl";

class Vvlanctl : public testing::Test
{
protected:
    Vvlanctl()
    {
        setenv("VVLAN_MOM", ("unix:" + server.socket()).c_str(), 1);
        setenv("VVLAN_SHELL", (server.directory() + "/shell.sock").c_str(), 1);
        setenv("VVLAN_PORTS", (server.directory() + "/ports").c_str(), 1);
        setenv("HOME", server.directory().c_str(), 1);
        setenv("PATH", (VVLAN_PROGRAM_DIR ":" + std::string(getenv("PATH"))).c_str(), 1);
        std::ofstream(server.directory() + "/ports") << "3 259 ge3\n";
    }
    void start()
    {
        daemon.start();
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        while (run("vvlanctl shell help").status != 0)
            ASSERT_LT(std::chrono::steady_clock::now(), end) << daemon.log();
    }

    RedisServer server;
    LiveDaemon daemon{VVLAN_PROGRAM_DIR "/ox.vvlan.dp", server.directory(), {}};
};

TEST_F(Vvlanctl, EndsWithAStatusThatTellsWhatHappened)
{
    const auto status = [](const std::string &line) { return run("vvlanctl " + line).status; };
    EXPECT_THAT(run("vvlanctl show").text, Not(HasSubstr("note:"))) << "an empty database is fine";
    EXPECT_EQ(status("set vlan 100 switch on"), 0);
    EXPECT_EQ(status("set vlan 4095"), 1);
    EXPECT_EQ(status("set vlan"), 2);
    EXPECT_EQ(status("shell help"), 3) << "no daemon";
    EXPECT_EQ(status("show"), 0) << "the databases are there";
    EXPECT_EQ(status("--mom unix:/nowhere show"), 3);
    EXPECT_EQ(status("--mom nowhere show"), 2);
    EXPECT_EQ(status("show -j >/dev/full"), 1);
    EXPECT_EQ(status("watch --since-start --for 5 >/dev/full"), 1);
    EXPECT_EQ(status("watch --since-start --for 5 | true"), 0);
    server.freeze();
    EXPECT_EQ(status("port auto 3"), 3) << "no answer";
    server.thaw();
}

/* The shell's socket stands, but nobody takes what comes: a daemon that is stopped. */
TEST_F(Vvlanctl, WaitsForNoShellForEver)
{
    const std::string path = server.directory() + "/full.sock";
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, name, sizeof address), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    for (const char *who : {"gets no answer, and takes the place", "finds no place in the queue"}) {
        try {
            ctl::shell_ask(path, "help", 20);
            ADD_FAILURE() << "the one who " << who;
        } catch (const ctl::Failure &failure) {
            EXPECT_EQ(failure.status, ctl::NO_REACH);
            EXPECT_EQ(failure.text, "the debug shell does not answer") << who;
        }
    }
    close(listener);
}

/* Whatever the server refuses a change for, one is told of it at once. */
TEST_F(Vvlanctl, SaysWhatTheServerRefuses)
{
    ASSERT_EQ(run("vvlanctl set vlan 100").status, 0); /* the scripts are loaded */
    const auto set_up = [&](const char *words) {
        EXPECT_EQ(run("redis-cli -s " + server.socket() + " " + words).text, "OK\n") << words;
    };
    for (const auto &[refused, again] :
         std::initializer_list<std::pair<const char *, const char *>>{
             {"config set maxmemory 1", "config set maxmemory 0"},
             {"config set min-replicas-to-write 1", "config set min-replicas-to-write 0"},
             {"acl setuser default -hset", "acl setuser default +hset"}}) {
        set_up(refused);
        for (const char *change : {"port auto 3", "set vlan 200"}) {
            const Output said = run("timeout 4 vvlanctl " + std::string(change));
            EXPECT_EQ(said.status, 1) << said.text;
            EXPECT_THAT(said.text, HasSubstr("refused"));
        }
        set_up(again);
    }
    EXPECT_EQ(run("vvlanctl object get p_bridge.vvlan_glb_cfg").text, "glb_switch.vlan=100\n");
    /* What is no object is in nobody's way. */
    set_up("-n 4 set p_bridge.vvlan_glb_cfg text");
    EXPECT_THAT(run("vvlanctl object get p_bridge.vvlan_glb_cfg").text, HasSubstr("is no object"));
    EXPECT_EQ(run("vvlanctl set vlan 300").status, 0);
    EXPECT_EQ(run("vvlanctl object get p_bridge.vvlan_glb_cfg").text, "glb_switch.vlan=300\n");
}

TEST_F(Vvlanctl, LosesNoHalfOfAFieldToAnotherThatSetsTheOther)
{
    for (const char *values : {"5 40", "3 12", "7 1", "1 63"}) {
        const std::string cos(values, 1), dscp(values + 2);
        const std::string both = "vvlanctl set cos " + cos + " & vvlanctl set dscp " + dscp +
                                 " & vvlanctl set vlan 1" + cos + " & vvlanctl set aging " + dscp +
                                 " & wait";
        EXPECT_EQ(run(both).status, 0);
        EXPECT_EQ(run("vvlanctl object get p_bridge.vvlan_glb_cfg").text,
                  "glb_switch.vlan=1" + cos + " age_time=" + dscp + " qos.cos=" + cos +
                      " qos.dscp=" + dscp + "\n");
    }
}

/* A program at a terminal of its own. */
class Terminal
{
public:
    explicit Terminal(const std::string &command)
    {
        pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        EXPECT_GE(pid_, 0) << "no terminal (is devpts mounted at /dev/pts?): " << strerror(errno);
        if (pid_ == 0) {
            setenv("TERM", "dumb", 1);
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Terminal()
    {
        if (pid_ < 0)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(fd_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    void type(const std::string &keys) const
    {
        ASSERT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    /* Waits until it has printed this behind what was awaited before. */
    void expect(const std::string &wanted)
    {
        size_t at = 0;
        ASSERT_GE(fd_, 0);
        while ((at = screen_.find(wanted)) == std::string::npos) {
            pollfd output{fd_, POLLIN, 0};
            ASSERT_EQ(poll(&output, 1, static_cast<int>(PATIENCE.count() * 1000)), 1)
                << wanted << " in\n"
                << screen_;
            char chunk[4096];
            const ssize_t got = read(fd_, chunk, sizeof chunk);
            ASSERT_GT(got, 0) << wanted << " in\n" << screen_;
            screen_.append(chunk, static_cast<size_t>(got));
        }
        screen_.erase(0, at + wanted.size());
    }
    void expect_end()
    {
        pollfd output{fd_, POLLIN, 0};
        char chunk[4096];
        while (poll(&output, 1, static_cast<int>(PATIENCE.count() * 1000)) == 1) {
            if (read(fd_, chunk, sizeof chunk) <= 0)
                return;
        }
        ADD_FAILURE() << "it stays";
    }

private:
    int fd_ = -1;
    pid_t pid_;
    std::string screen_;
};

TEST_F(Vvlanctl, ConversesWithTheDebugShell)
{
    start();
    EXPECT_EQ(run("printf 'set-zlog-level 3\\n\\nshow-zlog-level\\nquit\\nnot read\\n' | "
                  "vvlanctl shell")
                  .status,
              0);
    EXPECT_EQ(run("echo nothing | vvlanctl shell").status, 1);
    for (int visit = 0; visit < 2; visit++) {
        Terminal terminal("vvlanctl shell");
        terminal.expect("vvlan> ");
        terminal.type(visit == 0 ? "set-z\t 2\n" : "\x10\x10\n"); /* completion; the line above */
        terminal.expect("set zlog_level=2 success !");
        terminal.expect("vvlan> ");
        terminal.type("exit\n");
        terminal.expect_end();
        EXPECT_EQ(run("grep -c exit ~/.vvlanctl_history").text, visit == 0 ? "1\n" : "2\n");
    }
}

TEST_F(Vvlanctl, CompletesInBash)
{
    start();
    const std::string script = "source " VVLAN_SOURCE_DIR "/ctl/completion/vvlanctl.bash\n"
                               "complete -p vvlanctl\n"
                               "try() { COMP_LINE=$1 COMP_POINT=${#1}; _vvlanctl\n"
                               "echo \"${COMPREPLY[*]}\"; }\n";
    const auto completed = [&](const std::string &line) {
        std::ofstream(server.directory() + "/script") << script << "try '" << line << "'\n";
        const std::string text = run("bash -eu " + server.directory() + "/script").text;
        EXPECT_THAT(text, testing::StartsWith("complete -F _vvlanctl vvlanctl\n"));
        return text.substr(text.find('\n') + 1);
    };
    EXPECT_EQ(completed("vvlanctl s"), "set show shell\n");
    EXPECT_EQ(completed("vvlanctl -j --mom tcp:1.2.3.4:5 oui "), "add del list\n");
    EXPECT_EQ(completed("vvlanctl set security on switch "), "on off\n");
    EXPECT_EQ(completed("vvlanctl object get u_bridge.vvlan_j"), "u_bridge.vvlan_join\n");
    EXPECT_EQ(completed("vvlanctl shell dump_all_m"), "dump_all_mac\n");
    EXPECT_EQ(completed("vvlanctl object watch --s"), "--shell --since-start\n");
}

TEST_F(Vvlanctl, CompletesInZsh)
{
    if (run("command -v zsh").status != 0)
        GTEST_SKIP() << "there is no zsh here";
    start();
    Terminal terminal("PS1='ready> ' exec zsh -f -i");
    terminal.expect("ready> ");
    terminal.type("fpath=(" VVLAN_SOURCE_DIR "/ctl/completion $fpath); autoload -U compinit; "
                  "compinit -u -D; print loaded: $_comps[vvlanctl]\n");
    terminal.expect("loaded: _vvlanctl");
    terminal.expect("ready> ");
    terminal.type("vvlanctl object get u_bridge.vvlan_j\t");
    terminal.expect("u_bridge.vvlan_join");
    terminal.type("\x15vvlanctl shell dump_all_m\t");
    terminal.expect("dump_all_mac");
    terminal.type("\x15vvlanctl port \t");
    terminal.expect("manual");
}

} // namespace

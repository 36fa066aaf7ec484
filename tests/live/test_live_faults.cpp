/*
 * The daemon against a server that fails it, tools that get in each other's way, and
 * a storm of notices.
 */
#include "tests/live/live_host.h"

#include "mom/kt_mom_peer.h"
#include "proto/p_bridge.pb-c.h"
#include "proto/u_bridge.pb-c.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

namespace
{

constexpr int RECONNECTED_TO_ANOTHER = 77; /* the daemon's status then */

const char *const PORT = "p_bridge.vvlan_port_cfg";
const char *const OUI = "p_bridge.vvlan_oui_cfg";
const char *const MAC = "u_bridge.mac_vid_reg_noti";

std::string phone(const std::string &last)
{
    return "index.t_fid=100 index.t_mac=00:11:22:00:00:" + last;
}

class LiveFaults : public testing::Test
{
protected:
    /* Automatic ports 1 to 3, of which 1 is joined, and a manual one. */
    void begin(bool keeps_data = false)
    {
        made = std::make_unique<LiveHost>(keeps_data);
        configure();
        for (const char *last : {"01", "02"})
            host().set(MAC, phone(last) + " port_id=" + last[1]);
        start();
        join(1);
    }
    LiveHost &host() const
    {
        return *made;
    }
    void configure() const
    {
        for (const char *oui : {"00:11:22", "00:aa:bb"})
            host().set(OUI,
                       "index.mac=" + std::string(oui) + ":00:00:00 index.mask=ff:ff:ff:00:00:00");
        host().hset("glb_switch.vlan=100 glb_switch.enable=1 secu_mode=1 qos.cos=5 qos.dscp=40");
        for (const char *port :
             {"1 enable=1 mode=1", "2 enable=1 mode=1", "3 enable=1 mode=1", "4 enable=1 mode=0"})
            host().set(PORT, std::string("index.ifx=") + port);
    }
    void start() const
    {
        host().start();
        EXPECT_TRUE(host().until([&] { return host().is_ready(); }));
        host().expect_settled();
    }
    void join(uint32_t ifx) const
    {
        host().notice(ifx);
        EXPECT_TRUE(host().until([&] {
            host().look();
            return host().is_joined(ifx);
        }));
        host().expect_settled();
        host().changes.clear();
    }
    /*
     * A bit of everything, nothing of which a daemon may miss. Left out is what a running
     * daemon answers otherwise than a new one, with which it is compared: an OUI that is
     * added traps the joined ports, and a port without MACs that is switched off keeps its
     * trap.
     */
    void change() const
    {
        host().del(MAC, phone("01"));
        host().set(MAC, phone("03") + " port_id=3");
        host().set(PORT, "index.ifx=2 enable=1 mode=0");
        host().set(PORT, "index.ifx=5 enable=1 mode=1");
        host().hset("age_time=7 secu_mode=0");
    }
    std::string clients() const
    {
        return "name=vvlan:" + std::to_string(host().daemon.pid()) + ":";
    }
    /* How often one of its connections has been lost. */
    size_t losses() const
    {
        std::istringstream log(host().daemon.log());
        size_t count = 0;
        for (std::string line; std::getline(log, line);)
            count += line.find("not connected: ") != std::string::npos;
        return count;
    }
    void cut(const std::string &client) const
    {
        host().server.command({"CLIENT", "KILL", "ID", client});
    }
    /* The same process, in the right state, and port 1 has never been out. */
    void expect_resynchronised() const
    {
        host().settle();
        host().expect_settled();
        host().settle();
        EXPECT_EQ(host().daemon.wait(0), -1);
        for (const std::string &change : host().changes)
            EXPECT_FALSE(change.starts_with("del ") && is_of_port(change, 1) &&
                         change.find("port_cfg") == std::string::npos)
                << change;
    }

    std::unique_ptr<LiveHost> made;
};

TEST_F(LiveFaults, ServerKilledAndBackWithItsData)
{
    begin(true);
    host().server.kill();
    host().server.start();
    host().expect_end(RECONNECTED_TO_ANOTHER);
    host().settle();
    start();
    EXPECT_TRUE(host().is_joined(1));
}

TEST_F(LiveFaults, ServerKilledAndBackWithoutItsData)
{
    begin();
    host().server.kill();
    host().server.start();
    host().expect_end(RECONNECTED_TO_ANOTHER);
    host().forget();
    host().settle();
    start();
    configure();
    host().expect_settled();
    join(1);
}

TEST_F(LiveFaults, ServerFrozenAndThawed)
{
    begin();
    host().server.freeze();
    host().del(MAC, phone("02")); /* is done when the server thaws */
    EXPECT_TRUE(host().until([&] { return losses() > 0; }));
    host().server.thaw();
    expect_resynchronised();
    change();
    expect_resynchronised();
}

TEST_F(LiveFaults, SocketRemovedAndMadeAgain)
{
    begin();
    host().server.unlink_clients();
    host().notice(3); /* who is connected stays so */
    EXPECT_TRUE(host().until([&] {
        host().look();
        return host().is_joined(3);
    }));
    for (const std::string &id : host().server.clients(clients()))
        cut(id);
    EXPECT_TRUE(host().until([&] { return losses() >= 4; }));
    change();
    host().set(OUI, "index.mac=00:cc:dd:00:00:00 index.mask=ff:ff:ff:00:00:00");
    host().settle();
    host().server.link_clients(host().server.socket());
    expect_resynchronised();
}

TEST_F(LiveFaults, EachConnectionKilled)
{
    begin();
    for (const char *link : {"0:command", "0:subscriber", "4:command", "4:subscriber", "6:command",
                             "6:subscriber", "8:command", "8:subscriber"}) {
        const std::vector<std::string> standing = host().server.clients(clients() + link);
        ASSERT_EQ(standing.size(), 1U) << link;
        const size_t before = losses();
        cut(standing[0]);
        host().set(MAC, phone("02") + " port_id=" + std::to_string(before % 2 + 1));
        EXPECT_TRUE(host().until([&] { return losses() > before; })) << link;
        EXPECT_TRUE(host().until([&] { return host().server.clients(clients()).size() == 8; }));
        expect_resynchronised();
    }
    change();
    expect_resynchronised();
}

/* Writes are refused, deletions not: what could not be written is made up for. */
TEST_F(LiveFaults, MemoryFullAndFreed)
{
    begin();
    host().server.command({"CONFIG", "SET", "maxmemory", "1"});
    host().notice(2);
    EXPECT_TRUE(host().until([&] { return losses() > 0; }));
    host().server.command({"CONFIG", "SET", "maxmemory", "0"});
    expect_resynchronised();
    change();
    expect_resynchronised();
}

/* The number behind `name` in a line, 0 if it is not there. */
unsigned long number_in(const std::string &line, const std::string &name)
{
    const size_t at = line.find(" " + name + "=");
    return at == std::string::npos ? 0 : std::stoul(line.substr(at + name.size() + 2));
}

/* Each tool raises halves of two fields, which the other sets too, and adds its own objects. */
TEST_F(LiveFaults, TwoToolsAtOnce)
{
    constexpr uint32_t ROUNDS = 60;
    made = std::make_unique<LiveHost>();
    configure();
    host().hset("qos.cos=0 qos.dscp=0");
    start();
    host().changes.clear();
    setenv("VVLAN_MOM", ("unix:" + host().server.link()).c_str(), 1);
    std::atomic<int> done = 0;
    const auto tool = [](const std::string &command) {
        const std::string all = VVLAN_PROGRAM_DIR "/vvlanctl " + command + " >/dev/null";
        EXPECT_EQ(std::system(all.c_str()), 0) << command;
    };
    const auto work = [&](bool is_left) {
        for (uint32_t i = 1; i <= ROUNDS; i++) {
            const std::string n = std::to_string(i), side = is_left ? "1" : "0";
            tool(is_left ? "set dscp " + n + " vlan " + std::to_string(300 + i)
                         : "set switch on cos " + std::to_string(i / 9));
            if (i % 6 == 0) {
                tool("oui add 00:0" + side + ":" + std::to_string(10 + i) + "/24");
                tool((i % 4 == 0 ? "port manual " : "port auto ") +
                     std::string(is_left ? "5,6" : "7,8"));
            }
        }
        done++;
    };
    std::thread left(work, true), right(work, false);
    EXPECT_TRUE(host().until([&] { return done == 2; }));
    left.join();
    right.join();
    unsetenv("VVLAN_MOM");
    host().adopt();
    host().expect_settled();
    host().settle();
    std::map<std::string, unsigned long> seen;
    for (const std::string &change : host().changes) {
        for (const char *name : {"glb_switch.vlan", "glb_switch.enable", "qos.cos", "qos.dscp"}) {
            if (change.find("vvlan_glb_cfg") == std::string::npos)
                continue;
            EXPECT_GE(number_in(change, name), seen[name]) << change;
            seen[name] = number_in(change, name);
        }
    }
    EXPECT_EQ(seen["glb_switch.vlan"], 300 + ROUNDS);
    EXPECT_EQ(seen["qos.cos"] * 100 + seen["qos.dscp"], ROUNDS / 9 * 100 + ROUNDS);
    const LiveHost::Lines all = host().stored();
    const auto count = [&](const std::string &kind) {
        return std::ranges::count_if(
            all, [&](const auto &each) { return each.starts_with(kind + " "); });
    };
    EXPECT_EQ(count(OUI), 2 + 2 * ROUNDS / 6);
    EXPECT_EQ(count(PORT), 4 + 4);
}

/* --- A storm */

constexpr uint32_t PHONES = 1'000, NOTICES = 1'000'000;

/* The notices from one number to another: phones move from port to port, and go and come. */
class Storm
{
public:
    explicit Storm(LiveHost &of) : host_(of)
    {
        index_.t_fid = 100;
        mac_.data = {sizeof bytes_, bytes_};
        index_.t_mac = &mac_;
        notice_.index = &index_;
    }
    void blow(uint32_t from, uint32_t to)
    {
        for (uint32_t i = from; i < to; i++) {
            const uint32_t turn = i / PHONES + i % PHONES;
            bytes_[4] = static_cast<uint8_t>(i % PHONES >> 8);
            bytes_[5] = static_cast<uint8_t>(i % PHONES);
            notice_.port_id = 1 + turn % 3;
            const auto send = [&] {
                return (turn % 4 == 0 ? kt_mom_del : kt_mom_set)(host_.peer, 6, &notice_.base, 0,
                                                                 0);
            };
            if (i % PHONES == 0)
                host_.turn(0);
            int result = send();
            for (; result == -ENOBUFS; result = send())
                host_.turn(0); /* as fast as the server takes them */
            ASSERT_EQ(result, 0);
        }
        host_.settle();
    }

private:
    LiveHost &host_;
    uint8_t bytes_[6] = {0x00, 0x11, 0x22};
    PLibpub__Mac mac_ = P_LIBPUB__MAC__INIT;
    UBridge__UdpL2addrBaseIndex index_ = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti notice_ = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
};

/* The most memory that the daemon has ever had, in KiB. */
size_t peak(const LiveHost &host)
{
    std::ifstream status("/proc/" + std::to_string(host.daemon.pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:"))
            return std::stoul(line.substr(6));
    }
    return 0;
}

/* What the server has for the daemon, or from it, and has not got rid of; bytes. */
size_t backlog(LiveHost &host)
{
    const std::string name = " name=vvlan:" + std::to_string(host.daemon.pid()) + ":";
    std::istringstream list(host.server.command({"CLIENT", "LIST"}));
    size_t bytes = 0;
    for (std::string line; std::getline(list, line);) {
        if (line.find(name) != std::string::npos)
            bytes += number_in(line, "omem") + number_in(line, "qbuf");
    }
    return bytes;
}

/*
 * What may grow is the queue of 65,536 changes, some 250 bytes each under the sanitizer,
 * which keeps back 1 MiB of what was freed. A million changes would be 250 MB.
 */
TEST_F(LiveFaults, AMillionNoticesOfAThousandPhones)
{
    constexpr size_t GROWTH_MAX = 32 << 10; /* KiB */
    made = std::make_unique<LiveHost>(false,
                                      "quarantine_size_mb=1:thread_local_quarantine_size_kb=64");
    configure();
    start();
    Storm storm(host());
    storm.blow(0, PHONES);
    host().adopt();
    host().expect_settled();
    const size_t before = peak(host());
    storm.blow(PHONES, NOTICES);
    host().adopt();
    host().expect_settled();
    const LiveHost::Lines known = host().known();
    EXPECT_EQ(
        std::ranges::count_if(known, [](auto &each) { return each.starts_with("knows MAC"); }),
        PHONES * 3 / 4);
    EXPECT_LT(peak(host()) - before, GROWTH_MAX);
    std::printf("peak %zu KiB after %u notices, %zu KiB after %u\n", before, PHONES, peak(host()),
                NOTICES);
    host().set(MAC, "index.t_fid=100 index.t_mac=00:11:22:00:30:00 port_id=2");
    host().expect_settled();
    EXPECT_EQ(backlog(host()), 0U);
}

} // namespace

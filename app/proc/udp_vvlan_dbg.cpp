#include "app/proc/udp_vvlan_dbg.h"

#include <cstdio>

#include "app/proc/udp_vvlan_mac.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"
#include "app/proc/udp_vvlan_recover.h"
#include "app/proc/udp_vvlan_state.h"
#include "platform/ssat.h"

namespace
{

/* By debug level; the blanks are part of the names. */
constexpr const char *LEVEL_NAMES[UDP_VVLAN_DEBUG_LEVEL_MAX + 1] = {
    " KTDF_ZLOG_LV_FATAL ",  " KTDF_ZLOG_LV_ERROR ", " KTDF_ZLOG_LV_WARN ",
    " KTDF_ZLOG_LV_NOTICE ", " KTDF_ZLOG_LV_INFO ",  " KTDF_ZLOG_LV_DEBUG "};

constexpr const char *PORT_HEADER =
    "    PORT          MODE    PHYID         STATUS    NO_FLW_CNT    trap   secu   mac_aged   "
    "age_time    deny_en  auto_join   vvlan";
constexpr const char *PORT_RULE =
    "    ------------- ------- ------------- --------- -----------   -----  -----  --------   "
    "--------    -------  ---------  -----";

int show_level(const int *args, int count);
int set_level(const int *args, int count);
int dump_glb(const int *args, int count);
int dump_ouis(const int *args, int count);
int dump_ports(const int *args, int count);
int dump_port_macs(const int *args, int count);
int dump_macs(const int *args, int count);
int dump_recover(const int *args, int count);

struct dbg_command {
    const char *name;
    const char *help;
    ssat_handler handler;
};

constexpr dbg_command COMMANDS[] = {
    {"show-zlog-level", "void  :show current log level", show_level},
    {"set-zlog-level", "level=%d ", set_level},
    {"dump_glbal_configure", "void  :dump_glbal configure", dump_glb},
    {"dump_all_oui", "void  :", dump_ouis},
    {"dump_all_port", "void  :", dump_ports},
    {"dump_port_mac", "ifx=%d  :", dump_port_macs},
    {"dump_all_mac", "void  :", dump_macs},
    {"dump_recover_entry", "void  :", dump_recover},
};

} // namespace

int udp_vvlan_dbg_init(kt_global *global, const char *module)
{
    int rv = ssat_lib_init(global, module);
    if (rv != 0)
        return rv;
    for (const dbg_command &command : COMMANDS)
        rv = ssat_reg_mod_cmd(module, command.name, 0, command.help, command.handler);
    return rv;
}

namespace
{

int show_level(const int *, int)
{
    std::puts(udp_vvlan_debug_level <= UDP_VVLAN_DEBUG_LEVEL_MAX
                  ? LEVEL_NAMES[udp_vvlan_debug_level]
                  : " can't Distinguish !");
    return 0;
}

int set_level(const int *args, int)
{
    udp_vvlan_debug_level_set(static_cast<uint32_t>(args[0]));
    std::printf("set zlog_level=%d success !\n", udp_vvlan_debug_level);
    return 0;
}

int dump_glb(const int *, int)
{
    const udp_vvlan_glb_record &glb = udp_vvlan_glb;
    std::puts("\n");
    std::printf("  Voice VLAN status        : %s\n", glb.enable != 0 ? "ENABLE" : "DISABLE");
    std::printf("  Voice VLAN ID            : %d\n", glb.vid);
    std::printf("  Voice VLAN security mode : %s\n", glb.secu != 0 ? "Security" : "Normal");
    std::printf("  Voice VLAN aging time    : %d minutes\n", glb.age_time);
    std::printf("  Voice VLAN cos           : %d\n", glb.cos);
    std::printf("  Voice VLAN dscp          : %d\n", glb.dscp);
    return 0;
}

/* format takes the six bytes. */
void print_mac(const char *format, const udp_vvlan_mac_addr *mac)
{
    const uint8_t *byte = mac->bytes;
    std::printf(format, byte[0], byte[1], byte[2], byte[3], byte[4], byte[5]);
}

int dump_oui(vvlan_oui *node, void *)
{
    std::printf("  <%02d> mac:", udp_vvlan_state_now.dump_number++);
    print_mac("%02X%02X.%02X%02X.%02X%02X", &node->mac);
    std::printf("      mask:");
    print_mac("%02X%02X.%02X%02X.%02X%02X", &node->mask);
    std::printf("\n");
    return 0;
}

int dump_ouis(const int *, int)
{
    std::puts("\n");
    udp_vvlan_state_now.dump_number = 1;
    return udp_vvlan_oui_foreach(dump_oui, nullptr);
}

const char *trap_text(const udp_vvlan_port_node *port)
{
    if (!udp_vvlan_port_is_auto(port))
        return "     ";
    return udp_vvlan_port_has(port, UDP_VVLAN_PORT_DENY_EN) ? " TRAP" : "!TRAP";
}

const char *join_text(const udp_vvlan_port_node *port)
{
    if (!udp_vvlan_port_has(port, UDP_VVLAN_PORT_VVLAN_EN))
        return "    ";
    const bool is_manual = !udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD);
    return is_manual || udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_JOIN) ? "JOINED" : "UNJOIN";
}

int dump_port(udp_vvlan_port_node *port)
{
    std::printf("    ifx:%4d      %-7s 0x%x     %-7s   %08d(s)   %-5s %6s  %-8s %04d(minute) %8d  "
                "%-10s %-4d\n",
                port->ifx, udp_vvlan_port_has(port, UDP_VVLAN_PORT_AUTO_MOD) ? "AUTO" : "MANUAL",
                port->phyid,
                udp_vvlan_port_has(port, UDP_VVLAN_PORT_VVLAN_EN) ? " ENABLE" : "DISABLE",
                port->no_flw, trap_text(port), udp_vvlan_glb.secu != 0 ? " SECU" : "!SECU",
                udp_vvlan_port_has(port, UDP_VVLAN_PORT_MAC_AGED) ? " AGING" : "!AGING",
                udp_vvlan_glb.age_time, udp_vvlan_port_has(port, UDP_VVLAN_PORT_DENY_EN),
                join_text(port), udp_vvlan_glb.vid);
    return 0;
}

int dump_ports(const int *, int)
{
    std::puts("\n");
    std::puts(PORT_HEADER);
    std::puts(PORT_RULE);
    return udp_vvlan_port_foreach(dump_port);
}

int dump_port_macs(const int *args, int)
{
    std::puts("\n");
    udp_vvlan_port_node *port = udp_vvlan_port_find(static_cast<uint32_t>(args[0]));
    if (port == nullptr) {
        std::printf("Not Found The Port by ifx=%d", args[0]);
        return 0;
    }
    uint32_t number = 1;
    for (udp_vvlan_link *link = port->mac_list.next; link != &port->mac_list; link = link->next) {
        std::printf("  <%05d> mac: ", number++);
        print_mac("%02X%02X.%02X%02X.%02X%02X \n", &udp_vvlan_mac_node_of(link)->mac);
    }
    return 0;
}

int dump_mac(udp_vvlan_mac_node *record, void *)
{
    std::printf("  <%05d> mac: ", udp_vvlan_state_now.dump_number++);
    print_mac("%02X%02X.%02X%02X.%02X%02X ", &record->mac);
    std::printf("   vid:%-4d   ifx:%d\n", udp_vvlan_glb.vid, record->ifx);
    return 0;
}

int dump_macs(const int *, int)
{
    std::puts("\n");
    udp_vvlan_state_now.dump_number = 1;
    return udp_vvlan_mac_foreach(dump_mac, nullptr);
}

int dump_recover_entry(udp_vvlan_recover_entry *entry, void *)
{
    std::printf("ifx = %d\n", entry->ifx);
    return 0;
}

int dump_recover(const int *, int)
{
    return udp_vvlan_recover_foreach(dump_recover_entry, nullptr);
}

} // namespace

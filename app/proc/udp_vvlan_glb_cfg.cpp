#include "app/proc/udp_vvlan_glb_cfg.h"

#include "app/proc/udp_vvlan.h"
#include "app/proc/udp_vvlan_fp.h"
#include "app/proc/udp_vvlan_oui.h"
#include "app/proc/udp_vvlan_port.h"
#include "app/proc/udp_vvlan_recover.h"

namespace
{

constexpr udp_vvlan_glb_record GLB_DEFAULTS = {
    .vid = 0,
    .enable = 0,
    .age_time = 1440,
    .secu = 0,
    .cos = 6,
    .dscp = 46,
};

} // namespace

int udp_vvlan_glb_cfg_init(void)
{
    udp_vvlan_glb = GLB_DEFAULTS;
    udp_vvlan_oui_init();
    int rv = udp_vvlan_port_init();
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_port_init failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_mac_init();
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_mac_init failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_recover_init();
    if (rv != 0) {
        UDP_VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_recover_init failed, rv = %d.", rv);
        return rv;
    }
    UDP_VVLAN_LOG_INFO("udp_vvlan_indep_init succeed!");
    return 0;
}

int udp_vvlan_add_vid(uint32_t vid)
{
    if (vid == 0) {
        udp_vvlan_glb.enable = 0;
        return 0;
    }
    udp_vvlan_glb.enable = 1;
    udp_vvlan_glb.vid = vid;
    udp_vvlan_set_acl(1); /* takes the id back when it fails; the rest is done all the same */
    udp_vvlan_set_ace(1);
    return udp_vvlan_port_foreach(udp_vvlan_port_cfg);
}

void udp_vvlan_del_vid(uint32_t vid)
{
    if (vid != udp_vvlan_glb.vid) {
        UDP_VVLAN_LOG_INFO("wrong vid(%d)!", vid);
        return;
    }
    udp_vvlan_glb.vid = 0;
    udp_vvlan_glb.enable = 0;
    udp_vvlan_port_foreach(udp_vvlan_port_remove_vvlan);
    udp_vvlan_set_ace(0);
    udp_vvlan_set_acl(0);
}

#include "bench/bench_objects.h"

namespace bench
{

namespace
{

constexpr uint32_t AUTOMATIC = 1;

/* The address that all of an OUI's MACs begin with, and how many bits of it. */
udp_vvlan_mac_addr oui_address(uint32_t number);
uint32_t oui_length(uint32_t number);

} // namespace

Global::Global()
    : enable(P_BRIDGE__VVLAN_EN__INIT), qos(P_BRIDGE__B_QOS__INIT),
      message(P_BRIDGE__VVLAN_GLB_CFG__INIT)
{
    enable.vlan = VOICE_VID;
    enable.enable = 1;
    qos.cos = 6;
    qos.dscp = 46;
    message.glb_switch = &enable;
    message.age_time = 1440;
    message.qos = &qos;
}

Oui::Oui(uint32_t number)
    : address(oui_address(number)), prefix(), mac(P_LIBPUB__MAC__INIT), mask(P_LIBPUB__MAC__INIT),
      index(P_BRIDGE__B_OUI__INIT), message(P_BRIDGE__VVLAN_OUI_CFG__INIT)
{
    for (uint32_t bit = 0; bit < oui_length(number); bit++)
        prefix.bytes[bit / 8] = static_cast<uint8_t>(prefix.bytes[bit / 8] | 0x80 >> bit % 8);
    mac.data = {sizeof address.bytes, address.bytes};
    mask.data = {sizeof prefix.bytes, prefix.bytes};
    index.mac = &mac;
    index.mask = &mask;
    message.index = &index;
}

Port::Port(uint32_t ifx, bool is_automatic)
    : index(P_BRIDGE__VVLAN_INDEX__INIT), message(P_BRIDGE__VVLAN_PORT_CFG__INIT)
{
    index.ifx = ifx;
    message.index = &index;
    message.enable = 1;
    message.mode = is_automatic ? AUTOMATIC : 0;
}

Noti::Noti(const Size &size, uint32_t number)
    : bytes(oui_address(number % size.ouis)), mac(P_LIBPUB__MAC__INIT),
      index(U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT), message(U_BRIDGE__MAC_VID_REG_NOTI__INIT)
{
    bytes.bytes[4] = static_cast<uint8_t>(bytes.bytes[4] | (number / size.ouis >> 8));
    bytes.bytes[5] = static_cast<uint8_t>(number / size.ouis);
    mac.data = {sizeof bytes.bytes, bytes.bytes};
    index.t_fid = VOICE_VID;
    index.t_mac = &mac;
    message.index = &index;
    message.port_id = 1 + number % size.ports;
    message.flag = 1;
}

Seen::Seen(uint32_t ifx)
    : index(S_BRIDGE__VVLAN_INDEX__INIT), message(S_BRIDGE__VVLAN_PORT_NOTY__INIT)
{
    index.phyid = phyid_of(ifx);
    message.index = &index;
}

namespace
{

udp_vvlan_mac_addr oui_address(uint32_t number)
{
    const auto low = static_cast<uint8_t>(number);
    const auto block = static_cast<uint8_t>(number / 8 << 4);
    switch (oui_length(number)) {
    case 28:
        return {{0x0c, 0x11, 0x05, block, 0, 0}};
    case 36:
        return {{0x70, 0xb3, 0xd5, low, 0x10, 0}};
    default:
        return {{0x00, 0x04, low, 0, 0, 0}};
    }
}

/* Of 8 entries 6 are of 24 bits, 1 of 28, 1 of 36. At most 16 are of 28 bits. */
uint32_t oui_length(uint32_t number)
{
    return number % 8 == 6 ? 28 : number % 8 == 7 ? 36 : 24;
}

} // namespace

} // namespace bench

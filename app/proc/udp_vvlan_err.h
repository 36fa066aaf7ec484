/*
 * udp_vvlan_err - tells the management plane what could not be carried out.
 *
 * A failure is written as one p_bridge.vvlan_err_event into the configuration
 * database. The object has no key, so the last event stands there. It is sent
 * and forgotten: the result is not looked at and nothing is kept.
 */
#ifndef APP_PROC_UDP_VVLAN_ERR_H
#define APP_PROC_UDP_VVLAN_ERR_H

#include <cstdint>

/*
 * err_type  a PBridge__VvlanErrType, P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_...;
 *           an unknown one is logged and nothing is written.
 * data      VVLAN_SET_PORT_ENABLE: the port's ifx, const uint32_t *;
 *           VVLAN_SET_OUI_CONFIG: the OUI, const vvlan_oui *;
 *           otherwise not read. Read during the call only.
 */
void udp_vvlan_handler_err_event(uint32_t err_type, const void *data);

#endif

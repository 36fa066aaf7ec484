#include "app/proc/udp_vvlan.h"

int main()
{
    return udp_vvlan_main();
}

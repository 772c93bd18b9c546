// Hooks of the multicast extension: called where it would listen, and doing nothing.
#include "lum_private.h"

int lum_mcast_process_rtab_notify() { return 1; }
int lum_mcast_process_add_delete_adjacency() { return 1; }

// Host queries into a node. The order of the queries is part of the contract with the host.
#pragma once

#include "plugin_qtbin.h"

// Asks the host about an instruction of thread `tid`. Returns a new node, which is the caller's; null when the
// instruction is filtered or memory runs out, which is reported.
Node *capture_instruction(int tid, void *iop);

// Coarse kind of a translation mode.
XLATE_TYPE get_xlate_mode(RDX_XLATE_MODE mode);

// One captured case each, for the instruction's address (pc) and for its data address (pcdata).
void iop_helper_pc_host_real(Node *p, void *iop);
void iop_helper_pc_host_hpt(Node *p, void *iop);
void iop_helper_pc_guest_hpt(Node *p, void *iop);
void iop_helper_pc_guest_real_host_hpt(Node *p, void *iop);
void iop_helper_pc_host_radix(Node *p, void *iop);
void iop_helper_pc_guest_real_host_radix(Node *p, void *iop);
void iop_helper_pc_guest_radix(Node *p, void *iop);
void iop_helper_pcdata_host_real(Node *p, void *iop);
void iop_helper_pcdata_host_hpt(Node *p, void *iop);
void iop_helper_pcdata_guest_hpt(Node *p, void *iop);
void iop_helper_pcdata_guest_real_host_hpt(Node *p, void *iop);
void iop_helper_pcdata_host_radix(Node *p, void *iop);
void iop_helper_pcdata_guest_real_host_radix(Node *p, void *iop);
void iop_helper_pcdata_guest_radix(Node *p, void *iop);

// What the host answers about an address. Every question about the instruction's own address (fetch) has a twin about
// its data address: query_rpn(FETCH_SIDE, iop) is Get_Inst_PC_RPN(iop), query_rpn(DATA_SIDE, iop) the other.
#pragma once

#include "inline_body.h"
#include "plugin_api.h"

// The side is a constant wherever it is used, so that a query becomes a direct call.
enum ADDRESS_SIDE { FETCH_SIDE, DATA_SIDE };

// QUERY(type, name, of the fetch, of the data), and WALK_QUERY for those that take the number of a host walk.
// clang-format off
#define ADDRESS_QUERIES(QUERY, WALK_QUERY)                                                                         \
    QUERY(MMUStatus, mmu_status, Get_PC_MMU_Status, Get_Data_MMU_Status)                                           \
    QUERY(RDX_XLATE_MODE, xlate_type, Get_PC_Xlate_Type, Get_Data_Xlate_Type)                                      \
    QUERY(RDX_MODE, guest_mode, Get_PC_Radix_Guest_Mode, Get_Data_Radix_Guest_Mode)                                \
    QUERY(RDX_MODE, host_mode, Get_PC_Radix_Host_Mode, Get_Data_Radix_Host_Mode)                                   \
    QUERY(uint8_t, host_two_level, Get_PC_Host_AXD_Two_Level, Get_Data_Host_AXD_Two_Level)                         \
    QUERY(uint8_t, guest_two_level, Get_PC_Guest_AXD_Two_Level, Get_Data_Guest_AXD_Two_Level)                      \
    QUERY(uint8_t, host_depth, Get_PC_Radix_Host_Walk_Depth, Get_Data_Radix_Host_Walk_Depth)                       \
    QUERY(uint8_t, guest_depth, Get_PC_Radix_Guest_Walk_Depth, Get_Data_Radix_Guest_Walk_Depth)                    \
    QUERY(uint64_t, ra, Get_Inst_PC_RA, Get_Inst_Data_RA)                                                          \
    QUERY(uint64_t, vsid, Get_Inst_PC_VSID, Get_Inst_Data_VSID)                                                    \
    QUERY(uint32_t, rpn, Get_Inst_PC_RPN, Get_Inst_Data_RPN)                                                       \
    QUERY(uint32_t, host_rpn, Get_Inst_Host_PC_RPN, Get_Inst_Data_Host_RPN)                                        \
    QUERY(uint32_t, guest_rpn, Get_Inst_Guest_PC_RPN, Get_Inst_Data_Guest_RPN)                                     \
    QUERY(uint8_t, page_size, Get_Inst_PC_PageSize, Get_Inst_Data_PageSize)                                        \
    QUERY(uint8_t, host_page_size, Get_Inst_PC_Host_PageSize, Get_Inst_Data_Host_PageSize)                         \
    QUERY(uint8_t, guest_page_size, Get_Inst_PC_Guest_PageSize, Get_Inst_Data_Guest_PageSize)                      \
    QUERY(PA, guest_l1, Get_Inst_PC_GUEST_RTPDE_L1_RA, Get_Inst_Data_GUEST_RTPDE_L1_RA)                            \
    QUERY(PA, guest_l2, Get_Inst_PC_GUEST_RTPDE_L2_RA, Get_Inst_Data_GUEST_RTPDE_L2_RA)                            \
    QUERY(PA, guest_l3, Get_Inst_PC_GUEST_RTPDE_L3_RA, Get_Inst_Data_GUEST_RTPDE_L3_RA)                            \
    QUERY(PA, guest_pte, Get_Inst_PC_GUEST_RTPTE_RA, Get_Inst_Data_GUEST_RTPTE_RA)                                 \
    QUERY(PA, guest_ra, Get_Inst_PC_GUEST_RA, Get_Inst_Data_GUEST_RA)                                              \
    WALK_QUERY(PA, host_l1, Get_Inst_PC_HOST_RTPDE_L1_n_RA, Get_Inst_Data_HOST_RTPDE_L1_n_RA)                      \
    WALK_QUERY(PA, host_l2, Get_Inst_PC_HOST_RTPDE_L2_n_RA, Get_Inst_Data_HOST_RTPDE_L2_n_RA)                      \
    WALK_QUERY(PA, host_l3, Get_Inst_PC_HOST_RTPDE_L3_n_RA, Get_Inst_Data_HOST_RTPDE_L3_n_RA)                      \
    WALK_QUERY(PA, host_pte, Get_Inst_PC_HOST_RTPTE_n_RA, Get_Inst_Data_HOST_RTPTE_n_RA)                           \
    WALK_QUERY(PA, host_ra, Get_Inst_PC_RonR_HOST_RA_Ln, Get_Inst_Data_RonR_HOST_RA_Ln)
// clang-format on

#define DEFINE_QUERY(type, name, fetch_query, data_query)                                                          \
    INLINE_BODY type query_##name(ADDRESS_SIDE side, void *iop)                                                    \
    {                                                                                                              \
        return side == FETCH_SIDE ? fetch_query(iop) : data_query(iop);                                            \
    }

#define DEFINE_WALK_QUERY(type, name, fetch_query, data_query)                                                     \
    INLINE_BODY type query_##name(ADDRESS_SIDE side, void *iop, int n)                                             \
    {                                                                                                              \
        return side == FETCH_SIDE ? fetch_query(iop, n) : data_query(iop, n);                                      \
    }

ADDRESS_QUERIES(DEFINE_QUERY, DEFINE_WALK_QUERY)

#undef DEFINE_QUERY
#undef DEFINE_WALK_QUERY

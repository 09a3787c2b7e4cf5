/*
 * Questions about the platform the library runs on. The stand-in answers from
 * MGMT_PLATFORM, a comma-separated list of words (adc, waf, mysql, a, bds,
 * nips, ids, mcpu, mq500_sdwan), and MGMT_MCP_SLOT for the management slot.
 */
#ifndef PLATFORM_QUESTIONS_H
#define PLATFORM_QUESTIONS_H

#include "mgmt/platform/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

PLATFORM_API int vk_is_adc_platform(void);
PLATFORM_API int vk_is_waf_platform(void);
PLATFORM_API int vk_is_support_mysql(void);
PLATFORM_API int vk_is_a_platform(void);
PLATFORM_API int vk_is_bds_platform(void);
PLATFORM_API int vk_is_nips_platform(void);
PLATFORM_API int vk_is_ids_platform(void);
PLATFORM_API int vk_is_mcpu_system_platform(void);
PLATFORM_API int vk_is_mq500_sdwan_platform(void);
/* The management slot: MGMT_MCP_SLOT, else 0. */
PLATFORM_API int vk_get_mcp_slot(void);

#ifdef __cplusplus
}
#endif

#endif

// Platform questions of the stand-in, answered from the environment.
#include "mgmt/platform/questions.h"

#include <cstdlib>
#include <cstring>

namespace {

// 1 when `word` is one of the comma-separated words of MGMT_PLATFORM.
int platform_has(const char *word) {
    const char *list = std::getenv("MGMT_PLATFORM");
    if (!list) return 0;
    size_t n = std::strlen(word);
    for (const char *p = list; *p;) {
        const char *end = std::strchr(p, ',');
        size_t len = end ? size_t(end - p) : std::strlen(p);
        if (len == n && std::strncmp(p, word, n) == 0) return 1;
        if (!end) break;
        p = end + 1;
    }
    return 0;
}

} // namespace

extern "C" {

int vk_is_adc_platform(void) { return platform_has("adc"); }
int vk_is_waf_platform(void) { return platform_has("waf"); }
int vk_is_support_mysql(void) { return platform_has("mysql"); }
int vk_is_a_platform(void) { return platform_has("a"); }
int vk_is_bds_platform(void) { return platform_has("bds"); }
int vk_is_nips_platform(void) { return platform_has("nips"); }
int vk_is_ids_platform(void) { return platform_has("ids"); }
int vk_is_mcpu_system_platform(void) { return platform_has("mcpu"); }
int vk_is_mq500_sdwan_platform(void) { return platform_has("mq500_sdwan"); }

int vk_get_mcp_slot(void) {
    const char *v = std::getenv("MGMT_MCP_SLOT");
    return v ? std::atoi(v) : 0;
}

} // extern "C"

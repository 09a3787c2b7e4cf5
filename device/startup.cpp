// Start-up of a process that uses the library: device log, debugging, locale and message
// catalogue, the process-wide language word, and the notice to the administration daemon.
#include "mgmt/device.h"

#include <cerrno>
#include <clocale>
#include <cstring>
#include <string>

#include <libintl.h>
#include <sys/wait.h>

#include "mgmt/platform/device.h"
#include "mgmt/platform/platform.h"

namespace {
constexpr uint32_t kAdmindAppid = 15;
constexpr uint16_t kAdmindPublishMsg = MGMT_ADMIND_PUBLISH_MSG;
} // namespace

extern "C" {

MGMT_API int vk_mgmt_init(const char *ident, int option, int facility) {
    vk_syslog_init(ident, option, facility);
    vk_debug_init();
    return 0;
}

MGMT_API void vk_language_init(const char *locale) {
    if (!locale) return;
    if (std::strcmp(locale, "zh_CN.UTF-8") == 0) {
        setlocale(LC_ALL, locale);
        bindtextdomain("msg", "/usr/share/locale");
        bind_textdomain_codeset("msg", "utf-8");
        textdomain("msg");
    } else if (std::strcmp(locale, "en_US.UTF-8") == 0) {
        // English runs without a catalogue of its own: the texts stand in the code.
        setlocale(LC_ALL, locale);
        bindtextdomain("", "/usr/share/locale");
        bind_textdomain_codeset("", "");
        textdomain("");
    }
}

MGMT_API void set_language(const char *name) {
    _system_language = name && std::strcmp(name, "zh_CN") == 0 ? 2 : 1;
}

MGMT_API int get_sys_language(void) { return _system_language; }

MGMT_API int system_language_info_ipcmsg_handler(void *, void *, void *payload, uint32_t len, int32_t *,
                                                 void *, uint32_t *reply_len) {
    // The payload is a language name; it is read no further than the message reaches.
    const char *text = static_cast<const char *>(payload);
    std::string name = text ? std::string(text, strnlen(text, len)) : std::string();
    set_language(name.c_str());
    if (reply_len) *reply_len = 0;
    return 0;
}

MGMT_API int vk_admind_publish_info(void) {
    void *msg = ipcmsg_alloc(0);
    if (!msg) return -1;
    int rc = ipcmsg_send(kAdmindAppid, 0, kAdmindPublishMsg, msg, 0);
    ipcmsg_free(msg);
    return rc;
}

MGMT_API void sig_int(int) {
    const int saved = errno;
    for (;;) {
        int status;
        pid_t r = waitpid(-1, &status, WNOHANG);
        if (r > 0) continue;
        if (r == 0) break;
        if (errno != EINTR) break;
    }
    errno = saved;
}

} // extern "C"

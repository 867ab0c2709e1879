// Reads the mail configuration file into Content_D_flg, the switch between
// the standard and the short Content-Disposition form of attachments.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "util/paths.h"

namespace kemail {

int read_mail_config(ProfileHandle* profile) {
    trace(g_trace, 1, "READKEMAIL0000");
    Content_D_flg = 0;
    if (profile == nullptr) {
        trace(g_trace, 0, "READKEMAIL0010");
        return -1;
    }
    Content_D_flg =
        Com_GetPrivateProfileInt(profile, "KEMAIL", "CONTENT_DISPOSITION", 0, KEMAIL_MAIL_INI);
    trace_word(g_trace, 2, "READKEMAIL0020", static_cast<uint32_t>(Content_D_flg));
    trace(g_trace, 1, "READKEMAILFFFF");
    return 0;
}

}  // namespace kemail

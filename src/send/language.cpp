// Which Japanese encoding the caller's text is in, told by the process locale.
#include "send/send_internal.h"

#include "log/trace_record.h"

#include <clocale>
#include <cstring>

namespace kemail {
namespace {

enum class Match { None, Exact, IgnoringCase };

Match find_in_table(const LangInfo* table, const char* locale) {
    for (const LangInfo* row = table; row->ulKind != 0; ++row) {
        if (row->ulKind == 2) {
            if (CheckString_NotUpLow(locale, row->szName) == 0) return Match::IgnoringCase;
        } else if (std::strcmp(locale, row->szName) == 0) {
            return Match::Exact;
        }
    }
    return Match::None;
}

}  // namespace

Language detect_language() {
    const char* locale = std::setlocale(LC_ALL, nullptr);
    if (locale == nullptr) {
        trace(g_trace, 0, "GETLANG0010");
        return kLanguageUnknown;
    }
    switch (find_in_table(stEucLangInfo, locale)) {
        case Match::IgnoringCase: trace(g_trace, 2, "GETLANG0020"); return kLanguageEucJp;
        case Match::Exact: trace(g_trace, 2, "GETLANG0015"); return kLanguageEucJp;
        case Match::None: break;
    }
    switch (find_in_table(stSjisLangInfo, locale)) {
        case Match::IgnoringCase: trace(g_trace, 2, "GETLANG0030"); return kLanguageShiftJis;
        case Match::Exact: trace(g_trace, 2, "GETLANG0025"); return kLanguageShiftJis;
        case Match::None: break;
    }
    trace_text(g_trace, 1, "GETLANGFFFF", locale);
    return kLanguageUnknown;
}

}  // namespace kemail

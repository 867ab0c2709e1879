// The EUC-JP to Shift_JIS conversion of a whole text (the subject or the
// body), line by line through Cnv_euctosjis.
#include "compose/compose.h"

#include "log/trace_record.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cstdlib>
#include <cstring>

namespace kemail {
namespace {

// Scratch room for one piece of the usual length; longer pieces (a text
// without CR LF is one piece of up to 10,238 bytes) get a heap block.
constexpr size_t kPieceScratchSize = 1029;

}  // namespace

// Kept: CHANGE0010 and CHANGE0020 are also records of the code changer, with
// other meanings (test SendTrace.CodeChangerAndLineConverterShareChange0010And0020).
int convert_lines(iconv_t converter, const char* source, char* dest, size_t dest_size) {
    trace(g_trace, 1, "CHANGE0000");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        trace(g_trace, 0, "CHANGE0010");
        return -1;
    }
    if (dest_size == 0) return -1;

    const size_t source_length = std::strlen(source);
    char small_scratch[kPieceScratchSize];
    UniqueMalloc<char> large_scratch;
    char* scratch = small_scratch;
    if (source_length + 1 > sizeof small_scratch) {
        large_scratch.reset(static_cast<char*>(std::malloc(source_length + 1)));
        scratch = large_scratch.get();
    }

    size_t used = 0;
    int result = 0;
    unsigned out_length = 0;
    const char* piece = source;
    const char* const end = source + source_length;
    while (scratch != nullptr && piece < end) {
        const char* crlf = std::strstr(piece, "\r\n");
        const size_t length =
            crlf ? static_cast<size_t>(crlf + 2 - piece) : static_cast<size_t>(end - piece);
        std::memcpy(scratch, piece, length);
        scratch[length] = '\0';
        out_length = 0;
        result =
            Cnv_euctosjis(converter, static_cast<unsigned>(length), scratch,
                          static_cast<unsigned>(dest_size - 1 - used), dest + used, &out_length);
        if (result < 0) break;
        used += out_length;
        piece += length;
    }
    if (scratch == nullptr || result < 0) {
        trace_word(g_trace, 0, "CHANGE0020", static_cast<uint32_t>(scratch ? result : -1));
        trace_text(g_trace, 0, "CHANGE0021", source);
        trace_data(g_trace, 0, "CHANGE0022", dest, used);
        trace_word(g_trace, 0, "CHANGE0023", out_length);
        copy_cut(dest, dest_size, source);
        return -1;
    }
    dest[used] = '\0';
    return static_cast<int>(used);
}

}  // namespace kemail

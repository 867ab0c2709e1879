/* Reassembles message/partial pieces with GMime and writes the enclosed
 * message, for tests/peers/compose_gmime_partial_test.sh.
 *   compose_gmime_reassemble OUT PIECE1 PIECE2 ...  (pieces in any order) */
#include <gmime/gmime.h>

#include <fcntl.h>
#include <stdio.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s OUT PIECE...\n", argv[0]);
        return 64;
    }
    g_mime_init();
    const int count = argc - 2;
    GMimeMessagePartial** partials = g_new0(GMimeMessagePartial*, count);
    for (int i = 0; i < count; ++i) {
        GError* error = NULL;
        GMimeStream* stream = g_mime_stream_fs_open(argv[i + 2], O_RDONLY, 0, &error);
        if (stream == NULL) {
            fprintf(stderr, "%s: %s\n", argv[i + 2], error->message);
            return 1;
        }
        GMimeParser* parser = g_mime_parser_new_with_stream(stream);
        GMimeMessage* message = g_mime_parser_construct_message(parser, NULL);
        GMimeObject* part = message ? g_mime_message_get_mime_part(message) : NULL;
        if (part == NULL || !GMIME_IS_MESSAGE_PARTIAL(part)) {
            fprintf(stderr, "%s: not a message/partial piece\n", argv[i + 2]);
            return 1;
        }
        partials[i] = GMIME_MESSAGE_PARTIAL(part);
        printf("%s: number=%d total=%d id=%s\n", argv[i + 2],
               g_mime_message_partial_get_number(partials[i]),
               g_mime_message_partial_get_total(partials[i]),
               g_mime_message_partial_get_id(partials[i]));
    }
    GMimeMessage* whole = g_mime_message_partial_reconstruct_message(partials, (size_t)count);
    if (whole == NULL) {
        fprintf(stderr, "GMime could not reassemble the pieces\n");
        return 1;
    }
    GError* error = NULL;
    GMimeStream* out = g_mime_stream_fs_open(argv[1], O_WRONLY | O_CREAT | O_TRUNC, 0644, &error);
    if (out == NULL) {
        fprintf(stderr, "%s: %s\n", argv[1], error->message);
        return 1;
    }
    if (g_mime_object_write_to_stream(GMIME_OBJECT(whole), NULL, out) < 0 ||
        g_mime_stream_flush(out) != 0) {
        fprintf(stderr, "cannot write %s\n", argv[1]);
        return 1;
    }
    g_object_unref(out);
    return 0;
}

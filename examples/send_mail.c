/* send_mail: the smallest complete use of libkemail. Sends one mail with a
 * text and an optional attachment and prints the result.
 *
 *   send_mail SERVER PORT FROM TO [ATTACHMENT]
 *
 * Build: cc send_mail.c $(pkg-config --cflags --libs kemail) -o send_mail
 */
#include <kemail.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    if (argc < 5 || argc > 6) {
        fprintf(stderr, "usage: %s SERVER PORT FROM TO [ATTACHMENT]\n", argv[0]);
        return 64;
    }
    char* end = NULL;
    const unsigned long port = strtoul(argv[2], &end, 10);
    if (end == argv[2] || *end != '\0' || port == 0 || port > 65535) {
        fprintf(stderr, "%s: PORT must be 1..65535\n", argv[0]);
        return 64;
    }

    /* One recipient entry: a comma-separated list of addresses. */
    MailAddressInfo to = {1, 0, argv[4]};

    /* Element 0 is the text; further elements are attachments. */
    char text[] = "This mail was sent by the send_mail example of libkemail.\r\n";
    MailContentInfo content[2] = {
        {KEMAIL_CONTENT_TEXT, 0, text},
        {KEMAIL_CONTENT_ATTACHMENT, 0, argc == 6 ? argv[5] : NULL},
    };
    const int content_count = argc == 6 ? 2 : 1;

    /* Piece size 64 KB (used only when splitting), the server's port. */
    SendOptionInfo option = {64, (uint32_t)port};

    /* The caller's buffer for the detail of a failure. */
    char message[KEMAIL_MESSAGE_SIZE];

    const int result = ZvKe_SendEMail(&to, 1, content, content_count, argv[3], "libkemail example",
                                      argv[1], 0, &option, NULL /* default time-outs */,
                                      NULL /* no authentication */, message);
    if (result >= 0) {
        printf("sent: result %d\n", result);
        return 0;
    }
    fprintf(stderr, "not sent: result %d, detail \"%s\"\n", result, message);
    return 1;
}

"""Shows, for scripts/demo.sh, what the demo's sends delivered, read with
Python's own email package (run it with Debian's /usr/bin/python3):

    demo_show.py pieces PIECE...
        one line per message/partial piece: number/total, id, size, subject
    demo_show.py mail MAIL INPUT_DIR SAVE_DIR
        the headers and the text of MAIL decoded, compared with what was sent
        (INPUT_DIR/subject.txt and body.txt, UTF-8), and each attachment saved
        into SAVE_DIR with its sha256 beside the original's (INPUT_DIR/NAME)

Exit status 1 when the subject, the text or an attachment differs from what
was sent, or when the message has no attachment."""

import email
import email.policy
import hashlib
import os
import sys


def read(path):
    with open(path, "rb") as f:
        return f.read()


def lines(text):
    """The text's lines, line ends of either kind, trailing empty lines dropped."""
    return text.replace("\r\n", "\n").rstrip("\n").split("\n")


def verdict(same):
    return "same as sent" if same else "DIFFERS from what was sent"


def pieces(paths):
    for index, path in enumerate(paths):
        if 3 <= index < len(paths) - 2:
            if index == 3:
                print("  ... %d pieces more ..." % (len(paths) - 5))
            continue
        piece = email.message_from_bytes(read(path), policy=email.policy.default)
        print("  piece %2s/%s  %6d bytes  id=%s  Subject: %s" % (
            piece.get_param("number"), piece.get_param("total"), os.path.getsize(path),
            piece.get_param("id"), piece["Subject"]))
    return True


def mail(path, inputs, save_dir):
    raw = email.message_from_bytes(read(path), policy=email.policy.compat32)
    msg = email.message_from_bytes(read(path), policy=email.policy.default)
    ok = True
    for name in ("From", "To", "Date", "MIME-Version", "Content-Type"):
        if name in msg:
            print("  %-13s %s" % (name + ":", " ".join(str(msg[name]).split())))
    sent_subject = read(os.path.join(inputs, "subject.txt")).decode("utf-8")
    print("  Subject, as it came:  %s" % " ".join(str(raw["Subject"]).split()))
    print("  Subject, decoded:     %s" % msg["Subject"])
    same = str(msg["Subject"]) == sent_subject
    ok &= same
    print("                        (%s)" % verdict(same))

    texts = [p for p in msg.walk() if p.get_content_maintype() == "text"]
    for part in texts:
        print("\n  text part: %s; charset=%s, %s; decoded:" % (
            part.get_content_type(), part.get_content_charset(), part.get("Content-Transfer-Encoding", "7bit")))
        got = lines(part.get_content())
        for line in got:
            print("  | " + line)
        same = got == lines(read(os.path.join(inputs, "body.txt")).decode("utf-8"))
        ok &= same
        print("  (%s)" % verdict(same))
    ok &= len(texts) == 1

    attachments = [p for p in msg.walk() if p.get_filename()]
    if not attachments:
        print("  no attachment arrived")
        return False
    os.makedirs(save_dir, exist_ok=True)
    for part in attachments:
        name = os.path.basename(part.get_filename())
        data = part.get_content()
        saved = os.path.join(save_dir, name)
        with open(saved, "wb") as f:
            f.write(data)
        original = os.path.join(inputs, name)
        want = hashlib.sha256(read(original)).hexdigest() if os.path.exists(original) else "(no original)"
        got = hashlib.sha256(data).hexdigest()
        print("\n  attachment %s (%s, %s), %d bytes, saved as %s" % (
            name, part.get_content_type(), part["Content-Transfer-Encoding"], len(data), saved))
        print("    sha256 sent:     %s" % want)
        print("    sha256 arrived:  %s  (%s)" % (got, "identical" if got == want else "DIFFERENT"))
        ok &= got == want
    return ok


def main():
    if len(sys.argv) >= 3 and sys.argv[1] == "pieces":
        ok = pieces(sys.argv[2:])
    elif len(sys.argv) == 5 and sys.argv[1] == "mail":
        ok = mail(*sys.argv[2:])
    else:
        sys.exit(__doc__)
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()

"""Makes the input of a test send and reads what the server delivered, with
Python's own email package (policy=default), for the send_*_test.sh scripts.
Run with Debian's /usr/bin/python3:

    send_check.py make DIR
        DIR/subject.sjis, DIR/body.sjis (Shift_JIS: kanji, kana and ASCII),
        DIR/big.bin (40,000 random bytes), DIR/note.txt (a short ASCII file)
    send_check.py whole DIR MAIL [NAME=EXPECTED ...]
        MAIL (one delivered message) carries DIR's subject and text and, in
        this order, attachments named NAME whose bytes equal file EXPECTED
    send_check.py split DIR REASSEMBLE OUT PIECE... -- [NAME=EXPECTED ...]
        the PIECEs are message/partial pieces number 1..n of n with the subject
        and one id; REASSEMBLE (GMime) joins them into OUT, which is then
        checked as "whole" does
$SEND_LABEL, when set, starts the lines that "whole" prints.

Every check prints "ok   ..." or "FAIL ..."; the exit status is 1 when one
failed. The text avoids JIS 0x213D and half-width katakana, which readers
decode differently."""

import email
import email.policy
import os
import random
import subprocess
import sys

FAILURES = []

# Long enough that the Japanese run is folded into two encoded-words; no
# ASCII after column 76, where a fold would fall inside a word (kept form).
SUBJECT = "host1 障害通知：ディスク使用率 95%"
BODY = ("各位\r\n"
        "\r\n"
        "ホスト host1 のディスク使用率が９５％を超えました。\r\n"
        "対象：/var/opt（ファイルシステム）、しきい値 90%\r\n"
        ".で始まる行もそのまま届きます\r\n"
        "..二つの点で始まる行\r\n"
        "カタカナ、ひらがな、漢字と ASCII text の混在した行です。\r\n"
        "以上、よろしくお願いいたします。\r\n")


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what)
    if not condition:
        FAILURES.append(what)
    return condition


def write(path, data):
    with open(path, "wb") as f:
        f.write(data)


def read(path):
    with open(path, "rb") as f:
        return f.read()


def make(directory):
    os.makedirs(directory, exist_ok=True)
    write(os.path.join(directory, "subject.sjis"), SUBJECT.encode("shift_jis"))
    write(os.path.join(directory, "body.sjis"), BODY.encode("shift_jis"))
    rng = random.Random(40000)
    write(os.path.join(directory, "big.bin"), bytes(rng.getrandbits(8) for _ in range(40000)))
    write(os.path.join(directory, "note.txt"), b"plain ASCII attachment\nsecond line\n")


def normalized(text):
    return text.replace("\r\n", "\n").rstrip("\n")


def expected_attachments(pairs):
    out = []
    for pair in pairs:
        name, _, path = pair.partition("=")
        out.append((name, read(path)))
    return out


def check_message(label, msg, directory, attachments):
    subject = read(os.path.join(directory, "subject.sjis")).decode("shift_jis")
    body = read(os.path.join(directory, "body.sjis")).decode("shift_jis")
    check(not msg.defects, "%s: no defects (%s)" % (label, msg.defects))
    check(str(msg["Subject"]) == subject, "%s: the Japanese subject decodes to the one sent (%r)"
          % (label, str(msg["Subject"])))
    texts = [p for p in msg.walk() if p.get_content_maintype() == "text"]
    if check(len(texts) == 1, "%s: one text part (%d)" % (label, len(texts))):
        part = texts[0]
        check(part.get_content_charset() == "iso-2022-jp",
              "%s: text part charset %s" % (label, part.get_content_charset()))
        got = part.get_content()
        check(normalized(got) == normalized(body), "%s: the Japanese text decodes to the one sent" % label)
        if normalized(got) != normalized(body):
            print("    got:  %r\n    want: %r" % (normalized(got)[:300], normalized(body)[:300]))
    parts = [p for p in msg.walk() if p.get_content_type() == "application/octet-stream"]
    check([p.get_filename() for p in parts] == [name for name, _ in attachments],
          "%s: attachments %s" % (label, [p.get_filename() for p in parts]))
    for part, (name, data) in zip(parts, attachments):
        check(part.get_content() == data,
              "%s: attachment %s is byte-identical (%d bytes)" % (label, name, len(data)))


def whole(directory, mail, pairs):
    label = os.environ.get("SEND_LABEL", "whole")
    msg = email.message_from_bytes(read(mail), policy=email.policy.default)
    check(msg.get_content_type() == "multipart/mixed" if pairs else msg.get_content_type() == "text/plain",
          "%s: content type %s" % (label, msg.get_content_type()))
    check_message(label, msg, directory, expected_attachments(pairs))


def split(directory, reassemble, out, pieces, pairs):
    subject = read(os.path.join(directory, "subject.sjis")).decode("shift_jis")
    total = len(pieces)
    check(total >= 3, "split: %d pieces delivered" % total)
    numbers, ids = [], set()
    for path in pieces:
        piece = email.message_from_bytes(read(path), policy=email.policy.default)
        number, count = piece.get_param("number"), piece.get_param("total")
        numbers.append(int(number) if number and number.isdigit() else 0)
        ids.add(piece.get_param("id"))
        check(piece.get_content_type() == "message/partial" and count == str(total),
              "split: piece %s is message/partial, total=%s" % (number, count))
        check(str(piece["Subject"]) == "%s [%s/%d]" % (subject, number, total),
              "split: piece %s subject %r" % (number, str(piece["Subject"])))
    check(sorted(numbers) == list(range(1, total + 1)), "split: numbers %s" % sorted(numbers))
    check(len(ids) == 1 and None not in ids, "split: one id shared by every piece (%s)" % ids)
    result = subprocess.run([reassemble, out] + pieces, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, timeout=60)
    if not check(result.returncode == 0, "split: GMime reassembles the pieces"):
        print(result.stdout.decode(errors="replace"))
        return
    msg = email.message_from_bytes(read(out), policy=email.policy.default)
    check(msg.get_content_type() == "multipart/mixed", "reassembled: content type %s" % msg.get_content_type())
    check_message("reassembled", msg, directory, expected_attachments(pairs))


def main():
    mode = sys.argv[1]
    if mode == "make":
        make(sys.argv[2])
        return
    if mode == "whole":
        whole(sys.argv[2], sys.argv[3], sys.argv[4:])
    elif mode == "split":
        rest = sys.argv[5:]
        cut = rest.index("--") if "--" in rest else len(rest)
        split(sys.argv[2], sys.argv[3], sys.argv[4], rest[:cut], rest[cut + 1:])
    else:
        sys.exit("unknown mode " + mode)
    sys.exit(1 if FAILURES else 0)


if __name__ == "__main__":
    main()

"""Reads messages composed by kemail with parsers nobody here wrote.

Run by the compose_*_test.sh scripts with Debian's /usr/bin/python3:
    compose_check.py python PEER WORKDIR       Python's email package
    compose_check.py nkf PEER WORKDIR          nkf and iconv on subject and text
    compose_check.py gmime PEER REASSEMBLE WORKDIR
                                               pieces reassembled by GMime
PEER is the peer_compose_message program. The Shift_JIS input is made with
Python's shift_jis codec. Exit status 0 when every check held; every failed
check is printed."""

import email
import email.policy
import os
import random
import re
import subprocess
import sys

FAILURES = []


def check(condition, what):
    if condition:
        print("ok:", what)
    else:
        print("FAIL:", what)
        FAILURES.append(what)


def sjis(text):
    return text.encode("shift_jis")


def attachment_bytes(seed, size):
    rng = random.Random(seed)
    return bytes(rng.getrandbits(8) for _ in range(size))


# Kept behaviour: the subject fold at column 76 may fall in literal text; a
# reader that unfolds the header then sees one more blank there.
DECODED_SUBJECT = {
    "kanji_kana_ascii": "【障害】ディスク使用率が95% を超えました host1",
}

# name, subject, body text (None: no text part), attachment sizes, Content_D_flg
CASES = [
    ("kanji_kana_ascii", "【障害】ディスク使用率が95%を超えました host1",
     "各位\r\n\r\nホスト host1 のディスク使用率が９５％を超えました。\r\n"
     ".で始まる行もそのまま届きます\r\n..二つの点\r\n以上、よろしくお願いします。\r\n",
     [52, 0, 100000, 1, 2, 3], 0),
    ("long_subject", "月次報告書の送付について（システム管理部門より全拠点の担当者様へご連絡）",
     "Monthly report attached.\r\nRegards\r\n", [4096], 1),
    ("ascii_only", "Weekly report of host1", "Hello,\r\n.hidden line\r\nlast line without end", [], 0),
    ("halfwidth_only", "ﾃｽﾄ ﾒｰﾙ test", "ﾃｽﾄ 123\r\nABC ｱｲｳｴｵ\r\n", [], 0),
    ("mixed_halfwidth", "障害 ﾎｽﾄ host1", "各位\r\nﾎｽﾄ名: host1 のディスク\r\n", [10], 0),
    ("attachments_only", "添付のみ", None, [51, 52, 200000], 0),
]


def has_halfwidth(text):
    return any("\uff61" <= ch <= "\uff9f" for ch in text)


def has_lead_byte(data):
    return any(0x81 <= b <= 0x9F or 0xE0 <= b <= 0xEF for b in data)


def compose(peer, workdir, case):
    name, subject, body, sizes, content_d = case
    base = os.path.join(workdir, name)
    os.makedirs(base, exist_ok=True)
    args = [peer, "compose", os.path.join(base, "message.eml"), "--from", "agent@example.com",
            "--to", "ops@example.com, dev@example.com", "--content-d", str(content_d)]
    with open(os.path.join(base, "subject"), "wb") as f:
        f.write(sjis(subject))
    args += ["--subject-file", os.path.join(base, "subject")]
    if body is not None:
        with open(os.path.join(base, "body.txt"), "wb") as f:
            f.write(sjis(body))
        args += ["--body", os.path.join(base, "body.txt")]
    attachments = []
    for i, size in enumerate(sizes):
        path = os.path.join(base, "file%d_%d.bin" % (i, size))
        data = attachment_bytes(i * 1000 + size, size)
        with open(path, "wb") as f:
            f.write(data)
        attachments.append((os.path.basename(path), data))
        args += ["--attach", path]
    subprocess.run(args, check=True)
    with open(os.path.join(base, "message.eml"), "rb") as f:
        raw = f.read()
    return raw, attachments


def received(raw):
    """What an SMTP server stores: the leading dot of a stuffed line removed."""
    return re.sub(rb"(^|\r\n)\.", rb"\1", raw)


def normalized(text):
    return text.replace("\r\n", "\n").rstrip("\n")


def check_python(peer, workdir):
    for case in CASES:
        name, subject, body, sizes, content_d = case
        raw, attachments = compose(peer, workdir, case)
        msg = email.message_from_bytes(received(raw), policy=email.policy.default)
        check(not msg.defects, "%s: no defects in the message (%s)" % (name, msg.defects))
        if not has_halfwidth(subject):
            expected = DECODED_SUBJECT.get(name, subject)
            check(str(msg["Subject"]) == expected, "%s: subject decodes to the original (%r)" % (name, str(msg["Subject"])))
        elif has_lead_byte(sjis(subject)):
            # Kept behaviour: half-width katakana go out as raw 8-bit bytes,
            # which Python cannot read; the encoded Japanese words it can.
            check(str(msg["Subject"]).startswith(subject.split(" ")[0]),
                  "%s: the encoded words of the subject decode" % name)
        else:
            check(b"\r\nSubject: " + sjis(subject) + b"\r\n" in raw,
                  "%s: a katakana-only subject is written raw" % name)
        texts = [p for p in msg.walk() if p.get_content_maintype() == "text"]
        if body is None:
            # Without text the first delimiter is followed at once by the
            # next one: an empty first part (text/plain by default).
            check(len(texts) == 1 and texts[0].get("Content-Type") is None and texts[0].get_content() == "",
                  "%s: only an empty first part" % name)
        else:
            check(len(texts) == 1, "%s: one text part" % name)
            part = texts[0]
            japanese = has_lead_byte(sjis(body))
            check(part.get_content_charset() == ("iso-2022-jp" if japanese else "us-ascii"),
                  "%s: charset %s" % (name, part.get_content_charset()))
            if not has_halfwidth(body):
                check(normalized(part.get_content()) == normalized(body),
                      "%s: text part decodes to the original" % name)
            elif not japanese:
                check(normalized(part.get_payload(decode=True).decode("shift_jis")) == normalized(body),
                      "%s: us-ascii part carries the katakana bytes unchanged" % name)
        parts = [p for p in msg.walk() if p.get_content_type() == "application/octet-stream"]
        check(len(parts) == len(attachments), "%s: %d attachments" % (name, len(attachments)))
        for part, (filename, data) in zip(parts, attachments):
            check(part.get_filename() == filename, "%s: attachment name %s" % (name, filename))
            check(part.get_content() == data, "%s: %s decodes byte-identical (%d bytes)" % (name, filename, len(data)))
            disposition = part.get("Content-Disposition")
            check((disposition == '"%s"' % filename) if content_d == 1 else part.get_content_disposition() == "attachment",
                  "%s: Content-Disposition form %d" % (name, content_d))


def run_nkf(args, data):
    return subprocess.run(["nkf"] + args, input=data, stdout=subprocess.PIPE, check=True).stdout


def text_part_bytes(raw):
    """The raw bytes of the text part's body (after its header, before the next delimiter)."""
    msg_head, _, rest = raw.partition(b"\r\n\r\n")
    if b"multipart/mixed" in msg_head:
        start = rest.index(b"charset=")
        rest = rest[start:].partition(b"\r\n\r\n")[2]
        return rest[: rest.index(b"\r\n--")]
    return rest


def check_nkf(peer, workdir):
    for case in CASES:
        name, subject, body, sizes, content_d = case
        raw, _ = compose(peer, workdir, case)
        header = raw.partition(b"\r\n\r\n")[0]
        m = re.search(rb"\r\n(Subject: .*?)\r\n(?! )", header + b"\r\n", re.S)
        decoded = run_nkf(["-w", "-x", "-m"], m.group(1)).decode("utf-8")
        # nkf joins encoded-words and leaves a fold in literal text as it is.
        check(decoded.replace("\r\n ", " ") == "Subject: " + DECODED_SUBJECT.get(name, subject),
              "%s: nkf decodes the subject (%r)" % (name, decoded))
        if body is None:
            continue
        text = received(text_part_bytes(raw))
        # nkf's own detection: it reads ISO-2022-JP with 8-bit katakana
        # bytes (the kept half-width form) and raw Shift_JIS katakana alike.
        nkf_text = run_nkf(["-w", "-x"], text).decode("utf-8")
        check(normalized(nkf_text) == normalized(body), "%s: nkf decodes the text part" % name)
        if has_lead_byte(sjis(body)) and not has_halfwidth(body):
            iconv = subprocess.run(["iconv", "-f", "ISO-2022-JP", "-t", "UTF-8"], input=text,
                                   stdout=subprocess.PIPE, check=True).stdout.decode("utf-8")
            check(normalized(iconv) == normalized(body), "%s: iconv decodes the text part" % name)


def check_gmime(peer, reassemble, workdir):
    for size_kb, sizes in ((10, [30000, 52]), (10, [9000, 9000, 9000]), (12, [100000])):
        name = "pieces_%d_%d" % (size_kb, len(sizes))
        base = os.path.join(workdir, name)
        os.makedirs(base, exist_ok=True)
        subject = "分割送信のテスト %d" % size_kb
        body = "本文です。\r\n.点で始まる行\r\n"
        with open(os.path.join(base, "subject"), "wb") as f:
            f.write(sjis(subject))
        with open(os.path.join(base, "body.txt"), "wb") as f:
            f.write(sjis(body))
        args = [peer, "pieces", base, str(size_kb), "--from", "agent@example.com", "--to",
                "ops@example.com,dev@example.com", "--subject-file", os.path.join(base, "subject"),
                "--body", os.path.join(base, "body.txt")]
        attachments = []
        for i, size in enumerate(sizes):
            path = os.path.join(base, "part%d.bin" % i)
            data = attachment_bytes(size + i, size)
            with open(path, "wb") as f:
                f.write(data)
            attachments.append(data)
            args += ["--attach", path]
        total = int(subprocess.run(args, check=True, stdout=subprocess.PIPE).stdout)
        check(total >= 2, "%s: the message is cut into %d pieces" % (name, total))
        pieces = []
        for n in range(1, total + 1):
            # Each piece as the receiving server stores it (dots unstuffed).
            with open(os.path.join(base, "piece-%d.eml" % n), "rb") as f:
                stored = received(f.read())
            path = os.path.join(base, "stored-%d.eml" % n)
            with open(path, "wb") as f:
                f.write(stored)
            pieces.append(path)
            piece = email.message_from_bytes(stored, policy=email.policy.default)
            check(piece.get_content_type() == "message/partial" and piece.get_param("number") == str(n)
                  and piece.get_param("total") == str(total),
                  "%s: piece %d is message/partial number=%d total=%d" % (name, n, n, total))
            check(str(piece["Subject"]) == "%s [%d/%d]" % (subject, n, total),
                  "%s: piece %d subject %r" % (name, n, str(piece["Subject"])))
        out = os.path.join(base, "reassembled.eml")
        # Handed over in reverse order: GMime sorts them by number.
        subprocess.run([reassemble, out] + list(reversed(pieces)), check=True)
        with open(out, "rb") as f:
            whole = f.read()
        with open(os.path.join(base, "message.eml"), "rb") as f:
            composed = received(f.read())
        check(whole == composed.replace(b"\r\n", b"\n"),
              "%s: GMime's reassembled message equals the composed one (line ends aside)" % name)
        msg = email.message_from_bytes(whole, policy=email.policy.default)
        got = [p.get_content() for p in msg.walk() if p.get_content_type() == "application/octet-stream"]
        check(got == attachments, "%s: attachments of the reassembled message are byte-identical" % name)
        check(str(msg["Subject"]) == subject, "%s: inner subject decodes" % name)


def main():
    mode = sys.argv[1]
    if mode == "python":
        check_python(sys.argv[2], sys.argv[3])
    elif mode == "nkf":
        check_nkf(sys.argv[2], sys.argv[3])
    elif mode == "gmime":
        check_gmime(sys.argv[2], sys.argv[3], sys.argv[4])
    else:
        sys.exit("unknown mode " + mode)
    print("%d failed check(s)" % len(FAILURES))
    sys.exit(1 if FAILURES else 0)


if __name__ == "__main__":
    main()

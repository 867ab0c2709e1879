"""Reads a delivered UTF-8-input mail back and compares it with what was sent.

Usage: send_utf8_check.py MAIL SUBJECT_FILE TEXT_FILE ATTACHMENT_NAME

The subject and text files hold the UTF-8 the operator typed, with GETA MARK
already in place of every character that has no Shift_JIS form. Prints one
"ok ..." or "FAIL ..." line per check.

Python's email package parses the message, takes the RFC 2047 words apart and
undoes the transfer encodings; it labels the text ISO-2022-JP. Its own
iso2022_jp codec knows JIS X 0208 only, while the mail carries the Windows
(CP932) extensions as every Japanese mail reader takes them (the circled
digits of row 13, as Microsoft's CP50220); those bytes are read here as
Shift_JIS by the JIS arithmetic, then decoded as CP932. nkf reads the same
mail on its own.
"""
import email
import email.header
import re
import subprocess
import sys


def iso2022_to_cp932(data):
    out = bytearray()
    double = False
    i = 0
    while i < len(data):
        if data[i] == 0x1B and i + 2 < len(data):
            double = data[i:i + 3] == b"\x1b$B"
            i += 3
            continue
        if double and i + 1 < len(data):
            j1, j2 = data[i], data[i + 1]
            s1 = ((j1 - 0x21) >> 1) + 0x81
            if s1 > 0x9F:
                s1 += 0x40
            if j1 & 1:
                s2 = j2 + 0x1F
                if s2 >= 0x7F:
                    s2 += 1
            else:
                s2 = j2 + 0x7E
            out += bytes([s1, s2])
            i += 2
        else:
            out.append(data[i])
            i += 1
    return bytes(out).decode("cp932")


def decode_words(value):
    parts = []
    for chunk, charset in email.header.decode_header(value):
        if isinstance(chunk, str):
            chunk = chunk.encode("ascii", "surrogateescape")
        parts.append(iso2022_to_cp932(chunk) if charset else chunk.decode("cp932"))
    return "".join(parts)


def report(name, got, want):
    if got == want:
        print("ok   " + name)
    else:
        print("FAIL %s: got %r, want %r" % (name, got, want))


def main():
    mail_path, subject_path, text_path, attachment = sys.argv[1:5]
    want_subject = open(subject_path, encoding="utf-8").read()
    want_text = open(text_path, encoding="utf-8").read()
    raw = open(mail_path, "rb").read()
    message = email.message_from_bytes(raw)

    report("python email: the subject", decode_words(message["Subject"]), want_subject)
    parts = list(message.walk())
    text_part = [p for p in parts if p.get_content_type() == "text/plain"][0]
    report("python email: the text part is labelled ISO-2022-JP",
           text_part.get_content_charset(), "iso-2022-jp")
    text = iso2022_to_cp932(text_part.get_payload(decode=True)).replace("\r\n", "\n")
    report("python email: the text", text.rstrip("\n"), want_text.rstrip("\n"))
    # The name parameter holds raw Shift_JIS bytes (the designed form), which
    # the email package does not hand back as bytes: taken from the raw part.
    found = re.search(rb'Content-Type: application/octet-stream; name="([^"]*)"', raw)
    shown = found.group(1).decode("cp932") if found else None
    report("the attachment name", shown, attachment)

    # nkf on its own: MIME-decodes the header, reads ISO-2022-JP (with the
    # CP932 extensions and 8-bit half-width katakana, kept as such with -x).
    decoded = subprocess.run(["nkf", "-w", "-x", "-m", "--cp932"], input=raw,
                             stdout=subprocess.PIPE, check=True).stdout.decode("utf-8")
    subject_line = [line for line in decoded.split("\n") if line.startswith("Subject: ")]
    report("nkf: the subject", subject_line[0][9:] if subject_line else None, want_subject)
    body_start = decoded.find("\n\n")
    body = decoded[body_start + 2:] if body_start >= 0 else ""
    report("nkf: the text", want_text.rstrip("\n") in body, True)


if __name__ == "__main__":
    main()

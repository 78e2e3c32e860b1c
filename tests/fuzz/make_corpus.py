#!/usr/bin/env python3
"""Writes the seed corpora under corpus/<harness>/: valid files of each kind
and every way they are known to go wrong. Re-run after adding a case; the
files are kept in the repository so every test run starts from them."""
import json
import os
import shutil

HERE = os.path.dirname(os.path.abspath(__file__))
ID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"


def record(**changes):
    r = {
        "earsDurationMilliseconds": 640,
        "error": "No external target application was focused when recording began.",
        "finalizationDurationMilliseconds": 812,
        "id": ID,
        "outcome": "pasted",
        "pasteDispatchDurationMilliseconds": 35,
        "recordingDurationMilliseconds": 7000,
        "recordingEndedAt": 1763212345678,
        "recordingStartedAt": 1763212338678,
        "savedAt": 1763212346525,
        "targetApplication": {"bundleIdentifier": "gedit", "name": "Text Editor", "processIdentifier": 4242},
        "totalDurationMilliseconds": 7847,
        "transcript": "Notes about the café and the budget, item 7.",
        "transcriptionEngine": "exact-local-large-v3-turbo-q5_0",
    }
    for key, value in changes.items():
        if value is DROP:
            r.pop(key, None)
        else:
            r[key] = value
    return r


DROP = object()


def line(r, sort=True):
    return json.dumps(r, sort_keys=sort, separators=(",", ":"), ensure_ascii=False).encode()


def record_cases():
    valid = line(record())
    minimal = line(record(earsDurationMilliseconds=DROP, error=DROP, targetApplication=DROP,
                          transcriptionEngine=DROP))
    cases = {
        "valid": valid,
        "minimal-older-version": minimal,
        "no-bundle": line(record(targetApplication={"name": "xterm", "processIdentifier": 1})),
        "escapes": line(record(transcript='line\nbreak "quoted" back\\slash\ttab \u2028 \u0001 / end')),
        "ascii-escapes": json.dumps(record(transcript="café 😀 \u2028"), sort_keys=True,
                                    separators=(",", ":")).encode(),
        "escaped-slash": valid.replace(b"Text Editor", b"a\\/b"),
        "nul-escape": valid.replace(b"item 7.", b"\\u0000"),
        "surrogate-pair-escape": valid.replace(b"item 7.", b"\\ud83d\\ude00"),
        "lone-surrogate-escape": valid.replace(b"item 7.", b"\\ud800"),
        "lone-low-surrogate-escape": valid.replace(b"item 7.", b"\\udc00x"),
        "emoji-raw": line(record(transcript="😀 ok 𝄞")),
        "empty-transcript": line(record(transcript="", outcome="empty")),
        "recovered": line(record(outcome="recovered")),
        "fractional-dates": valid.replace(b"1763212346525", b"1763212346525.75"),
        "exponent-date": valid.replace(b"1763212346525", b"1.763212346525e12"),
        "negative-date": valid.replace(b"1763212346525", b"-1763212346525"),
        "zero-durations": valid.replace(b"812", b"0").replace(b":35,", b":0,"),
        "minus-zero": valid.replace(b":35,", b":-0,"),
        "leading-zero": valid.replace(b":35,", b":035,"),
        "huge-integer": valid.replace(b":35,", b":99999999999999999999999,"),
        "beyond-2-53": valid.replace(b":35,", b":9007199254740993,"),
        "sixteen-digits": valid.replace(b":35,", b":1234567890123456,"),
        "huge-exponent": valid.replace(b":35,", b":1e400,"),
        "huge-date": valid.replace(b"1763212346525", b"8640000000000001"),
        "fractional-duration": valid.replace(b":35,", b":35.5,"),
        "pid-too-big": valid.replace(b"4242", b"2147483648"),
        "pid-negative": valid.replace(b"4242", b"-2147483648"),
        "outcome-wrong-case": line(record(outcome="Pasted")),
        "outcome-unknown": line(record(outcome="skipped")),
        "outcome-number": line(record(outcome=3)),
        "id-number": line(record(id=12)),
        "id-lower-case": line(record(id=ID.lower())),
        "id-braces": line(record(id="{" + ID + "}")),
        "id-nil": line(record(id="00000000-0000-0000-0000-000000000000")),
        "id-garbage": line(record(id="not-a-uuid-at-all-not-a-uuid-at-all")),
        "savedAt-string": line(record(savedAt="2026-11-15T10:00:00Z")),
        "transcript-null": line(record(transcript=None)),
        "transcript-number": line(record(transcript=5)),
        "error-null": line(record(error=None)),
        "ears-null": line(record(earsDurationMilliseconds=None)),
        "ears-string": line(record(earsDurationMilliseconds="640")),
        "target-array": line(record(targetApplication=["x"])),
        "target-null": line(record(targetApplication=None)),
        "target-no-name": line(record(targetApplication={"processIdentifier": 1})),
        "target-pid-string": line(record(targetApplication={"name": "x", "processIdentifier": "1"})),
        "unknown-key": line(record(zzz={"nested": [1, 2, {"a": None}]})),
        "unknown-key-first": line(record(aaa=1)),
        "keys-unsorted": line(record(), sort=False),
        "pretty-printed": json.dumps(record(), sort_keys=True, indent=2).encode(),
        "spaces": json.dumps(record(), sort_keys=True).encode(),
        "trailing-space": valid + b" ",
        "crlf": valid + b"\r",
        "bom": b"\xef\xbb\xbf" + valid,
        "duplicate-key": valid[:-1] + b',"transcript":"second"}',
        "duplicate-key-sorted": valid.replace(b'"transcript":', b'"transcript":"first","transcript":'),
        "empty-object": b"{}",
        "array": b"[" + valid + b"]",
        "string": b'"just text"',
        "empty": b"",
        "garbage": b"\x00\x01garbage\xff",
        "deep-nesting-unknown-key": valid[:-1] + b',"zzz":' + b"[" * 5000 + b"]" * 5000 + b"}",
        "deep-nesting-unclosed": valid[:-1] + b',"zzz":' + b"{\"a\":" * 3000,
        "deep-target": valid.replace(b'"targetApplication":{', b'"targetApplication":{"a":' + b"{" * 2000 + b"}" * 2000 + b","),
        "raw-control-char": valid.replace(b"item 7.", b"item\x017."),
        "raw-newline-in-string": valid.replace(b"item 7.", b"item\x0a7."),
        "bad-escape": valid.replace(b"item 7.", b"item \\x41"),
        "short-unicode-escape": valid.replace(b"item 7.", b"\\u12"),
        "invalid-utf8-continuation": valid.replace(b"item 7.", b"\x80\x80"),
        "invalid-utf8-overlong": valid.replace(b"item 7.", b"\xc0\xaf"),
        "invalid-utf8-surrogate": valid.replace(b"item 7.", b"\xed\xa0\x80"),
        "invalid-utf8-beyond": valid.replace(b"item 7.", b"\xf4\x90\x80\x80"),
        "invalid-utf8-f5": valid.replace(b"item 7.", b"\xf5\x80\x80\x80"),
        "invalid-utf8-truncated": valid.replace(b"item 7.", b"\xe2\x82"),
        "utf8-noncharacter": valid.replace(b"item 7.", b"\xef\xbf\xbe\xef\xbf\xbf"),
        "utf8-max": valid.replace(b"item 7.", b"\xf4\x8f\xbf\xbf"),
        "utf8-in-key": valid.replace(b'"zzz"', b'"caf\xc3\xa9"'),
    }
    for cut in (1, 10, 40, 100, len(valid) // 2, len(valid) - 20, len(valid) - 1):
        cases["cut-at-%d" % cut] = valid[:cut]
    for key in ("id", "recordingStartedAt", "recordingEndedAt", "savedAt", "transcript",
                "recordingDurationMilliseconds", "finalizationDurationMilliseconds",
                "pasteDispatchDurationMilliseconds", "totalDurationMilliseconds", "outcome"):
        cases["missing-" + key] = line(record(**{key: DROP}))
    return cases


def mixed(records, part):
    """About 12 KB of the short record cases, one per line, in name order."""
    out, size = [], 0
    short = [v for k, v in sorted(records.items()) if len(v) < 1000]
    for v in short[part::2]:
        if size + len(v) > 12000:
            break
        out.append(v)
        size += len(v) + 1
    return b"\n".join(out) + b"\n"


def journal_cases(records):
    valid = records["valid"]
    minimal = records["minimal-older-version"]
    cases = {
        "two-records": valid + b"\n" + minimal + b"\n",
        "no-final-newline": valid + b"\n" + minimal,
        "blank-lines": b"\n\n" + valid + b"\n\n\n" + minimal + b"\n\n",
        "garbage-between": valid + b"\nnot json at all\n" + minimal + b"\n",
        "crlf-line": valid + b"\r\n" + minimal + b"\n",
        "torn-then-fused": valid[:77] + minimal + b"\n" + valid + b"\n",
        "torn-tail": valid + b"\n" + minimal[:60],
        "only-newlines": b"\n" * 50,
        "cr-only": b"\r\r\r",
        "invalid-utf8-line": valid + b"\n" + records["invalid-utf8-surrogate"] + b"\n" + minimal + b"\n",
        # Every short record case in one file; the deeply nested ones have files of their own.
        "mixed-corrupt": mixed(records, 0),
        "mixed-corrupt-2": mixed(records, 1),
        "deep-nesting-line": valid + b"\n" + records["deep-nesting-unknown-key"] + b"\n" + minimal,
        "nul-bytes": valid + b"\n\x00\x00\x00\n" + minimal,
    }
    # The harness reads its first two bytes as chunk sizes.
    return {k: bytes([7, 3]) + v for k, v in cases.items()}


def snippet_cases():
    entry = {"expansion": "by the way", "id": ID, "trigger": "btw"}
    dump = lambda v: json.dumps(v, sort_keys=True, indent=4, ensure_ascii=False).encode()
    return {
        "valid": dump([entry, {"expansion": "Best regards.", "id": "0A000000-0000-4000-8000-000000000000",
                               "trigger": " sig "}]),
        "empty-array": b"[]",
        "empty-entry": dump([{"expansion": "", "id": ID, "trigger": ""}]),
        "missing-expansion": dump([{"id": ID, "trigger": "btw"}]),
        "missing-id": dump([{"expansion": "x", "trigger": "btw"}]),
        "id-braces": dump([dict(entry, id="{" + ID + "}")]),
        "id-lower": dump([dict(entry, id=ID.lower())]),
        "id-garbage": dump([dict(entry, id="nope")]),
        "id-trailing-newline": dump([dict(entry, id=ID + "\n")]),
        "trigger-number": dump([dict(entry, trigger=5)]),
        "expansion-null": dump([dict(entry, expansion=None)]),
        "entry-array": dump([[1, 2]]),
        "object-not-array": dump(entry),
        "extra-keys": dump([dict(entry, extra=[1, {"a": 2}])]),
        "duplicate-keys": b'[{"expansion":"a","expansion":"b","id":"' + ID.encode() + b'","trigger":"t"}]',
        "unicode": dump([dict(entry, trigger="café", expansion="😀 résumé\n\"quoted\"")]),
        "deep-nesting": b"[" * 5000 + b"]" * 5000,
        "deep-nesting-unclosed": b"[" * 5000,
        "deep-in-entry": b'[{"expansion":' + b"[" * 3000 + b"]" * 3000 + b"}]",
        "invalid-utf8": b'[{"expansion":"\xff\xfe","id":"' + ID.encode() + b'","trigger":"t"}]',
        "truncated": dump([entry])[:30],
        "crlf": dump([entry]).replace(b"\n", b"\r\n"),
        "bom": b"\xef\xbb\xbf" + dump([entry]),
        "huge-number": b"[1e999999]",
        "garbage": b"\x00\x01\x02 not json",
        "empty": b"",
    }


def contract_cases():
    c = {"bytes": 574041195, "fileName": "ggml-large-v3-turbo-q5_0.bin",
         "sha256": "394221709cd5ad1f40c46e6031ca61bce88931e6e088c188294c6d5a55ffa7e2",
         "url": "https://huggingface.co/ggerganov/whisper.cpp/resolve/main/ggml-large-v3-turbo-q5_0.bin"}
    dump = lambda v: json.dumps(v, indent=2, ensure_ascii=False).encode()
    cases = {
        "valid": dump(c),
        "http": dump(dict(c, url="http://127.0.0.1:8080/model.bin")),
        "ftp": dump(dict(c, url="ftp://example.org/m.bin")),
        "no-host": dump(dict(c, url="https:///m.bin")),
        "relative-url": dump(dict(c, url="/m.bin")),
        "javascript-url": dump(dict(c, url="javascript:alert(1)")),
        "url-spaces": dump(dict(c, url="https://exa mple.org/m.bin")),
        "name-dotdot": dump(dict(c, fileName="..")),
        "name-dot": dump(dict(c, fileName=".")),
        "name-slash": dump(dict(c, fileName="../../etc/passwd")),
        "name-empty": dump(dict(c, fileName="")),
        "name-number": dump(dict(c, fileName=7)),
        "bytes-zero": dump(dict(c, bytes=0)),
        "bytes-negative": dump(dict(c, bytes=-1)),
        "bytes-fraction": dump(dict(c, bytes=1.5)),
        "bytes-string": dump(dict(c, bytes="574041195")),
        "bytes-huge": dump(c).replace(b"574041195", b"1e300"),
        "bytes-beyond-int64": dump(c).replace(b"574041195", b"99999999999999999999"),
        "sha-upper": dump(dict(c, sha256=c["sha256"].upper())),
        "sha-short": dump(dict(c, sha256="abc")),
        # Was accepted: "$" matched before the line feed, and no download could ever verify.
        "sha-trailing-newline": dump(dict(c, sha256=c["sha256"] + "\n")),
        "sha-number": dump(dict(c, sha256=1)),
        "array": dump([c]),
        "null": b"null",
        "deep-nesting": b'{"a":' * 4000 + b"1" + b"}" * 4000,
        "deep-nesting-array": b"[" * 6000,
        "invalid-utf8": dump(c).replace(b"ggml-large", b"\xc0\xafggml"),
        "truncated": dump(c)[:50],
        "crlf": dump(c).replace(b"\n", b"\r\n"),
        "empty": b"",
        "garbage": b"\x89PNG\r\n\x1a\n",
    }
    for key in c:
        cases["missing-" + key] = dump({k: v for k, v in c.items() if k != key})
    return cases


def archive_cases(records):
    r = json.loads(records["valid"])
    m = json.loads(records["minimal-older-version"])
    a = {"exportedAt": 1763212400000, "formatVersion": 1, "productName": "Dictora", "productVersion": "3.1.1",
         "recordCount": 2, "records": [r, m]}
    dump = lambda v: json.dumps(v, sort_keys=True, indent=4, ensure_ascii=False).encode()
    cases = {
        "valid": dump(a),
        "empty-records": dump(dict(a, recordCount=0, records=[])),
        "count-mismatch": dump(dict(a, recordCount=5)),
        "record-missing-key": dump(dict(a, records=[{k: v for k, v in r.items() if k != "savedAt"}])),
        "record-wrong-outcome": dump(dict(a, records=[dict(r, outcome="Pasted")])),
        "records-object": dump(dict(a, records=r)),
        "record-not-object": dump(dict(a, records=[1, "x"])),
        "version-string": dump(dict(a, formatVersion="1")),
        "version-huge": dump(a).replace(b'"formatVersion": 1', b'"formatVersion": 1e300'),
        "version-big-int": dump(a).replace(b'"formatVersion": 1', b'"formatVersion": 8000000000000000'),
        "count-fraction": dump(dict(a, recordCount=2.5)),
        "exportedAt-string": dump(dict(a, exportedAt="yesterday")),
        "exportedAt-fraction": dump(dict(a, exportedAt=1763212400000.5)),
        "exportedAt-huge": dump(a).replace(b"1763212400000", b"1e300"),
        "missing-productName": dump({k: v for k, v in a.items() if k != "productName"}),
        "deep-nesting": b'{"records":' + b"[" * 5000 + b"]" * 5000 + b"}",
        "invalid-utf8": dump(a).replace(b"Dictora", b"Dict\xffora"),
        "truncated": dump(a)[: len(dump(a)) // 2],
        "crlf": dump(a).replace(b"\n", b"\r\n"),
        "journal-lines": records["valid"] + b"\n" + records["minimal-older-version"] + b"\n",
        "journal-lone-surrogate": records["lone-surrogate-escape"] + b"\n",
        "journal-nul": records["nul-escape"] + b"\n",
        "empty": b"",
    }
    return cases


def formatter_cases():
    texts = [
        "um so we should uh, leave now",
        "hello , world .how are you",
        "meet me at 3 P.M. ok",
        "Okay, here are three bullet points: one, milk. Two, eggs. Three, bread. Thanks.",
        "Notes first. Here are two numbered points one apples two pears",
        "Here are some bullet points one apples three pears",
        "Here are bullet points: one, , two, pears",
        "here are bullet points one a two b three c four d five e six f seven g eight h nine i ten j one k",
        "here are bullet points one a to b three c",
        "here are bullet points one a to b two c",
        "here are bullet points about food one a two b",
        "3.5 e.g. this",
        "yes,no",
        "wait ,.",
        "ok !",
        "um.",
        "",
        "   \n\t  ",
        "umbrella drum uh-oh umm uhhh",
        "A.M. a.m. A.m. __QZK_AM__",
        "café naïve ﬁ Å 😀 👩‍👩‍👧",
        "e\u0301 combining after a sentence. \u0301x",
        "\u202eright to left\u202c",
        "one" + " one" * 500,
        "here are bullet points " + " ".join(["one x", "two y"] * 100),
        "um " * 1000,
        ". " * 1000,
    ]
    cases = {"text-%02d" % i: t.encode() for i, t in enumerate(texts)}
    cases["invalid-utf8"] = b"here are bullet points one \xff two \xc0\xaf"
    cases["lone-surrogate-utf8"] = b"hello \xed\xa0\x80 world"
    cases["nul"] = b"one\x00two"
    return cases


def expander_cases():
    s = lambda *parts: "\x1f".join(parts).encode()
    return {
        "btw": s("BTW, it works", "btw", "by the way"),
        "sig-period": s("Thanks. Sig.", "sig", "Best regards."),
        "sig-no-period": s("Thanks sig", " sig ", "Best regards."),
        "banana": s("banana", "a", "aa"),
        "empty-expansion": s("keep this", "this", ""),
        "empty-trigger": s("keep this", "   ", "x"),
        "overlap": s("new york city", "new york", "NYC", "york city", "YC"),
        "chained": s("a", "a", "bb", "b", "cc", "c", "dd"),
        "growth": s("aaaa", "a", "a" * 40, "a", "a" * 40, "a", "a" * 40),
        # Each entry expands inside the last one's text: without a bound this
        # grew past a gigabyte.
        "exponential-growth": s("aa", *(["a", "a" * 60] * 6)),
        "exponential-growth-accented": s("é", *(["é", "é" * 60] * 6)),
        # Grew to the bound, then every later match moved the whole text: a hang.
        "growth-then-many-matches": s("aaaa", "a", "a" * 40, "a", "a" * 130, "a", "aaaaa\ufffda", "a", "b*a",
                                      "a", "bb", "b", "ccb", "b", "cc"),
        "graphemes": s("cafe\u0301 cafe", "e", "E"),
        "case-folding": s("STRASSE straße ǅ", "ß", "ss", "ǆ", "dz"),
        "empty-text": s("", "a", "b"),
        "invalid-utf8": b"\xff\xfe text \x1f\xc0\xaf\x1fx",
        "trailing-separator": s("text", "t") + b"\x1f",
        "punctuation-merge": s("end sig!", "sig", "Bye!"),
        "emoji": s("😀 smile 😀", "😀", ":)"),
    }


def write(name, cases):
    folder = os.path.join(HERE, "corpus", name)
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    for case, data in sorted(cases.items()):
        with open(os.path.join(folder, case), "wb") as f:
            f.write(data)


def main():
    records = record_cases()
    write("record", records)
    write("journal", journal_cases(records))
    write("snippets", snippet_cases())
    write("model_contract", contract_cases())
    write("archive", archive_cases(records))
    write("formatter", formatter_cases())
    write("snippet_expander", expander_cases())


if __name__ == "__main__":
    main()

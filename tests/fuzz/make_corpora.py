#!/usr/bin/python3
"""Writes the hand-made parts of the corpora of all targets but those of frames, kits, patches and records.

usage: make_corpora.py DIRECTORY

Makes DIRECTORY/NAME/... for each target NAME_fuzz: well-formed inputs, and inputs that lie in one place each.
"""

from __future__ import annotations

import hashlib
import io
import json
import struct
import sys
import tarfile
from pathlib import Path

Inputs = dict[str, bytes]
LINK = "http://localhost/packages/geo/geo_v3.tarn"


def text(value: object) -> bytes:
    return json.dumps(value, separators=(",", ":")).encode()


def document() -> Inputs:
    diff = {"download_link": "http://localhost/geo_d3.tarn", "file_size": 7}
    entry = {"data_version": "3", "last_fetch_time": 9, "deprecated": False, "download_link": LINK}
    entry["diff_files"] = {"3": diff, "2": diff}

    def changed(**members: object) -> bytes:
        return text({"deprecated": False, "db_list": {"geo": {**entry, **members}}})

    return {
        "whole": changed(), "comments": b"// one\n/* two */ " + changed(), "bare": text({"db_list": {"geo": entry}}),
        "empty": b"", "blank": b" \n", "page": b"<html>", "array": b"[1]", "null": b"null", "cut": changed()[:-9],
        "deep": b'{"db_list":' + b"[" * 1200, "no-list": text({"db_list": [entry]}), "other": text({"db_list": {"x": entry}}),
        "no-entry": text({"db_list": {"geo": None}}), "array-entry": text({"db_list": {"geo": [entry]}}),
        "deprecated-number": text({"deprecated": 1, "db_list": {"geo": {**entry, "deprecated": None}}}),
        "deprecated-text": text({"deprecated": "x", "db_list": {"geo": entry}}), "deprecated": changed(deprecated=True),
        "version-letters": changed(data_version="99abc"), "version-signed": changed(data_version="-5"),
        "version-large": changed(data_version="2147483648"), "version-number": changed(data_version=3),
        "version-zeros": changed(data_version="007"), "version-none": changed(data_version=""),
        "time-real": changed(last_fetch_time=9.0), "time-large": changed(last_fetch_time=1 << 40),
        "link-array": changed(download_link=[]), "diffs-array": changed(diff_files=[diff]), "diffs-text": changed(diff_files="x"),
        "diffs-name": changed(diff_files={"3x": diff}), "diffs-twice": changed(diff_files={"3": diff, "03": diff}),
        "diffs-size": changed(diff_files={"3": {**diff, "file_size": 1 << 40}}), "diffs-null": changed(diff_files={"3": None}),
        "escapes": changed(data_version="\u0007\u001b[31m"), "surrogate": b'{"db_list":{"geo":{"data_version":"\\ud800"}}}',
        "name-latin": b'{"db_list":{"caf\xe9":{"data_version":"3"}}}', "name-half": b'{"db_list":{"x\\udc00":{"data_version":"3"}}}',
        "controls": b'{"db_list":{"geo":{"data_version":"\x1b[2J","download_link":"\xff"}}}',
    }  # fmt: skip


def settings() -> Inputs:
    service = {"config": {"cur_volume": "/volume1", "db_netloc": "localhost:8080", "db_ver": "1", "digest_threads": 2,
                          "download_scheme": "https", "scheduled_full_packages": "200M"}}  # fmt: skip
    base = {"auto_update": True, "format_version": "1", "install_dest": "%VOLUME%", "min_rsv_space_inbytes": 1000}
    files = {
        "s-whole": service, "s-empty": {}, "s-array": [], "s-section": {"config": []}, "s-number": {"config": {"db_ver": 1}},
        "s-threads": {"config": {"digest_threads": -1}}, "s-real": {"config": {"digest_threads": 2.5}},
        "s-rule": {"config": {"scheduled_full_packages": "some"}}, "s-misspelt": {"config": {"db_netlok": "x"}, "x": {}},
        "s-nulls": {"config": {"db_ver": None, "cur_volume": None}}, "s-large": {"config": {"digest_threads": 1 << 33}},
        "d-whole": {"geo": base, "zones": {"install_dest": "%ROOTFS%"}}, "d-name": {"../x": base, "": base},
        "d-kind": {"geo": {"auto_update": "yes"}}, "d-place": {"geo": {**base, "install_dest": "/etc"}},
        "d-null": {"geo": None}, "d-misspelt": {"geo": {"auto_updat": True}}, "d-unknown": {"geo": {"a\nb\u001b": 1}},
        "d-real": {"geo": {"min_rsv_space_inbytes": 1e3}}, "d-line": {"geo\u0000": base},
    }  # fmt: skip
    inputs = {name: (b"\0" if name[0] == "s" else b"\1") + text(value) for name, value in files.items()}
    raw = {"s-no-file": b"\0", "s-cut": b'\0{"config"', "s-deep": b"\0" + b"[" * 1100, "d-comment": b"\1{} // end",
           "s-lines": b'\0{\n"config":\n{\n"a\\u0062c":\n1}}', "d-twice": b'\1{"geo":{},"geo":{"x":1}}',
           "s-latin": b'\0{"config":{"db_netloc":"caf\xe9"}}', "s-half": b'\0{"config":{"x\\udc00":1}}'}  # fmt: skip
    return {**inputs, **raw}


def metadata() -> Inputs:
    full = {"data_version": 12, "format_version": "1", "id": "geo", "kind": "full", "published": 1795280000}
    diff = {**full, "kind": "diff", "base_version": 11}

    def asked(name: str, **members: object) -> bytes:
        return name.encode() + b"\n" + text({**full, **members})

    return {
        "full": asked("geo_v12"), "debug": asked("geo_debug"), "diff": b"geo_d12\n" + text(diff), "empty": b"", "other": asked("zones_v12"),
        "older": asked("geo_v13"), "kind": asked("geo_d12"), "chain": b"geo_d12\n" + text({**diff, "base_version": 10}),
        "gap": b"geo_d12\n" + text({**full, "kind": "diff"}), "lowest": b"geo_d0\n" + text({**diff, "data_version": 0, "base_version": -1}),
        "least": b"geo_d-2147483648\n" + text({**diff, "data_version": -(1 << 31), "base_version": (1 << 31) - 1}),
        "text": asked("geo_v12", data_version="12"), "real": b'geo_v12\n{"id":"geo","kind":"full","data_version":12.0}',
        "large": asked("geo_v4294967308", data_version=4294967308), "negative": asked("geo_v-1", data_version=-1),
        "published": asked("geo_v12", published=-1), "published-real": asked("geo_v12", published=1.5), "id": asked("geo_v12", id=5),
        "array": b"geo_v12\n[]", "twice": b'geo_v12\n{"id":"x","id":"geo","kind":"full","data_version":12}',
        "zero": b"geo_v12\n" + text(full) + b"\0x", "extra": b"geo_v12\n" + text(full) + b" x", "deep": b"geo_v12\n" + b'{"a":' * 40,
        "escape": b'geo_v12\n{"id":"g\\u0065o","kind":"full","data_version":12}', "path": asked("../x_v12", id="../x"),
        "long": asked("a" * 300 + "_v12", id="b" * 300), "control": asked("geo_v12", id="\u001b[2J\n"), "kind-none": asked("geo_v12", kind="x"),
    }  # fmt: skip


def description() -> Inputs:
    def one(name: str, operation: object = "create", file: object = "files/1.new") -> dict[str, object]:
        return {name: {"operation": operation, "input_file": file}}

    members = {
        "create": one("geo.sqlite"), "update": one("zones/old", "update", "files/1.vcdiff"), "delete": one("zones/old", "delete", ""),
        "empty": {}, "up": one("../x"), "up-inside": one("a/../../x"), "absolute": one("/etc/passwd"), "dots": one("./a//b"),
        "directory": one("a/"), "dot": one("."), "no-name": one(""), "input-up": one("a", file="../outside/x"),
        "input-absolute": one("a", file="/etc/passwd"), "input-link": one("a", "update", "link/x"), "input-of-link": one("a", file="link/x"),
        "input-is-link": one("a", file="files/2.new"), "patch-is-link": one("a", "update", "files/2.new"), "input-none": one("a", file=""),
        "zero": one("a\0b"), "input-zero": one("a", file="files/1.new\0/../../x"), "operation": one("a", "rename"), "number": one("a", 5),
        "input-array": one("a", file=[]), "value": {"a": 5}, "null": {"a": None}, "above": {**one("a"), **one("a/b")},
        "below-link": one("link/x"), "over-directory": one("zones"), "swap": {**one("zones"), **one("zones/old", "delete", "")},
        "spellings": {**one("a/b"), **one("a//b"), **one("./a/b")}, "flat": {**one("a.b"), **one("a/b")}, "long": one("n" * 300),
        "deep": one("/".join("d" * 200)),
    }  # fmt: skip
    raw = {"array": b"[]", "text": b'"x"', "cut": b'{"a":', "no-file": b"", "twice": b'{"a":{},"a":{}}', "nested": b"[" * 1100}
    return {**{name: text(value) for name, value in members.items()}, **raw}


def script() -> Inputs:
    lines = {
        "changes": "INSERT INTO t VALUES(4,'four',x'04');\nUPDATE t SET b=substr(b,1,1)||char(10)||'x' WHERE a=1;\nDELETE FROM t WHERE a=2;",
        "negative": "UPDATE t SET a=-a WHERE a>=2;\nUPDATE t SET a=-a+1 WHERE a<0;",
        "guard": "SELECT abs(EXISTS(SELECT 1 FROM t WHERE rowid=80 AND length(CAST(a AS BLOB))=12)+~9223372036854775807);",
        "tables": "CREATE TABLE n(x);\nINSERT INTO n SELECT a FROM t;\nALTER TABLE t ADD COLUMN d DEFAULT 5;\nDROP VIEW s;",
        "virtual": "INSERT INTO f(rowid,x) VALUES(9,'new words');\nDELETE FROM r WHERE id=1;\nINSERT INTO f(f) VALUES('rebuild');",
        "new-virtual": "CREATE VIRTUAL TABLE g4 USING fts4(x);\nCREATE VIRTUAL TABLE q USING rtree_i32(id,a,b);",
        "transaction": "COMMIT;\nDELETE FROM t;", "begin": "BEGIN;", "rollback": "DELETE FROM t;\nROLLBACK;", "end": "END TRANSACTION;",
        "savepoint": "SAVEPOINT x;\nDELETE FROM t;\nROLLBACK TO x;\nRELEASE x;", "open-savepoint": "SAVEPOINT x;\nDELETE FROM t;",
        "attach": "ATTACH '/tmp/other' AS o;", "detach": "DETACH main;", "vacuum": "VACUUM;", "vacuum-into": "VACUUM INTO '/tmp/copy';",
        "extension": "SELECT load_extension('x');", "tokenizer": "SELECT fts3_tokenizer('simple');", "schema": "DELETE FROM sqlite_schema;",
        "writable": "PRAGMA writable_schema=1;\nUPDATE sqlite_master SET sql='x';", "journal": "PRAGMA journal_mode=OFF;",
        "shadow": "DELETE FROM f_content;", "shadow-drop": "DROP TABLE r_node;", "module": "CREATE VIRTUAL TABLE d USING dbstat;",
        "pragmas": "PRAGMA user_version=7;\nPRAGMA foreign_keys=1;\nPRAGMA integrity_check;\nPRAGMA page_size;", "page-size": "PRAGMA page_size=512;",
        "temporary": "CREATE TEMP TABLE y AS SELECT * FROM t;", "function": "PRAGMA temp_store_directory='/tmp';",
        "two": "DELETE FROM t WHERE a=1; DELETE FROM t WHERE a=2;", "wrong": "DELETE FROM t;\nSELEC 1;", "comment": "-- no\n/* open",
        "endless": "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) SELECT count(*) FROM c LIMIT 0;",
        "large": "SELECT zeroblob(1000000000);", "pattern": f"SELECT '{'a' * 90}' LIKE '{'%a' * 600}';", "empty": "", "blank": "\n\n;",
        "reindex": "REINDEX;\nANALYZE;", "trigger": "CREATE TRIGGER z BEFORE INSERT ON t BEGIN SELECT RAISE(FAIL,'x'); END;",
        "explain": "EXPLAIN DELETE FROM t;", "returning": "DELETE FROM t RETURNING a;", "check": "ALTER TABLE t ADD COLUMN e CHECK(e>5);",
    }  # fmt: skip
    return {**{name: value.encode() for name, value in lines.items()}, "zero": b"DELETE FROM t\0;", "no-text": b"\xff\xfe"}


def conf() -> Inputs:
    lines = {
        "downloads": "deadline 14400\nlowest_rate 1000\npatience 120\n", "volumes": "pattern /volume*\ndirectory /srv/data\nexclude /volumeUSB*\n",
        "comments": "# all\n\tdeadline\t5 # some\r\npattern /a#b\n#", "zero": "deadline 0\npatience 0\nlowest_rate 0", "sign": "deadline -5\npatience +5",
        "large": "deadline 9999999999\nlowest_rate 999999999", "words": "deadline 5 s\npattern /a b", "relative": "pattern volume\nexclude ./x",
        "slashes": "directory ///\npattern /a//\nexclude /", "long": "directory /" + "d" * 5000, "no-value": "pattern\ndeadline\nexclude #",
        "unknown": "deadlin 5\npaths /x", "range": "pattern /volume[1-9]\nexclude /[", "binary": "\x01\x02\x1b[2J\nexclude /\x7f", "empty": "",
        "nul": "pattern /a\0b\ndeadline 5\0", "everything": "exclude /*\nexclude /volume1",
    }  # fmt: skip
    return {name: value.encode() for name, value in lines.items()}


def cron() -> Inputs:
    lines = (
        "17 3 * * 1-5 root tarndbudctl update", "@daily root x", "*/15 * * * * root x", "0 0 29 2 * root x", "0 0 31 2 * root x",
        "5/2147483647 * * * * root x", "0,30 0-5/2 1,15 * 7 root x", "60 * * * *", "* * 0 * *", "*/0 * * * *", "5-1 * * * *", "-1 * * * *", "1- * * * *",
        "1,,2 * * * *", "0 0 1 jan *", "@reboot root x", "", "* * * *", "0-59/1 23 31 12 0 x", "0 0 1 * 1 x", "*,5 * *,1 * 1 x",
    )  # fmt: skip
    return {f"{number:02}": line.encode() for number, line in enumerate(lines)}


def answer() -> Inputs:
    ok = "--2026--  http://localhost/\n  HTTP/1.1 200 OK\n  Content-Length: 1234\n"
    accounts = {
        "ok": ok, "moved": "  HTTP/1.1 302 Found\n  Content-Length: 5\n" + ok, "refused": "  HTTP/1.1 404 Not Found\n  Content-Length: 9\n",
        "no-length": "  HTTP/1.1 200 OK\n", "unit": "  HTTP/1.1 200 OK\n  Content-Length: 5G\n", "large": f"  HTTP/1.1 200 OK\n  Content-Length: {1 << 70}\n",
        "sign": "  HTTP/1.1 200 OK\n  Content-Length: -1\n", "two": ok + "  content-length: 7 \r\n", "no-status": "  HTTP/\n  content-length:1",
        "complaint": "Connecting...\nHTTP request sent\n2026-01-01 ERROR 404: Not Found.\nGiving up.\n", "retry": "Retrying.\n\nTo connect to x\n",
        "controls": "ERROR 500: \x1b[2J\x07\n", "long": "x" * 5000, "empty": "", "blank": " \t\r\n",
    }  # fmt: skip
    return {name: value.encode("latin-1") for name, value in accounts.items()}


def state() -> Inputs:
    digest = "ab" * 48
    status = {"data_version": "7", "file_statuses": {"a": {"sha384_digest": digest}, "b/c": {"sha384_digest": "x"}}, "last_fetch_time": 5}
    files = {"data_version": "7", "rebuilt_from_disk": False, "files": {"a": {"sha384_digest": digest, "size": 5}, "b": {"link_target": "a"}}}
    run = {"operation": "update", "time": 5, "exit_status": 3, "seconds": 1.5, "downloaded_bytes": 7, "downloaded_total": 9,
           "failure": "x", "last_success": 4}  # fmt: skip
    progress = {"id": "geo", "line": "x", "phase": "x", "package": 1, "packages": 2, "bytes": 3, "whole_bytes": 4, "process": 1}
    failure = {"operation": "update", "time": 5, "exit_status": 3, "error": "x"}
    values = {
        "0-whole": status, "0-none": {**status, "file_statuses": {}}, "0-number": {**status, "data_version": 7}, "0-array": [status],
        "0-letters": {**status, "data_version": "7x"}, "0-minus": {**status, "data_version": "-7"}, "0-more": {**status, "x": 1},
        "0-null": {**status, "file_statuses": None}, "0-large": {**status, "last_fetch_time": 1 << 31}, "0-escape": {**status, "file_statuses": {"\u00fc\0\n": {"sha384_digest": "\u20ac"}}},
        "0-order": {**status, "file_statuses": {"b": {"sha384_digest": "x"}, "a": {"sha384_digest": "y"}}}, "0-real": {**status, "last_fetch_time": 5.0},
        "0-blank": {**status, "file_statuses": {"a": {"sha384_digest": ""}}}, "0-space": {**status, "data_version": " 7"}, "0-version": {**status, "data_version": "99999999999"},
        "1-whole": files, "1-none": {**files, "files": {}}, "1-digits": {**files, "files": {"\0ff": {"sha384_digest": "\0c3"}}},
        "1-odd": {**files, "files": {"\0f": {"sha384_digest": "x"}}}, "1-size": {**files, "files": {"a": {"size": 1 << 63}}}, "1-order": {**files, "files": {"b": {}, "a": {}}},
        "1-letters": {**files, "data_version": "7x"}, "1-minus": {**files, "files": {"a": {"size": -1}}}, "1-text": {**files, "rebuilt_from_disk": "no"},
        "1-upper": {**files, "files": {"\0FF": {"sha384_digest": "AB", "size": 0}}}, "1-both": {**files, "files": {"a": {"link_target": "x", "sha384_digest": "ab", "size": 3}}},
        "2-whole": {"up_to": 5, "since": 9}, "2-all": {"up_to": None}, "2-minus": {"up_to": -1}, "2-text": {"up_to": "5"}, "2-none": {}, "2-array": [5],
        "3-whole": {"version": 5, "time": 9, "message": "x"}, "3-text": {"version": "5"}, "3-large": {"version": 1 << 40}, "3-array": [], "3-real": {"time": 1e300},
        "4-whole": run, "4-minus": {**run, "downloaded_bytes": -1}, "4-real": {**run, "time": 1e300}, "4-text": {**run, "seconds": "x"}, "4-done": {**run, "exit_status": 0},
        "5-whole": progress, "5-array": [progress], "5-large": {**progress, "process": 1 << 32 | 1}, "5-minus": {**progress, "bytes": -1}, "5-line": {**progress, "line": "\n\u001b[2J"},
        "6-whole": {"data_version": 7, "published": 5}, "6-real": {"data_version": 7.0, "published": 1e300}, "7-whole": failure, "7-text": {**failure, "time": "x"}, "7-line": {**failure, "error": "\n\u001b[2J"},
    }  # fmt: skip
    raw = {"0-cut": b'\0{"data_version"', "0-zero": b"\0" + text(status) + b"\0", "0-twice": b'\0{"data_version":"1","data_version":"2","file_statuses":{},"last_fetch_time":5}',
           "1-cut": b"\1" + text(files)[:-3], "2-deep": b"\2" + b"[" * 1100, "2-extra": b'\2{"up_to":5}}', "4-deep": b"\4" + b"[" * 1100,
           "5-deep": b"\5" + b"[" * 1100}  # fmt: skip
    return {**{name: bytes([int(name[0])]) + text(value) for name, value in values.items()}, **raw}


def plan() -> Inputs:
    whole = b"7\x0099\0full\0/volume1\0/volume1/db\0a\0" + b"0" * 80 + b"\0/volume1/tmp/a\0b\0\0\0"
    return {
        "whole": whole, "diff": whole.replace(b"full", b"diff"), "cut": whole[:-1], "odd": whole[:-2], "head": whole[:34], "empty": b"",
        "letters": whole.replace(b"99", b"9x"), "large": b"99999999999" + whole[1:], "minus": b"-" + whole, "zeros": b"0" * 300 + whole,
        "other": whole.replace(b"full", b"x"), "more": whole * 3,
    }  # fmt: skip


def header(name: bytes, kind: bytes = b"0", link: bytes = b"", mode: bytes = b"0000644", size: bytes = b"%011o" % 0, magic: bytes = b"ustar  \0") -> bytes:
    """As it is told, so that nothing corrects it."""
    fields = name.ljust(100, b"\0") + mode + b"\0" + b"0000000\0" * 2 + size.ljust(12, b"\0") + b"%011o\0" % 0 + b" " * 8 + kind
    block = (fields + link.ljust(100, b"\0") + magic).ljust(512, b"\0")
    return block[:148] + b"%06o\0 " % sum(block) + block[156:]


def member(name: bytes, content: bytes = b"content", **more: bytes) -> bytes:
    return header(name, size=b"%011o" % len(content), **more) + content + bytes(-len(content) % 512)


def tar() -> Inputs:
    end = bytes(1024)
    stream = io.BytesIO()
    with tarfile.open(fileobj=stream, mode="w", format=tarfile.PAX_FORMAT) as writer:
        info = tarfile.TarInfo("\u00fc" * 90)
        info.pax_headers = {"SCHILY.xattr.user.x": "y", "path": "../x"}
        writer.addfile(info)
    sparse = header(b"s", b"S", size=b"%011o" % 512)
    members = {
        "file": member(b"a"), "files": member(b"a/b") + member(b"a/c", b"x" * 600), "empty": b"", "none": b"", "twice": member(b"a") * 2, "directory": header(b"d/", b"5"),
        "executable": member(b"a", mode=b"0000755"), "set-id": member(b"a", mode=b"0004755"), "symlink": header(b"l", b"2", b"a") + member(b"a"),
        "symlink-out": header(b"l", b"2", b"../outside"), "symlink-absolute": header(b"l", b"2", b"/etc"), "through": header(b"l", b"2", b"d") + member(b"l/x"),
        "two-links": header(b"d/l", b"2", b"..") + header(b"m", b"2", b"d/l/..") + member(b"m/outside/file"), "up": member(b"../outside/file"),
        "up-inside": member(b"a/../../x"), "absolute": member(b"/tmp/x"), "hard": member(b"a") + header(b"h", b"1", b"a"), "hard-out": header(b"h", b"1", b"../outside/file"),
        "hard-symlink": header(b"l", b"2", b"x") + header(b"h", b"1", b"l"), "hard-self": member(b"a") + header(b"a", b"1", b"a"), "fifo": header(b"f", b"6"),
        "device": header(b"n", b"3"), "dot": header(b".", b"5"), "root-file": member(b"."), "over-directory": member(b"a/b") + member(b"a"), "over-file": member(b"a") + member(b"a/b"),
        "long": header(b"././@LongLink", b"L", size=b"%011o" % 301) + (b"n/" * 150 + b"\0").ljust(512, b"\0") + member(b"n"), "link-to-here": header(b"l", b"2", b"."),
        "deep": member(b"d/" * 45 + b"x"), "sum": member(b"a")[:150] + b"7" + member(b"a")[151:], "cut": member(b"a", b"x" * 600)[:700], "negative": header(b"a", size=b"\xff" * 12),
        "large": header(b"a", size=b"\x80" + b"\x7f" * 11), "pax": stream.getvalue(), "sparse": sparse + bytes(512), "posix": member(b"a", magic=b"ustar\x0000"),
        "name-none": member(b""), "control": member(b"\x1b[2J\n"), "zeros": bytes(512), "swap": header(b"d", b"5") + header(b"d", b"2", b"..") + member(b"d/outside/file"),
    }  # fmt: skip
    return {name: value + (b"" if name in ("empty", "cut", "pax") else end) for name, value in members.items()}


def head() -> Inputs:
    def archive(payload: bytes = b"payload", about: bytes = b"{}", **lies: int) -> bytes:
        said = {"type": 6, "frames": 1, "payload": len(payload), "entries": 1, "bytes": 7, "about": len(about), "reserved": 0, "codec": 0, "packed": len(payload), "unpacked": len(payload), **lies}  # fmt: skip
        fields = [said[name] for name in ("type", "frames", "payload", "entries", "bytes", "about", "reserved")]
        start = b"TARNSAR1" + struct.pack("<IIQQQII", *fields)
        frame = struct.pack("<III", said["codec"], said["packed"], said["unpacked"]) + hashlib.sha256(payload).digest()
        return start + about + frame + bytes(64) + payload

    whole = archive()
    return {
        "whole": whole, "empty": b"", "magic": b"TARNSAR2" + whole[8:], "cut": whole[:-1], "longer": whole + b"x", "short": whole[:47], "damaged": whole[:-1] + b"x",
        "no-frames": archive(frames=0), "frames": archive(frames=2), "many": archive(frames=0xFFFFFFFF), "payload": archive(payload=b""), "large": archive(payload_=1, entries=1 << 63),
        "about": archive(about=b"x" * 65536), "much-about": archive(about=b"x" * 65537), "reserved": archive(reserved=1), "codec": archive(codec=9), "packed": archive(packed=8),
        "nothing": archive(packed=0), "grows": archive(unpacked=6), "huge": archive(unpacked=0x7FFFFFFF), "type": archive(type=5), "bzip2": archive(codec=4, unpacked=100),
    }  # fmt: skip


TARGETS = {
    "answer": answer, "conf": conf, "cron": cron, "description": description, "document": document, "head": head, "metadata": metadata,
    "plan": plan, "repository": document, "script": script, "settings": settings, "state": state, "tar": tar,
}  # fmt: skip


def main(arguments: list[str]) -> int:
    if len(arguments) != 1:
        print(__doc__.splitlines()[2], file=sys.stderr)
        return 2
    for target, make in TARGETS.items():
        directory = Path(arguments[0]) / target
        directory.mkdir(parents=True, exist_ok=True)
        for name, content in make().items():
            (directory / name).write_bytes(content)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

# SPDX-License-Identifier: MIT
"""Every operation of the page by its description: arguments, effect, feedback, answer, errors."""
import glob
import os
import signal
import socket
import stat
import struct
import subprocess
from collections import namedtuple

from wire import PERFORM, REQUEST, Connection, Error, FeedbackListener, authorization, perform

ROOT = "/run/contract"
POSIX, COCOA = "NSPOSIXErrorDomain", "NSCocoaErrorDomain"
OWN = "net.corvalen.error.privileged-operation"
DONE = Error(POSIX, 0, None)

# `expects` is the error that answers (a domain and a code, or a code of POSIX), and what is to be
# true afterwards.
Row = namedtuple("Row", "operation arguments expects check", defaults=(0, None))
ACL = bytes.fromhex("02000000" "0100" "0600" "ffffffff" "0200" "0400" "39300000" "0400" "0400" "ffffffff"
                    "1000" "0400" "ffffffff" "2000" "0000" "ffffffff")


def at(name):
    return f"{ROOT}/{name}"


def make(name, content=b"", mode=0o644):
    os.makedirs(os.path.dirname(at(name)), exist_ok=True)
    with open(at(name), "wb") as file:
        file.write(content)
    os.chmod(at(name), mode)
    return at(name)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


def keeps(what):
    """Whether the scratch folder keeps the attribute."""
    probe = make("probe")
    try:
        os.setxattr(probe, what, ACL if what.startswith("system") else bytes(32))
        return True
    except OSError:
        return False
    finally:
        os.remove(probe)


def utility(name, script, permissions=0o755):
    path = f"/usr/libexec/{name}"
    with open(path, "w") as file:
        file.write("#!/bin/sh\n" + script)
    os.chmod(path, permissions)


def make_fixed(folder, locked=False):
    """A file on a read-only mount of its own, in a folder with another mode, owner and list."""
    file = make(f"{folder}/file")
    done = not locked or subprocess.run(["chattr", "+i", file], stderr=subprocess.DEVNULL).returncode == 0
    for options in ("bind", "bind,remount,ro"):
        subprocess.run(["mount", "-o", options, file, file], check=True)
    os.chmod(at(folder), 0o751)
    os.chown(at(folder), 1, 1)
    return done


def spoil(store):
    """Leaves a store that nobody can read, for the row that follows."""
    with open(f"/var/lib/net.corvalen.system.privilegedhelper-kvx/{store}", "w") as file:
        file.write("{ broken")
    return True


def rows():
    """The rows prepare what they need when they are made."""
    for folder in ("tree/sub", "empty", "full/sub", "backup/file.backup", "mounted"):
        os.makedirs(at(folder))
    for name in ("tree/a.txt", "tree/sub/b.txt", "tree/sub/c.log", "full/x", "full/sub/y"):
        make(name, b"12345")
    os.utime(at("tree/a.txt"), (0, 0))
    os.chown(at("tree/sub/c.log"), 3000000000, 0)
    os.symlink("missing", at("dangling"))
    os.mknod(at("whiteout"), stat.S_IFCHR, 0)
    mounted = make("mounted/file")
    subprocess.run(["mount", "--bind", mounted, mounted], check=True)
    sleeper = subprocess.Popen(["sleep", "1000"])
    plain = make("plain")

    yield Row("nop", [])
    yield Row("discard-auth", [])
    yield Row("delete-files", [make("old")], 0, lambda: not os.path.exists(at("old")))
    yield Row("delete-files", [at("missing"), make("old2")], 2, lambda: not os.path.exists(at("old2")))
    yield Row("delete-files", [""], 22)
    target = make("kept/target")
    for folder in ("full/x", "empty"):
        os.makedirs(at(f"kept/{folder}"))
    for name in ("link", "full-link"):
        os.symlink(at(f"kept/{'target' if name == 'link' else 'full'}"), at(f"kept/{name}"))
    # A link goes, its target does not.
    for path, code in ((target + "\0x", 22), (target + "/", 20), (at("kept/link"), 0),
                       (at("kept/full-link/"), 20), (at("kept/full-link"), 0), (at("kept/full"), 66),
                       (at("kept/empty///"), 0), (at("n" * 256), 63), ("/", 16), (at("whiteout"), 5)):
        yield Row("delete-files", [path], code, lambda: os.path.exists(target))
    yield Row("delete-files", [])

    yield Row("modify-systemfile", [make("file", b"old", 0o640), b"new", False], 0,
              lambda: read(at("file")) == b"new" and read(at("file.backup")) == b"old"
              and mode(at("file")) == 0o640)
    yield Row("modify-systemfile", [at("file"), b"", True], 0,
              lambda: read(at("file")) == b"" and not os.path.exists(at("file.backup")))
    yield Row("modify-systemfile", [make("backup/file"), b"x", False], (OWN, 5),
              lambda: read(at("backup/file")) == b"")
    yield Row("modify-systemfile", [mounted, b"x", False], (OWN, 18))
    yield Row("modify-systemfile", [at("missing"), b"x", False], 2)
    yield Row("modify-systemfile", [at("tree"), b"x", False], 21)
    yield Row("modify-systemfile", ["", b"x", False], 22)

    yield Row("create-fileobject", [at("F"), "F"], 0, lambda: mode(at("F")) == 0o644)
    yield Row("create-fileobject", [at("X"), "X"], 0, lambda: mode(at("X")) == 0o755)
    yield Row("create-fileobject", [at("D"), "D"], 0, lambda: os.path.isdir(at("D")))
    yield Row("create-fileobject", [at("F2"), "f"], 22, lambda: not os.path.exists(at("F2")))
    yield Row("create-fileobject", [plain, "F"], 17)
    yield Row("create-fileobject", [at("no/file"), "F"], (OWN, 4))
    yield Row("create-fileobject", [at("no/folder"), "D"], (COCOA, 4))

    yield Row("rename-fileobject", [make("from"), at("to")], 0, lambda: os.path.exists(at("to")))
    yield Row("rename-fileobject", [at("missing"), at("to2")], (COCOA, 4))
    yield Row("rename-fileobject", [plain, at("to")], (COCOA, 516))

    yield Row("delete-fileobjects", ["0", "1", make("x1"), make("x2")], 0,
              lambda: not os.path.exists(at("x2")))
    yield Row("delete-fileobjects", ["0", "1", at("missing"), make("x3")], 2,
              lambda: os.path.exists(at("x3")))
    yield Row("delete-fileobjects", ["0", "0", at("missing"), at("x3")], 0,
              lambda: not os.path.exists(at("x3")))
    for word in ("0", "yes"):
        yield Row("delete-fileobjects", [word, "1", at("tree")], 66)
    yield Row("delete-fileobjects", ["0", "1", at("whiteout")], (OWN, 6))
    yield Row("delete-fileobjects", ["1", "1"], 22)
    yield Row("delete-foldercontents", [at("missing"), at("full")], 0, lambda: os.listdir(at("full")) == [])
    yield Row("delete-foldercontents", [plain], 20)
    yield Row("delete-foldercontents", [], 22)

    for path, existence in ((at("tree"), 1), (plain, 2), (at("dangling"), 0)):
        yield Row("inspect-fileobject", [path], Error(OWN, 0, {"ObjectExistence": existence}))
    yield Row("inspect-fileobject", [""], 22)
    yield Row("touch-fileobject", [make("touched")], 0, lambda: os.stat(at("touched")).st_mtime > 1e9)
    yield Row("touch-fileobject", [at("missing")], 2, lambda: not os.path.exists(at("missing")))
    yield Row("touch-fileobject", [""], 22)

    yield Row("modify-protection", [plain, False, False, False])
    yield Row("modify-protection", [at("dangling"), True, False, False], 2)
    yield Row("modify-protection", ["", True, True, True], 22)
    finder = struct.pack(">IIH", 0x54455854, 0x61622020, 0x4000)
    if keeps("user.com.apple.FinderInfo"):
        yield Row("modify-hfsattr", [plain, 0x54455854, 0x61622020, True], 0,
                  lambda: os.getxattr(plain, "user.com.apple.FinderInfo")[:10] == finder)
    yield Row("modify-hfsattr", [at("missing"), 1, 2, False], (COCOA, 4))
    yield Row("create-link", [at("soft"), "some/text", False], 0,
              lambda: os.readlink(at("soft")) == "some/text")
    yield Row("create-link", [at("hard"), plain, True], 0, lambda: os.stat(at("hard")).st_nlink == 2)
    yield Row("create-link", [at("soft"), "x", False], (COCOA, 516))
    if keeps("system.posix_acl_access"):
        yield Row("modify-acl", [plain, ACL], 0,
                  lambda: os.getxattr(plain, "system.posix_acl_access") == ACL)
        yield Row("modify-acl", [at("empty"), ACL + ACL], 0,
                  lambda: os.getxattr(at("empty"), "system.posix_acl_default") == ACL)
        yield Row("modify-acl", [at("empty"), ACL], 0,
                  lambda: "system.posix_acl_default" not in os.listxattr(at("empty")))
    for wrong in (ACL + ACL[:-8], ACL * 3):
        yield Row("modify-acl", [at("empty"), wrong], 22)
    yield Row("modify-acl", [plain, ACL + ACL], 22)
    yield Row("modify-acl", [at("missing"), ACL], 2)
    yield Row("modify-acl", [plain, ACL[:-1]], 22)
    yield Row("modify-acl", [plain, b""], 22)

    for operation, rest in (("search-agedfiles", [1, True]), ("search-filenames", ["", "", False]),
                            ("search-patterns", ["0", "0", "x"]), ("search-fileorphans", [True]),
                            ("inspect-storagesize", []), ("prop-permissions", [0, True, 2])):
        yield Row(operation, ["", *rest], 22)
        yield Row(operation, [at("missing"), *rest], 2)
        yield Row(operation, [plain, *rest], 20)
    yield Row("search-patterns", [at("tree"), "0", "3", "x"], 22)
    yield Row("search-patterns", [at("tree"), "0", "0"], 22)
    yield Row("search-patterns", [at("empty"), "0", "0", "x"], 2)
    below = [at("tree/a.txt"), at("tree/sub"), at("tree/sub/b.txt"), at("tree/sub/c.log")]
    yield Row("inspect-storagesize", [at("tree")],
              Error(OWN, 0, {"Size": sum(os.lstat(path).st_size for path in below)}))
    os.chmod(at("tree"), 0o750)
    yield Row("prop-permissions", [at("tree"), 4, False, 2], 0, lambda: mode(at("tree/sub/b.txt")) == 0o640)
    yield Row("prop-permissions", [at("tree"), 0, False, 32], 0,
              lambda: os.stat(at("tree/sub/c.log")).st_uid == 0)
    make("setid/program", b"", 0o4755)
    yield Row("prop-permissions", [at("setid"), 0, False, 32],
              Error(POSIX, 22, {"NSFilePath": at("setid/program")}))

    make_fixed("fixed")
    for selection, code in ((2, 17), (32, 16)):
        yield Row("prop-permissions", [at("fixed"), 0, False, selection], (OWN, code))
    if keeps("system.posix_acl_access"):
        os.setxattr(at("fixed"), "system.posix_acl_access", ACL)
        yield Row("prop-permissions", [at("fixed"), 0, False, 1], (OWN, 14))
    if make_fixed("locked", locked=True):
        yield Row("delete-fileobjects", ["0", "1", at("locked/file")], (OWN, 7))

    yield Row("modify-powersetting", ["Disk Sleep Timer", 7])
    yield Row("modify-powersetting", ["No Such Setting", 7], (OWN, 10))
    yield Row("modify-powersetting", ["", 7], 22)
    yield Row("modify-diskspindown", [9], 0, lambda: spoil("power-preferences.plist"))
    yield Row("modify-powersetting", ["Disk Sleep Timer", 7], (OWN, 9))
    variable = "net.ipv4.ip_default_ttl"
    yield Row("modify-kernelsetting", [variable, 77], 0,
              lambda: read("/proc/sys/net/ipv4/ip_default_ttl") == b"77\n")
    yield Row("modify-kernelsetting", ["no.such.variable", 1], 2)
    yield Row("modify-kernelsetting", ["", 1], 22)
    yield Row("modify-nvram", ["note", "hello"], 0,
              lambda: read(glob.glob("/sys/firmware/efi/efivars/note-*")[0]).endswith(b"hello"))
    yield Row("modify-nvram", ["", "x"], 22)
    yield Row("modify-nvram", ["../note", "x"], (OWN, 11))
    preference = ["Colour", "org.example", "kCFPreferencesAnyUser", "kCFPreferencesAnyHost"]
    yield Row("modify-preferences", [*preference, "blue"], 0,
              lambda: b"blue" in read("/etc/xdg/preferences/org.example.plist"))
    yield Row("modify-preferences", [*preference, ""], 0,
              lambda: b"blue" not in read("/etc/xdg/preferences/org.example.plist"))
    yield Row("modify-preferences", [*preference, "<plist>"], 22)
    yield Row("modify-preferences", ["", *preference[1:], "x"], 22)
    yield Row("modify-preferences", ["Colour", "../elsewhere", *preference[2:], "x"], (OWN, 12))
    yield Row("modify-sysconf", ["setup", "", "ComputerName", "mill"])
    yield Row("modify-sysconf", ["setup", "", "ComputerName", "{"], 22)
    yield Row("modify-sysconf", ["", "", "ComputerName", "mill"], 22)
    yield Row("modify-sysconf", ["setup", "../elsewhere", "ComputerName", "mill"], (OWN, 13))
    yield Row("terminate-process", [sleeper.pid], 0, lambda: sleeper.wait(10) == -signal.SIGTERM)
    yield Row("terminate-process", [0], 22)
    yield Row("terminate-process", [2**32 - 1], 22)
    yield Row("terminate-process", [2**31 - 1], 3)

    utility("xpchelper", "exit 7\n")
    yield Row("execute-utility", ["/", "xpchelper"], (OWN, 3))
    yield Row("execute-utility", ["/", "chmod", "0600", make("changed")], 0,
              lambda: mode(at("changed")) == 0o600)
    yield Row("execute-utility", ["/", "/bin/chmod"], 22)
    yield Row("execute-utility", ["/"], 22)
    yield Row("execute-utility", ["/", "update_dyld_shared_cache"], (OWN, 1))
    yield Row("prepare-uninstall", [])


def play(path, page, row):
    operation = page.operations[row.operation]
    error = perform(Connection.to(path), operation.code, row.arguments)
    if isinstance(row.expects, Error):
        assert error == row.expects, error
    else:
        domain, code = row.expects if isinstance(row.expects, tuple) else (POSIX, row.expects)
        assert error[:2] == (domain, code), error
    if error.domain == OWN and error.code != 0:
        description, suggestion = page.texts[error.code][:2]
        assert error.info["NSLocalizedDescription"] == description, error
        told = error.info["NSLocalizedRecoverySuggestion"]
        assert told.startswith(suggestion.split("%")[0]), error
        assert f"Error {error.code}" in operation.errors, "the page does not have this error"
    if error.domain == COCOA:
        assert "NSFilePath" in error.info and error.info["NSUnderlyingError"].domain == POSIX, error
        assert "Error Cocoa" in operation.errors, "the page does not have this error"
    if error.code != 0 and error.domain == POSIX and (row.arguments or operation.takes_more):
        assert operation.errors & {"Error POSIX", f"Error POSIX {error.code}"}, "not on the page"
    if operation.answer and error.code == 0:
        assert list(error.info) == [operation.answer], error
    assert row.check is None or row.check(), "the effect is another one"


def wrong_arguments(path, operation):
    """What a request of another form than the page says is answered with."""
    values = {"S": "/nonexistent", "N": 1, "D": b"x"}
    right = [values[kind] for kind in operation.types]
    attempts = [[None], [[]]] if operation.takes_more else [[*right, "more"]]
    if not operation.takes_more and right:
        attempts.append(right[:-1])
    for position, kind in enumerate(operation.types):
        for other in values:
            if other != kind:
                attempts.append([*right[:position], values[other], *right[position + 1:]])
    for arguments in attempts:
        error = perform(Connection.to(path), operation.code, arguments)
        assert error == Error(POSIX, 22, None), (arguments, error)


def feedback_rows():
    """Operation, arguments, and what is received between the first message and the last."""
    os.makedirs(at("found"))
    for number in range(45):
        make(f"found/{number:02}.txt")
    record = {"Path": at("found/00.txt"), "Type": "NSFileTypeRegular", "Size": 0, "Mode": 0o644}
    batches = [(0.0, 20), (0.0, 20), (1.0, 5)]
    yield "search-agedfiles", [at("found"), 0, True], batches, record
    yield "search-filenames", [at("found"), "", "txt", False], batches, record
    yield "search-patterns", [at("found"), "1", "2", "txt"], [
        (0.01, None), (19 / 45, 20), (39 / 45, 20), (1.0, 5)], record
    yield "search-fileorphans", [at("found"), True], [(1.0, 0)], None
    yield "prop-permissions", [at("found"), 45, True, 2], [(1.0, None)], None
    yield "delete-fileobjects", ["0", "1", at("found/00.txt"), at("found/01.txt")], [
        (0.5, None), (1.0, None), (1.0, None)], None
    yield "delete-foldercontents", [at("found"), at("missing")], [
        (0.0, None), (0.5, None), (1.0, None)], None


def play_feedback(path, page, operation, arguments, expected, record):
    listener = FeedbackListener()
    error = perform(Connection.to(path), page.operations[operation].code, arguments, listener)
    assert error[:2] == (POSIX, 0), error
    first, *received, last = listener.received
    assert first == {"ProgressFraction": 0.0} and last == {"FinalFeedbackMessage": True}, (first, last)
    described = [set(keys.split(", ")) for keys in page.operations[operation].feedback]
    assert all(set(message) in described for message in received), "the page does not have these keys"
    seen = [(message["ProgressFraction"], len(message["FileObjectInfo"]) if "FileObjectInfo" in message
             else None) for message in received]
    assert seen == expected and all(isinstance(fraction, float) for fraction, _ in seen), seen
    if record:
        found = [each for message in received for each in message.get("FileObjectInfo", [])]
        match = next(each for each in found if each["Path"] == record["Path"])
        date = match.pop("ModificationDate")
        assert match == record and date.seconds == int(os.stat(record["Path"]).st_mtime), match


def play_output(path, page):
    utility("xpchelper", "printf out; printf err >&2\n")
    listener = FeedbackListener()
    code = page.operations["execute-utility"].code
    error = perform(Connection.to(path), code, ["/", "xpchelper"], listener)
    assert error[:2] == (POSIX, 0), error
    assert listener.received[0] == {"OutputData": b"", "ErrorData": b""}, listener.received
    assert listener.received[-1] == {"FinalFeedbackMessage": True}
    for key, text in (("OutputData", b"out"), ("ErrorData", b"err")):
        assert b"".join(message.get(key, b"") for message in listener.received) == text, key
    utility("xpchelper", "", 0o775)
    error = perform(Connection.to(path), code, ["/", "xpchelper"])
    assert error[:2] == (OWN, 2), error
    assert error.info["NSLocalizedDescription"] == page.texts[2][0]


def take_back(path, page):
    """A deletion whose client shuts down its sending side stops and says how far it came."""
    for number in range(20000):
        make(f"many/{number}")
    paths = [at(f"many/{number}") for number in range(20000)]
    connection = Connection.to(path)
    listener = FeedbackListener()
    connection.send([REQUEST, 1, PERFORM, [page.operations["delete-fileobjects"].code, authorization(),
                                           listener.endpoint(), ["0", "1", *paths]]])
    listener.accept()
    listener.connections[0].messages()
    connection.socket.shutdown(socket.SHUT_WR)
    error = listener.pump(connection)[3]
    left = len(os.listdir(at("many")))
    assert error[:2] == (POSIX, 89), (error, left)
    assert error.info["ObjectCount"] == 20000 - left and left > 0, (error, left)
    assert listener.received[-1] == {"FinalFeedbackMessage": True}


def cases(path, page):
    os.makedirs(ROOT)
    prepared = list(rows())
    missing = set(page.operations) - {row.operation for row in prepared}

    def covered():
        assert len(page.operations) == 29 and len(page.texts) == 18, "operations and texts of the page"
        assert not missing, missing
        produced = {row.expects[1] for row in prepared if isinstance(row.expects, tuple)}
        # 2 comes with the output; 7 and 14 need flags and lists here; 8 needs a kernel that forbids
        # to change flags, 15 an object that vanishes while it is looked at.
        assert set(page.texts) - produced <= {2, 7, 8, 14, 15}, produced

    plays = [(f"{row.operation} {row.arguments}"[:120], lambda row=row: play(path, page, row))
             for row in prepared]
    plays += [(f"feedback of {name}", lambda all=(name, *rest): play_feedback(path, page, *all))
              for name, *rest in feedback_rows()]
    plays += [(f"wrong arguments of {name}", lambda each=each: wrong_arguments(path, each))
              for name, each in page.operations.items()]
    return [("covered", covered), *plays, ("output", lambda: play_output(path, page)),
            ("take_back", lambda: take_back(path, page))]

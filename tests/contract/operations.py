# SPDX-License-Identifier: MIT
"""The methods, and every operation of the page by its description: arguments, effect, feedback,
answer, errors.

The rows of rows.txt are played in order. CORVALEN_UPDATE_GOLDEN rewrites their results, for a change
of the contract.
"""
import itertools
import os
import pathlib
import re
import signal
import socket
import stat
import subprocess

from wire import PERFORM, REQUEST, Connection, Error, FeedbackListener, authorization, perform

ROOT = "/run/contract"
SERVICE = "net.corvalen.system.privilegedhelper-kvx"
WATCHED = (ROOT, "/etc/xdg", "/sys/firmware/efi/efivars", f"/run/{SERVICE}/system-configuration")
FILES = ("/proc/sys/net/ipv4/ip_default_ttl", f"/var/lib/{SERVICE}/rights")
ROWS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "rows.txt")
POSIX, COCOA = "NSPOSIXErrorDomain", "NSCocoaErrorDomain"
OWN = "net.corvalen.error.privileged-operation"
DOMAINS = {POSIX: "", OWN: "own ", COCOA: "Cocoa ", "NSOSStatusErrorDomain": "OSStatus "}
ACL = bytes.fromhex("02000000" "0100" "0600" "ffffffff" "0200" "0400" "39300000" "0400" "0400" "ffffffff"
                    "1000" "0400" "ffffffff" "2000" "0000" "ffffffff")


def at(name):
    return os.path.join(ROOT, name)


def unpacked(text):
    return re.sub("%(..)", lambda found: chr(int(found[1], 16)), text)


def make(name, mode="644", text=""):
    """A folder ("/"), or a file with an old date, as a row says."""
    path = at(name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    if not name.endswith("/"):
        with open(path, "w") as file:
            file.write(unpacked(text))
        os.utime(path, (0, 0))
    os.chmod(path, 0o755 if name.endswith("/") and mode == "644" else int(mode, 8))
    return path


def read(path):
    """The contents with %XX for a byte that is not printed."""
    with open(path, encoding="latin-1", newline="") as file:
        return re.sub("[^ -~]|%", lambda found: f"%{ord(found[0]):02X}", file.read())


def keeps(what):
    """Whether the scratch folder keeps the attribute or, for "flags", has locked a file; of a path,
    whether it can be written: a variable of the kernel takes its own value."""
    if what[0] in "@/":
        path = what.replace("@", ROOT + "/")
        if not os.access(path, os.W_OK) or os.path.isdir(path):
            return os.access(path, os.W_OK)
        try:
            pathlib.Path(path).write_bytes(pathlib.Path(path).read_bytes())
            return True
        except OSError:
            return False
    if what == "flags":
        return b"i" in subprocess.run(["lsattr", at("locked/file")], capture_output=True).stdout[:20]
    probe = make("probe")
    try:
        os.setxattr(probe, what, ACL if what.startswith("system") else bytes(32))
        return True
    except OSError:
        return False
    finally:
        os.remove(probe)


def state():
    """What lies in the watched folders: type, mode, owner, contents, and "new" for another date."""
    found = {path: f"={read(path)}" for path in FILES if os.path.exists(path)}
    for folder, folders, files in itertools.chain(*map(os.walk, WATCHED)):
        for name in folders + files:
            path = f"{folder}/{name}"
            status = os.lstat(path)
            text = f"{stat.filemode(status.st_mode)} {status.st_uid}:{status.st_gid}"
            if stat.S_ISLNK(status.st_mode):
                text += f" >{os.readlink(path)}"
            for each in sorted(os.listxattr(path, follow_symlinks=False)):
                value = os.getxattr(path, each, follow_symlinks=False)
                text += f" {each}={'acl' if value == ACL else value.hex()}"
            if stat.S_ISREG(status.st_mode):
                text += f" ={read(path)}" + (" new" if status.st_mtime > 1e9 else "")
            found[path.removeprefix(ROOT + "/")] = text
    return found


def changes(before, after):
    return [f"-{path}" for path in sorted(before.keys() - after.keys())] + [
        f"{'~' if path in before else '+'}{path} {after[path]}" for path in sorted(after)
        if before.get(path) != after[path]]


def value_of(word):
    """An argument as a row says it."""
    special = {"?": True, "-": False, "~": None, "(": [], "(1": [1], "{": {}, "auth": authorization()}
    if word in special:
        return special[word]
    text = unpacked(word)
    if text.split(" ")[0] == "acl":
        return ACL * len(text.split(" "))
    if text[:2] == "</":
        return int(open(text[1:]).read())
    if text[:1] == "#":
        return float(text[1:]) if "." in text else int(text[1:])
    return text[1:].encode("latin-1") if text[:1] == "!" else text.replace("@", ROOT + "/")


def told(error):
    """The error as a row says it."""
    text = DOMAINS[error.domain] + str(error.code)
    if error.info and (error.code == 0 or error.domain == POSIX):
        text += "".join(f" {key}={value}" for key, value in error.info.items()
                        if not isinstance(value, Error))
    return text.replace(ROOT + "/", "@")


def told_feedback(operation, received):
    """The messages as a row says them: the records by their number, and the first by its name.
    Data that is empty later than in the first message may come at any time."""
    described = [set(keys.split(", ")) for keys in operation.feedback]
    assert all(set(message) in described for message in received[1:-1]), "not on the page"
    records = sorted((record for message in received for record in message.get("FileObjectInfo", [])),
                     key=lambda record: record["Path"])
    for record in records:
        date = record.pop("ModificationDate")
        assert date.seconds == int(os.stat(record["Path"]).st_mtime), (record, date)
    text = [" ".join(f"{key} {len(value) if isinstance(value, list) else value}"
                     for key, value in message.items())
            for message in received if message == received[0] or [*message.values()] != [b""]]
    return text + [str(record).replace(ROOT + "/", "@") for record in records[:1]]


def call(path, method, *words):
    """The answer to a message as a row says it."""
    method = PERFORM if method == "perform" else method
    result, refusal = Connection.to(path).call(method, *map(value_of, words))
    if isinstance(refusal, str):
        return "refused"
    return told(result) if isinstance(result, Error) else str(result)


def answer_to_bytes(path, data):
    connection = Connection.to(path)
    connection.socket.sendall(data)
    return "closed" if connection.is_closed() else "open"


def perform_row(path, page, operation, arguments, has_feedback):
    """The error that answers, what has changed, and the feedback, as a row says them."""
    before = state()
    listener = FeedbackListener() if has_feedback else None
    error = request(path, page, operation, [value_of(word) for word in arguments], listener)
    feedback = told_feedback(page.operations[operation], listener.received) if has_feedback else []
    return "; ".join([told(error), *changes(before, state()), *feedback])


def play_rows(path, page, lines):
    """Plays each line of rows.txt, and returns them with what happened."""
    for line in lines:
        row = line.split(" => ")[0]
        prefix = re.match("(?:needs (.*?): |feedback: |[a-z]+ )?", row)
        rest = row[prefix.end():]
        words = rest.split("|")
        if prefix[0] == "make ":
            make(*rest.split(" "))
        elif prefix[0] == "run ":
            subprocess.run(rest.replace("@", ROOT + "/"), shell=True, check=True)
        elif prefix[0] == "call ":
            line = f"{row} => {call(path, *words)}"
        elif prefix[0] == "bytes ":
            line = f"{row} => {answer_to_bytes(path, bytes.fromhex(rest))}"
        elif row and row[0] != "#" and (not prefix[1] or keeps(prefix[1])):
            happened = perform_row(path, page, words[0], words[1:], prefix[0] == "feedback: ")
            line = f"{row} => {happened}"
        yield line


def compare_rows(path, page):
    lines = open(ROWS).read().splitlines()
    played = list(play_rows(path, page, lines))
    if "CORVALEN_UPDATE_GOLDEN" in os.environ:
        with open(ROWS, "w") as file:
            file.write("\n".join(played) + "\n")
    different = [f"{now}\n  expected {line}" for line, now in zip(lines, played) if line != now]
    assert not different, "\n".join(different)


def request(path, page, name, arguments, listener=None):
    """Performs an operation; its error has what the page says of it."""
    operation = page.operations[name]
    error = perform(Connection.to(path), operation.code, arguments, listener)
    if error.domain == OWN and error.code != 0:
        description, suggestion = page.texts[error.code][:2]
        assert error.info["NSLocalizedDescription"] == description, error
        beginning = suggestion.split("%")[0]
        assert error.info["NSLocalizedRecoverySuggestion"].startswith(beginning), error
        assert f"Error {error.code}" in operation.errors, "the page does not have this error"
    if error.domain == COCOA:
        assert "NSFilePath" in error.info and error.info["NSUnderlyingError"].domain == POSIX, error
        assert "Error Cocoa" in operation.errors, "the page does not have this error"
    if error.code != 0 and error.domain == POSIX and (arguments or operation.takes_more):
        assert operation.errors & {"Error POSIX", f"Error POSIX {error.code}"}, "not on the page"
    if operation.answer and error.code == 0:
        assert list(error.info) == [operation.answer], error
    return error


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


def end_process(path, page):
    sleeper = subprocess.Popen(["sleep", "1000"], user=65533)
    assert told(request(path, page, "terminate-process", [sleeper.pid])) == "0"
    assert sleeper.wait(10) == -signal.SIGTERM


def take_back(path, page):
    """A deletion whose client shuts down its sending side stops and says how far it came."""
    paths = [make(f"many/{number}") for number in range(20000)]
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
    text = open(ROWS).read()

    def covered():
        assert len(page.operations) == 29 and len(page.texts) == 18, "operations and texts of the page"
        played = set(re.findall(r"^(?:needs .*: |feedback: )?([a-z-]+)", text, re.M))
        assert set(page.operations) <= played, set(page.operations) - played
        # 8 needs a kernel that forbids to change flags, 15 an object that vanishes while it is
        # looked at.
        produced = {int(code) for code in re.findall(r" => own (\d+)", text)}
        assert set(page.texts) - produced == {8, 15}, produced

    return [("covered", covered), ("rows.txt", lambda: compare_rows(path, page)),
            *((f"wrong arguments of {name}", lambda each=each: wrong_arguments(path, each))
              for name, each in page.operations.items()),
            ("end_process", lambda: end_process(path, page)),
            ("take_back", lambda: take_back(path, page))]

# SPDX-License-Identifier: MIT
"""What a reader finds in corvalen-protocol(7)."""
import re


class Operation:
    def __init__(self, code, identifier, lines):
        self.code, self.identifier = code, identifier
        text = [re.sub(r"\\(.)", r"\1", line.strip()) for line in lines]
        arguments = [re.match(r"_Argument (\d+)( and on)?, ([SND]): ", line) for line in text]
        self.types = "".join(found[3] for found in arguments if found)
        self.takes_more = any(found and found[2] for found in arguments)
        self.feedback = [re.match(r"_Feedback (.*?)_: ", line)[1] for line in text
                         if line.startswith("_Feedback")]
        self.answer = next((re.match(r"_Answer_: (\w+)", line)[1] for line in text
                            if line.startswith("_Answer_")), None)
        self.errors = {re.match(r"_(Error.*?)_: ", line)[1] for line in text
                       if line.startswith("_Error")}


class Page:
    def __init__(self, source):
        self.source = source
        self.operations, self.texts, part = {}, {}, ""
        entries = re.split(r"^(?=\*[^*\n]+\*(?: \(\d+\))?\n\t)", source[source.index("# OPERATIONS"):],
                           flags=re.M)
        for entry in entries:
            name = re.match(r"\*([^*]+)\*(?: \((\d+)\))?\n", entry)
            if not name:
                continue
            lines = entry.split("\n# ")[0].splitlines()[1:]
            if name[2]:
                self.operations[name[1]] = Operation(int(name[2]), name[1], lines)
            elif name[1].isdigit():
                plain = [re.sub(r"\\(.)", r"\1", line.strip()) for line in lines if line.strip()]
                self.texts[int(name[1])] = plain

    def limit(self, subject):
        """The first number below a subject of the section LIMITS."""
        text = re.search(rf"^{re.escape(subject)}\n\t(.*)", self.source, re.M)[1]
        return int(re.search(r"[\d,]+", text)[0].replace(",", ""))

"""What a command has to say: its own words, the object, and what the user can do."""
import os, re

from client_world import PATIENCE

RAW = re.compile(r"filesystem error|\[json\.exception|basic_(ios|string|filebuf)|std::|terminate "
                 r"called|what\(\)|bad_alloc|iostream error")
# Texts that are fixed word for word: they say what is wrong with which folder, and leave it to the
# reader what becomes of it. They count only where that helps.
FIXED = re.compile(r"The data folder cannot be a symbolic link|is not installed in /")
REMEDY = re.compile(r"(?:^|[.;:,]\s+|\b(?:then|and|or|to|first)\s|Try: )(?:please )?"
                    r"(remove|delete|move|rename|restore|repair|reinstall|install|run|close|choose|"
                    r"give|make|take|change|set|put|replace|allow|correct|start|use)\b", re.I | re.M)
COMMAND = re.compile(r"^Try: (?:(self cleanup)$|Run (uninstall), then install\b)", re.M)


def wrong_with(ended, image_is_damaged):
    """What no command may do, whatever the state."""
    text = ended.said + ended.errors
    # A damaged image is no longer the client's program until it has been replaced.
    own = ended.name.startswith(("start", "self")) and image_is_damaged
    if ended.status is None:
        yield f"takes longer than {PATIENCE} seconds"
    elif ended.status not in (0, 1, 2, 4, 127) and not own:
        yield f"ends with {ended.status}"
    raw = next((line for line in text.splitlines() if RAW.search(line)), None)
    if raw:
        yield f"shows a library's text: {raw}"
    if ended.status not in (0, 127, None) and not text.strip() and not own:
        yield "fails without a word"


class Told:
    """What the message of a failed command tells the user."""

    def __init__(self, ended, data):
        self.ended, self.data = ended, data
        command = COMMAND.search(ended.errors)
        away = re.search(rf"\b(?:remove|delete|move) ({re.escape(data)}/[^\s,;]+)", ended.errors, re.I)
        # A command to run, and a path that is to be moved away.
        self.command, self.away = command and (command[1] or command[2]), away and away[1]

    def concerns(self, path):
        return self.names(path) or bool(self.away) and path.startswith(self.away + "/")

    def names(self, path):
        """By its path, by its name and the folder's, or a file by its bare name."""
        if path == self.data and "data folder" in self.ended.errors:
            return True
        name = os.path.basename(path)
        words = {path, "/".join(path.split("/")[-2:])}
        if "." in name:
            words |= {name, name[:name.rfind(".")]} - {""}
        words = "|".join(map(re.escape, words))
        return bool(re.search(rf"(^|[\s/\"'(])({words})($|[\s/\"'):,.;])", self.ended.errors))

    def lacks(self, names_one):
        """What the message does not say, though somebody has to do something by hand."""
        if self.ended.status in (None, 127):
            return "does not run after the repair"
        if self.command == "self cleanup":
            return None
        if not names_one:
            return "does not name the object"
        if not REMEDY.search(self.ended.errors) and not FIXED.search(self.ended.errors):
            return "does not say what to do"
        return None

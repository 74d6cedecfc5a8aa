"""The states of a data folder: which objects there are, how each is damaged, and undone by hand."""
import json, os, random, re, stat, subprocess

from client_world import write
from damage_sweep.disk import ORDINARY, read, remove

# Names that the client knows and that do not stand in a healthy folder.
ABSENT = (".tavro-setup-incomplete", "native/staging", "native/bootstrap-old-files",
          "native/bootstrap-update.partial", "native/bootstrap-downloads", "launcher/cleanup.json",
          "trust/root-invalidation.json")
FILE_KINDS = ("missing", "empty", "half", "garbage", "nul", "newer", "folder", "link", "moved",
              "dangling", "mode-0", "open", "owner")
# For a folder: emptied, half of its entries, a file in its place.
FOLDER_KINDS = ("missing", "empty", "half", "garbage", "link", "moved", "dangling", "mode-0", "open",
                "owner")
ABSENT_KINDS = ("empty", "garbage", "folder", "link", "dangling")
RIGHTS = ("mode-0", "open", "owner")
WORST = ("garbage", "folder", "link")
IMPORTANT = ("native/installation.json", "native/bootstrap.json", "native/bootstrap-update.json",
             "native/bootstrap/bin/tavro-bootstrap", "native/shortcuts.json",
             "launcher/installation.json", "launcher/manifests/<1.0.0>.json",
             "launcher/versions/<2.0.0>", "trust/timestamp.json", "repository.json")


def objects(data):
    """The objects of a data folder by their labels: digests and nonces have the names of what they
    stand for, so that each run calls them the same."""
    names = {}
    manifests = f"{data}/launcher/manifests"
    for name in os.listdir(manifests):
        names[name[:64]] = f"<{json.loads(read(f'{manifests}/{name}'))['build_id']}>"
    found = {".": "."}
    for folder, folders, files in os.walk(data):
        folders.sort()
        for name in sorted(folders + files):
            path = os.path.relpath(os.path.join(folder, name), data)
            label = re.sub(r"[0-9a-f]{64}|[0-9a-f]{32}",
                           lambda found: names.get(found[0], "<nonce>"), path)
            if label in found:
                raise SystemExit(f"two objects have one label: {label}")
            found[label] = path
    for name in ABSENT:
        found[name] = name
    return found


def with_schema(held):
    """The document of these bytes if it tells the version of its form, else None."""
    try:
        document = json.loads(held)
        return document if "schema_version" in document else None
    except (ValueError, TypeError):
        return None


def kinds_of(path, as_root):
    """The kinds of damage that change anything."""
    if not os.path.lexists(path):
        return ABSENT_KINDS
    about = os.lstat(path)
    mode, folder = stat.S_IMODE(about.st_mode), stat.S_ISDIR(about.st_mode)
    inside = len(os.listdir(path)) if folder else about.st_size
    harmless = {"open": mode == (0o755 if folder else 0o644), "owner": not as_root,
                # A client that was moved and is started where it is now works there.
                "moved": path.endswith("/."), "empty": inside == 0, "half": inside < 2,
                "newer": folder or with_schema(read(path)) is None}
    return tuple(kind for kind in (FOLDER_KINDS if folder else FILE_KINDS) if not harmless.get(kind))


def all_states(places, data):
    """Each object in each kind, and each two important ones in the worst kinds."""
    as_root = os.geteuid() == 0
    kinds = {label: kinds_of(os.path.join(data, path), as_root) for label, path in places.items()}
    singles = [((label, kind),) for label in kinds for kind in kinds[label]]
    pairs = [((first, one), (second, two))
             for at, first in enumerate(IMPORTANT) for second in IMPORTANT[at + 1:]
             for one in WORST for two in WORST if one in kinds[first] and two in kinds[second]]
    return singles + pairs


def text_of(state):
    return "+".join(f"{label}:{kind}" for label, kind in state)


def chosen(states, options):
    if options.only:
        wanted = [state for state in states for only in options.only
                  if only in (text_of(state), state[0][0] if len(state) == 1 else None)]
        if not wanted:
            raise SystemExit("no such state; --all --list lists them")
        return wanted
    if options.singles:
        return [state for state in states if len(state) == 1]
    if options.sample:
        return random.Random(options.seed).sample(states, min(options.sample, len(states)))
    return states


class Damage:
    """Damages objects of one data folder, and undoes by hand what a message told to undo."""

    def __init__(self, world):
        self.world, self.foreign = world, f"{world.place}/world/foreign"
        self.owner = os.geteuid() if world.user is None else world.user
        self.modes = {}

    def do(self, path, kind):
        folder = os.path.isdir(path) and not os.path.islink(path)
        if os.path.lexists(path):
            self.modes[path] = stat.S_IMODE(os.lstat(path).st_mode)
        if kind == "mode-0":
            os.chmod(path, 0)
        elif kind == "open":
            os.chmod(path, 0o755 if folder else 0o644)
        elif kind == "owner":
            os.chown(path, 0 if self.owner else ORDINARY, -1)
        elif kind == "half" and folder:
            names = sorted(os.listdir(path))
            for name in names[:len(names) // 2]:
                remove(f"{path}/{name}")
        elif kind == "moved":
            target = f"{self.foreign}/moved-{os.path.basename(path)}"
            os.rename(path, target)
            os.symlink(target, path)
        else:
            self.replace(path, kind, folder)

    def replace(self, path, kind, folder):
        mode = self.modes.get(path, 0o600) & (0o600 if folder else 0o777)
        held = b"" if folder or not os.path.lexists(path) else read(path)
        remove(path)
        if kind == "empty" and folder:
            os.mkdir(path, 0o700)
        elif kind == "folder":
            write(f"{path}/inside/note.txt", "in place of a file\n")
        elif kind in ("link", "dangling"):
            target = "nowhere" if kind == "dangling" else "folder" if folder else "file"
            os.symlink(f"{self.foreign}/{target}", path)
        elif kind != "missing":
            write(path, {"empty": b"", "half": held[:len(held) // 2], "nul": held + bytes(64),
                         "garbage": b"\x93\xff{]garbage\0\n" * 9,
                         "newer": self.newer(held)}[kind], mode)
        if os.path.lexists(path):
            self.world.give(path)

    @staticmethod
    def newer(held):
        document = with_schema(held)
        if document is None:
            return held
        document["schema_version"] += 1
        return json.dumps(document, separators=(",", ":"), ensure_ascii=False).encode()

    def undo(self, path, kind):
        """By hand: rights are given back wherever the object is now; anything else is moved away."""
        if kind in RIGHTS:
            subprocess.run(["chown", "-hR", str(self.owner), self.world.data], check=False)
            subprocess.run(["chmod", "-R", "u+rwX,go-rwx", self.world.data], check=True)
            if os.path.lexists(path):
                os.chmod(path, self.modes[path])
        elif os.path.lexists(path):
            remove(path)

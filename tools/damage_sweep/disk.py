"""What stands on disk, read and removed whatever its rights are."""
import contextlib, hashlib, os, shutil, stat, subprocess

ORDINARY = 65534


@contextlib.contextmanager
def opened(path):
    """The path as its owner may read it, with the rights of before put back."""
    about = os.lstat(path) if os.path.lexists(path) else None
    wanted = stat.S_IRWXU if about and stat.S_ISDIR(about.st_mode) else stat.S_IRUSR
    if about is None or stat.S_ISLNK(about.st_mode) or about.st_mode & wanted == wanted or os.geteuid() == 0:
        yield
        return
    os.chmod(path, stat.S_IMODE(about.st_mode) | wanted)
    try:
        yield
    finally:
        os.chmod(path, stat.S_IMODE(about.st_mode))


def read(path):
    with opened(path), open(path, "rb") as file:
        return file.read()


digests = {}


def digest(path, about):
    """Of the bytes, which are read again only after a change of any kind."""
    key = about.st_ino, about.st_ctime_ns
    if key not in digests:
        digests[key] = hashlib.sha256(read(path)).digest()
    return digests[key]


def content(path, without=()):
    """Everything of a path and below it: type, mode, owner, and bytes or where a link leads."""
    found = {}

    def walk(name):
        place = os.path.join(path, name) if name else path
        if name in without:
            return
        try:
            about = os.lstat(place)
        except (FileNotFoundError, NotADirectoryError):
            return
        held = None
        if stat.S_ISLNK(about.st_mode):
            held = os.readlink(place)
        elif stat.S_ISREG(about.st_mode):
            held = digest(place, about)
        found[name] = (about.st_mode, about.st_uid, held)
        if stat.S_ISDIR(about.st_mode):
            with opened(place):
                for child in sorted(os.listdir(place)):
                    walk(os.path.join(name, child) if name else child)

    walk("")
    return found


def remove(path):
    if os.path.islink(path) or os.path.isfile(path):
        os.remove(path)
    elif os.path.isdir(path):
        subprocess.run(["chmod", "-R", "u+rwX", path], check=True)
        shutil.rmtree(path)

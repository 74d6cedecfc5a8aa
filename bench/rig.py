"""What every comparison uses: commands timed in turn, packages, a folder that goes at the end."""
import atexit, hashlib, json, os, random, shutil, statistics, subprocess, sys, tempfile, time

BIN = "build/release/bin"
WORK = tempfile.mkdtemp(prefix="tavro-bench-", dir=os.environ.get("TMPDIR", "/var/tmp"))
atexit.register(shutil.rmtree, WORK)
# Of the game that is installed.
game_bytes = 1_000_000_000


def timed(command, wanted=0):
    """Wall and CPU seconds and the peak memory (KiB) of a command and all its children."""
    start = time.monotonic()
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = child.stderr.read()
    _, status, usage = os.wait4(child.pid, 0)
    if os.waitstatus_to_exitcode(status) != wanted:
        sys.exit(f"{command}: ended with {status}: {errors.decode()}")
    return dict(wall=time.monotonic() - start, cpu=usage.ru_utime + usage.ru_stime,
                peak_kib=usage.ru_maxrss)


def shell(script, *arguments):
    return ["bash", "-euc", script, "bash", *arguments]


def in_turn(rounds, ours, bare):
    """Runs both once a round and gives the medians of each and of the ratios."""
    rows = []
    for round_number in range(rounds + 1):
        pair = ours(round_number), bare(round_number)
        if round_number:
            rows.append(pair)
    result = {}
    for key in ("wall", "cpu"):
        result[key] = dict(ours=statistics.median(a[key] for a, _ in rows),
                           bare=statistics.median(b[key] for _, b in rows),
                           ratio=statistics.median(a[key] / b[key] for a, b in rows))
    result["peak_kib"] = max(a["peak_kib"] for a, _ in rows)
    return result


def make_tree(folder, files, size):
    """Program files: half of each compresses, half does not. The same bytes in every run."""
    source = random.Random(7)
    words = [source.randbytes(24) for _ in range(400)]
    for number in range(files):
        path = os.path.join(folder, f"data/part-{number // 100:03}", f"file-{number:05}.bin")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(source.randbytes(size // 2))
            out.write(b"".join(source.choices(words, k=size // 48 + 1))[: size - size // 2])


def publish(*arguments):
    subprocess.run([f"{BIN}/tavro-publish", *arguments], check=True, stdout=subprocess.DEVNULL)


def seal_installer(package, out):
    """An installer for that package alone."""
    with open(os.path.join(package, "initial-package.json"), "rb") as descriptor:
        seal = hashlib.sha256(descriptor.read()).hexdigest()
    subprocess.run(["cmake", "--preset", "release", f"-DTAVRO_INITIAL_PACKAGE_SHA256={seal}"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", "--preset", "release", "--target", "tavro-install"],
                   check=True, stdout=subprocess.DEVNULL)
    shutil.copy(f"{BIN}/tavro-install", out)
    return out


def make_package(name, files, size, program="example-launcher"):
    """A sealed package with a small bootstrap and a launcher of that many files; an installer for
    it; and the launcher's tree for the standard tools."""
    at = lambda part: os.path.join(WORK, name, part)
    for part in ("bootstrap/bin", "launcher/bin"):
        os.makedirs(at(part))
    shutil.copy(f"{BIN}/tavro-bootstrap", at("bootstrap/bin/tavro-bootstrap"))
    for entry in ("run", "run-gui", "help"):
        shutil.copy(f"{BIN}/{program}", at(f"launcher/bin/{entry}"))
    make_tree(at("launcher"), files, size)
    roles = ("root", "targets", "snapshot", "timestamp")
    for role in roles:
        publish("keys", "new", "--out", at(f"{role}.pem"))
    publish("root", "new", "--days", "30", "--out", at("root.json"),
            *(word for role in roles for word in (f"--{role}-key", at(f"{role}.pem"))))
    publish("bootstrap", "--folder", at("bootstrap"), "--build", "1.0.0", "--out", at("b"))
    publish("launcher", "--folder", at("launcher"), "--build", "1.0.0", "--out", at("l"),
            "--level", "3", "--cli", "bin/run", "--gui", "bin/run-gui",
            "--helper", "maintenance=bin/help")
    publish("package", "--out", at("package"), "--origin", "https://repository.example",
            "--root", at("root.json"), "--bootstrap", at("b"), "--launcher", at("l"))
    seal_installer(at("package"), at("install"))
    subprocess.run(shell('cd "$1" && find . -type f -exec sha256sum {} + >"$2"',
                         at("launcher"), at("sums")), check=True)
    return at


def measured(*arguments, program="tavro-measure"):
    return json.loads(subprocess.run([f"{BIN}/{program}", *arguments], check=True,
                                     capture_output=True).stdout)


def change_record(data, change):
    path = os.path.join(data, "launcher/installation.json")
    with open(path) as stored:
        record = json.load(stored)
    change(record)
    with open(path, "w") as out:
        json.dump(record, out)
    return record

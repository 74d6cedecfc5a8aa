#!/usr/bin/env python3
"""Whole commands of ours beside standard tools that make the same passes, in turn, in one run.

The first round warms the machine and is thrown away; medians and their ratios are printed and kept
as build/bench.json. Every round gets new folders and all are removed at the end, since removing a
large synced tree slows what comes next.
"""
import argparse, hashlib, json, os, random, shutil, statistics, subprocess, sys, tempfile
import time

import compare_update

BIN = "build/release/bin"
WORK = ""


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


# Each archive is hashed twice, in the package and again before it is decoded; the tree is hashed
# once as each file arrives and twice as a whole.
STANDARD_INSTALL = """
sha256sum "$1" >/dev/null; sha256sum "$1" >/dev/null
mkdir "$2"; tar --zstd -xf "$1" -C "$2"
find "$2" -type f -exec sync {} +; find "$2" -type d -exec sync {} +
cd "$2"; for pass in 1 2 3; do sha256sum --quiet -c "$3"; done
"""


def archive_of(at):
    document = json.load(open(at("package/initial-package.json")))
    launcher = json.load(open(at("package/" + document["launcher_manifest"]["path"])))
    return at("package/" + launcher["archive"]["target"])


def measure_install(at, rounds):
    return in_turn(
        rounds,
        lambda n: timed([at("install"), "install", "--package", at("package"), "--data-dir",
                         at(f"data-{n}")]),
        lambda n: timed(shell(STANDARD_INSTALL, archive_of(at), at(f"bare-{n}"), at("sums"))))


def measure_verification(at, rounds):
    versions = at("data-1/launcher/versions")
    tree = os.path.join(versions, os.listdir(versions)[0])
    manifest = at("data-1/launcher/manifests/" + os.listdir(versions)[0] + ".json")
    return in_turn(
        rounds,
        lambda n: timed([f"{BIN}/tavro-measure", "verify", manifest, tree]),
        lambda n: timed(shell('cd "$1"; sha256sum --quiet -c "$2"', tree, at("sums"))))


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


def measure_chain():
    """A start by the bootstrap, to the launcher's first line, beside two programs of the same size
    that only start each other."""
    at = make_package("start", 20, 1000, program="tavro-bare-start")
    data = at("data")
    subprocess.run([at("install"), "--package", at("package"), "--data-dir", data], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    # It cannot prove itself, so its proof is written down.
    record = change_record(data, lambda r: r.update(active=r["candidate"], candidate=None))
    launcher = os.path.join(data, "launcher/versions", record["active"]["manifest_sha256"])
    return measured("chain", "200", data + "/native/bootstrap/bin/tavro-bootstrap",
                    f"{BIN}/tavro-bare-start", launcher + "/bin/run", program="tavro-measure-start")


def measure_first_start(at, rounds):
    """The supervised start of a version on disk beside one reading of its tree."""
    data = at("data-1")
    reference = change_record(data, lambda r: None)["candidate"]

    def first_start(_):
        change_record(data, lambda r: r.update(active=None, rollback=None, candidate=reference))
        return timed([data + "/native/bootstrap/bin/tavro-bootstrap", "self", "status"])

    return in_turn(rounds, first_start,
                   lambda _: timed(shell('cd "$1"; sha256sum --quiet -c "$2"', at("launcher"),
                                         at("sums"))))


def measure_games(rounds):
    """A release's chunks, and its manifest of 100000 files beside the snapshot in that alone."""
    files = [dict(path=f"data/{n // 100}/{n}.bin", length=n, mode=493, sha256="a" * 64)
             for n in range(100_000)]
    game = dict(schema_version=1, minimum_launcher=1, game_id="bench", display_name="Bench",
                build_id="1", platform="linux-x86_64", executable=files[0]["path"], files=files,
                expanded_length=sum(file["length"] for file in files),
                archive=dict(format="tar.zst-v1", target="a", length=1, sha256="a" * 64))
    manifest = os.path.join(WORK, "game.json")
    with open(manifest, "w") as out:
        json.dump(game, out)
    return measured(str(rounds), manifest, program="tavro-measure-games")


class Served:
    """A repository with one target of that many bytes, behind a real web server."""

    def __init__(self, size):
        self.size = size
        self.at = lambda part: os.path.join(WORK, "served", part)
        os.mkdir(self.at(""))
        subprocess.run(shell('head -c "$1" /dev/urandom >"$2"', str(size), self.at("big")),
                       check=True)
        key, repository = ("--key", self.at("key.pem")), ("--repository", self.at("repository"))
        publish("keys", "new", "--out", self.at("key.pem"))
        publish("root", "new", *key, "--days", "9", "--out", self.at("root.json"))
        publish("repository", "new", *repository, *key, "--root", self.at("root.json"))
        publish("repository", "add", *repository, *key, "--target", "big=" + self.at("big"))
        self.server = subprocess.Popen([f"{BIN}/tavro-serve", self.at("server"),
                                        self.at("repository/public")], stdout=subprocess.PIPE)
        self.origin = self.server.stdout.readline().decode().strip()
        targets = self.at("repository/public/tuf/targets")
        self.url = self.origin + "/tuf/targets/" + os.listdir(targets)[0]

    def fetch(self, home, *target):
        return [f"{BIN}/tavro-fetch", self.origin, self.at("server/ca.pem"), self.at("root.json"),
                self.at(home), *target]

    def curl(self, script):
        return shell(script, self.at("server/ca.pem"), self.url, self.at("curl"))

    def fresh(self, *target, wanted=0):
        """A first download of this client, which holds the metadata already."""
        shutil.rmtree(self.at("home"), ignore_errors=True)
        subprocess.run(self.fetch("home"), check=True)
        return timed(self.fetch("home", *target), wanted)

    def downloads(self, rounds):
        return in_turn(
            rounds, lambda _: self.fresh("big"),
            lambda _: timed(self.curl('curl -s --cacert "$1" "$2" -o "$3"; sync "$3"; '
                                      'sha256sum "$3"')))

    def refreshes(self, rounds):
        metadata = self.origin + "/tuf/metadata/"
        return in_turn(
            rounds, lambda _: timed(self.fetch("home")),
            lambda _: timed(["curl", "-s", "--cacert", self.at("server/ca.pem"),
                             "-o", "/dev/null", metadata + "2.root.json",
                             "-o", "/dev/null", metadata + "timestamp.json"]))

    def resumption(self, rounds):
        """CPU time that stopping at half and going on costs beyond one run, in readings of the
        first half."""
        rows = []
        for _ in range(rounds + 1):
            row = dict(whole=self.fresh("big")["cpu"],
                       stopped=self.fresh("big", str(self.size // 2), wanted=1)["cpu"],
                       rest=timed(self.fetch("home", "big"))["cpu"],
                       prefix=timed(shell('head -c "$1" "$2" | sha256sum', str(self.size // 2),
                                          self.at("big")))["cpu"])
            rows.append(row)
        medians = {key: statistics.median(row[key] for row in rows[1:]) for key in rows[0]}
        beyond = medians["stopped"] + medians["rest"] - medians["whole"]
        return dict(medians, ratio=beyond / medians["prefix"])


def measure_repository(rounds):
    served = Served(500_000_000)
    try:
        results = dict(download=served.downloads(rounds), refresh=served.refreshes(4 * rounds),
                       resume=served.resumption(rounds))
    finally:
        served.server.terminate()
        served.server.wait()
    results["metadata"] = []
    for roles in (50, 100, 200):
        folder = os.path.join(WORK, f"roles-{roles}")
        os.mkdir(folder, 0o700)
        results["metadata"].append(measured("metadata", folder, str(roles), str(roles * 5000),
                                            program="tavro-measure-repository"))
    results["pattern"] = measured("pattern", program="tavro-measure-repository")
    return results


def repository_rows(results):
    per_byte = [row["again_ms"] / row["bytes"] for row in results["metadata"]]
    return [("download 500 MB: wall time", results["download"]["wall"]["ratio"], 0.8),
            ("download 500 MB: CPU time", results["download"]["cpu"]["ratio"], 0.75),
            ("the same: peak memory (MiB)", results["download"]["peak_kib"] / 1024, 24),
            ("refresh with nothing new: wall time", results["refresh"]["wall"]["ratio"], 1.25),
            ("resume at half, in readings of the prefix", results["resume"]["ratio"], 1.0),
            ("refresh and look-up, 1 MB, 200 roles: CPU time",
             results["metadata"][-1]["again_ratio"], 2.0),
            ("the same, time a byte against 50 roles", per_byte[-1] / per_byte[0], 1.3),
            ("slowest pattern match (ms)", results["pattern"]["ms"], 50)]


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--rounds", type=int, default=5)
    options.add_argument("--repository", action="store_true", help="downloads and metadata alone")
    options = options.parse_args()
    results = dict(repository=measure_repository(options.rounds))
    rows = repository_rows(results["repository"])
    if not options.repository:
        rows += install_rows(results, options.rounds)
        # It works with this module's functions, in the same folder.
        compare_update.compare.WORK = WORK
        results["update"] = compare_update.measure(options.rounds)
        rows += compare_update.rows(results["update"])
    print(f"{'what':55} {'measured':>9} {'goal':>7}")
    for name, value, goal in rows:
        print(f"{name:55} {value:9.2f} {goal:7.2f}{'' if value <= goal else '   missed'}")
    with open("build/bench.json", "w") as out:
        json.dump(results, out, indent=1)


def install_rows(results, rounds):
    small, large = make_package("small", 200, 100_000), make_package("large", 2000, 100_000)

    results.update(install=measure_install(large, rounds),
                   small_install=measure_install(small, 1),
                   verification=measure_verification(large, rounds),
                   chain=measure_chain(), first_start=measure_first_start(large, rounds),
                   child=measured("child", "500", "/usr/bin/true", program="tavro-measure-start"),
                   games=measure_games(rounds),
                   document=measured("atomic-document", os.path.join(WORK, "documents"), "200"),
                   status=measured("commands", "200", large("install"), "status", "--data-dir",
                                   large("data-1"), "--", "/bin/true"),
                   manifests=[measured("manifest", str(n)) for n in (25000, 50000, 100000)])
    # The decoder's window is 8 MiB for what our publisher packs at this level.
    rows = [("install 200 MB, 2000 files: CPU time", results["install"]["cpu"]["ratio"], 0.7),
            ("install 200 MB, 2000 files: wall time", results["install"]["wall"]["ratio"], 0.9),
            ("verification of the tree: wall time", results["verification"]["wall"]["ratio"], 0.5),
            ("atomic document against bare calls", results["document"]["ratio"], 1.15),
            ("start by the bootstrap against two bare programs", results["chain"]["ratio"], 1.5),
            ("first start of 200 MB against reading it once", results["first_start"]["wall"]["ratio"],
             1.0),
            ("start of a child against posix_spawn", results["child"]["ratio"], 2.0),
            ("status against an empty program", results["status"]["ratio"], 3.0),
            ("encrypted chunks against the loop of openssl speed",
             results["games"]["decryption"]["ratio"], 1 / 0.9),
            ("game manifest of 100000 files against its snapshot",
             results["games"]["manifest"]["ratio"], 1.3),
            ("peak memory of install, 200 MB (MiB)", results["install"]["peak_kib"] / 1024, 40),
            ("the same for 20 MB (MiB)", results["small_install"]["peak_kib"] / 1024, 40)]
    per_file = [row["ms"] / row["files"] for row in results["manifests"]]
    rows.append(("manifest of 100000 files, time a file against 25000", per_file[-1] / per_file[0],
                 1.3))
    memory = [row["peak_kib_above_text"] / row["files"] for row in results["manifests"]]
    rows.append(("manifest of 100000 files, memory a file against 25000", memory[-1] / memory[0],
                 1.3))
    return rows


if __name__ == "__main__":
    WORK = tempfile.mkdtemp(prefix="tavro-bench-", dir=os.environ.get("TMPDIR", "/var/tmp"))
    try:
        main()
    finally:
        shutil.rmtree(WORK)

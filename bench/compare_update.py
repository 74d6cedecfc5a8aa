"""Updates of an installed client over a real web server; bench/compare.py runs this."""
import glob, json, os, shutil, subprocess

from rig import BIN, WORK, change_record, in_turn, make_tree, measured, publish
from rig import seal_installer, shell, timed


class Updates:
    """An installation of a small launcher, and a repository that has published a large one."""

    def __init__(self):
        self.at = lambda part: os.path.join(WORK, "updates", part)
        for part in ("bootstrap/bin", "old/bin", "new/bin"):
            os.makedirs(self.at(part))
        shutil.copy(f"{BIN}/tavro-bootstrap", self.at("bootstrap/bin"))
        for tree in ("old", "new"):
            for program in ("run", "run-gui", "help"):
                shutil.copy(f"{BIN}/example-launcher", self.at(f"{tree}/bin/{program}"))
        make_tree(self.at("new"), 2000, 100_000)
        key, repository = ("--key", self.at("key.pem")), ("--repository", self.at("repository"))
        publish("keys", "new", "--out", self.at("key.pem"))
        publish("root", "new", *key, "--days", "9", "--out", self.at("root.json"))
        publish("repository", "new", *repository, *key, "--root", self.at("root.json"))
        publish("bootstrap", "--folder", self.at("bootstrap"), "--build", "1",
                "--out", self.at("b"))
        self.release("1", "old")
        self.server = subprocess.Popen(
            [f"{BIN}/tavro-serve", self.at("server"), self.at("repository/public")],
            stdout=subprocess.PIPE)
        origin = self.server.stdout.readline().decode().strip()
        publish("package", "--out", self.at("package"), "--origin", origin, "--ca-bundle",
                self.at("server/ca.pem"), "--root", self.at("root.json"),
                "--bootstrap", self.at("b"), "--launcher", self.at("release-1"))
        install = seal_installer(self.at("package"), self.at("install"))
        subprocess.run([install, "--package", self.at("package"), "--data-dir", self.at("data-0")],
                       check=True, capture_output=True)
        # What a confirmed start would write down.
        change_record(self.at("data-0"),
                      lambda r: r.update(active=r["candidate"], candidate=None))

    def release(self, build, tree):
        publish("release", "launcher", "--repository", self.at("repository"),
                "--key", self.at("key.pem"), "--folder", self.at(tree), "--build", build,
                "--out", self.at(f"release-{build}"), "--level", "3", "--cli", "bin/run",
                "--gui", "bin/run-gui", "--helper", "maintenance=bin/help")

    def files(self):
        found = glob.glob(self.at("data-0") + "/**", recursive=True, include_hidden=True)
        return {path: os.lstat(path).st_mtime_ns for path in found if os.path.isfile(path)}

    def idle_check(self):
        """Requests and written files of a check that finds nothing new."""
        command = [f"{BIN}/tavro-measure-update", "check", self.at("data-0")]
        timed(command)
        lines = lambda: sum(1 for _ in open(self.at("server/access.log")))
        files, before = self.files(), lines()
        timed(command)
        return dict(requests=lines() - before, written=len(set(self.files().items())
                                                           - set(files.items())))

    def staging(self, rounds):
        self.release("2", "new")
        archive = glob.glob(self.at("repository/public/tuf/targets/*launcher*-2.tar.zst"))[0]
        url = self.origin() + "/tuf/targets/" + os.path.basename(archive)
        subprocess.run(shell('cd "$1" && find . -type f -exec sha256sum {} + >"$2"',
                                     self.at("new"), self.at("sums")), check=True)

        def stage(number):
            data = self.at(f"data-{number + 1}")
            shutil.copytree(self.at("data-0"), data, symlinks=True)
            os.sync()
            return timed([f"{BIN}/tavro-measure-update", "stage", data])

        return in_turn(rounds, stage, lambda n: timed(shell(
            'curl -sS --fail --cacert "$1" -o "$3" "$2"; sha256sum "$3" >/dev/null; mkdir "$4"; '
            'zstd -qdc "$3" | tar -x -C "$4"; cd "$4"; sha256sum --quiet -c "$5"; sync',
            self.at("server/ca.pem"), url, self.at(f"bare-{n}.zst"), self.at(f"bare-{n}"),
            self.at("sums"))))

    def origin(self):
        return json.load(open(self.at("data-0/repository.json")))["origin"]


def measure(rounds):
    updates = Updates()
    try:
        results = dict(check=updates.idle_check(), staging=updates.staging(rounds))
    finally:
        updates.server.terminate()
        updates.server.wait()
    store = updates.at("store")
    os.mkdir(store, 0o700)
    results["scan"] = measured("scan", store, program="tavro-measure-update")
    return results


def rows(results):
    return [("update check with nothing new: requests", results["check"]["requests"], 3),
            ("the same: files written", results["check"]["written"], 0),
            ("staging 200 MB: CPU time", results["staging"]["cpu"]["ratio"], 1.1),
            ("scan of a full download store", results["scan"]["ratio"], 3.0)]

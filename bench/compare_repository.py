"""Downloads and metadata over a real web server; bench/compare.py runs this."""
import os, shutil, statistics, subprocess

from rig import BIN, WORK, in_turn, measured, publish, shell, timed


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


def measure(rounds):
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


def rows(results):
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

"""A game over a real web server, beside the standard tools; bench/compare.py runs this."""
import glob, json, os, shutil, subprocess

import rig
from rig import BIN, WORK, in_turn, make_tree, publish, shell, timed

FILES = 3000
# What an install comes to by hand: fetched, proved, unpacked, on stable media.
STANDARD_INSTALL = """
curl -sS --fail --cacert "$1" -o "$3.zst" "$2"; sha256sum "$3.zst" >/dev/null
mkdir "$3"; zstd -qdc "$3.zst" | tar -x -C "$3"; sync -f "$3"; rm "$3.zst"
"""
# The way back: the other build is proved, and two names change places.
STANDARD_WAY_BACK = """
cd "$1"; sha256sum --quiet -c "$2"; cd ..
mv "$1" "$1.going"; mv "$1.going" "$1"; sync "$(dirname "$1")"
"""


class Games:
    """A repository with a game of that many bytes in two builds, and clients of it."""

    def __init__(self, name, size):
        self.at = lambda part: os.path.join(WORK, name, part)
        os.makedirs(self.at("game/files/bin"))
        shutil.copy("/bin/true", self.at("game/files/bin/play"))
        make_tree(self.at("game/files"), FILES, size // FILES)
        with open(self.at("game/game.json"), "w") as out:
            json.dump(dict(game_id="game", display_name="Game", executable="bin/play"), out)
        self.key = ("--key", self.at("key.pem"))
        self.repository = ("--repository", self.at("repository"))
        publish("keys", "new", "--out", self.at("key.pem"))
        publish("root", "new", *self.key, "--days", "9", "--out", self.at("root.json"))
        publish("repository", "new", *self.repository, *self.key, "--root", self.at("root.json"))
        self.release("1")
        self.server = subprocess.Popen(
            [f"{BIN}/tavro-serve", self.at("server"), self.at("repository/public")],
            stdout=subprocess.PIPE, text=True)
        self.origin = self.server.stdout.readline().strip()
        self.archive = self.archive_url()
        subprocess.run(shell('cd "$1" && find . -type f -exec sha256sum {} + >"$2"',
                             self.at("game/files"), self.at("sums")), check=True)

    def close(self):
        self.server.terminate()
        self.server.wait()

    def release(self, build):
        publish("release", "game", self.at("game"), "--build", build, "--out",
                self.at(f"release-{build}"), "--level", "3", *self.repository, *self.key)

    def archive_url(self):
        public = self.at("repository/public")
        found = glob.glob(f"{public}/tuf/targets/**/*.tar.zst", recursive=True)
        return f"{self.origin}/{os.path.relpath(found[0], public)}"

    def client(self, number):
        """A data folder that trusts the repository, and holds its metadata already."""
        data = self.at(f"data-{number}")
        subprocess.run([f"{BIN}/tavro-fetch", self.origin, self.at("server/ca.pem"),
                        self.at("root.json"), data], check=True)
        with open(os.path.join(data, "repository.json"), "w") as out:
            json.dump(dict(schema_version=1, origin=self.origin, ca_bundle=self.at("server/ca.pem")), out)
        os.sync()
        return data

    def games(self, number, *words):
        return [f"{BIN}/example-games", self.at(f"data-{number}"), *words, "game"]

    def install(self, number):
        self.client(number)
        return timed(self.games(number, "install"))

    def installs(self, rounds):
        return in_turn(
            rounds, self.install,
            lambda n: timed(shell(STANDARD_INSTALL, self.at("server/ca.pem"), self.archive,
                                  self.at(f"bare-{n}"))))

    def verification(self, rounds):
        return in_turn(rounds, lambda n: timed(self.games(1, "verify")),
                       lambda n: timed(shell('cd "$1"; sha256sum --quiet -c "$2"',
                                             self.at("bare-1"), self.at("sums"))))

    def ways_back(self, rounds):
        """Each goes to the other one of two builds."""
        with open(self.at("game/files/data/news"), "w") as out:
            out.write("a second build\n")
        self.release("2")
        timed(self.games(1, "install"))
        return in_turn(rounds, lambda n: timed(self.games(1, "back")),
                       lambda n: timed(shell(STANDARD_WAY_BACK, self.at("bare-1"),
                                             self.at("sums"))))


def measure(rounds):
    size = rig.game_bytes
    small = Games("small-game", size // 10)
    try:
        small_peak = small.install(0)["peak_kib"]
    finally:
        small.close()
    games = Games("game", size)
    try:
        return dict(megabytes=size / 1e6, install=games.installs(rounds),
                    verification=games.verification(rounds), back=games.ways_back(rounds),
                    small_peak_kib=small_peak)
    finally:
        games.close()


def rows(results):
    size = f"{results['megabytes']:.0f} MB"
    return [(f"game of {size} in {FILES} files: install, CPU time",
             results["install"]["cpu"]["ratio"], 0.75),
            ("the same: wall time", results["install"]["wall"]["ratio"], 0.9),
            ("verification of the game: wall time", results["verification"]["wall"]["ratio"], 0.55),
            ("roll back against a proof and two renames: wall time",
             results["back"]["wall"]["ratio"], 0.6),
            ("peak memory of the install against a tenth of it",
             results["install"]["peak_kib"] / results["small_peak_kib"], 1.2)]

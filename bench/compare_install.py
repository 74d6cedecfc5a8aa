"""Installs, starts and what they are made of; bench/compare.py runs this."""
import json, os, subprocess

from rig import BIN, WORK, change_record, in_turn, make_package, measured, shell, timed


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


def measure(rounds):
    small, large = make_package("small", 200, 100_000), make_package("large", 2000, 100_000)
    return dict(install=measure_install(large, rounds),
                small_install=measure_install(small, 1),
                verification=measure_verification(large, rounds),
                chain=measure_chain(), first_start=measure_first_start(large, rounds),
                child=measured("child", "500", "/usr/bin/true", program="tavro-measure-start"),
                games=measure_games(rounds),
                document=measured("atomic-document", os.path.join(WORK, "documents"), "200"),
                status=measured("commands", "200", large("install"), "status", "--data-dir",
                                large("data-1"), "--", "/bin/true"),
                manifests=[measured("manifest", str(n)) for n in (25000, 50000, 100000)])


def rows(results):
    # The decoder's window is 8 MiB for what our publisher packs at this level.
    table = [("install 200 MB, 2000 files: CPU time", results["install"]["cpu"]["ratio"], 0.7),
             ("install 200 MB, 2000 files: wall time", results["install"]["wall"]["ratio"], 0.9),
             ("verification of the tree: wall time", results["verification"]["wall"]["ratio"], 0.5),
             ("atomic document against bare calls", results["document"]["ratio"], 1.15),
             ("start by the bootstrap against two bare programs", results["chain"]["ratio"], 1.5),
             ("first start of 200 MB against reading it once",
              results["first_start"]["wall"]["ratio"], 1.0),
             ("start of a child against posix_spawn", results["child"]["ratio"], 2.0),
             ("status against an empty program", results["status"]["ratio"], 3.0),
             ("encrypted chunks against the loop of openssl speed",
              results["games"]["decryption"]["ratio"], 1 / 0.9),
             ("game manifest of 100000 files against its snapshot",
              results["games"]["manifest"]["ratio"], 1.3),
             ("peak memory of install, 200 MB (MiB)", results["install"]["peak_kib"] / 1024, 40),
             ("the same for 20 MB (MiB)", results["small_install"]["peak_kib"] / 1024, 40)]
    per_file = [row["ms"] / row["files"] for row in results["manifests"]]
    table.append(("manifest of 100000 files, time a file against 25000", per_file[-1] / per_file[0],
                  1.3))
    memory = [row["peak_kib_above_text"] / row["files"] for row in results["manifests"]]
    table.append(("manifest of 100000 files, memory a file against 25000", memory[-1] / memory[0],
                  1.3))
    return table

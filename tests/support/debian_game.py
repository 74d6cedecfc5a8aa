"""Real games out of the distribution's archive, as folders that need nothing of the machine.

Packages come from the source that apt is set up with on this machine, for any suite of it. Nothing is
installed: they are unpacked, and of them a game takes its program, its data, and every library down to
the loader, so that a build of a newer suite starts on an older one.
"""
import os, pathlib, re, shutil, subprocess

KEYS = "/usr/share/keyrings/debian-archive-keyring.gpg"
LOADER = "ld-linux-x86-64.so.2"
SUITES = ("bookworm", "trixie")
# Builds of one game in two suites: what to unpack, and what of it is the game's.
GAMES = {
    "freedoom": dict(
        name="Freedoom", megabytes=60, program={suite: "chocolate-doom" for suite in SUITES},
        packages={suite: ["chocolate-doom", "freedoom"] for suite in SUITES},
        data={suite: {"freedoom1.wad": "usr/share/games/doom/freedoom1.wad"} for suite in SUITES},
        words='-iwad data/freedoom1.wad -window -nogui -nosound -savedir "$TAVRO_GAME_SAVES"'
              ' -config "$TAVRO_GAME_STATE/main.cfg" -extraconfig "$TAVRO_GAME_STATE/more.cfg"'),
    "wesnoth": dict(
        name="Battle for Wesnoth", megabytes=400,
        program=dict(bookworm="wesnoth-1.16", trixie="wesnoth-1.18"),
        packages=dict(
            bookworm=["wesnoth-1.16-core", "wesnoth-1.16-data", "wesnoth-1.16-music"],
            trixie=["wesnoth-1.18", "wesnoth-1.18-data", "wesnoth-1.18-music"]),
        data=dict(bookworm={"wesnoth": "usr/share/games/wesnoth/1.16",
                            "fonts.conf": "etc/fonts/fonts.conf"},
                  trixie={"wesnoth": "usr/share/games/wesnoth/1.18",
                          "fonts.conf": "etc/fonts/fonts.conf"}),
        words='--data-dir data/wesnoth --userdata-dir "$TAVRO_GAME_SAVES" --nosound'),
}
# What a game finds is told by variables; it writes nowhere else.
STARTER = """#!/bin/sh
export HOME="$TAVRO_GAME_STATE" FONTCONFIG_FILE=data/fonts.conf
exec lib/{loader} --library-path lib bin/{program} {words} "$@"
"""


def configured_source():
    """Where apt fetches the distribution from."""
    listed = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(LABEL)|$(COMPONENT)|$(REPO_URI)",
         "Created-By: Packages"], check=True, capture_output=True, text=True).stdout
    for line in listed.splitlines():
        label, component, uri = line.split("|")
        if (label, component) == ("Debian", "main"):
            return uri
    raise SystemExit("apt knows no source of the distribution; run: apt-get update")


class Suite:
    """One suite's packages, unpacked below a folder that goes with everything else."""

    def __init__(self, name, work):
        self.work, self.root = pathlib.Path(work, name), pathlib.Path(work, name, "root")
        for folder in ("lists/partial", "archives/partial", "sources", "root"):
            os.makedirs(self.work / folder)
        (self.work / "status").touch()
        (self.work / "sources/suite.sources").write_text(
            f"Types: deb\nURIs: {configured_source()}\nSuites: {name}\nComponents: main\n"
            f"Signed-By: {KEYS}\n")
        self.apt("update")

    def apt(self, *words):
        """With lists and a state of its own: what is installed on this machine says nothing here."""
        settings = {"Dir::State::lists": "lists", "Dir::State::status": "status",
                    "Dir::Cache::archives": "archives", "Dir::Etc::sourceparts": "sources"}
        options = [f"-o{key}={self.work / value}" for key, value in settings.items()]
        options += ["-oDir::Etc::sourcelist=/dev/null", "-oDir::Cache::pkgcache=",
                    "-oDir::Cache::srcpkgcache=", "-oDebug::NoLocking=1", "-oAcquire::Languages=none",
                    "-oAPT::Sandbox::User="]
        ended = subprocess.run(["apt-get", "-qy", *options, *words], stdin=subprocess.DEVNULL,
                               capture_output=True, text=True)
        if ended.returncode != 0:
            raise SystemExit(f"apt-get {' '.join(words)}: {ended.stderr}")

    def unpack(self, packages):
        self.apt("install", "--download-only", "--no-install-recommends", *packages)
        for package in sorted((self.work / "archives").glob("*.deb")):
            subprocess.run(["dpkg-deb", "-x", package, self.root], check=True)
            package.unlink()
        # Links from the top lead into this root from now on.
        for path in list(self.root.rglob("*")):
            if path.is_symlink() and os.readlink(path).startswith("/"):
                place = os.path.relpath(f"{self.root}{os.readlink(path)}", path.parent)
                path.unlink()
                path.symlink_to(place)

    def libraries(self, program):
        """The loader, and every library that it finds for the program in this root alone."""
        loader = next(path.resolve() for path in self.root.rglob(LOADER))
        places = [path for path in self.root.rglob("*-linux-gnu*") if path.is_dir()]
        places += [place / "pulseaudio" for place in places]
        listed = subprocess.run(
            [loader, "--library-path", ":".join(map(str, places)), "--list", program], check=True,
            capture_output=True, text=True, env={}).stdout
        # The loader is listed by the absolute path that it has on a machine: only last names count.
        found = {os.path.basename(name): pathlib.Path(path)
                 for name, path in re.findall(r"^\s*(\S+) => (\S+)", listed, re.MULTILINE)}
        outside = [path for path in found.values() if not path.is_relative_to(self.root)]
        if outside:
            raise SystemExit(f"{program} needs what its packages do not bring: {outside}")
        return {**found, LOADER: loader}


def copy_new(source, folder, name, mode):
    """A file of the game, made anew: nothing that stands anywhere is ever written over."""
    if os.path.basename(name) != name:
        raise SystemExit(f"not the name of a file: {name}")
    with open(source, "rb") as old, open(folder / name, "xb") as new:
        shutil.copyfileobj(old, new)
    os.chmod(folder / name, mode)


def make_game(suite, game, folder):
    """A folder as the publisher packs it; links become what they lead to."""
    about, name = GAMES[game], suite.work.name
    suite.unpack(about["packages"][name])
    files = pathlib.Path(folder, "files")
    for place in ("bin", "lib", "data"):
        os.makedirs(files / place)
    program = suite.root / "usr/games" / about["program"][name]
    copy_new(program, files / "bin", program.name, 0o755)
    for library, path in suite.libraries(program).items():
        copy_new(path, files / "lib", library, 0o755 if library == LOADER else 0o644)
    for target, source in about["data"][name].items():
        subprocess.run(["cp", "-rL", suite.root / source, files / "data" / target], check=True)
    start = files / "start"
    start.write_text(STARTER.format(loader=LOADER, program=program.name, words=about["words"]))
    start.chmod(0o755)
    return dict(game_id=game, display_name=about["name"], executable="start")

"""A client in the richest state that its own programs bring it to, and the user around it."""
import concurrent.futures, json, os, shutil, signal, subprocess

PROGRAMS = ("tavro-publish", "tavro-install-sealed-at-start", "tavro-bootstrap", "example-launcher",
            "example-launcher-next", "ill-behaved-launcher")
# As long as anybody may have to wait for one command.
PATIENCE = 30
COLORS = dict(background="#14181f", panel="#1d232e", raised="#28303e", well="#14181f",
              border="#546073", text="#f0f3f7", muted="#aab5c4", accent="#2563c9",
              accent_hover="#2a68cf", accent_text="#ffffff", danger="#c4314b",
              danger_hover="#c4314b", danger_text="#ffffff", warning="#f0b429", success="#3fb37f",
              focus="#ffd24a", disabled="#303744", disabled_text="#7d8796", paper="#0d1117",
              ink="#f0f3f7", ink_muted="#aab5c4")


def write(path, content, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(content if isinstance(content, bytes) else content.encode())
    os.chmod(path, mode)


class Repository:
    """A served repository, and the package of its first release."""

    def __init__(self, programs, work):
        self.work, self.bin = work, f"{work}/bin"
        # Small, and where every user can reach them.
        os.mkdir(self.bin)
        for name in PROGRAMS:
            subprocess.run(["strip", "-o", f"{self.bin}/{name}", f"{programs}/{name}"], check=True)
        write(f"{work}/broken", "#!/bin/sh\nexit 1\n", 0o755)
        self.key = ("--key", f"{work}/key.pem")
        self.publish("keys", "new", "--out", f"{work}/key.pem")
        self.publish("root", "new", "--days", "9", "--out", f"{work}/root.json", *self.key)
        self.publish("repository", "new", "--repository", f"{work}/repository",
                     "--root", f"{work}/root.json", *self.key)
        self.add_launcher("1.0.0", f"{self.bin}/example-launcher")
        self.add_bootstrap("1.0.0", f"{self.bin}/tavro-bootstrap")
        self.server = subprocess.Popen(
            [f"{programs}/tavro-serve", f"{work}/server", f"{work}/repository/public"],
            stdout=subprocess.PIPE, text=True)
        self.seal = self.seal_package(self.server.stdout.readline().strip())

    def close(self):
        self.server.terminate()
        self.server.wait()

    def publish(self, *words):
        ended = subprocess.run([f"{self.bin}/tavro-publish", *words], stdin=subprocess.DEVNULL,
                               capture_output=True, text=True)
        if ended.returncode != 0:
            raise SystemExit(f"tavro-publish {' '.join(words)}: {ended.stderr}")
        return ended.stdout

    def add(self, release):
        self.publish("repository", "add", "--repository", f"{self.work}/repository",
                     "--release", release, *self.key)

    def add_launcher(self, build, console):
        tree, release = f"{self.work}/launcher-tree-{build}", f"{self.work}/launcher-{build}"
        write(f"{tree}/share/words/hello.txt", f"launcher {build}\n")
        os.mkdir(f"{tree}/bin")
        shutil.copy(console, f"{tree}/bin/console")
        for name in ("window", "helper"):
            shutil.copy(f"{self.bin}/ill-behaved-launcher", f"{tree}/bin/{name}")
        self.publish("launcher", "--folder", tree, "--build", build, "--out", release,
                     "--level", "1", "--cli", "bin/console", "--gui", "bin/window",
                     "--helper", "maintenance=bin/helper")
        self.add(release)

    def add_bootstrap(self, build, image):
        tree, release = f"{self.work}/bootstrap-tree-{build}", f"{self.work}/bootstrap-{build}"
        write(f"{tree}/share/NEWS", f"bootstrap {build}\n")
        os.mkdir(f"{tree}/bin")
        shutil.copy(image, f"{tree}/bin/tavro-bootstrap")
        self.publish("bootstrap", "--folder", tree, "--build", build, "--out", release)
        self.add(release)

    def seal_package(self, origin):
        work = self.work
        write(f"{work}/theme/theme.json", json.dumps(
            dict(schema_version=1, kind="tavro-theme", corners="square", colors=COLORS)))
        write(f"{work}/brand.ico", b"\0\0\1\0\1\0" + bytes(16))
        return json.loads(self.publish(
            "package", "--json", "--out", f"{work}/package", "--origin", origin,
            "--root", f"{work}/root.json", "--bootstrap", f"{work}/bootstrap-1.0.0",
            "--launcher", f"{work}/launcher-1.0.0", "--ca-bundle", f"{work}/server/ca.pem",
            "--brand-name", "Acme Play", "--brand-id", "acme", "--brand-publisher", "Acme",
            "--brand-icon", f"{work}/brand.ico", "--brand-theme", f"{work}/theme"))["seal"]


class Ending:
    """How a command ended: its status, negative for a signal, None when it was given up."""

    def __init__(self, name, words, status, said, errors):
        self.name, self.words, self.status, self.said, self.errors = name, words, status, said, errors

    def __str__(self):
        text = (self.errors + self.said).rstrip()
        return f"$ {' '.join(self.words)}\n  -> {self.status}  " + text.replace("\n", "\n     ")


class World:
    """A folder with all that one user has: a client, a menu, and what is the user's alone."""

    def __init__(self, repository, place, user):
        self.repository, self.place, self.user = repository, place, user
        self.data = f"{place}/world/data"

    def give(self, path):
        """To the user, with all that is in it."""
        if self.user is not None:
            subprocess.run(["chown", "-hR", f"{self.user}:{self.user}", path], check=True)

    def run(self, name, image, *words):
        who = dict(user=self.user, group=self.user, extra_groups=[]) if self.user is not None else {}
        around = f"{self.place}/world"
        variables = dict(HOME=f"{around}/home", XDG_DATA_HOME=f"{around}/share", PATH="/usr/bin:/bin",
                         TMPDIR=f"{around}/tmp", TAVRO_TEST_SEAL=self.repository.seal)
        words = [image, *words]
        try:
            program = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=subprocess.PIPE, cwd="/", env=variables,
                                       start_new_session=True, **who)
        except OSError as failure:
            return Ending(name, words, 127, "", f"a shell would say: {failure}")
        try:
            said, errors = program.communicate(timeout=PATIENCE)
            status = program.returncode
        except subprocess.TimeoutExpired:
            os.killpg(program.pid, signal.SIGKILL)
            said, errors = program.communicate()
            status = None
        return Ending(name, words, status, said.decode(errors="replace"),
                      errors.decode(errors="replace"))

    def installer(self, *words):
        return self.run(words[0], f"{self.repository.bin}/tavro-install-sealed-at-start", *words,
                        "--data-dir", self.data)

    def with_package(self, command):
        return self.installer(command, "--package", f"{self.repository.work}/package")

    def start(self, *words):
        return self.run("start" if words == ("self", "status") else " ".join(words),
                        f"{self.data}/native/bootstrap/bin/tavro-bootstrap", *words)

    def expect(self, ending):
        if ending.status != 0:
            raise SystemExit(f"the client could not be built: {ending}")


def make_foreign(place):
    """What is the user's alone, and what the links of a damaged folder lead to."""
    for name in ("home", "tmp", "foreign/folder/bin", "share/applications"):
        os.makedirs(f"{place}/world/{name}")
    write(f"{place}/world/beside.txt", "beside")
    write(f"{place}/world/share/applications/other.desktop", "[Desktop Entry]\n")
    write(f"{place}/world/foreign/file", "a letter\n")
    write(f"{place}/world/foreign/folder/letter.txt", "another\n")
    write(f"{place}/world/foreign/folder/bin/tool", "#!/bin/sh\nexit 0\n", 0o755)


def build_clients(repository, places):
    """A client in each place, given as (place, user): installed, started, with shortcuts, a rejected
    bootstrap, player data, and a launcher and a bootstrap that wait for the next start."""
    worlds = [World(repository, *place) for place in places]

    def install(world):
        make_foreign(world.place)
        world.give(world.place)
        world.expect(world.with_package("install"))
        world.expect(world.start("self", "status"))
        world.expect(world.installer("shortcut", "create", "--game", "space-game"))

    def reject_bootstrap(world):
        world.expect(world.start("self", "update"))
        world.expect(world.start("self", "status"))
        world.expect(world.start("--gui"))

    def await_update(world):
        world.expect(world.start("self", "update"))
        write(f"{world.data}/settings.json", '{"volume": 7}\n')
        write(f"{world.data}/userdata/space-game/save.dat", "chapter 9\n")
        for name in ("settings.json", "userdata"):
            world.give(f"{world.data}/{name}")
        os.rename(f"{world.place}/world", f"{world.place}/rich")

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(install, worlds))
        repository.add_bootstrap("1.1.0", f"{repository.work}/broken")
        list(pool.map(reject_bootstrap, worlds))
        repository.add_launcher("2.0.0", f"{repository.bin}/example-launcher-next")
        repository.add_bootstrap("1.2.0", f"{repository.bin}/tavro-bootstrap")
        list(pool.map(await_update, worlds))
    return worlds

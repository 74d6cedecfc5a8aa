"""A user's road through one state, and what is wrong with how it went."""
import os, subprocess

from damage_sweep.disk import content, opened, remove
from damage_sweep.judgement import Told, wrong_with
from damage_sweep.states import Damage

PLAYER = ("userdata", "settings.json")


class Road:
    """One state: its damage, the commands of a user, and the faults of the client in them."""

    def __init__(self, world, state, paths):
        self.world, self.state = world, state
        self.damaged = [(f"{world.data}/{paths[label]}" if label != "." else world.data, kind)
                        for label, kind in state]
        self.image_is_damaged = any(
            label == "." or f"{label}/".startswith("native/bootstrap/") or label == "native"
            for label, _ in state)
        self.left = list(self.damaged)  # what nobody has looked after by hand yet
        self.steps, self.faults, self.verdict = [], [], None
        self.damage = Damage(world)

    def walk(self):
        place = self.world.place
        remove(f"{place}/world")
        subprocess.run(["cp", "-a", "--reflink=auto", f"{place}/rich", f"{place}/world"], check=True)
        for path, kind in self.damaged:
            self.damage.do(path, kind)
        self.look()
        working = self.works()
        by_hand = self.until_done(self.mends)
        self.until_done(self.removes)
        self.verdict = ("fault" if self.faults else "hand" if by_hand else
                        "works" if working else "mended")
        return self

    def until_done(self, work):
        """Does by hand what messages tell, at most once for each object; true when that was needed."""
        for _ in range(len(self.damaged) + 1):
            failed = work()
            if failed is None:
                break
            if not self.left:
                self.fault(failed, "fails even after what was to be done by hand: " +
                           failed.errors.strip())
                break
            self.by_hand(failed)
        needed = len(self.left) < len(self.damaged)
        self.left = list(self.damaged)
        return needed

    def works(self):
        return all([self.step(self.world.installer("status")).status == 0,
                    self.step(self.world.start("self", "status")).status == 0])

    def mends(self):
        """Goes by what status says; gives the first step that fails from then on."""
        status = self.step(self.world.installer("status"))
        absent = status.status == 0 and "is not installed" in status.said
        for command in (lambda: self.world.with_package("install" if absent else "repair"),
                        lambda: self.world.installer("status"),
                        lambda: self.world.start("self", "status"),
                        lambda: self.world.start("self", "update")):
            ended = self.step(command())
            if ended.status != 0:
                return ended
        return None

    def removes(self):
        """Gives the uninstall when it fails."""
        if not os.path.lexists(self.world.data):
            return None
        ended = self.step(self.world.installer("uninstall"))
        if ended.status != 0:
            return ended
        if os.path.isdir(self.world.data):
            left = set(os.listdir(self.world.data)) - set(PLAYER)
            if left:
                self.fault(ended, f"leaves {', '.join(sorted(left))}")
        return None

    def by_hand(self, ended):
        """Does what the message of a failed step tells; a message that does not tell is a fault."""
        told = Told(ended, self.world.data)
        named = [each for each in self.left if told.concerns(each[0])]
        lack = told.lacks(bool(named))
        if lack:
            self.fault(ended, f"{lack}: {ended.errors.strip()}")
        if told.command:
            obeyed = self.step(self.world.installer("uninstall") if told.command == "uninstall"
                               else self.world.start(*told.command.split()))
            if obeyed.status != 0:
                return self.by_hand(obeyed)
            self.left = []
            return None
        if told.away:
            remove(told.away)
        for path, kind in named or self.left:
            self.damage.undo(path, kind)
        self.left = [each for each in self.left if each not in named] if named else []
        self.look()
        return None

    def step(self, ended):
        """Takes down how a command ended, and judges what holds for every command."""
        self.steps.append(ended)
        for what in wrong_with(ended, self.image_is_damaged):
            self.fault(ended, what)
        foreign, player = self.foreign, self.player
        self.look()
        for what, before, after in (("what is foreign", foreign, self.foreign),
                                    ("player data", player, self.player)):
            changed = {name for name in {*before, *after} if before.get(name) != after.get(name)}
            if changed:
                self.fault(ended, f"changes {what}: {', '.join(sorted(changed))}")
        return ended

    def fault(self, ended, what):
        self.faults.append((ended.name, what))

    def look(self):
        """At all that no command may change."""
        found = content(f"{self.world.place}/world", without=("data",))
        self.foreign = {name: held for name, held in found.items()
                        if not name.startswith("share/applications/tavro-")}
        with opened(self.world.data):
            self.player = {name: content(f"{self.world.data}/{name}") for name in PLAYER}

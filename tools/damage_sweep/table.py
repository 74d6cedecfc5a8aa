"""How the states of a sweep ended, as a table in Markdown."""
import collections

VERDICTS = ("works", "mended", "hand", "fault")
COLUMNS = ("damaged", "states", "work at once", "work after one repair", "told by hand", "faults")


def group_of(state):
    """The part of the folder that was damaged."""
    if len(state) > 1:
        return "two at once"
    top, _, below = state[0][0].partition("/")
    if top == ".":
        return "the folder itself"
    return f"`{top}/`" if below or top in ("native", "launcher", "trust", "userdata") else "other files"


def table(roads):
    """One row for each part of the folder and user, and their sums."""
    counts = collections.defaultdict(collections.Counter)
    for group, user, verdict in sorted(roads):
        for name in (f"{group}, {user}", "all"):
            counts[name][verdict] += 1
    counts["all"] = counts.pop("all", collections.Counter())  # as the last row
    rows = [COLUMNS, ["---"] + ["---:"] * (len(VERDICTS) + 1)]
    rows += [[name, sum(count.values()), *map(count.__getitem__, VERDICTS)]
             for name, count in counts.items()]
    return "\n".join("| " + " | ".join(map(str, row)) + " |" for row in rows)

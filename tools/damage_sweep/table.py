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


def row(*cells):
    return "| " + " | ".join(map(str, cells)) + " |"


def cells_of(counts):
    return sum(counts.values()), *(counts[verdict] for verdict in VERDICTS)


def table(roads):
    """One row for each part of the folder and user, and their sums."""
    rows, total = collections.defaultdict(collections.Counter), collections.Counter()
    for group, user, verdict in roads:
        rows[f"{group}, {user}"][verdict] += 1
        total[verdict] += 1
    lines = [row(*COLUMNS), row("---", *["---:"] * len(VERDICTS), "---:")]
    lines += [row(name, *cells_of(counts)) for name, counts in sorted(rows.items())]
    return "\n".join([*lines, row("all", *cells_of(total))])

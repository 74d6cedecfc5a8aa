"""The sweep: which states, in which worlds, and what is shown of them."""
import argparse, concurrent.futures, os, queue, random, tempfile, threading, time

from client_world import Repository, build_clients
from damage_sweep.disk import ORDINARY, remove
from damage_sweep.road import Road
from damage_sweep.states import all_states, chosen, objects, text_of
from damage_sweep.table import group_of, table


def read_options(description):
    parser = argparse.ArgumentParser(description=description.split("\n")[0])
    which = parser.add_mutually_exclusive_group(required=True)
    which.add_argument("--all", action="store_true", help="every state")
    which.add_argument("--singles", action="store_true", help="one damaged object at a time")
    which.add_argument("--sample", type=int, help="only so many states")
    which.add_argument("--only", action="append", metavar="STATE")
    parser.add_argument("--seed", type=int, default=random.randrange(10**6), help="of the sample")
    parser.add_argument("--user", choices=("root", "ordinary"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--list", action="store_true", help="list the states and run none")
    parser.add_argument("bin", metavar="BIN-FOLDER")
    return parser.parse_args()


def lanes(options):
    """The user of each world, None for the user of this process."""
    users = [None]
    if os.geteuid() == 0:
        users = {"root": [None], "ordinary": [ORDINARY]}.get(options.user, [None, ORDINARY])
    return users * max(1, options.jobs // len(users))


def name_of(user):
    return "root" if user is None and os.geteuid() == 0 else "ordinary"


def sweep(worlds, states, tell):
    """Every state in a world of each user; the worlds of one user share the work."""
    work = {user: queue.SimpleQueue() for user in {world.user for world in worlds}}
    for waiting in work.values():
        for state in states:
            waiting.put(state)

    def serve(world):
        paths = objects(f"{world.place}/rich/data")
        ended = []
        while True:
            try:
                state = work[world.user].get_nowait()
            except queue.Empty:
                return ended
            road = Road(world, state, paths).walk()
            tell(road)
            ended.append((group_of(state), name_of(world.user), road.verdict))

    with concurrent.futures.ThreadPoolExecutor(len(worlds)) as pool:
        return [road for roads in pool.map(serve, worlds) for road in roads]


def show(road, options):
    state, user = text_of(road.state), name_of(road.world.user)
    if options.only:
        print(f"== {state} as {user}: {road.verdict}", *road.steps, sep="\n")
    for step, what in road.faults:
        print(f"FAULT {state} as {user}: {step}: {what}")
    if road.faults:
        print(f"  tools/damage-sweep --user {user} --only '{state}' {options.bin}", flush=True)


def run(options, work):
    """Gives how each road ended; none where the states are only listed."""
    repository = Repository(os.path.abspath(options.bin), work)
    try:
        worlds = build_clients(repository, [(f"{work}/lane-{number}", user)
                                            for number, user in enumerate(lanes(options))])
        rich = f"{worlds[0].place}/rich/data"
        states = chosen(all_states(objects(rich), rich), options)
        if options.list:
            print(*map(text_of, states), sep="\n")
            return []
        print(f"{len(states)} states" + (f", seed {options.seed}" if options.sample else ""), flush=True)
        lock = threading.Lock()

        def tell(road):
            with lock:
                show(road, options)

        return sweep(worlds, states, tell)
    finally:
        repository.close()


def main(description):
    options, begun = read_options(description), time.monotonic()
    # Nothing here has to outlive a power cut.
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    work = tempfile.mkdtemp(prefix="tavro-damage-", dir=memory)
    os.chmod(work, 0o755)
    try:
        roads = run(options, work)
    finally:
        remove(work)
    if options.list:
        return 0
    print(table(roads))
    print(f"{time.monotonic() - begun:.0f} seconds")
    return 1 if any(verdict == "fault" for _, _, verdict in roads) else 0
